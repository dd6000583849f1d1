// What the bare name of an interface says: what kind of thing it is, and whether a device of some personality can have
// it at all (cfgmgr_if_is_provisioned in cfgmgr_if.h is defined here too).
#ifndef CFGMGR_NETWORK_CFGMGR_IF_KIND_H
#define CFGMGR_NETWORK_CFGMGR_IF_KIND_H

#include "cfgmgr/network/cfgmgr_if.h"

inline constexpr uint32_t IF_CELLULAR_TAG_FIRST = 20; // of cellular0

struct cfgmgr_if_kind_t {
    uint32_t flags;   // cfgmgr_if_flag_t; 0 for a port
    uint32_t vlan_id; // as in the record
};

// Of a kernel name.
[[nodiscard]] cfgmgr_if_kind_t cfgmgr_if_kind_of(const char *name);
// The tag of an internal leg ("loop2.10"); 0 for one without.
[[nodiscard]] uint32_t cfgmgr_if_internal_tag(const char *name);

#endif
