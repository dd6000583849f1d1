// Labels of VPNs and services: 1 to 32767, handed out upwards behind the last one.
#ifndef CFGMGR_NETWORK_CFGMGR_LABEL_H
#define CFGMGR_NETWORK_CFGMGR_LABEL_H

#include "cfgmgr/daemon/cfgmgr_context.h"

inline constexpr uint32_t CFGMGR_LABEL_NONE = UINT32_MAX;

// The label for an object of a VPN: 0 for the transport VPN, otherwise a free one, or CFGMGR_LABEL_NONE.
[[nodiscard]] uint32_t cfgmgr_label_alloc(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id);
// Gives a label back. 0 and CFGMGR_LABEL_NONE were never taken: nothing happens.
void cfgmgr_label_free(cfgmgrd_t *cfgmgrd_p, uint32_t label);

#endif
