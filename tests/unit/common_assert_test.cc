// How the process ends when something that should not happen does.
#include "common/tip_assert.h"

#include "tests/harness/death.h"

#include <csignal>
#include <cstdlib>

namespace
{

TEST(tip_assert, the_line_names_source_line_and_condition)
{
    struct row_t {
        const char *source;
        const char *printed;
    };
    const row_t rows[] = {
        { "avl.cc", "avl:12: failed assertion `x > 0'\n" },
        { "timer", "timer:12: failed assertion `x > 0'\n" },
        { "timer.h", "timer.h:12: failed assertion `x > 0'\n" },
    };
    for (const row_t &row : rows) {
        child_result_t child = run_in_child([&] { tip_assert_fail(row.source, 12, "x > 0"); });
        EXPECT_EQ(child.output, row.printed);
    }
    std::string here = run_in_child([] { tip_assert(1 + 1 == 3); }).output;
    EXPECT_EQ(here.rfind("common_assert_test:", 0), 0U) << here;
    EXPECT_NE(here.find(": failed assertion `1 + 1 == 3'\n"), std::string::npos) << here;
}

TEST(tip_assert, a_true_condition_is_evaluated_once_and_ends_nothing)
{
    int count = 0;
    tip_assert(++count == 1);
    tip_assert_text_at("elsewhere", 1, ++count == 2, "0");
    EXPECT_EQ(count, 2);
}

#ifndef __SANITIZE_ADDRESS__
TEST(tip_assert, an_assertion_and_an_abort_crash_alike)
{
    child_result_t failed = run_in_child([] { tip_assert_fail("x", 1, "0"); });
    ASSERT_TRUE(WIFSIGNALED(failed.status)) << failed.status;
    EXPECT_EQ(WTERMSIG(failed.status), SIGSEGV);
    child_result_t aborted = run_in_child([] { abort(); });
    ASSERT_TRUE(WIFSIGNALED(aborted.status)) << aborted.status;
    EXPECT_EQ(WTERMSIG(aborted.status), SIGSEGV);
    EXPECT_NE(aborted.output.find(": failed aborted \n"), std::string::npos) << aborted.output;
}
#endif

} // namespace
