// Twins of ports in the forwarding plane: "sim0_1" carries what the forwarding plane sends to the host for port "ge0_1".
// They live in the first namespace. Commands and their order are fixed.
#ifndef CHMGR_CHMGR_SIM_H
#define CHMGR_CHMGR_SIM_H

#include "common/ip_util.h"

enum chmgr_sim_result_t {
    CHMGR_SIM_OK = 0,
    CHMGR_SIM_MADDR_FAILED = -3, // any step that concerns multicast; also of chmgr_sim_if_maddr_add
    CHMGR_SIM_FORWARDING_FAILED = -4,
    CHMGR_SIM_RP_FILTER_FAILED = -5,
    CHMGR_SIM_OFFLOAD_FAILED = -6,
    CHMGR_SIM_SOURCE_ROUTE_FAILED = -7,
    CHMGR_SIM_IPV6_FAILED = -8,
};

// Multicast groups, forwarding and segmentation settings of a twin. 0, or the first step that
// failed, logged; later ones are not made then.
int chmgr_sim_if_init(const char *name);
// Joins or leaves the link-layer group of a multicast address (RFC 1112, RFC 2464). 0 or CHMGR_SIM_MADDR_FAILED, logged.
int chmgr_sim_if_maddr_add(const char *name, const ip_addr_t &address, bool is_delete);

#endif
