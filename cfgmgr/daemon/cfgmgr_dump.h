// The operator's commands that print the daemon's tables: callbacks of the agent, whose output goes to the session that
// has asked.
#ifndef CFGMGR_DAEMON_CFGMGR_DUMP_H
#define CFGMGR_DAEMON_CFGMGR_DUMP_H

#include <confd_dp.h>

// The daemon must be initialised. Always CONFD_OK: an operator who has gone misses the rest of the text.
int cfgmgr_dump_vpn(confd_user_info *uinfo, char *path, int argc, char **argv);
int cfgmgr_dump_if(confd_user_info *uinfo, char *path, int argc, char **argv);

#endif
