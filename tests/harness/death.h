// Runs a piece of code in a child process and gives back what it printed and how it ended.
//
// A failed assertion prints to standard output and crashes on purpose (or, in sanitizer builds, ends with status 0);
// expect_assertion hides the difference.
#ifndef TESTS_HARNESS_DEATH_H
#define TESTS_HARNESS_DEATH_H

#include <cstdio>
#include <gtest/gtest.h>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

struct child_result_t {
    std::string output; // standard output and standard error
    int status = 0;     // as waitpid(2) gives it
};

template <typename Code> child_result_t run_in_child(Code code)
{
    child_result_t result;
    int ends[2];
    if (pipe(ends) != 0)
        return result;
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        rlimit no_core = { 0, 0 };
        setrlimit(RLIMIT_CORE, &no_core);
        dup2(ends[1], STDOUT_FILENO);
        dup2(ends[1], STDERR_FILENO);
        close(ends[0]);
        code();
        fflush(nullptr);
        _exit(77); // the code came back: no assertion failed
    }
    close(ends[1]);
    char chunk[4096];
    for (ssize_t n; (n = read(ends[0], chunk, sizeof chunk)) > 0;)
        result.output.append(chunk, static_cast<size_t>(n));
    close(ends[0]);
    waitpid(pid, &result.status, 0);
    return result;
}

// text is a part of the assertion line, such as "avl:12: failed assertion `x > 0'" or its condition alone.
template <typename Code> void expect_assertion(Code code, const std::string &text)
{
    child_result_t result = run_in_child(code);
    EXPECT_NE(result.output.find(text), std::string::npos) << "printed: " << result.output;
    EXPECT_FALSE(WIFEXITED(result.status) && WEXITSTATUS(result.status) == 77) << "the assertion did not fail";
}

#endif
