// Chooses between writing a kernel setting, running the program directly and a shell, and does around a program what
// system(3) does with signals.
#include "common/tip_system.h"

#include "common/tip_assert.h"
#include "common/tip_handle.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <mutex>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace
{

constexpr char BLANKS[] = " \t";
constexpr char SHELL_SYNTAX[] = "|&;<>()$`\\\"'*?[]#~=%!{}^\n";
constexpr char SETTINGS_DIR[] = "/proc/sys/";
constexpr size_t SETTING_WORDS = 4; // echo VALUE > FILE
constexpr int FIRST_CLOSED_FD = 3;
constexpr int STATUS_NOT_RUN = 127 << 8; // as of a shell that ended with 127

// First words that mean something to a shell itself, in bash or in sh.
constexpr const char *shell_words[] = {
    ".",       ":",       "alias",   "bg",       "bind",      "break",    "builtin",  "caller",  "case",    "cd",
    "chdir",   "command", "compgen", "complete", "compopt",   "continue", "coproc",   "declare", "dirs",    "disown",
    "do",      "done",    "echo",    "elif",     "else",      "enable",   "esac",     "eval",    "exec",    "exit",
    "export",  "false",   "fc",      "fg",       "fi",        "for",      "function", "getopts", "hash",    "help",
    "history", "if",      "in",      "jobs",     "kill",      "let",      "local",    "logout",  "mapfile", "popd",
    "printf",  "pushd",   "pwd",     "read",     "readarray", "readonly", "return",   "select",  "set",     "shift",
    "shopt",   "source",  "suspend", "test",     "then",      "time",     "times",    "trap",    "true",    "type",
    "typeset", "ulimit",  "umask",   "unalias",  "unset",     "until",    "wait",     "while",
};

struct shell_t {
    const char *path;
    const char *name;
};

const shell_t &shell()
{
    static const shell_t found =
        access("/bin/bash", X_OK) == 0 ? shell_t{ "/bin/bash", "bash" } : shell_t{ "/bin/sh", "sh" };
    return found;
}

// The signal treatment of system(3). The dispositions of SIGINT and SIGQUIT belong to the process, so the first of
// several commands at a time puts them aside and the last puts them back.
class command_signals
{
public:
    command_signals()
    {
        enter();
        sigset_t blocked;
        sigemptyset(&blocked);
        sigaddset(&blocked, SIGCHLD);
        pthread_sigmask(SIG_BLOCK, &blocked, &caller_mask_);
    }
    command_signals(const command_signals &) = delete;
    command_signals &operator=(const command_signals &) = delete;
    ~command_signals()
    {
        leave();
        pthread_sigmask(SIG_SETMASK, &caller_mask_, nullptr);
    }

    [[nodiscard]] const sigset_t *caller_mask() const { return &caller_mask_; }

    // What the command must not inherit as ignored.
    [[nodiscard]] const sigset_t *defaults() const { return &defaults_; }

private:
    void enter()
    {
        std::lock_guard lock(mutex);
        if (users++ == 0) {
            struct sigaction ignore = {};
            ignore.sa_handler = SIG_IGN;
            sigaction(SIGINT, &ignore, &saved_int);
            sigaction(SIGQUIT, &ignore, &saved_quit);
        }
        sigemptyset(&defaults_);
        if (saved_int.sa_handler != SIG_IGN)
            sigaddset(&defaults_, SIGINT);
        if (saved_quit.sa_handler != SIG_IGN)
            sigaddset(&defaults_, SIGQUIT);
    }
    static void leave()
    {
        std::lock_guard lock(mutex);
        if (--users > 0)
            return;
        sigaction(SIGINT, &saved_int, nullptr);
        sigaction(SIGQUIT, &saved_quit, nullptr);
    }

    static inline std::mutex mutex;
    static inline int users;
    static inline struct sigaction saved_int;
    static inline struct sigaction saved_quit;

    sigset_t caller_mask_;
    sigset_t defaults_;
};

// posix_spawn's attributes and file actions for one command.
class spawn_settings
{
public:
    explicit spawn_settings(const command_signals &signals)
    {
        posix_spawnattr_init(&attributes_);
        posix_spawn_file_actions_init(&actions_);
        posix_spawnattr_setsigdefault(&attributes_, signals.defaults());
        posix_spawnattr_setsigmask(&attributes_, signals.caller_mask());
        posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
        posix_spawn_file_actions_addclosefrom_np(&actions_, FIRST_CLOSED_FD);
    }
    spawn_settings(const spawn_settings &) = delete;
    spawn_settings &operator=(const spawn_settings &) = delete;
    ~spawn_settings()
    {
        posix_spawn_file_actions_destroy(&actions_);
        posix_spawnattr_destroy(&attributes_);
    }

    // 0, or the error number that kept program from being run. A program without '/' is looked up in PATH.
    int spawn(pid_t *pid, const char *program, char *const *arguments) const
    {
        return posix_spawnp(pid, program, &actions_, &attributes_, arguments, environ);
    }

private:
    posix_spawnattr_t attributes_;
    posix_spawn_file_actions_t actions_;
};

bool is_shell_word(const char *word)
{
    return std::any_of(std::begin(shell_words), std::end(shell_words),
                       [word](const char *shell_word) { return strcmp(word, shell_word) == 0; });
}

// The words point into text.
std::vector<char *> split(std::string &text)
{
    std::vector<char *> words;
    char *rest = text.data();
    while (char *word = strtok_r(rest, BLANKS, &rest))
        words.push_back(word);
    return words;
}

bool is_plain(const char *text)
{
    return strpbrk(text, SHELL_SYNTAX) == nullptr;
}

// The words of a command that needs no shell, ended by a null; empty for one that does. Without a PATH the shells have
// their own idea where programs are.
std::vector<char *> plain_words(std::string &text)
{
    if (!is_plain(text.c_str()) || getenv("PATH") == nullptr)
        return {};
    std::vector<char *> words = split(text);
    if (words.empty() || is_shell_word(words[0]))
        return {};
    words.push_back(nullptr);
    return words;
}

// "echo VALUE > FILE" of a kernel setting, for which a shell would start only to write the value itself. False when the
// command is another one or the kernel refuses the value: the shell then tries again and tells the reason.
bool write_setting(const char *command)
{
    std::string text(command);
    std::vector<char *> words = split(text);
    if (words.size() != SETTING_WORDS || strcmp(words[0], "echo") != 0 || strcmp(words[2], ">") != 0 ||
        words[1][0] == '-' || !is_plain(words[1]) || !is_plain(words[3]) ||
        strncmp(words[3], SETTINGS_DIR, sizeof SETTINGS_DIR - 1) != 0)
        return false;
    unique_fd file(open(words[3], O_WRONLY | O_TRUNC | O_CLOEXEC));
    std::string line = std::string(words[1]) + "\n";
    return file.is_open() && write(file.get(), line.data(), line.size()) == static_cast<ssize_t>(line.size());
}

// Whether posix_spawn failed to make a process at all, rather than to run this program in it.
bool is_out_of_processes(int error)
{
    return error == EAGAIN || error == ENOMEM;
}

int spawn_by_shell(const spawn_settings &settings, const char *command, pid_t *pid)
{
    std::string text(command);
    std::string name(shell().name);
    char option[] = "-c";
    char *arguments[] = { name.data(), option, text.data(), nullptr };
    return settings.spawn(pid, shell().path, arguments);
}

// A program that cannot be run directly is left to the shell as well: it knows scripts without an interpreter line, and
// it tells the reason on standard error and in the exit status.
int spawn_command(const spawn_settings &settings, const char *command, pid_t *pid)
{
    std::string text(command);
    std::vector<char *> words = plain_words(text);
    if (!words.empty()) {
        int error = settings.spawn(pid, words[0], words.data());
        if (error == 0 || is_out_of_processes(error))
            return error;
    }
    return spawn_by_shell(settings, command, pid);
}

int wait_for(pid_t pid)
{
    int status;
    while (waitpid(pid, &status, 0) != pid)
        if (errno != EINTR)
            return -1;
    return status;
}

} // namespace

int tip_system(const char *command)
{
    tip_assert(command != nullptr);
    if (write_setting(command))
        return 0;
    command_signals signals;
    spawn_settings settings(signals);
    pid_t pid;
    int error = spawn_command(settings, command, &pid);
    if (error == 0)
        return wait_for(pid);
    if (!is_out_of_processes(error))
        return STATUS_NOT_RUN;
    errno = error;
    return -1;
}

bool tip_system_ok(int status)
{
    return status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}
