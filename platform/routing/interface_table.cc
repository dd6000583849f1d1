#include "platform/routing/interface_table.h"

#include <net/if.h>

namespace
{

constexpr uint32_t STATE_FLAGS = IFF_UP | IFF_RUNNING;

void tell_link(const kernel_link_t &link, interface_op_t op, interface_events_t *events)
{
    events->push_back({ .op = op, .link = link, .address = {} });
}

// Addresses are sorted by interface: those of one stand together.
void tell_addresses(const interface_table_t &table, const kernel_link_t &link, interface_events_t *events)
{
    kernel_address_t first;
    first.index = link.index;
    for (auto entry = table.addresses.lower_bound(first);
         entry != table.addresses.end() && entry->first.index == link.index; ++entry)
        events->push_back({ .op = INTERFACE_ADDRESS_ADD, .link = link, .address = entry->first });
}

void take_link(interface_table_t *table, const kernel_link_t &link, interface_events_t *events)
{
    auto found = table->links.find(link.index);
    bool is_renamed = found != table->links.end() && found->second.link.name != link.name;
    if (is_renamed)
        tell_link(found->second.link, INTERFACE_DEL, events);
    if (found == table->links.end() || is_renamed) {
        table->links[link.index] = { link, table->sweep };
        tell_link(link, INTERFACE_ADD, events);
        tell_addresses(*table, link, events);
        return;
    }
    uint32_t changed = found->second.link.flags ^ link.flags;
    found->second = { link, table->sweep };
    if ((changed & STATE_FLAGS) == 0)
        return;
    tell_link(link, INTERFACE_STATE, events);
    events->back().has_run_change = (changed & IFF_RUNNING) != 0;
}

// What tells of the interface's end tells of its addresses' too.
void lose_link(interface_table_t *table, uint32_t index, interface_events_t *events)
{
    auto found = table->links.find(index);
    if (found == table->links.end())
        return;
    tell_link(found->second.link, INTERFACE_DEL, events);
    table->links.erase(found);
    std::erase_if(table->addresses, [index](const auto &entry) { return entry.first.index == index; });
}

void tell_address(const interface_table_t &table, const kernel_address_t &address, interface_op_t op,
                  interface_events_t *events)
{
    auto found = table.links.find(address.index);
    if (found != table.links.end())
        events->push_back({ .op = op, .link = found->second.link, .address = address });
}

void take_address(interface_table_t *table, const kernel_address_t &address, interface_events_t *events)
{
    bool is_new = table->addresses.insert_or_assign(address, table->sweep).second;
    if (is_new)
        tell_address(*table, address, INTERFACE_ADDRESS_ADD, events);
}

void lose_address(interface_table_t *table, const kernel_address_t &address, interface_events_t *events)
{
    if (table->addresses.erase(address) != 0)
        tell_address(*table, address, INTERFACE_ADDRESS_DEL, events);
}

} // namespace

void interface_table_apply(interface_table_t *table, const kernel_change_t &change, interface_events_t *events)
{
    switch (change.kind) {
    case KERNEL_LINK:
        return take_link(table, change.link, events);
    case KERNEL_LINK_GONE:
        return lose_link(table, change.link.index, events);
    case KERNEL_ADDRESS:
        return take_address(table, change.address, events);
    case KERNEL_ADDRESS_GONE:
        return lose_address(table, change.address, events);
    case KERNEL_DONE:
    case KERNEL_ERROR:
        return;
    }
}

void interface_table_sweep_begin(interface_table_t *table)
{
    table->sweep++;
}

void interface_table_sweep_end(interface_table_t *table, interface_events_t *events)
{
    std::vector<kernel_address_t> addresses;
    std::vector<uint32_t> links;
    for (const auto &[address, sweep] : table->addresses) {
        if (sweep != table->sweep)
            addresses.push_back(address);
    }
    for (const auto &[index, entry] : table->links) {
        if (entry.sweep != table->sweep)
            links.push_back(index);
    }
    for (const kernel_address_t &address : addresses)
        lose_address(table, address, events);
    for (uint32_t index : links)
        lose_link(table, index, events);
}

interface_events_t interface_table_replay(const interface_table_t &table)
{
    interface_events_t events;
    for (const auto &[index, entry] : table.links) {
        tell_link(entry.link, INTERFACE_ADD, &events);
        tell_addresses(table, entry.link, &events);
    }
    return events;
}
