// What a timer costs: our wheels, a bare wheel that keeps no books and reads no clock, and libevent's heap.
//
// restart: one timer out of N running ones, taken in random order, is stopped and started anew; the next one is known
// only when the last is done, as in a loop that has other work between.
// restart_burst: as restart, but back to back, so that the processor overlaps the cache misses of several.
// fire: N timers, due at random within one turn of the wheel, run out. Given per timer.
// Aim: ours within three times the bare wheel.
#include "common/timer.h"

#include <benchmark/benchmark.h>
#include <chrono>
#include <event2/event.h>
#include <event2/event_struct.h>
#include <random>
#include <vector>

namespace
{

constexpr uint32_t SPAN_TICKS = TIMER_NUM_BUCKETS - 1;
constexpr uint32_t TICK_MS = 10;
constexpr size_t ORDER_LENGTH = 1 << 20; // too long for a branch predictor to learn

uint64_t num_fired;

std::vector<uint32_t> random_numbers(size_t count, uint32_t below)
{
    std::mt19937 random(11);
    std::vector<uint32_t> numbers(count);
    for (uint32_t &number : numbers)
        number = static_cast<uint32_t>(random() % below);
    return numbers;
}

struct our_wheel {
    explicit our_wheel(const std::vector<uint32_t> &ticks)
    {
        mgr = timer_mgr_create(TIMER_RES_10MS, nullptr, nullptr, nullptr, TIMER_MASK_NORMAL);
        for (uint32_t interval : ticks)
            timers.push_back(timer_util_create(
                mgr, TIMER_PRIO_NORMAL, TIMER_ONE_SHOT, (1 + interval) * TICK_MS,
                [](timer_util_t *, void *, void *, void *, void *) { num_fired++; }, nullptr, nullptr, nullptr, nullptr,
                "bench"));
    }
    ~our_wheel()
    {
        for (timer_util_t *timer : timers)
            timer_util_delete(timer);
        timer_mgr_delete(mgr);
    }
    void start(size_t i) { timer_enable(timers[i]); }
    void stop(size_t i) { timer_disable(timers[i]); }
    uint64_t due(size_t i) { return timers[i]->expire_ticks; }
    void elapse() { mgr->base_sec -= SPAN_TICKS * TICK_MS / 1000 + 2; } // as if the clock had moved on
    void run() { timer_run(mgr, TIMER_MASK_NORMAL, 1000000); }

    timer_mgr_t *mgr;
    std::vector<timer_util_t *> timers;
};

// The least that gives the same service: timers of a bucket fire in the order of their start, each has a callback with
// four arguments and a name. It is told the time.
struct bare_timer {
    bare_timer *next;
    bare_timer *prev;
    uint64_t expire;
    uint32_t interval;
    void (*cb)(bare_timer *, void *, void *, void *, void *);
    void *args[4];
    char name[TIMER_NAME_SIZE];
};

struct bare_bucket {
    bare_timer *head = nullptr;
    bare_timer *tail = nullptr;
};

struct bare_wheel {
    explicit bare_wheel(const std::vector<uint32_t> &ticks)
    {
        for (uint32_t interval : ticks)
            timers.push_back(new bare_timer{ nullptr,
                                             nullptr,
                                             0,
                                             1 + interval,
                                             [](bare_timer *, void *, void *, void *, void *) { num_fired++; },
                                             {},
                                             {} });
    }
    ~bare_wheel()
    {
        for (bare_timer *timer : timers)
            delete timer;
    }
    void start(size_t i)
    {
        bare_timer *timer = timers[i];
        timer->expire = now + timer->interval;
        bare_bucket &bucket = buckets[timer->expire % TIMER_NUM_BUCKETS];
        timer->next = nullptr;
        timer->prev = bucket.tail;
        (bucket.tail != nullptr ? bucket.tail->next : bucket.head) = timer;
        bucket.tail = timer;
    }
    void stop(size_t i) { unlink(timers[i]); }
    uint64_t due(size_t i) { return timers[i]->expire; }
    void elapse() { target = now + SPAN_TICKS + 2; }
    void run()
    {
        for (; now < target; now++) {
            for (bare_timer *timer = buckets[now % TIMER_NUM_BUCKETS].head, *next; timer != nullptr; timer = next) {
                next = timer->next;
                if (timer->expire != now)
                    continue;
                unlink(timer);
                timer->cb(timer, timer->args[0], timer->args[1], timer->args[2], timer->args[3]);
            }
        }
    }
    void unlink(bare_timer *timer)
    {
        bare_bucket &bucket = buckets[timer->expire % TIMER_NUM_BUCKETS];
        (timer->prev != nullptr ? timer->prev->next : bucket.head) = timer->next;
        (timer->next != nullptr ? timer->next->prev : bucket.tail) = timer->prev;
    }

