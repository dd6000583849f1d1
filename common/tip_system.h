// The daemon's one door for commands.
//
// Most commands are plain words, and for those a shell would only be in the way: they are split at blanks and the
// program is run directly. A command with shell syntax, or whose first word is a shell's own, goes to bash where it is
// installed (some templates redirect with ">&", which a plain sh does not know), else to sh. A kernel setting, "echo
// VALUE > /proc/sys/...", is written by the calling thread itself, in whose namespaces it is. The caller sees no
// difference.
#ifndef COMMON_TIP_SYSTEM_H
#define COMMON_TIP_SYSTEM_H

// Runs command, which must not be null, and waits for it: the result of system(3), a wait status or -1 with errno, and
// exit status 127 when the program cannot be found. A plain program that a signal kills is seen as killed, which is not
// so with every sh.
//
// The program inherits the calling thread's network namespace, signal mask, environment and working directory, and
// descriptors 0 to 2 but no other. As in system(3), SIGINT and SIGQUIT are ignored by the process and SIGCHLD is blocked
// in the calling thread meanwhile; only the own child is waited for. Any number of threads may be in here at a time.
[[nodiscard]] int tip_system(const char *command);

// Judges a result of tip_system: the command was run, not killed by a signal, and its exit status is 0.
[[nodiscard]] bool tip_system_ok(int status);

#endif
