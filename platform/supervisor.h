// Processes that have to be running: found again or started, started again when they end, killed when they fall silent,
// and stopped in order at the end.
//
// A process that ends is started again for ever, at first after a short delay, with longer ones while it keeps ending at
// once. Its pid file exists exactly while it runs, but for one that refuses to start beside its own: that gets the file
// with its first hello. The children live on when the system manager dies; its successor finds them by these files and
// by name, and takes them over.
#ifndef PLATFORM_SUPERVISOR_H
#define PLATFORM_SUPERVISOR_H

#include "platform/sysmgrd.h"

// Takes over what runs and starts what does not.
void supervisor_start(sysmgrd_t *sysmgrd);
// To be called each second or more often: judges silences. A stop of this program itself is nobody's silence.
void supervisor_tick(sysmgrd_t *sysmgrd);
// A hello of the peer, from the process pid. One that nobody has started here is taken over.
void supervisor_hello(sysmgrd_t *sysmgrd, uint32_t peer, pid_t pid);
// Stops cfgmgr, then agentd and the routing daemons; the loop ends when all are gone.
void supervisor_stop(sysmgrd_t *sysmgrd);
// The last routing daemon has ended after routing_stop.
void supervisor_routing_gone(sysmgrd_t *sysmgrd);

// A process that lives shorter has died at once.
inline constexpr int64_t QUICK_DEATH_MS = 5000;

// The wait before the start that follows on as many quick deaths in a row.
[[nodiscard]] uint32_t restart_delay_ms(uint32_t quick_deaths);
// Reads the last tick's and this tick's time; the part of the gap in which this program did not run.
[[nodiscard]] int64_t own_pause_ms(int64_t last_tick_ms, int64_t now_ms, uint32_t period_ms);
[[nodiscard]] uint32_t supervisor_tick_period_ms(const sysmgrd_settings_t &settings);

#endif
