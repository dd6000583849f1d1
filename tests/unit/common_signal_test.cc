#include "common/tip_signal.h"

#include "tests/harness/death.h"

#include <csignal>
#include <gtest/gtest.h>

namespace
{

TEST(tip_signal, a_terminate_exits_at_once_with_status_zero)
{
    child_result_t child = run_in_child([] {
        tip_signal_init();
        raise(SIGTERM);
    });
    EXPECT_TRUE(WIFEXITED(child.status)) << child.status;
    EXPECT_EQ(WEXITSTATUS(child.status), 0);
    EXPECT_EQ(child.output, "");
}

TEST(tip_signal, abort_hangup_interrupt_and_quit_fail_an_assertion)
{
    for (int number : { SIGABRT, SIGHUP, SIGINT, SIGQUIT }) {
        SCOPED_TRACE(number);
        expect_assertion(
            [number] {
                tip_signal_init();
                raise(number);
            },
            "tip_signal:64: failed assertion `0'\n");
    }
}

TEST(tip_signal, other_signals_are_left_alone)
{
    child_result_t child = run_in_child([] {
        tip_signal_init();
        raise(SIGUSR2);
    });
    EXPECT_TRUE(WIFSIGNALED(child.status));
    EXPECT_EQ(WTERMSIG(child.status), SIGUSR2);
}

} // namespace
