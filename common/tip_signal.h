// The process's disposition to the signals that end it.
#ifndef COMMON_TIP_SIGNAL_H
#define COMMON_TIP_SIGNAL_H

// SIGTERM exits with status 0 at once, from its handler. SIGABRT, SIGHUP, SIGINT and SIGQUIT fail an assertion, so each
// leaves a core at the place that every assertion does; a hangup does not mean "reload". See sigaction(2).
//
// The handlers print and run exit handlers: they are for ending, not for coming back from.
void tip_signal_init();

#endif
