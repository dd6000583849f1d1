// The timer wheels, driven by a clock that stands still unless told to move.
#include "common/timer.h"

#include "tests/harness/death.h"

#include <algorithm>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <syslog.h>
#include <vector>

namespace
{

timespec fake_time;

void fake_clock(timespec *now)
{
    *now = fake_time;
}

void advance_ms(int64_t ms)
{
    int64_t nsec = fake_time.tv_nsec + ms % 1000 * 1000000;
    fake_time.tv_sec += ms / 1000 + nsec / 1000000000;
    fake_time.tv_nsec = nsec % 1000000000;
}

using action_t = std::function<void(timer_util_t *)>;

void run_action(timer_util_t *timer, void *arg1, void *, void *, void *)
{
    (*static_cast<action_t *>(arg1))(timer);
}

struct wheel_test : testing::Test {
    static constexpr int64_t TICK_MS = 10;
    static constexpr uint32_t AMPLE_MS = 1000000;

    wheel_test() : wheel_test(TIMER_MASK_ALL) {}
    explicit wheel_test(uint32_t mask)
    {
        fake_time = { 100, 999999000 };
        timer_clock_set(fake_clock);
        mgr = timer_mgr_create(TIMER_RES_10MS, nullptr, nullptr, nullptr, mask);
    }
    ~wheel_test() override
    {
        for (timer_util_t *timer : timers) {
            if (timer != nullptr)
                timer_util_delete(timer);
        }
        timer_mgr_delete(mgr);
        timer_clock_set(nullptr);
    }

    timer_util_t *make(const char *name, uint32_t ticks, action_t action = {}, uint8_t type = TIMER_ONE_SHOT,
                       uint8_t priority = TIMER_PRIO_NORMAL)
    {
        actions.push_back(std::make_unique<action_t>([this, action](timer_util_t *timer) {
            fired.emplace_back(timer->name);
            if (action)
                action(timer);
        }));
        timers.push_back(timer_util_create(mgr, priority, type, ticks * TICK_MS, run_action, actions.back().get(),
                                           nullptr, nullptr, nullptr, name));
        return timers.back();
    }
    timer_util_t *start(const char *name, uint32_t ticks, action_t action = {}, uint8_t type = TIMER_ONE_SHOT,
                        uint8_t priority = TIMER_PRIO_NORMAL)
    {
        timer_util_t *timer = make(name, ticks, std::move(action), type, priority);
        timer_enable(timer);
        return timer;
    }
    void drop(timer_util_t *timer)
    {
        *std::find(timers.begin(), timers.end(), timer) = nullptr;
        timer_util_delete(timer);
    }
    // What fires when the clock jumps by so many ticks.
    std::vector<std::string> pass(int64_t ticks)
    {
        fired.clear();
        advance_ms(ticks * TICK_MS);
        EXPECT_EQ(timer_run(mgr, TIMER_MASK_ALL, AMPLE_MS), TIMER_OK);
        return fired;
    }

