// The operator's cli on a terminal of its own, for tests that type and read as an operator does.
#ifndef TESTS_COMPONENT_CLI_TERMINAL_H
#define TESTS_COMPONENT_CLI_TERMINAL_H

#include <csignal>
#include <cstdlib>
#include <poll.h>
#include <pty.h>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

class cli_terminal
{
public:
    // home is where the program keeps its history.
    cli_terminal(std::vector<std::string> words, const std::string &home, unsigned short rows = 24)
    {
        winsize window = { rows, 100, 0, 0 };
        pid_ = forkpty(&fd_, nullptr, nullptr, &window);
        if (pid_ != 0)
            return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        setenv("HOME", home.c_str(), 1);
        setenv("TERM", "vt100", 1);
        std::vector<char *> argv;
        for (std::string &word : words)
            argv.push_back(word.data());
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    cli_terminal(const cli_terminal &) = delete;
    cli_terminal &operator=(const cli_terminal &) = delete;
    ~cli_terminal()
    {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        close(fd_);
    }

    // Types the text, and waits until what follows is seen; what was seen before does not count.
    bool type(const std::string &text, const std::string &expected)
    {
        if (write(fd_, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
            return false;
        return expect(expected);
    }
    // Waits at most ten seconds for the text behind the place that the last one was found at.
    bool expect(const std::string &text)
    {
        for (;;) {
            size_t found = seen.find(text, at_);
            if (found != seen.npos) {
                at_ = found + text.size();
                return true;
            }
            pollfd waited = { fd_, POLLIN, 0 };
            char chunk[4096];
            ssize_t got = poll(&waited, 1, 10000) == 1 ? read(fd_, chunk, sizeof chunk) : -1;
            if (got <= 0)
                return false;
            seen.append(chunk, static_cast<size_t>(got));
        }
    }
    std::string seen; // all that the terminal has got

private:
    int fd_ = -1;
    pid_t pid_ = -1;
    size_t at_ = 0;
};

#endif
