// Areas, their interfaces and their ranges.
//
// Stub and nssa are containers of the area, whose leaves come between brackets: each has one of the name no-summary. An
// interface goes by its name in the kernel, which also decides what it has without being told so. One that the device
// does not have is passed over, and nothing makes up for it should it come.

#include "cfgmgr/routing/cfgmgr_config_vpn_ospf.h"

#include "cfgmgr/network/cfgmgr_if.h"
#include "cfgmgr/routing/cfgmgr_quagga_change.h"
#include "cfgmgr/routing/cfgmgr_quagga_pb_api.h"
#include "common/tip_log.h"
#include "proto/ospf.pb-c.h"
#include "yang/corvane-vpn.h"

namespace
{

#define AREA_FIELD(field)      QUAGGA_SCALAR(MOspfArea, field)
#define INTERFACE_FIELD(field) QUAGGA_SCALAR(MOspfAreaInterface, field)

constexpr quagga_leaf_t area_leaves[] = {
    { .tag = vpn_stub, .field = AREA_FIELD(stub), .form = cfgmgr_quagga_fill_exists },
    { .tag = vpn_no_summary,
      .field = AREA_FIELD(stub_no_summary),
      .form = cfgmgr_quagga_fill_exists,
      .inside = vpn_stub },
    { .tag = vpn_nssa, .field = AREA_FIELD(nssa), .form = cfgmgr_quagga_fill_exists },
    { .tag = vpn_no_summary,
      .field = AREA_FIELD(nssa_no_summary),
      .form = cfgmgr_quagga_fill_exists,
      .inside = vpn_nssa,
      .outside = vpn_stub },
    { .tag = vpn_translate,
      .field = AREA_FIELD(translate_role),
      .form = cfgmgr_quagga_fill_enum,
      .map = cfgmgr_config_ospf_translate_to_quagga_pb },
};

constexpr quagga_leaf_t interface_leaves[] = {
    { vpn_hello_interval, INTERFACE_FIELD(hello_interval), cfgmgr_quagga_fill_uint16 },
    { vpn_dead_interval, INTERFACE_FIELD(dead_interval), cfgmgr_quagga_fill_uint16 },
    { vpn_cost, INTERFACE_FIELD(cost), cfgmgr_quagga_fill_uint16, QUAGGA_REMOVED_FALLBACK },
    { vpn_priority, INTERFACE_FIELD(priority), cfgmgr_quagga_fill_uint8 },
    { vpn_passive_interface, INTERFACE_FIELD(passive), cfgmgr_quagga_fill_exists, QUAGGA_REMOVED_FALLBACK },
    { .tag = vpn_network,
      .field = INTERFACE_FIELD(network),
      .form = cfgmgr_quagga_fill_enum,
      .map = cfgmgr_config_ospf_network_to_quagga_pb },
    { .tag = vpn_type,
      .field = INTERFACE_FIELD(auth_type),
      .form = cfgmgr_quagga_fill_enum,
      .removal = QUAGGA_REMOVED_FLAG,
      .deleted = INTERFACE_FIELD(auth_type_is_deleted),
      .map = cfgmgr_config_ospf_authtype_to_quagga_pb },
    { vpn_authentication_key, QUAGGA_POINTER(MOspfAreaInterface, auth_key), cfgmgr_quagga_fill_text,
      QUAGGA_REMOVED_FLAG, INTERFACE_FIELD(auth_key_is_deleted) },
    { vpn_key_id, INTERFACE_FIELD(md5_key_id), cfgmgr_quagga_fill_uint8, QUAGGA_REMOVED_IGNORED },
    { vpn_md5, QUAGGA_POINTER(MOspfAreaInterface, md5_key), cfgmgr_quagga_fill_secret, QUAGGA_REMOVED_FLAG,
      INTERFACE_FIELD(md5_key_is_deleted) },
    { vpn_retransmit_interval, INTERFACE_FIELD(retransmit_interval), cfgmgr_quagga_fill_uint16 },
};

constexpr quagga_leaf_t range_leaves[] = {
    { vpn_cost, QUAGGA_SCALAR(MOspfAreaRange, cost), cfgmgr_quagga_fill_uint32 },
    { vpn_no_advertise, QUAGGA_SCALAR(MOspfAreaRange, no_advertise), cfgmgr_quagga_fill_exists },
};

uint32_t area_key(quagga_change_t *change)
{
    uint32_t area = cfgmgr_quagga_number_key(change->next_key());
    change->note_key("Area:%u", area);
    return area;
}

// Cost, and whether the interface is passive, where neither is configured: nobody is behind these interfaces.
uint32_t default_of(std::string_view if_name)
{
    return if_name.starts_with("loopback") || if_name.starts_with("natpool") ? 1 : 0;
}

// What a new interface has without being told so. That no cost is set is told by leaving it out.
void fill_defaults(MOspfAreaInterface *message, uint32_t otherwise)
{
    if (message->has_cost == 0) {
        message->cost = otherwise;
        message->has_cost = otherwise != 0;
    }
    if (message->has_passive == 0) {
        message->passive = otherwise != 0;
        message->has_passive = 1;
    }
}

// ospfd runs on an address of an interface that it has: the address comes last and goes first.
void send_address(quagga_change_t *change, const MOspfAreaInterface &message)
{
    cfgmgr_config_vpn_ospf_send_if_address(change->daemon(), change->vpn(), message.area, message.interface,
                                           change->is_deleted(), true);
}

} // namespace

