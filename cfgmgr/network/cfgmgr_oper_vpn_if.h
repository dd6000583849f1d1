// What the DHCP client has learnt, taken over from operational data.
#ifndef CFGMGR_NETWORK_CFGMGR_OPER_VPN_IF_H
#define CFGMGR_NETWORK_CFGMGR_OPER_VPN_IF_H

#include "tconfd/tconfd_api.h"

// "vpn/vpn-instance/interface" of operational data, keyed by VPN and name: the address of either family. 0.
int32_t cfgmgr_oper_vpn_if(tconfd_sub *row, int32_t op, uint8_t num_keys, confd_value_t *keys, uint16_t num_tv,
                           confd_tag_value_t *tv);

#endif
