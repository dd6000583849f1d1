// ^C: a note for the running command, not the end of the program.
#ifndef AGENT_CLI_INTERRUPT_H
#define AGENT_CLI_INTERRUPT_H

// From here on SIGINT is noted, and ends a blocking call early. While one is noted and not taken, the next ends the
// program: a command that does not look can be left.
void interrupt_watch();
// True when ^C was pressed since the last call.
[[nodiscard]] bool interrupt_take();

#endif