    uint64_t now = 0;
    uint64_t target = 0;
    std::vector<bare_timer *> timers;
    bare_bucket buckets[TIMER_NUM_BUCKETS];
};

// libevent's clock cannot be skipped: to be due, its timers are started with microseconds for ticks.
struct libevent_heap {
    explicit libevent_heap(const std::vector<uint32_t> &ticks) : intervals(ticks), base(event_base_new())
    {
        for (size_t i = 0; i < ticks.size(); i++)
            timers.push_back(evtimer_new(
                base, [](evutil_socket_t, short, void *) { num_fired++; }, nullptr));
    }
    ~libevent_heap()
    {
        for (event *timer : timers)
            event_free(timer);
        event_base_free(base);
    }
    void start(size_t i)
    {
        timeval wait = { is_short ? 0 : 1 + intervals[i], intervals[i] };
        evtimer_add(timers[i], &wait);
    }
    void stop(size_t i) { evtimer_del(timers[i]); }
    uint64_t due(size_t i) { return static_cast<uint64_t>(timers[i]->ev_timeout.tv_sec); }
    void elapse()
    {
        timespec wait = { 0, 10000000 };
        nanosleep(&wait, nullptr);
    }
    void run() { event_base_loop(base, EVLOOP_NONBLOCK); }

    bool is_short = false;
    const std::vector<uint32_t> &intervals;
    event_base *base;
    std::vector<event *> timers;
};

template <typename Timers, bool is_burst> void restart_random(benchmark::State &state)
{
    auto size = static_cast<size_t>(state.range(0));
    std::vector<uint32_t> ticks = random_numbers(size, SPAN_TICKS);
    std::vector<uint32_t> order = random_numbers(ORDER_LENGTH, static_cast<uint32_t>(size));
    Timers timers(ticks);
    for (size_t i = 0; i < size; i++)
        timers.start(i);
    size_t step = 0;
    for (auto _ : state) {
        timers.stop(order[step]);
        timers.start(order[step]);
        step = (step + 1 + (is_burst ? 0 : timers.due(order[step]) >> 63)) % ORDER_LENGTH; // no time is that late
    }
}

template <typename Timers> void restart(benchmark::State &state)
{
    restart_random<Timers, false>(state);
}

template <typename Timers> void restart_burst(benchmark::State &state)
{
    restart_random<Timers, true>(state);
}

template <typename Timers> void fire(benchmark::State &state)
{
    auto size = static_cast<size_t>(state.range(0));
    std::vector<uint32_t> ticks = random_numbers(size, SPAN_TICKS);
    Timers timers(ticks);
    if constexpr (requires { timers.is_short; })
        timers.is_short = true;
    int64_t rounds = 0;
    for (auto _ : state) {
        for (size_t i = 0; i < size; i++)
            timers.start(i);
        timers.elapse();
        num_fired = 0;
        auto begin = std::chrono::steady_clock::now();
        timers.run();
        std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
        if (num_fired != size)
            state.SkipWithError("not all timers fired");
        state.SetIterationTime(took.count());
        rounds++;
    }
    state.counters["per_timer"] = benchmark::Counter(static_cast<double>(rounds) * static_cast<double>(size),
                                                     benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

#define SIZES ->Arg(1000)->Arg(100000)->Arg(1000000)
BENCHMARK(restart<our_wheel>) SIZES;
BENCHMARK(restart<bare_wheel>) SIZES;
BENCHMARK(restart<libevent_heap>) SIZES;
BENCHMARK(restart_burst<our_wheel>) SIZES;
BENCHMARK(restart_burst<bare_wheel>) SIZES;
BENCHMARK(restart_burst<libevent_heap>) SIZES;
BENCHMARK(fire<our_wheel>) SIZES->UseManualTime()->MinTime(0.3);
BENCHMARK(fire<bare_wheel>) SIZES->UseManualTime()->MinTime(0.3);
BENCHMARK(fire<libevent_heap>) SIZES->UseManualTime()->MinTime(0.3);

} // namespace