    timer_mgr_t *mgr;
    std::vector<timer_util_t *> timers;
    std::vector<std::unique_ptr<action_t>> actions;
    std::vector<std::string> fired;
};

using names = std::vector<std::string>;

TEST_F(wheel_test, a_timer_fires_exactly_at_its_tick_in_whatever_turn)
{
    std::map<uint64_t, names> expected;
    for (uint32_t ticks : { 1U, 2U, 2047U, 2048U, 2049U, 4095U, 4096U, 6144U, 20480U }) {
        std::string name = "t" + std::to_string(ticks);
        start(name.c_str(), ticks);
        expected[ticks].push_back(name);
    }
    for (uint64_t tick = 1; tick <= 21000; tick++)
        ASSERT_EQ(pass(1), expected[tick]) << "tick " << tick;
    EXPECT_EQ(mgr->nactive, 0U);
    EXPECT_EQ(mgr->nfired, 9U);
}

TEST_F(wheel_test, a_long_gap_is_made_up_in_order)
{
    start("last", 6144);
    start("second", 2048);
    start("first", 7);
    EXPECT_EQ(pass(6143), (names{ "first", "second" }));
    EXPECT_EQ(pass(1), (names{ "last" }));
}

TEST_F(wheel_test, a_cyclic_timer_of_a_whole_turn_fires_once_a_turn)
{
    start("turn", TIMER_NUM_BUCKETS, {}, TIMER_CYCLIC);
    for (int turn = 0; turn < 3; turn++) {
        EXPECT_EQ(pass(TIMER_NUM_BUCKETS - 1), names{});
        EXPECT_EQ(pass(1), names{ "turn" });
    }
}

TEST_F(wheel_test, a_late_cyclic_timer_fires_as_often_as_missed_and_does_not_drift)
{
    timer_util_t *timer = start("beat", 3, {}, TIMER_CYCLIC);
    EXPECT_EQ(pass(10), (names{ "beat", "beat", "beat" }));
    EXPECT_EQ(timer_remaining_ticks(timer), 2);
    EXPECT_EQ(pass(1), names{});
    EXPECT_EQ(pass(1), names{ "beat" });
}

TEST_F(wheel_test, intervals_are_rounded_to_ticks_and_zero_is_one_tick)
{
    static constexpr struct {
        uint32_t ms;
        int64_t created_ticks;
        int64_t fires_at;
    } rows[] = { { 0, 0, 1 }, { 4, 0, 1 }, { 5, 1, 1 }, { 14, 1, 1 }, { 15, 2, 2 }, { 1000, 100, 100 } };
    for (auto &row : rows) {
        timer_util_t *timer = make("t", 0);
        timer_set_interval(timer, row.ms);
        EXPECT_EQ(timer_interval_ticks(timer), row.created_ticks) << row.ms;
        timer_enable(timer);
        EXPECT_EQ(timer_remaining_ticks(timer), row.fires_at) << row.ms;
        EXPECT_EQ(pass(row.fires_at - 1), names{}) << row.ms;
        EXPECT_EQ(pass(1), names{ "t" }) << row.ms;
    }
}

TEST_F(wheel_test, the_clock_is_followed_without_loss_over_gaps_of_any_length)
{
    int64_t total_ms = 0;
    for (int64_t ms : { 9LL, 1LL, 995LL, 15LL, 3600'000LL, 4LL, 999LL, 5'000'000'000LL, 1LL, 7LL, 30LL, 999'999LL }) {
        advance_ms(ms);
        total_ms += ms;
        mgr->wheel[TIMER_PRIO_NORMAL]->next_bucket_ticks = static_cast<uint64_t>(total_ms / TICK_MS); // no empty ticks
        mgr->wheel[TIMER_PRIO_HIGH]->next_bucket_ticks = static_cast<uint64_t>(total_ms / TICK_MS);
        EXPECT_EQ(timer_run(mgr, TIMER_MASK_ALL, AMPLE_MS), TIMER_OK);
        EXPECT_EQ(mgr->cur_ticks, static_cast<uint64_t>(total_ms / TICK_MS));
    }
}

TEST_F(wheel_test, enabling_a_running_timer_neither_restarts_nor_extends_it)
{
    timer_util_t *timer = start("t", 5);
    EXPECT_EQ(pass(3), names{});
    timer_enable(timer);
    EXPECT_EQ(timer_remaining_ticks(timer), 2);
    EXPECT_EQ(mgr->nactive, 1U);
    EXPECT_EQ(pass(2), names{ "t" });
    EXPECT_FALSE(timer_is_running(timer));
}

TEST_F(wheel_test, setting_the_interval_restarts_only_a_running_timer)
{
    timer_util_t *timer = make("t", 5);
    timer_set_interval(timer, 4 * TICK_MS);
    EXPECT_FALSE(timer_is_running(timer));
    timer_restart(timer, 8 * TICK_MS);
    EXPECT_EQ(pass(6), names{});
    timer_set_interval(timer, 4 * TICK_MS);
    EXPECT_EQ(pass(3), names{});
    EXPECT_EQ(pass(1), names{ "t" });
    EXPECT_EQ(timer_interval_ms(timer), 4 * TICK_MS);
}

TEST_F(wheel_test, a_timer_enabled_while_the_wheel_lags_counts_from_the_clock)
{
    advance_ms(100 * TICK_MS);
    start("t", 1);
    EXPECT_EQ(pass(0), names{});
    EXPECT_EQ(pass(1), names{ "t" });
}

TEST_F(wheel_test, a_callback_may_delete_any_timer_of_its_bucket)
{
    timer_util_t *later = nullptr;
    start(
        "killer", 2,
        [&](timer_util_t *self) {
            drop(later);
            drop(self);
        },
        TIMER_CYCLIC);
    later = start("victim", 2);
    start("other", 2);
    EXPECT_EQ(pass(2), (names{ "killer", "other" }));
    EXPECT_EQ(pass(10), names{});
    EXPECT_EQ(mgr->ndeleted, 2U);
}

TEST_F(wheel_test, a_callback_may_rearm_its_timer_and_stop_a_cyclic_one)
{
    start("again", 2, [](timer_util_t *self) { timer_restart(self, 3 * TICK_MS); });
    timer_util_t *cyclic = start(
        "stop", 2, [](timer_util_t *self) { timer_disable(self); }, TIMER_CYCLIC);
    EXPECT_EQ(pass(2), (names{ "again", "stop" }));
    EXPECT_FALSE(timer_is_running(cyclic));
    EXPECT_EQ(pass(2), names{});
    EXPECT_EQ(pass(1), names{ "again" });
}

TEST_F(wheel_test, a_timer_enabled_in_a_callback_waits_behind_the_walk)
{
    timer_util_t *whole_turn = make("turn", TIMER_NUM_BUCKETS);
    start("skipped", 1 + 2 * TIMER_NUM_BUCKETS);
    start("starter", 1, [&](timer_util_t *) { timer_enable(whole_turn); });
    EXPECT_EQ(pass(1), names{ "starter" });
    EXPECT_EQ(pass(TIMER_NUM_BUCKETS - 1), names{});
    EXPECT_EQ(pass(1), names{ "turn" });
    EXPECT_EQ(pass(TIMER_NUM_BUCKETS), names{ "skipped" });
}

TEST_F(wheel_test, a_spent_budget_finishes_the_tick_and_leaves_the_rest_to_the_next_run)
{
    auto slow = [](timer_util_t *) {
        advance_ms(151);
    };
    start("a", 1, slow);
    start("b", 1);
    start("c", 2);
    advance_ms(2 * TICK_MS);
    EXPECT_EQ(timer_run(mgr, TIMER_MASK_ALL, 100), TIMER_BUDGET_SPENT);
    EXPECT_EQ(fired, (names{ "a", "b" }));
    EXPECT_EQ(pass(0), names{ "c" });
}

TEST_F(wheel_test, the_budget_has_a_grace_of_fifty_ms)
{
    start("a", 1, [](timer_util_t *) { advance_ms(150); });
    start("b", 1);
    start("c", 2);
    advance_ms(2 * TICK_MS);
    EXPECT_EQ(timer_run(mgr, TIMER_MASK_ALL, 100), TIMER_OK);
    EXPECT_EQ(fired, (names{ "a", "b", "c" }));
}

TEST_F(wheel_test, high_timers_go_first_and_can_use_up_the_budget)
{
    start("normal", 1);
    for (const char *name : { "h1", "h2", "h3", "h4" }) {
        uint32_t ticks = static_cast<uint32_t>(name[1] - '0');
        start(
            name, ticks, [](timer_util_t *) { advance_ms(100); }, TIMER_ONE_SHOT, TIMER_PRIO_HIGH);
    }
    advance_ms(4 * TICK_MS);
    EXPECT_EQ(timer_run(mgr, TIMER_MASK_ALL, 100), TIMER_BUDGET_SPENT);
    EXPECT_EQ(fired, (names{ "h1", "h2", "h3" }));
    EXPECT_EQ(pass(0), (names{ "h4", "normal" }));
}

TEST_F(wheel_test, the_mask_chooses_the_wheels)
{
    start("normal", 1);
    start("high", 1, {}, TIMER_ONE_SHOT, TIMER_PRIO_HIGH);
    advance_ms(TICK_MS);
    timer_run(mgr, TIMER_MASK_HIGH, AMPLE_MS);
    EXPECT_EQ(fired, names{ "high" });
    timer_run(mgr, TIMER_MASK_NORMAL, AMPLE_MS);
    EXPECT_EQ(fired, (names{ "high", "normal" }));
}

TEST_F(wheel_test, the_high_wheel_runs_inside_a_normal_callback)
{
    start("hello", 1, {}, TIMER_CYCLIC, TIMER_PRIO_HIGH);
    start("work", 1, [&](timer_util_t *) {
        for (int step = 0; step < 3; step++) {
            advance_ms(TICK_MS);
            EXPECT_EQ(timer_run(mgr, TIMER_MASK_HIGH, AMPLE_MS), TIMER_OK);
        }
    });
    start("after", 2);
    EXPECT_EQ(pass(1), (names{ "hello", "work", "hello", "hello", "hello", "after" }));
    EXPECT_EQ(pass(1), names{ "hello" });
}

TEST_F(wheel_test, a_wheel_runs_inside_its_own_callback_without_entering_that_callback_again)
{
    int depth = 0;
    start(
        "long", 1,
        [&](timer_util_t *) {
            EXPECT_EQ(depth++, 0);
            if (mgr->nfired == 1) {
                EXPECT_EQ(pass(3), (names{ "same", "next", "same", "same", "same" }));
                fired = { "inner" };
            }
            depth--;
        },
        TIMER_CYCLIC);
    timer_util_t *same = start("same", 1, {}, TIMER_CYCLIC);
    start("next", 2);
    start("turn", 1 + TIMER_NUM_BUCKETS);
    EXPECT_EQ(pass(1), names{ "inner" });
    EXPECT_EQ(mgr->wheel[TIMER_PRIO_NORMAL]->next_bucket_ticks, 5U);
    drop(same);
    EXPECT_EQ(pass(1), names{ "long" });
    EXPECT_EQ(pass(1), names{ "long" });
    drop(timers.front());
    EXPECT_EQ(pass(TIMER_NUM_BUCKETS - 6), names{});
    EXPECT_EQ(pass(1), names{ "turn" });
}

TEST_F(wheel_test, an_inner_run_may_delete_the_timer_whose_callback_made_it)
{
    timer_util_t *outer = nullptr;
    outer = start(
        "outer", 1, [&](timer_util_t *) { pass(1); }, TIMER_CYCLIC);
    start("inner", 1, [&](timer_util_t *) {
        drop(outer);
        start("fresh", 1); // may stand where the deleted one stood, and is not taken for it
    });
    EXPECT_EQ(pass(1), names{ "inner" });
    EXPECT_EQ(pass(1), names{ "fresh" });
}

TEST_F(wheel_test, a_random_run_fires_what_a_model_fires)
{
    struct model_t {
        uint32_t interval;
        uint8_t type;
        uint64_t due; // 0: not running
    };
    std::mt19937 random(7);
    std::vector<model_t> model;
    for (int i = 0; i < 60; i++) {
        model.push_back({ static_cast<uint32_t>(1 + random() % 5000), static_cast<uint8_t>(random() % 2), 0 });
        make(std::to_string(i).c_str(), model[i].interval, {}, model[i].type, static_cast<uint8_t>(random() % 2));
    }
    uint64_t now = 0;
    for (int step = 0; step < 4000; step++) {
        size_t i = random() % model.size();
        if (random() % 3 == 0) {
            timer_disable(timers[i]);
            model[i].due = 0;
        } else if (timer_enable(timers[i]); model[i].due == 0) {
            model[i].due = now + model[i].interval;
        }
        if (random() % 4 != 0)
            continue;
        uint64_t until = now + random() % 300;
        std::multiset<std::string> expected;
        for (size_t m = 0; m < model.size(); m++) {
            while (model[m].due != 0 && model[m].due <= until) {
                expected.insert(std::to_string(m));
                model[m].due = model[m].type == TIMER_CYCLIC ? model[m].due + model[m].interval : 0;
            }
        }
        names got = pass(static_cast<int64_t>(until - now));
        ASSERT_EQ(std::multiset<std::string>(got.begin(), got.end()), expected) << "step " << step;
        now = until;
        ASSERT_EQ(mgr->nactive, std::count_if(model.begin(), model.end(), [](auto &m) { return m.due != 0; }));
    }
}

TEST_F(wheel_test, flushing_deletes_the_next_bucket_of_each_wheel_only)
{
    static std::vector<void *> flushed;
    flushed.clear();
    for (uint32_t ticks : { 3U, 3U + TIMER_NUM_BUCKETS, 4U })
        start("t", ticks);
    pass(2);
    timer_flush_current_bucket(mgr, [](void *arg1, void *, void *, void *) { flushed.push_back(arg1); });
    EXPECT_EQ(flushed, (std::vector<void *>{ actions[0].get(), actions[1].get() }));
    timers.erase(timers.begin(), timers.begin() + 2);
    EXPECT_EQ(pass(3), names{ "t" });
}

struct normal_only_test : wheel_test {
    normal_only_test() : wheel_test(TIMER_MASK_NORMAL) {}
};

TEST_F(normal_only_test, the_high_priority_falls_back_to_the_normal_wheel)
{
    timer_util_t *timer = start("t", 1, {}, TIMER_ONE_SHOT, TIMER_PRIO_HIGH);
    EXPECT_EQ(timer->priority, TIMER_PRIO_NORMAL);
    EXPECT_EQ(pass(1), names{ "t" });
}

struct high_only_test : wheel_test {
    high_only_test() : wheel_test(TIMER_MASK_HIGH) {}
};

TEST_F(high_only_test, a_normal_timer_has_no_wheel_to_go_to)
{
    EXPECT_EQ(make("t", 1), nullptr);
}

TEST_F(wheel_test, broken_bookkeeping_ends_the_process)
{
    expect_assertion(
        [&] {
            start("t", 1);
            timer_mgr_delete(mgr);
        },
        "timer:232: failed assertion `");
    expect_assertion(
        [&] {
            start("t", 5)->expire_ticks = uint64_t{ 5 } - TIMER_NUM_BUCKETS;
            pass(5);
        },
        "timer:538: failed assertion `");
    expect_assertion(
        [&] {
            timer_util_t *timer = start("t", 5);
            timer->state = TIMER_DISABLED;
            timer_enable(timer);
        },
        "failed assertion `p_timer->bucket == TIMER_BUCKET_NULL'");
    expect_assertion([] { (void)timer_ms_to_ticks(6, 1, true); }, "timer.h:");
}

TEST_F(wheel_test, the_log_names_a_slow_timer_and_dumps_the_wheels)
{
    child_result_t child = run_in_child([&] {
        openlog("t", LOG_PERROR, LOG_LOCAL7);
        start("a-name-that-is-far-too-long", 1, [](timer_util_t *) { advance_ms(6000); });
        start("quick", 1);
        start("later", 2);
        advance_ms(2 * TICK_MS);
        EXPECT_EQ(timer_run(mgr, TIMER_MASK_ALL, 100), TIMER_BUDGET_SPENT);
        start("far", 5000, {}, TIMER_CYCLIC, TIMER_PRIO_HIGH);
        timer_mgr_dump(mgr, 1024);
    });
    for (const char *text :
         { "a-name-that-is- timer took 6000 msecs!", ": List of Created Timers:", " quick one-shot Disabled normal  ",
           " far cyclic Enabled high  interval 5000 expire 0x15e2 (5000) cb 0x",
           "resolution 10ms cur-time 107.19999000 actual-time 107.19999000 ",
           "cur_ticks 602 next_hi_ticks 3 next_lo_ticks 2", "ncreated 4 ndeleted 0 nactive 2 nfired 2" })
        EXPECT_NE(child.output.find(text), std::string::npos) << text << " in: " << child.output;
}

TEST(timer, arguments_and_tick_are_handed_out)
{
    int marks[4];
    timer_mgr_t *mgr = timer_mgr_create(TIMER_RES_500MS, nullptr, nullptr, nullptr, TIMER_MASK_ALL);
    timer_util_t *timer = timer_util_create(mgr, TIMER_PRIO_HIGH, TIMER_ONE_SHOT, 1, run_action, marks, marks + 1,
                                            marks + 2, marks + 3, "t");
    void *first = nullptr;
    void *last = nullptr;
    timer_get_args(timer, &first, nullptr, nullptr, &last);
    EXPECT_EQ(first, marks);
    EXPECT_EQ(last, marks + 3);
    timeval tick = {};
    EXPECT_EQ(timer_mgr_tick(mgr, &tick), TIMER_RES_500MS);
    EXPECT_EQ(timer_mgr_tick(mgr, nullptr), TIMER_RES_500MS);
    EXPECT_EQ(tick.tv_usec, 500000);
    EXPECT_EQ(timer_remaining_ticks(timer), -1);
    EXPECT_EQ(timer_interval_ms(nullptr), -1);
    timer_util_delete(timer);
    timer_mgr_delete(mgr);
}

TEST(timer, a_missed_allocation_gives_null)
{
    auto refuse = [](size_t) -> void * {
        return nullptr;
    };
    EXPECT_EQ(timer_mgr_create(TIMER_RES_1SEC, refuse, free, nullptr, TIMER_MASK_ALL), nullptr);
    timer_mgr_t *mgr = timer_mgr_create(TIMER_RES_1SEC, nullptr, nullptr, nullptr, TIMER_MASK_NORMAL);
    mgr->malloc_fn = refuse;
    EXPECT_EQ(timer_util_create(mgr, 0, 0, 1, run_action, nullptr, nullptr, nullptr, nullptr, "t"), nullptr);
    timer_mgr_delete(mgr);
}

TEST(timer, the_next_multiple_is_never_now)
{
    timer_clock_set(fake_clock);
    fake_time = { 90, 1000000 };
    EXPECT_EQ(timer_ms_to_next_multiple(60000), 29999U);
    fake_time = { 120, 0 };
    EXPECT_EQ(timer_ms_to_next_multiple(60000), 60000U);
    timer_clock_set(nullptr);
}

TEST(dll, nodes_leave_from_any_place_and_may_come_back)
{
    dll_t list;
    dll_node_t nodes[3];
    for (dll_node_t &node : nodes)
        dll_add_tail(&list, &node);
    dll_remove(&list, &nodes[1]);
    dll_remove(&list, &nodes[0]);
    EXPECT_EQ(list.p_head, &nodes[2]);
    dll_add_tail(&list, &nodes[0]);
    EXPECT_EQ(list.p_tail, &nodes[0]);
    EXPECT_EQ(nodes[0].p_prev, &nodes[2]);
    dll_remove(&list, &nodes[2]);
    dll_remove(&list, &nodes[0]);
    EXPECT_EQ(list.p_head, nullptr);
    EXPECT_EQ(list.p_tail, nullptr);
    EXPECT_EQ(list.count, 0);
}

TEST(dll, misuse_ends_the_process)
{
    expect_assertion(
        [] {
            dll_t list;
            dll_node_t nodes[2];
            dll_add_tail(&list, &nodes[0]);
            dll_add_tail(&list, &nodes[1]);
            dll_add_tail(&list, &nodes[0]);
        },
        "failed assertion `p_newnode->p_next == NULL && p_newnode->p_prev == NULL'");
    auto remove_stranger = [] {
        dll_t list;
        dll_node_t node;
        dll_remove(&list, &node);
    };
    expect_assertion(remove_stranger, "failed assertion `p_dll->count > 0'");
    EXPECT_EQ(run_in_child(remove_stranger).output.rfind("dll:", 0), 0U);
}

} // namespace
