// The daemon's one record of state, the personality of the device, and the process-wide switches beside them.
#ifndef CFGMGR_DAEMON_CFGMGR_CONTEXT_H
#define CFGMGR_DAEMON_CFGMGR_CONTEXT_H

#include "cfgmgr/network/cfgmgr_backup_state.h"
#include "cfgmgr/services/cfgmgr_auth_state.h"
#include "cfgmgr/services/cfgmgr_logging_state.h"
#include "common/avl.h"
#include "common/ip_util.h"
#include "common/timer.h"
#include "common/tip_names.h"

#include <cstdint>
#include <ctime>
#include <event2/event.h>
#include <sys/types.h>

struct app_sysmgr_t;
struct tconfd_ctx;

inline constexpr char CFGMGR_PROCESS_NAME[] = "CFGMGR"; // of structured log lines and the syslog ident
inline constexpr uint32_t CFGMGR_BITMAP_BITS = 32768;
inline constexpr size_t CFGMGR_BITMAP_BYTES = 4097;
inline constexpr size_t CFGMGR_HOST_NAME_SIZE = 33;

// One per process, zeroed at creation, owned by main for as long as the process lives.
struct cfgmgrd_t {
    uint8_t *reserved_bitmap_p; // CFGMGR_BITMAP_BYTES, bit 0 set: the labels of VPNs and services
    app_sysmgr_t *sysmgr_handle_p;
    uint8_t daemonize; // 1 unless told to stay in the foreground
    struct event_base *event_base;
    pid_t pid; // own, after daemonising
    event *timer_tick_event;
    timer_mgr_t *timer_mgr_p;
    timer_util_t *sysmgr_timer_p; // waits for the system manager
    timer_util_t *backup_timer_p; // of the archive; runs while that is enabled
    timer_util_t *policy_timer_p; // runs while a VPN waits for policies
    event *sigusr1_event;
    tconfd_ctx *tconfd_ctx_p;
    event *inotify_event;
    event *sigchld_event;
    int32_t inotify_fd;            // -1 after teardown
    uint64_t last_ns;              // VPN whose namespace the main thread is in; for people only
    uint32_t reserved_bitmap_hint; // the label handed out last
    uint32_t personality;          // PERSONALITY_*
    avl_tree_t vpn_table;          // cfgmgr_vpn_t by number
    avl_tree_t if_table;           // cfgmgr_if_t by kernel name
    avl_tree_t bridge_table;       // cfgmgr_bridge_t by number
    ip_prefix_t system_ip;         // length 32; counts while has_system_ip is set
    ip_prefix_t quorvix_system_ip; // of the management system, in the same way
    uint8_t has_system_ip;
    uint8_t has_quorvix_system_ip;
    uint32_t site_id; // 0: none
    char host_name[CFGMGR_HOST_NAME_SIZE];
    uint32_t sim_device_count; // devices that this one stands in for
    ip_addr_t sim_wan_ip;      // of the first of them towards the transport network; zero: none
    logging_state_t logging;
    backup_state_t backup;
    auth_state_t auth;
    radius_state_t radius_state;
    tacacs_state_t tacacs_state;
    // Work that is put off to the end of a delivery.
    uint8_t radius_file_dirty;
    uint8_t tacacs_file_dirty;
    uint8_t usergroup_dirty;
    uint32_t overlay_as;         // AS number that stands for the overlay; 0: none
    uint8_t mgmt_vpn;            // 1 when the device has a management VPN
    uint8_t upgrade;             // 1 when the configuration is to be brought up from an older release
    uint8_t ovc_up;              // 1 while the device has a session with a controller
    uint8_t startup_done;        // 1 after the startup transaction has run
    timespec last_timer_run;     // monotonic; last run of the high-priority wheel
    timespec start_time;         // monotonic; entry to cfgmgr_main
    uint8_t *if_idx_bitmap_p;    // CFGMGR_BITMAP_BYTES, bit 0 set: system-wide interface indexes
    uint32_t if_idx_hint;        // the index handed out last
    avl_tree_t if_idx_by_vpn;    // bitmap_if_idx_t by VPN and kernel index
    avl_tree_t if_idx_by_bitmap; // the same records by allocated index
    avl_tree_t *static_dns;      // cfgmgr_static_host_t by VPN and name; null before its init
    avl_tree_t gre_table;        // cfgmgr_if_t that wait for their source interface, by kernel name
};

// The record, published once the daemon's own resources stand; null before.
[[nodiscard]] cfgmgrd_t *cfgmgr_context();
void cfgmgr_context_publish(cfgmgrd_t *cfgmgrd_p);

// A clear bitmap with bit 0 set, so that number 0 is never handed out. Null without memory; free(3) it.
[[nodiscard]] uint8_t *cfgmgr_bitmap_alloc();

// Levels of the traces; above 0 a trace prints, above 2 a detailed one.
extern int32_t cfgmgr_events_level;
extern int32_t cfgmgr_pppoe_level;
inline constexpr int32_t CFGMGR_DETAILED = 2;

// 1 once a stop was asked for by SIGUSR2: management interfaces and routing daemons are then left alone, so that the
// device stays reachable across a stop of the daemon.
[[nodiscard]] bool cfgmgr_is_terminating();

#endif
