// The prompt on libedit. See terminal.h.
//
// The editor reads characters through our function, which waits for the terminal and for the agent at once, so that a
// message of the agent appears above the line being typed.
#include "agent/cli/terminal.h"

#include "agent/cli/complete.h"
#include "agent/cli/history.h"
#include "agent/cli/interrupt.h"
#include "agent/cli/terminal_keys.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <clocale>
#include <cwchar>
#include <histedit.h>
#include <memory>
#include <poll.h>
#include <unistd.h>

namespace
{

struct editor_freer {
    void operator()(EditLine *editor) const { el_end(editor); }
};
struct history_freer {
    void operator()(History *history) const { history_end(history); }
};

struct terminal_t {
    shell_t &shell;
    std::unique_ptr<EditLine, editor_freer> editor;
    std::unique_ptr<History, history_freer> history;
    std::string user;
    std::string host;
    std::string prompt;
    std::string history_file;
    bool is_lost = false;   // the agent
    bool has_ended = false; // the terminal
};

constexpr char BANNER_PATH[] = "/confd_dyncfg:confdConfig/cli/banner";

terminal_t &terminal_of(EditLine *editor)
{
    void *data = nullptr;
    el_get(editor, EL_CLIENTDATA, &data);
    return *static_cast<terminal_t *>(data);
}

void update_prompt(terminal_t &terminal)
{
    const shell_t &shell = terminal.shell;
    terminal.prompt = terminal.user + "@" + terminal.host;
    if (shell.mode == MODE_CONFIGURATION) {
        terminal.prompt += "(config";
        for (const std::string &word : shell.place.words)
            terminal.prompt += " " + pager_safe_text(cli_quote_word(word));
        terminal.prompt += ")# ";
    } else {
        terminal.prompt += "> ";
    }
}

char *give_prompt(EditLine *editor) noexcept
{
    return terminal_of(editor).prompt.data();
}

// A message of the system, above the line that is being typed or between lines of output.
void show_message(void *sink, std::string_view text) noexcept
{
    shell_t &shell = *static_cast<shell_t *>(sink);
    shell_clear_status(shell);
    fputs("\r\033[K", shell.out);
    while (!text.empty()) {
        size_t end = std::min(text.find('\n'), text.size());
        fprintf(shell.out, "%s\r\n", pager_safe_text(text.substr(0, end)).c_str());
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    fflush(shell.out);
}

// True when the terminal has something to read; false when the agent is gone.
bool wait_for_key(terminal_t &terminal, EditLine *editor)
{
    for (;;) {
        pollfd waited[] = { { STDIN_FILENO, POLLIN, 0 }, { terminal.shell.session.fd.get(), POLLIN, 0 } };
        if (poll(waited, 2, -1) < 0 && errno != EINTR)
            return false;
        if (waited[1].revents != 0) {
            cli_error_t error;
            if (!session_take_pushes(terminal.shell.session, error)) {
                fprintf(terminal.shell.out, "\r\n%s\r\n", error.text.c_str());
                terminal.is_lost = true;
                return false;
            }
            el_set(editor, EL_REFRESH);
        }
        if (waited[0].revents != 0)
            return true;
    }
}

// One character for the editor: 1, or 0 at the end of input. Bytes that are none are passed over: for the editor an error
// would be the end of the line.
int read_key(EditLine *editor, wchar_t *key) noexcept
{
    terminal_t &terminal = terminal_of(editor);
    mbstate_t state{};
    for (;;) {
        char byte;
        if (!wait_for_key(terminal, editor) || read(STDIN_FILENO, &byte, 1) != 1) {
            terminal.has_ended = true;
            return 0;
        }
        size_t used = mbrtowc(key, &byte, 1, &state);
        if (used <= 1)
            return 1;
        if (used == static_cast<size_t>(-1))
            state = {};
    }
}

std::vector<std::vector<std::string>> entries_of(void *data, const path_t &list) noexcept
{
    static constexpr uint32_t MOST = 200;
    shell_t &shell = *static_cast<shell_t *>(data);
    std::vector<std::vector<std::string>> entries;
    cli_error_t error;
    if (!session_instances(shell.session, list, MOST, entries, error))
        entries.clear(); // nothing to offer
    return entries;
}

std::vector<choice_t> words_of(void *data, const std::string &leaf, std::string_view typed, char key) noexcept
{
    shell_t &shell = *static_cast<shell_t *>(data);
    std::vector<choice_t> choices;
    cli_error_t error;
    if (!session_complete(shell.session, leaf, std::string(typed), key, choices, error))
        choices.clear(); // nothing to offer; the rule of the type is shown instead
    return choices;
}

completion_t complete_here(EditLine *editor, char key)
{
    shell_t &shell = terminal_of(editor).shell;
    const LineInfo *line = el_line(editor);
    std::string_view text(line->buffer, static_cast<size_t>(line->cursor - line->buffer));
    complete_source_t source = { &shell, entries_of, words_of };
    shell.wait = {};
    shell.wait.since = time(nullptr);
    return cli_complete(shell.schema, shell.mode, shell.place, source, text, key);
}

void list_choices(const terminal_t &terminal, const completion_t &completion)
{
    static constexpr size_t WIDEST = 28; // a longer choice takes its room from its own help
    pager_t pager(terminal.shell.screen);
    fputs("\r\n", terminal.shell.out);
    size_t width = 0;
    for (const choice_t &choice : completion.choices)
        width = std::max(width, std::min(cli_width(choice.text), WIDEST));
    for (const choice_t &choice : completion.choices) {
        std::string line = "  " + choice.text;
        if (!choice.help.empty())
            line += std::string(width + 2 - std::min(cli_width(choice.text), width), ' ') + choice.help;
        if (!pager.put(line))
            break;
    }
    if (completion.choices.empty())
        (void)pager.put("  " + (completion.problem.empty() ? "nothing more may follow" : completion.problem));
    fflush(terminal.shell.out);
}

// What Tab inserts: nothing where any value may stand and none of it was typed, as only the operator knows it.
std::string insertion(const completion_t &completion)
{
    size_t words = 0;
    bool has_any_value = false;
    for (const choice_t &choice : completion.choices) {
        words += !choice.is_placeholder;
        has_any_value = has_any_value || (choice.is_placeholder && choice.text.starts_with('<'));
    }
    if (has_any_value && completion.typed == 0)
        return "";
    return cli_common_prefix(completion.choices) + (words == 1 ? " " : "");
}

unsigned char on_tab(EditLine *editor, int) noexcept
{
    completion_t completion = complete_here(editor, '\t');
    std::string insert = insertion(completion);
    if (insert.size() > completion.typed) {
        el_deletestr(editor, static_cast<int>(completion.typed));
        return el_insertstr(editor, insert.c_str()) == 0 ? CC_REFRESH : CC_ERROR;
    }
    list_choices(terminal_of(editor), completion);
    return CC_REDISPLAY;
}

unsigned char on_question(EditLine *editor, int) noexcept
{
    const LineInfo *line = el_line(editor);
    if (cli_read_line({ line->buffer, static_cast<size_t>(line->cursor - line->buffer) }).is_in_quotes)
        return el_insertstr(editor, "?") == 0 ? CC_REFRESH : CC_ERROR;
    list_choices(terminal_of(editor), complete_here(editor, '?'));
    return CC_REDISPLAY;
}

void load_history(terminal_t &terminal)
{
    terminal.history_file = history_file();
    HistEvent event;
    history(terminal.history.get(), &event, H_SETSIZE, static_cast<int>(HISTORY_LINES));
    history(terminal.history.get(), &event, H_SETUNIQUE, 1);
    for (const std::string &line : history_load(terminal.history_file))
        history(terminal.history.get(), &event, H_ENTER, line.c_str());
}

// What the device's owner wants everybody to read who comes in.
void show_banner(shell_t &shell)
{
    std::string text;
    cli_error_t error;
    const lysc_node *node = nullptr;
    for (const char *name : { "confdConfig", "cli", "banner" })
        if (!(node = schema_find_child(shell.schema, node, name)))
            return; // the device has no such setting
    if (!session_get_text(shell.session, BANNER_PATH, text, error))
        return; // a lost connection is told by the next command
    while (!text.empty()) {
        size_t end = std::min(text.find('\n'), text.size());
        fprintf(shell.out, "%s\n", pager_safe_text(text.substr(0, end)).c_str());
        text.erase(0, end + 1);
    }
}

bool open_editor(terminal_t &terminal)
{
    terminal.editor.reset(el_init("cli", stdin, stdout, stderr));
    terminal.history.reset(history_init());
    if (!terminal.editor || !terminal.history)
        return false;
    EditLine *editor = terminal.editor.get();
    load_history(terminal);
    el_set(editor, EL_CLIENTDATA, &terminal);
    el_set(editor, EL_PROMPT, give_prompt);
    el_set(editor, EL_EDITOR, "emacs");
    el_set(editor, EL_SIGNAL, 1);
    el_set(editor, EL_HIST, history, terminal.history.get());
    el_set(editor, EL_GETCFN, read_key);
    // The wide form keeps these texts as they are; the other one keeps copies that it never frees.
    el_wset(editor, EL_ADDFN, L"cli-complete", L"complete the word", on_tab);
    el_wset(editor, EL_ADDFN, L"cli-help", L"what may stand here", on_question);
    el_set(editor, EL_BIND, "^I", "cli-complete", nullptr);
    el_set(editor, EL_BIND, "?", "cli-help", nullptr);
    // ^C gives up the line being typed, not the session with its changes.
    el_set(editor, EL_SETTY, "-d", "-isig", nullptr);
    el_set(editor, EL_BIND, "^C", "em-kill-line", nullptr);
    return true;
}

void show_error(const terminal_t &terminal, std::string_view line, const cli_error_t &error)
{
    FILE *out = terminal.shell.out;
    if (error.column != CLI_NO_COLUMN) {
        size_t width = cli_width(terminal.prompt) + cli_width(line.substr(0, error.column));
        fprintf(out, "%s^\n", std::string(width, ' ').c_str());
    }
    fprintf(out, "%s\n", pager_safe_text(error.text).c_str());
}

// The editor remembers every line for its correction, the file those that were run.
void run_line(terminal_t &terminal, const std::string &typed)
{
    std::string line = typed.substr(0, typed.find_last_not_of(" \t\r\n") + 1);
    if (line.empty())
        return;
    (void)interrupt_take(); // one that came too late for the command before
    std::string kept = shell_without_secrets(terminal.shell, line);
    cli_error_t error;
    bool ok = shell_run_line(terminal.shell, line, error, &kept);
    shell_clear_status(terminal.shell);
    if (!ok)
        show_error(terminal, line, error);
    else
        history_add(terminal.history_file, kept);
    terminal.is_lost = error.is_lost;
    HistEvent event;
    history(terminal.history.get(), &event, H_ENTER, kept.c_str());
}

} // namespace

int terminal_run(shell_t &shell, const std::string &user)
{
    char host[HOST_NAME_MAX + 1] = "";
    (void)gethostname(host, sizeof host - 1); // without a name the prompt has none
    (void)setlocale(LC_CTYPE, "");
    terminal_t terminal = { shell, nullptr, nullptr, user, host, "", "" };
    shell.session.on_message = show_message;
    shell.news = shell.out;
    shell.screen = terminal_screen();
    shell.ask_secret = terminal_ask_secret;
    if (!open_editor(terminal))
        return 2;
    show_banner(shell);
    while (!shell.wants_exit && !terminal.is_lost) {
        update_prompt(terminal);
        int size = 0;
        const char *line = el_gets(terminal.editor.get(), &size);
        if (terminal.has_ended)
            break;
        if (!line || size <= 0) { // ^D on an empty line
            fputs("\n", shell.out);
            line = "exit";
        }
        run_line(terminal, line);
    }
    return terminal.is_lost ? 2 : 0;
}
