// cli: the operator's command line.
//
//   cli [OPTION]...            at a terminal: a prompt; else the commands of standard input
//   cli [OPTION]... -c COMMAND [-c COMMAND]...
//   cli [OPTION]... FILE...    configuration files: commands of configuration mode, or an .xml document each
//
// Ends with 0, with 1 when a command was refused (the first such ends the run), with 2 when the agent cannot be reached
// or the invocation is wrong. What is configured and not committed at the end is an error too, unless --commit.
#include "agent/cli/interrupt.h"
#include "agent/cli/shell.h"
#include "agent/cli/terminal.h"

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <memory>
#include <pwd.h>
#include <unistd.h>

namespace
{

constexpr char USAGE[] = "usage: cli [OPTION]... [-c COMMAND]... [FILE]...\n"
                         "  -c, --command COMMAND  run COMMAND, or several joined by ';'\n"
                         "      --commit           commit what the files leave uncommitted\n"
                         "  -a, --address ADDRESS  the agent's IPv4 address (127.0.0.1)\n"
                         "  -p, --port PORT        the agent's port (4565)\n"
                         "  -u, --user NAME        the user of the session (you)\n"
                         "      --yang DIR         folder of the data models\n"
                         "  -h, --help             this text\n";

struct options_t {
    session_peer_t peer;
    std::string yang;
    std::vector<std::string> commands;
    std::vector<std::string> files;
    bool with_commit = false;
    bool wants_help = false;
};

enum {
    OPTION_COMMIT = 256,
    OPTION_YANG
};

constexpr option LONG_OPTIONS[] = {
    { "command", required_argument, nullptr, 'c' }, { "commit", no_argument, nullptr, OPTION_COMMIT },
    { "address", required_argument, nullptr, 'a' }, { "port", required_argument, nullptr, 'p' },
    { "user", required_argument, nullptr, 'u' },    { "yang", required_argument, nullptr, OPTION_YANG },
    { "help", no_argument, nullptr, 'h' },          { nullptr, 0, nullptr, 0 },
};

bool parse_port(const char *text, uint16_t &port)
{
    const char *end = text + strlen(text);
    auto [stop, rc] = std::from_chars(text, end, port);
    return rc == std::errc() && stop == end && port != 0;
}

std::string environment(const char *name)
{
    const char *value = getenv(name);
    return value ? value : "";
}

std::string user_name()
{
    if (std::string name = environment("USER"); !name.empty())
        return name;
    const passwd *entry = getpwuid(getuid());
    return entry ? entry->pw_name : std::to_string(getuid());
}

// The agent's shared secret, when the file that holds it is named and readable.
std::string access_secret()
{
    std::string name = environment("CONFD_IPC_ACCESS_FILE");
    std::unique_ptr<FILE, int (*)(FILE *)> file(name.empty() ? nullptr : fopen(name.c_str(), "re"), fclose);
    char secret[1024] = "";
    size_t size = file ? fread(secret, 1, sizeof secret, file.get()) : 0;
    std::string_view text(secret, size);
    return std::string(text.substr(0, text.find_first_of("\r\n")));
}

bool parse_options(int argc, char **argv, options_t &options)
{
    for (int c; (c = getopt_long(argc, argv, "c:a:p:u:h", LONG_OPTIONS, nullptr)) != -1;) {
        switch (c) {
        case 'c':
            options.commands.emplace_back(optarg);
            break;
        case 'a':
            options.peer.address = optarg;
            break;
        case 'u':
            options.peer.user = optarg;
            break;
        case OPTION_COMMIT:
            options.with_commit = true;
            break;
        case OPTION_YANG:
            options.yang = optarg;
            break;
        case 'h':
            options.wants_help = true;
            break;
        case 'p':
            if (!parse_port(optarg, options.peer.port))
                return false;
            break;
        default:
            return false;
        }
    }
    options.files.assign(argv + optind, argv + argc);
    return true;
}

void fill_defaults(options_t &options)
{
    if (options.peer.user.empty())
        options.peer.user = user_name();
    if (options.yang.empty())
        options.yang = environment("AGENT_YANG_DIR");
    if (options.yang.empty())
        options.yang = CLI_YANG_DIR;
    options.peer.secret = access_secret();
}

bool run_commands(shell_t &shell, const std::vector<std::string> &commands, cli_error_t &error)
{
    for (size_t i = 0; i < commands.size(); i++)
        if (!shell_run_line(shell, commands[i], error)) {
            error.text = shell_place_error("command", i + 1, error);
            return false;
        }
    return true;
}

bool run_files(shell_t &shell, const std::vector<std::string> &files, cli_error_t &error)
{
    for (const std::string &name : files) {
        shell.place = {};
        if (!shell_run_file(shell, name, error))
            return false;
    }
    return true;
}

bool settle_changes(shell_t &shell, bool with_commit, cli_error_t &error)
{
    size_t count = 0;
    if (!shell_count_changes(shell, count, error))
        return false;
    if (count == 0)
        return true;
    if (with_commit)
        return shell_run_line(shell, "commit", error);
    return cli_fail(error,
                    "ends without 'commit': " + shell_changes_are(count) + " not in force (--commit commits them)");
}

bool run_batch(shell_t &shell, const options_t &options, cli_error_t &error)
{
    if (!run_commands(shell, options.commands, error) || !run_files(shell, options.files, error))
        return false;
    if (options.commands.empty() && options.files.empty() && !shell_run_lines(shell, stdin, "stdin", error))
        return false;
    return settle_changes(shell, options.with_commit, error);
}

} // namespace

int main(int argc, char **argv)
{
    options_t options;
    bool ok = parse_options(argc, argv, options);
    if (!ok || options.wants_help) {
        fputs(USAGE, ok ? stdout : stderr);
        return ok ? 0 : 2;
    }
    fill_defaults(options);
    shell_t shell;
    shell.peer = options.peer;
    shell_watch_session(shell);
    interrupt_watch();
    shell.take_interrupt = interrupt_take;
    cli_error_t error;
    if (!schema_load(options.yang, CLI_YANG_LIBRARY_DIR, shell.schema, error) ||
        !session_open(shell.session, options.peer, error)) {
        fprintf(stderr, "cli: %s\n", error.text.c_str());
        return 2;
    }
    bool is_batch = !options.commands.empty() || !options.files.empty() || !isatty(STDIN_FILENO);
    if (!is_batch)
        return terminal_run(shell, options.peer.user);
    if (run_batch(shell, options, error))
        return 0;
    fflush(shell.out);
    std::string text = isatty(STDERR_FILENO) ? pager_safe_text(error.text) : error.text;
    fprintf(stderr, "cli: %s\n", text.c_str());
    return error.is_lost ? 2 : 1;
}
