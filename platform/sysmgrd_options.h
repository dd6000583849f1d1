// The command line of sysmgrd, and the agent's configuration that follows from it.
#ifndef PLATFORM_SYSMGRD_OPTIONS_H
#define PLATFORM_SYSMGRD_OPTIONS_H

#include "platform/sysmgrd.h"

// False for a wrong command line; what is wrong is on standard error.
[[nodiscard]] bool sysmgrd_options_read(int argc, char **argv, sysmgrd_settings_t *settings);

// Writes the agent's configuration file when none was named, and names it. False, logged, when that fails.
[[nodiscard]] bool agent_config_provide(sysmgrd_settings_t *settings);

#endif
