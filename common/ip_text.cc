// Text forms of addresses, prefixes, socket endpoints and transport locators.
#include "common/ip_util.h"

#include "common/tip_names.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstring>

const char *ip_v4_to_str(uint32_t number, char *buffer, size_t size)
{
    (void)snprintf(buffer, size, "%d.%d.%d.%d", static_cast<int>(number >> 24), static_cast<int>(number >> 16 & 0xFF),
                   static_cast<int>(number >> 8 & 0xFF), static_cast<int>(number & 0xFF));
    return buffer;
}

const char *ip_addr_to_str(const ip_addr_t &ip, char *buffer, size_t size)
{
    if (ip_addr_is_v4(ip))
        return ip_v4_to_str(ip.addr.v4, buffer, size);
    if (inet_ntop(AF_INET6, ip.addr.v6, buffer, static_cast<socklen_t>(size)) == nullptr && size > 0)
        buffer[0] = '\0';
    return buffer;
}

const char *ip_sock_to_str(const ip_sock_t &sock, char *buffer, size_t size)
{
    char text[IP_ADDR_TEXT];
    (void)snprintf(buffer, size, "%s:%u", ip_addr_to_str(sock.ip, text, sizeof text), sock.port);
    return buffer;
}

const char *ip_prefix_to_str(const ip_prefix_t &prefix, char *buffer, size_t size)
{
    char text[IP_ADDR_TEXT];
    (void)snprintf(buffer, size, "%s/%u", ip_addr_to_str(prefix.ip, text, sizeof text), prefix.len);
    return buffer;
}

const char *wpnt_to_str(const wpnt_t &wpnt, char *buffer, size_t size)
{
    char text[IP_ADDR_TEXT];
    (void)snprintf(buffer, size, "Originator: %s Color: %u Encap: %u", ip_addr_to_str(wpnt.ip, text, sizeof text),
                   wpnt.color, wpnt.encap);
    return buffer;
}

const char *wpnt_to_name_str(const wpnt_t &wpnt, char *buffer, size_t size)
{
    char text[IP_ADDR_TEXT];
    (void)snprintf(buffer, size, "%s : %s : %s", ip_addr_to_str(wpnt.ip, text, sizeof text), color_name(wpnt.color),
                   encap_name(wpnt.encap));
    return buffer;
}

void ip_addr_from_str(ip_addr_t *to, const char *text)
{
    if (ip_addr_is_v4(*to)) {
        in_addr scratch = {};
        (void)inet_aton(text, &scratch); // refused text leaves the scratch zero, which is the result then
        ip_addr_set_v4(to, ntohl(scratch.s_addr));
        return;
    }
    in6_addr scratch = {};
    (void)inet_pton(AF_INET6, text, &scratch);
    memcpy(to->addr.v6, scratch.s6_addr, sizeof to->addr.v6);
}

int ip_addr_parse(const char *text, ip_addr_t *to)
{
    ip_addr_clear(to, 0);
    in_addr_t number = inet_network(text);
    if (number != INADDR_NONE) {
        ip_addr_set_v4(to, number);
        return 1;
    }
    in6_addr scratch;
    if (inet_pton(AF_INET6, text, &scratch) != 1)
        return 0;
    ip_addr_set_v6(to, scratch.s6_addr);
    return 1;
}
