// The shell's modes, and the running of files. See shell.h.
#include "agent/cli/shell.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <unistd.h>

namespace
{

struct file_closer {
    void operator()(FILE *file) const { fclose(file); }
};
using file_ptr = std::unique_ptr<FILE, file_closer>;

bool read_all(const std::string &name, std::string &text, cli_error_t &error)
{
    static constexpr size_t MOST = 16u << 20;
    file_ptr file(fopen(name.c_str(), "re"));
    if (!file)
        return cli_fail(error, name + ": " + strerror(errno));
    char chunk[65536];
    for (size_t n; (n = fread(chunk, 1, sizeof chunk, file.get())) > 0;) {
        text.append(chunk, n);
        if (text.size() > MOST)
            return cli_fail(error, name + ": the document is longer than " + std::to_string(MOST) + " bytes");
    }
    return !ferror(file.get()) || cli_fail(error, name + ": " + strerror(errno));
}

bool load_document(shell_t &shell, const std::string &name, cli_error_t &error)
{
    std::string text;
    if (!read_all(name, text, error))
        return false;
    if (session_load(shell.session, text, error))
        return true;
    error.text = name + ": " + error.text;
    return false;
}

shell_t &shell_of(void *sink)
{
    return *static_cast<shell_t *>(sink);
}

void note_progress(void *sink, std::string_view text) noexcept
{
    shell_of(sink).wait.progress = text;
}

// What keeps the operator waiting for more than a second: on a terminal one line that is written anew each second, else
// a line for each news.
void show_wait(void *sink) noexcept
{
    shell_t &shell = shell_of(sink);
    wait_t &wait = shell.wait;
    if (shell.screen.out) {
        std::string text = pager_safe_text(wait.progress);
        fprintf(shell.screen.out, "\r\033[K  %s%s%lld s", text.c_str(), text.empty() ? "" : ", ",
                static_cast<long long>(time(nullptr) - wait.since));
        fflush(shell.screen.out);
        wait.has_status_line = true;
    } else if (wait.progress != wait.shown) {
        fprintf(shell.news, "  %s\n", pager_safe_text(wait.progress).c_str());
        fflush(shell.news);
    }
    wait.shown = wait.progress;
}

// What an action prints comes as it is, but without commands for the terminal.
void show_output(void *sink, std::string_view text) noexcept
{
    shell_t &shell = shell_of(sink);
    shell_clear_status(shell);
    bool is_guarded = shell_is_terminal(shell);
    while (!text.empty()) {
        size_t end = std::min(text.find('\n'), text.size());
        std::string line(text.substr(0, end));
        fputs((is_guarded ? pager_safe_text(line) : line).c_str(), shell.out);
        if (end < text.size())
            fputc('\n', shell.out);
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    fflush(shell.out);
}

bool note_interrupt(void *sink) noexcept
{
    shell_t &shell = shell_of(sink);
    if (!shell.take_interrupt || !shell.take_interrupt())
        return false;
    shell.wait.was_interrupted = true;
    shell.wait.has_status_line = shell.screen.out; // the terminal has shown the key
    shell_clear_status(shell);
    if (shell.wait.interrupt_note) {
        fprintf(shell.news, "%s\n", shell.wait.interrupt_note);
        fflush(shell.news);
    }
    return true;
}

} // namespace

void shell_watch_session(shell_t &shell)
{
    shell.session.on_progress = note_progress;
    shell.session.on_output = show_output;
    shell.session.on_wait = show_wait;
    shell.session.is_interrupted = note_interrupt;
    shell.session.sink = &shell;
}

bool shell_is_terminal(const shell_t &shell)
{
    return shell.screen.out || isatty(fileno(shell.out));
}

void shell_clear_status(shell_t &shell)
{
    if (shell.wait.has_status_line)
        fputs("\r\033[K", shell.screen.out);
    shell.wait.has_status_line = false;
}

bool shell_is_interrupted(shell_t &shell, cli_error_t &error)
{
    if (!shell.wait.was_interrupted && !note_interrupt(&shell))
        return false;
    (void)cli_fail(error, "interrupted");
    return true;
}

namespace
{

// True when a parameter of this name, at any depth, is a secret.
bool is_secret_parameter(const schema_t &schema, const lysc_node *parent, const std::string &name)
{
    if (schema_is_secret(schema_find_child(schema, parent, name)))
        return true;
    std::vector<const lysc_node *> nodes = schema_children(schema, parent);
    return std::any_of(nodes.begin(), nodes.end(), [&](const lysc_node *node) {
        bool is_value = schema_is_leaf(node) || schema_is_leaf_list(node);
        return !is_value && is_secret_parameter(schema, node, name);
    });
}

// True when words[at] is the value of a secret: of the leaf that `set` or `delete` names, or of an action's parameter.
bool is_secret_value(const shell_t &shell, words_view words, size_t at)
{
    size_t name_words = 0;
    const command_t *command = shell_find_command(shell.schema, shell.mode, words, name_words);
    if (!command || at < name_words)
        return false;
    path_t path = shell.place;
    const lysc_node *action = nullptr;
    size_t used = 0;
    cli_error_t error;
    if (command->args == args_t::SETTING || command->args == args_t::DELETION)
        return path_walk(shell.schema, words.subspan(name_words), path, used, error) && schema_is_secret(path.node) &&
               at >= name_words + used;
    path = {};
    if (command->args != args_t::ACTION ||
        !path_walk_action(shell.schema, words.subspan(name_words), path, action, used, error) || !action)
        return false;
    return at > name_words + used && is_secret_parameter(shell.schema, schema_input(action), words[at - 1].text);
}

} // namespace

std::string shell_without_secrets(const shell_t &shell, const std::string &line)
{
    std::string text;
    bool has_secret = false;
    for (const std::vector<word_t> &words : cli_read_line(line).commands) {
        text += text.empty() ? "" : "; ";
        for (size_t i = 0; i < words.size(); i++) {
            bool is_secret = is_secret_value(shell, words, i);
            has_secret = has_secret || is_secret;
            if (!is_secret)
                text += (i ? " " : "") + cli_quote_word(words[i].text);
        }
    }
    return has_secret ? text : line;
}

bool shell_configure(shell_t &shell, cli_error_t &error)
{
    if (!session_begin(shell.session, error))
        return false;
    shell.mode = MODE_CONFIGURATION;
    shell.place = {};
    return true;
}

bool shell_count_changes(shell_t &shell, size_t &count, cli_error_t &error)
{
    std::vector<change_t> changes;
    if (shell.mode == MODE_CONFIGURATION && !session_compare(shell.session, changes, error))
        return false;
    count = changes.size();
    return true;
}

std::string shell_changes_are(size_t count)
{
    return count == 1 ? "1 change is" : std::to_string(count) + " changes are";
}

bool shell_run_file(shell_t &shell, const std::string &name, cli_error_t &error)
{
    static constexpr unsigned MOST_FILES = 8;
    if (shell.mode == MODE_OPERATIONAL && !shell_configure(shell, error))
        return false;
    if (name.ends_with(".xml"))
        return load_document(shell, name, error);
    if (shell.files_open == MOST_FILES)
        return cli_fail(error, name + ": " + std::to_string(MOST_FILES) +
                                   " files are open already; do they load each "
                                   "other?");
    file_ptr file(fopen(name.c_str(), "re"));
    if (!file)
        return cli_fail(error, name + ": " + strerror(errno));
    shell.files_open++;
    bool ok = shell_run_lines(shell, file.get(), name, error);
    shell.files_open--;
    return ok;
}

bool shell_run_lines(shell_t &shell, FILE *input, const std::string &name, cli_error_t &error)
{
    char *line = nullptr;
    size_t room = 0;
    size_t number = 0;
    bool ok = true;
    while (ok && !shell.wants_exit && getline(&line, &room, input) >= 0) {
        number++;
        ok = shell_run_line(shell, line, error) && !shell_is_interrupted(shell, error);
        fflush(shell.out); // who feeds the lines through a pipe may wait for what each has said
    }
    free(line);
    if (ok && ferror(input))
        return cli_fail(error, name + ": " + strerror(errno));
    if (!ok)
        error.text = shell_place_error(name, number, error);
    error.column = CLI_NO_COLUMN;
    return ok;
}

std::string shell_place_error(const std::string &name, size_t line, const cli_error_t &error)
{
    std::string place = name + ":" + std::to_string(line) + ":";
    if (error.column != CLI_NO_COLUMN)
        place += std::to_string(error.column + 1) + ":";
    return place + " " + error.text;
}
