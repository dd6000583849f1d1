// The routing daemons of the VPNs: three of a VPN, or zebra alone on some personalities and in the management VPN.
//
// They follow what cfgmgr says: a VPN that it adds gets its daemons, one that it removes loses them. VPN 0's run from
// the start on. A daemon that ends by itself is started again, after a delay that grows while it keeps ending at once;
// cfgmgr's link to it stays down until cfgmgr starts again, its notifications and interface events come back. When
// cfgmgr ends all of them end too, for it brings everything anew, and cfgmgr is to be started only after that.
//
// They keep their pid files themselves ("/var/run/quagga/NAME.pid[.VPN]"), by which a restarted system manager finds
// them. What they print is in "/var/log/quagga/routing_peer.log".
#ifndef PLATFORM_ROUTING_DAEMONS_H
#define PLATFORM_ROUTING_DAEMONS_H

#include "platform/child.h"

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>

struct sysmgrd_t;

enum routing_index_t : uint8_t {
    ROUTING_ZEBRA,
    ROUTING_OSPFD,
    ROUTING_BGPD,
    NUM_ROUTING_DAEMONS
};

struct routing_daemon_t {
    sysmgrd_t *sysmgrd = nullptr;
    routing_index_t index = ROUTING_ZEBRA;
    uint64_t vpn_id = 0;
    process_watch_t watch;
    bool is_wanted = true;  // false: its end is the end of this record
    bool is_ending = false; // it has been told to end
    int64_t started_ms = 0; // monotonic, or when it was adopted
    uint32_t restarts = 0;
    uint32_t quick_deaths = 0; // in a row
    event_ptr timer;           // kills it when it is ending, else starts it again
};

// By VPN and daemon. A record that is in the table runs, waits to be started, or is ending.
struct routing_daemons_t {
    std::map<std::pair<uint64_t, routing_index_t>, std::unique_ptr<routing_daemon_t>> daemons;
    bool is_stopped = false; // by routing_stop: nothing starts any more
};

[[nodiscard]] const char *routing_daemon_name(routing_index_t index);
// Whether a VPN of a device with that personality has the daemon.
[[nodiscard]] bool routing_daemon_exists(std::string_view personality, uint64_t vpn_id, routing_index_t index);

// Takes over what runs of the VPNs in memory and VPN 0. With cfgmgr alive what does not run is started; without it as
// routing_reset. To be called before cfgmgr is started.
void routing_start(sysmgrd_t *sysmgrd, bool is_cfgmgr_alive);
void routing_vpn_add(sysmgrd_t *sysmgrd, uint64_t vpn_id);
// No effect for VPN 0.
void routing_vpn_del(sysmgrd_t *sysmgrd, uint64_t vpn_id);
// Cfgmgr has ended: all end, and VPN 0's start anew once they have.
void routing_reset(sysmgrd_t *sysmgrd);
// True while daemons that cfgmgr must not meet still run.
[[nodiscard]] bool routing_is_ending(const sysmgrd_t &sysmgrd);
// All end for good; supervisor_routing_gone is called once they have.
void routing_stop(sysmgrd_t *sysmgrd);
[[nodiscard]] bool routing_is_gone(const sysmgrd_t &sysmgrd);

#endif
