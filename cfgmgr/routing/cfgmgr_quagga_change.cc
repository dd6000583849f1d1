#include "cfgmgr/routing/cfgmgr_quagga_change.h"

#include "cfgmgr/network/cfgmgr_config_vpn.h"
#include "cfgmgr/routing/cfgmgr_quagga_pb_api.h"
#include "common/tip_assert.h"
#include "common/tip_log.h"

#include <cstdarg>
#include <cstdio>

namespace
{

constexpr size_t KEY_TEXT_SIZE = 128;

} // namespace

quagga_change_t::quagga_change_t(const char *name, const quagga_delivery_t &delivery, const char *behind_keys)
    : delivery_(delivery), behind_keys_(behind_keys)
{
    fields.name = name;
    fields.personality = daemon()->personality;
    note_key("vpn:%lu", cfgmgr_config_vpn_id(next_key()));
}

// ---- keys

const confd_value_t *quagga_change_t::next_key()
{
    tip_assert(next_ < delivery_.num_keys);
    return &delivery_.keys[next_++];
}

void quagga_change_t::note_key(const char *fmt, ...)
{
    if (cfgmgr_events_level <= CFGMGR_DETAILED)
        return;
    char text[KEY_TEXT_SIZE];
    va_list args;
    va_start(args, fmt);
    (void)vsnprintf(text, sizeof text, fmt, args); // cut, for people only
    va_end(args);
    keys_text_ += keys_text_.empty() ? "" : ", ";
    keys_text_ += text;
}

uint32_t quagga_change_t::as_key()
{
    uint32_t as_num = cfgmgr_quagga_as_key(next_key());
    note_key("AS:%u", as_num);
    return as_num;
}

uint32_t quagga_change_t::enum_key(const char *label)
{
    uint32_t number = cfgmgr_quagga_enum_key(next_key());
    note_key("%s:%u", label, number);
    return number;
}

MIpAddress *quagga_change_t::address_key()
{
    MIpAddress *address = fields.address(cfgmgr_quagga_address_key(next_key()));
    note_key("IP: %s", address->address);
    return address;
}

MIpPrefix *quagga_change_t::prefix_key()
{
    MIpPrefix *prefix = fields.prefix(cfgmgr_quagga_prefix_key(next_key()));
    note_key("prefix: %s", prefix->prefix);
    return prefix;
}

// ---- what is done with it

cfgmgrd_t *quagga_change_t::daemon() const
{
    return cfgmgr_config_daemon(delivery_.row);
}

cfgmgr_vpn_t *quagga_change_t::vpn()
{
    if (vpn_p_ != nullptr)
        return vpn_p_;
    if (cfgmgr_events_level > CFGMGR_DETAILED)
        tip_log("%s config - %s%soper:%d, num_values:%u", fields.name, keys_text_.c_str(), behind_keys_, delivery_.op,
                delivery_.num_tv);
    vpn_p_ = cfgmgr_config_vpn_get(delivery_.row, &delivery_.keys[0]);
    return vpn_p_;
}

int32_t quagga_change_t::send(const void *message, uint32_t peer_id, uint32_t type)
{
    (void)cfgmgr_quagga_pb_send_message(vpn(), message, peer_id, type); // one that is lost is logged by the channel
    return 0;
}
