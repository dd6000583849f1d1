// The interfaces and addresses of the daemon's namespace as it knows them, and the events that tell others of changes.
//
// Fed with what the kernel says, in whatever order and however often: an event comes out for a real change only. After a
// gap in what was heard, the whole is heard again between interface_table_sweep_begin and _end; what was not named in
// between is gone.
#ifndef PLATFORM_ROUTING_INTERFACE_TABLE_H
#define PLATFORM_ROUTING_INTERFACE_TABLE_H

#include "platform/routing/netlink_parse.h"

#include <map>

// As on the wire.
enum interface_op_t : uint32_t {
    INTERFACE_ADD = 0,
    INTERFACE_DEL = 1,
    INTERFACE_STATE = 2,
    INTERFACE_ADDRESS_ADD = 4,
    INTERFACE_ADDRESS_DEL = 5,
};

struct interface_event_t {
    interface_op_t op;
    kernel_link_t link;
    kernel_address_t address;    // of the two address operations
    bool has_run_change = false; // the interface was known, and started or ceased to be running
};

struct interface_entry_t {
    kernel_link_t link;
    uint64_t sweep;
};

struct interface_table_t {
    std::map<uint32_t, interface_entry_t> links;    // by index
    std::map<kernel_address_t, uint64_t> addresses; // and the sweep that has seen it last
    uint64_t sweep = 0;
};

using interface_events_t = std::vector<interface_event_t>;

// Appends what a change means. An address of an interface that is not known is told with the interface.
void interface_table_apply(interface_table_t *table, const kernel_change_t &change, interface_events_t *events);
void interface_table_sweep_begin(interface_table_t *table);
void interface_table_sweep_end(interface_table_t *table, interface_events_t *events);
// All interfaces, each followed by its addresses.
[[nodiscard]] interface_events_t interface_table_replay(const interface_table_t &table);

#endif
