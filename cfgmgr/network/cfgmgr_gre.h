// GRE interfaces whose source is another interface: they need that one's address, which may come later.
//
// Such an interface is bound, and lies in gre_bound of its source interface (the underlay), or it waits in the daemon's
// gre_table with gre_unbound set. Main thread.
#ifndef CFGMGR_NETWORK_CFGMGR_GRE_H
#define CFGMGR_NETWORK_CFGMGR_GRE_H

#include "cfgmgr/network/cfgmgr_if.h"

// Binds to the interface that tunnel_src_if names and takes over its address; 1. Without one it waits; 0.
int cfgmgr_find_and_bind_gre_if(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id, cfgmgr_if_t *gre_p);
// The reverse for a bound one (others: 0): 1, and it waits again when re_append is set. 0 without the underlay.
int cfgmgr_find_and_unbind_gre_if(cfgmgrd_t *cfgmgrd_p, cfgmgr_if_t *gre_p, bool re_append);
// Binds and programs all that wait for this new interface.
void cfgmgr_find_and_bind_gre_if_all(cfgmgrd_t *cfgmgrd_p, cfgmgr_if_t *new_if_p);
// For the underlay's deletion: all that are bound to it wait again.
void cfgmgr_gre_release_bound(cfgmgrd_t *cfgmgrd_p, cfgmgr_if_t *underlay_p);
// Takes the interface out of gre_table; nothing when it is not there.
void cfgmgr_gre_stop_waiting(cfgmgrd_t *cfgmgrd_p, cfgmgr_if_t *gre_p);
// Makes the tunnel anew with the ends of the record, and gives it its address.
void cfgmgr_if_gre_reprogram(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id, cfgmgr_if_t *gre_p);
// After the underlay's address changed: all that are bound to it take it over.
void cfgmgr_if_gre_update_bound(cfgmgrd_t *cfgmgrd_p, cfgmgr_if_t *underlay_p);

#endif
