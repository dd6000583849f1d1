// What the name of an interface tells by itself. Names of ports in the configuration's and the kernel's form belong to
// the chassis tables, not here.
#ifndef COMMON_TIP_IF_NAME_H
#define COMMON_TIP_IF_NAME_H

#include <cstddef>

// "geA_B" gives "simA_B" and "geA_B.C" gives "simA_B.C", the simulated port behind a hardware port: out, or null (out
// untouched) for another name or a result that does not fit.
char *sim_name_from_ge(const char *name, char *out, size_t size);

bool if_name_is_phys(const char *name);   // no dot, not a system interface, and not starting with "system"
bool if_name_is_system(const char *name); // starts with "loopback" or "natpool"
bool if_name_is_loop(const char *name);   // a plain loop device: contains "loop" but not "loopback"

#endif
