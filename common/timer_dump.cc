// The log lines that show timers, managers and wheels.
#include "common/timer.h"
#include "common/tip_log.h"

#include <cstddef>
#include <cstdint>

namespace
{

constexpr uint64_t NSEC_PER_SEC = 1000000000;

// By value of the enums.
constexpr const char *type_labels[] = { "one-shot", "cyclic" };
constexpr const char *state_labels[] = { "Disabled", "Enabled", "Deleted" };
constexpr const char *priority_labels[] = { "normal", "high" };

const timer_util_t *timer_of_create_node(const dll_node_t *node)
{
    return reinterpret_cast<const timer_util_t *>(reinterpret_cast<const char *>(node) -
                                                  offsetof(timer_util_t, create_node));
}

unsigned long next_ticks(const timer_wheel_t *wheel)
{
    return wheel != nullptr ? wheel->next_bucket_ticks : 0;
}

void dump_buckets(const timer_wheel_t *wheel, uint32_t span)
{
    uint64_t first = wheel->next_bucket_ticks - span;
    for (uint64_t i = 0; i <= 2 * uint64_t{ span }; i++) {
        const dll_t &bucket = wheel->buckets[(first + i) % TIMER_NUM_BUCKETS];
        for (const dll_node_t *node = bucket.p_head; node != nullptr; node = node->p_next)
            timer_dump(reinterpret_cast<const timer_util_t *>(node));
    }
}

} // namespace

void timer_dump(const timer_util_t *timer)
{
    tip_log("[bucket %#x] %p %s %s %s %s %s interval %u expire %#lx (%d) cb %p %p %p %p %p", timer->bucket,
            static_cast<const void *>(timer), timer->name, type_labels[timer->type], state_labels[timer->state],
            priority_labels[timer->priority], timer->walked ? "walked" : "", timer->interval_ticks, timer->expire_ticks,
            static_cast<int>(timer_remaining_ticks(timer)), reinterpret_cast<void *>(timer->cb), timer->arg1,
            timer->arg2, timer->arg3, timer->arg4);
}

void timer_mgr_dump(const timer_mgr_t *mgr, uint32_t span)
{
    tip_log("List of Created Timers:");
    for (const dll_node_t *node = mgr->all_timers.p_head; node != nullptr; node = node->p_next)
        timer_dump(timer_of_create_node(node));
    timespec now = timer_clock_now();
    uint64_t base_sec = mgr->base_sec + mgr->base_nsec / NSEC_PER_SEC;
    tip_log("resolution %s cur-time %u.%u actual-time %u.%u cur_ticks %lu next_hi_ticks %lu next_lo_ticks %lu",
            timer_resolution_get(mgr->resolution).label, static_cast<unsigned>(base_sec),
            static_cast<unsigned>(mgr->base_nsec % NSEC_PER_SEC), static_cast<unsigned>(now.tv_sec),
            static_cast<unsigned>(now.tv_nsec), mgr->cur_ticks, next_ticks(mgr->wheel[TIMER_PRIO_HIGH]),
            next_ticks(mgr->wheel[TIMER_PRIO_NORMAL]));
    tip_log("ncreated %u ndeleted %u nactive %u nfired %u", mgr->ncreated, mgr->ndeleted, mgr->nactive, mgr->nfired);
    for (const timer_wheel_t *wheel : mgr->wheel) {
        if (wheel != nullptr)
            dump_buckets(wheel, span);
    }
}