// The marks of all areas go with one, deliberately: the rows of the other areas' interfaces set them again when they come.
int32_t cfgmgr_config_vpn_ospf_area(tconfd_sub *row, int32_t op, uint8_t num_keys, confd_value_t *keys, uint16_t num_tv,
                                    confd_tag_value_t *tv)
{
    quagga_change_t change("OSPF area", { row, op, num_keys, keys, num_tv, tv }, OSPF_BEHIND_KEYS);
    MOspfArea message = M_OSPF_AREA__INIT;
    message.area = area_key(&change);
    change.fill(&message, area_leaves);
    (void)change.send(&message, DAEMON_ID_OSPFD, OSPF_AREA); // gives 0
    if (change.is_deleted())
        cfgmgr_ospf_clear_if_marks(change.daemon(), change.vpn()->vpn_id);
    return 0;
}

int32_t cfgmgr_config_vpn_ospf_area_interface(tconfd_sub *row, int32_t op, uint8_t num_keys, confd_value_t *keys,
                                              uint16_t num_tv, confd_tag_value_t *tv)
{
    quagga_change_t change("OSPF area interface", { row, op, num_keys, keys, num_tv, tv }, OSPF_BEHIND_KEYS);
    MOspfAreaInterface message = M_OSPF_AREA_INTERFACE__INIT;
    message.area = area_key(&change);
    char name[IF_NAME_SIZE];
    std::string_view cli_name = cfgmgr_quagga_text_key(change.next_key());
    bool is_present = cfgmgr_quagga_interface_name(cli_name, change.daemon()->personality, name, sizeof name);
    change.note_key("interface:%s", name);
    if (!is_present) {
        if (cfgmgr_events_level > 0)
            tip_log("OSPF interface not present - %s", name);
        return 0;
    }
    message.interface = name;
    change.fields.fallback = default_of(name);
    if (change.is_deleted())
        send_address(&change, message);
    change.fill(&message, interface_leaves);
    if (change.is_created())
        fill_defaults(&message, change.fields.fallback);
    (void)change.send(&message, DAEMON_ID_OSPFD, OSPF_AREA_INTERFACE); // gives 0
    if (change.is_created())
        send_address(&change, message);
    return 0;
}

int32_t cfgmgr_config_vpn_ospf_area_range(tconfd_sub *row, int32_t op, uint8_t num_keys, confd_value_t *keys,
                                          uint16_t num_tv, confd_tag_value_t *tv)
{
    quagga_change_t change("OSPF area range", { row, op, num_keys, keys, num_tv, tv }, OSPF_BEHIND_KEYS);
    MOspfAreaRange message = M_OSPF_AREA_RANGE__INIT;
    message.area = area_key(&change);
    const confd_value_t *key_p = change.next_key();
    std::string range(cfgmgr_quagga_text_key(key_p));
    change.note_key("range:%s", range.c_str());
    ip_prefix_t prefix = cfgmgr_config_prefix(*key_p);
    if (!ip_addr_is_v4(prefix.ip)) {
        tip_log("OSPF area range config - vpn:%lu, Area:%u, range:%s Invalid IP address", change.vpn()->vpn_id,
                message.area, range.c_str());
        return 1;
    }
    message.prefix = change.fields.prefix(prefix);
    change.fill(&message, range_leaves);
    return change.send(&message, DAEMON_ID_OSPFD, OSPF_AREA_RANGE);
}
