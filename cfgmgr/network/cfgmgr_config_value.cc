// Values of configuration, by the type that the agent gives them.

#include "cfgmgr/network/cfgmgr_config_value.h"

#include "common/tip_assert.h"
#include "tconfd/tconfd_util.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>

namespace
{

// The one IPv4 address that the general reading of texts takes for none.
void read_prefix(const char *text, ip_prefix_t *out)
{
    constexpr char BROADCAST[] = "255.255.255.255/";
    tconfd_str_to_ip_prefix(text, out);
    if (strncmp(text, BROADCAST, strlen(BROADCAST)) == 0)
        ip_addr_set_v4(&out->ip, UINT32_MAX);
}

} // namespace

bool cfgmgr_config_is_deleted(const confd_value_t &value)
{
    return value.type == C_NOEXISTS;
}

int64_t cfgmgr_config_number(const confd_value_t &value)
{
    switch (value.type) {
    case C_INT8:
        return CONFD_GET_INT8(&value);
    case C_INT16:
        return CONFD_GET_INT16(&value);
    case C_INT32:
        return CONFD_GET_INT32(&value);
    case C_UINT8:
        return CONFD_GET_UINT8(&value);
    case C_UINT16:
        return CONFD_GET_UINT16(&value);
    case C_UINT32:
        return CONFD_GET_UINT32(&value);
    case C_UINT64:
        return static_cast<int64_t>(CONFD_GET_UINT64(&value));
    case C_INT64:
        return CONFD_GET_INT64(&value);
    default:
        tip_assert(value.type == C_ENUM_VALUE);
        return CONFD_GET_ENUM_VALUE(&value);
    }
}

bool cfgmgr_config_bool(const confd_value_t &value)
{
    tip_assert(value.type == C_BOOL);
    return CONFD_GET_BOOL(&value) != 0;
}

void cfgmgr_config_text(const confd_value_t &value, char *out, size_t size)
{
    tip_assert(value.type == C_BUF);
    size_t length = std::min<size_t>(CONFD_GET_BUFSIZE(&value), size - 1);
    memcpy(out, CONFD_GET_BUFPTR(&value), length);
    out[length] = '\0';
}

ip_addr_t cfgmgr_config_address(const confd_value_t &value)
{
    ip_addr_t address{};
    char text[IP_ADDR_TEXT];
    switch (value.type) {
    case C_IPV4:
        ip_addr_set_v4(&address, ntohl(CONFD_GET_IPV4(&value).s_addr));
        break;
    case C_IPV6:
        ip_addr_set_v6(&address, CONFD_GET_IPV6(&value).s6_addr);
        break;
    default:
        cfgmgr_config_text(value, text, sizeof text);
        tconfd_str_to_ip(text, &address);
    }
    return address;
}

ip_prefix_t cfgmgr_config_prefix(const confd_value_t &value)
{
    ip_prefix_t prefix{};
    char text[IP_PREFIX_TEXT];
    switch (value.type) {
    case C_IPV4PREFIX:
        ip_addr_set_v4(&prefix.ip, ntohl(CONFD_GET_IPV4PREFIX(&value).ip.s_addr));
        prefix.len = CONFD_GET_IPV4PREFIX(&value).len;
        break;
    case C_IPV6PREFIX:
        ip_addr_set_v6(&prefix.ip, CONFD_GET_IPV6PREFIX(&value).ip6.s6_addr);
        prefix.len = CONFD_GET_IPV6PREFIX(&value).len;
        break;
    default:
        cfgmgr_config_text(value, text, sizeof text);
        read_prefix(text, &prefix);
    }
    return prefix;
}
