// What the operator's command line reads: first byte 0 a document of the agent, 1 a path of the agent, else lines of
// commands, which are completed at several places, kept for the history and run without an agent.
#include "agent/cli/complete.h"
#include "agent/cli/json_read.h"
#include "agent/cli/shell.h"

#include <cstdlib>

static shell_t &test_shell()
{
    static shell_t shell;
    if (!shell.schema.ctx) {
        cli_error_t error;
        if (!schema_load(TEST_YANG_DIR, YANG_LIBRARY_DIR, shell.schema, error))
            abort();
        shell.out = fopen("/dev/null", "we");
        shell.news = shell.out;
        shell.peer.address = "nowhere"; // no command reaches an agent
    }
    return shell;
}

// Words keep their text when they are quoted and read again.
static void try_quoting(const line_t &line)
{
    for (const std::vector<word_t> &words : line.commands)
        for (const word_t &word : words) {
            line_t again = cli_read_line(cli_quote_word(word.text));
            if (again.commands.size() != 1 || again.commands[0].size() != 1 || again.commands[0][0].text != word.text)
                abort();
        }
}

static void try_completion(const shell_t &shell, std::string_view line)
{
    static constexpr size_t PLACES = 12;
    size_t step = line.size() / PLACES + 1;
    for (size_t end = 0; end <= line.size(); end += step) {
        completion_t completion =
            cli_complete(shell.schema, shell.mode, shell.place, {}, line.substr(0, end), end / step % 2 ? '\t' : '?');
        if (completion.typed > end)
            abort();
        (void)cli_common_prefix(completion.choices);
    }
}

// Files are the only thing that a command reads by itself.
static bool reads_file(const line_t &line)
{
    for (const std::vector<word_t> &words : line.commands)
        if (words.front().text == "load")
            return true;
    return false;
}

static void try_lines(std::string_view text)
{
    static constexpr size_t LONGEST = 200;
    shell_t &shell = test_shell();
    while (!text.empty()) {
        size_t end = std::min(text.find('\n'), text.size());
        std::string line(text.substr(0, std::min(end, LONGEST)));
        text.remove_prefix(std::min(end + 1, text.size()));
        line_t read = cli_read_line(line);
        try_quoting(read);
        for (shell_mode_t mode : { MODE_OPERATIONAL, MODE_CONFIGURATION }) {
            shell.mode = mode;
            try_completion(shell, line);
            (void)shell_without_secrets(shell, line);
            cli_error_t error;
            if (!reads_file(read) && !shell_run_line(shell, line, error) && error.text.empty())
                abort();
        }
    }
    shell.place = {};
    shell.wants_exit = false;
}

// A document that is read can be shown in every form.
static void try_document(std::string_view document)
{
    const schema_t &schema = test_shell().schema;
    for (const schema_t *known : { &schema, static_cast<const schema_t *>(nullptr) }) {
        std::vector<item_t> items;
        cli_error_t error;
        std::vector<const lysc_node *> nodes = known ? schema.roots : std::vector<const lysc_node *>{};
        if (!json_read_items({ known, nodes }, document, items, error))
            continue;
        for (format_t format : { format_t::TREE, format_t::TABLE, format_t::SET, format_t::JSON, format_t::XML }) {
            std::vector<std::string> lines;
            output_t output(lines);
            renderer_t renderer = render_make(schema, output, { format, 40, 0 });
            for (const item_t &item : items)
                (void)renderer.take(item); // the lines keep all that comes
            (void)renderer.end();
            output.end();
        }
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string_view input(reinterpret_cast<const char *>(data), size);
    if (input.empty())
        return 0;
    if (input[0] == 0)
        try_document(input.substr(1));
    else if (input[0] == 1)
        (void)path_words_in(std::string(input.substr(1)));
    else
        try_lines(input);
    return 0;
}
