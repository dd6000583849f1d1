// The process: its resources, its options, its order of coming up and of going down.
#ifndef CFGMGR_DAEMON_CFGMGR_DAEMON_H
#define CFGMGR_DAEMON_CFGMGR_DAEMON_H

#include "cfgmgr/daemon/cfgmgr_context.h"

// Event base, timer manager and timers, swallowed signals, number maps; publishes the record. 0, or 1 after a log line.
[[nodiscard]] int cfgmgr_init_daemon(cfgmgrd_t *cfgmgrd_p);

// Reads the command line (getopt(3)) into the record; unknown options are ignored. 0.
[[nodiscard]] int cfgmgr_parse_options(cfgmgrd_t *cfgmgrd_p, int argc, char **argv);

// The personality that an argument of -p selects.
[[nodiscard]] uint32_t cfgmgr_personality_from_arg(const char *arg);

// SIGUSR2 ends the loop and marks the stop as one that keeps the device reachable; SIGTERM and the fatal signals as in
// common/tip_signal.h. 0.
int cfgmgr_init_abort_signals();

// Reaped children are told of by a signal event. 0, or 1.
[[nodiscard]] int cfgmgr_init_sigchild(cfgmgrd_t *cfgmgrd_p);

// The tables and the connection to the agent: runs once, when the link to the system manager is up. 0, or the process
// ends with status 0 after a log line.
int cfgmgr_main(cfgmgrd_t *cfgmgrd_p);

// To be called by long-running work, so that the hello to the system manager goes on: runs the high-priority timers
// when at least 4 ms have passed since their last run. Nothing before the record is published.
void cfgmgr_timer_keepalive();

// Logs the end of the process and releases everything, in a fixed order.
void cfgmgr_terminate(cfgmgrd_t *cfgmgrd_p);
void cfgmgr_deinit_resources(cfgmgrd_t *cfgmgrd_p);

#endif
