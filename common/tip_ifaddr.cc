// The command templates stand together, so that one look shows all that is run here.
#include "common/tip_ifaddr.h"

#include "common/tip_log.h"
#include "common/tip_system.h"

#include <cstdio>

namespace
{

constexpr size_t COMMAND_SIZE = 256;
constexpr char FLUSH_V4_COMMAND[] = "ip -4 addr flush dev %s";
constexpr char FLUSH_V6_COMMAND[] = "ip -6 addr flush dev %s";
constexpr char ADDR_BROADCAST_COMMAND[] = "ip addr %s %s dev %s broadcast %s";
constexpr char ADDR_COMMAND[] = "ip addr %s %s dev %s";

// The results are lengths, as snprintf has them; -1 when no command fits the family.
int flush_command(char *command, const char *if_name, const ip_addr_t &ip)
{
    if (ip_addr_is_v4(ip))
        return snprintf(command, COMMAND_SIZE, FLUSH_V4_COMMAND, if_name);
    return ip_addr_is_v6(ip) ? snprintf(command, COMMAND_SIZE, FLUSH_V6_COMMAND, if_name) : -1;
}

int addr_command(char *command, const char *if_name, const ip_prefix_t &prefix, bool with_broadcast, const char *verb)
{
    char address[IP_PREFIX_TEXT];
    ip_prefix_to_str(prefix, address, sizeof address);
    if (!with_broadcast)
        return snprintf(command, COMMAND_SIZE, ADDR_COMMAND, verb, address, if_name);
    ip_addr_t broadcast;
    char broadcast_text[IP_ADDR_TEXT];
    ip_prefix_broadcast(prefix, &broadcast, prefix.len);
    ip_addr_to_str(broadcast, broadcast_text, sizeof broadcast_text);
    return snprintf(command, COMMAND_SIZE, ADDR_BROADCAST_COMMAND, verb, address, if_name, broadcast_text);
}

} // namespace

int tip_util_ifaddr_set(const char *if_name, const ip_prefix_t &prefix, bool with_broadcast, bool is_delete)
{
    bool is_zero = ip_addr_is_zero(prefix.ip);
    if (is_zero && !is_delete)
        return IFADDR_FAILED;
    char command[COMMAND_SIZE];
    int length = is_zero ? flush_command(command, if_name, prefix.ip)
                         : addr_command(command, if_name, prefix, with_broadcast, is_delete ? "del" : "add");
    if (length < 0 || static_cast<size_t>(length) >= sizeof command)
        return IFADDR_FAILED;
    tip_log("%s", command);
    return tip_system_ok(tip_system(command)) ? 0 : IFADDR_FAILED;
}
