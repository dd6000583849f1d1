// Value helpers: keys of a keypath, addresses, copies.

#include "tconfd/tconfd_util.h"

#include "common/tip_text.h"
#include "tconfd/tconfd_internal.h"

#include <arpa/inet.h>
#include <cstdlib>

namespace
{

constexpr size_t IP_TEXT_SIZE = 128;

// The key element of the list with the tag, outermost first; null when the path does not pass through it.
const confd_value_t *find_key_element(const confd_hkeypath_t &kp, uint32_t tag)
{
    for (int level = kp.len - 1; level > 0; level--) {
        const confd_value_t *name = kp.v[level];
        const confd_value_t *keys = kp.v[level - 1];
        if (name[0].type == C_XMLTAG && name[0].val.xmltag.tag == tag && keys[0].type != C_XMLTAG)
            return keys;
    }
    return nullptr;
}

uint32_t count_keys(const confd_value_t *element)
{
    uint32_t n = 0;
    while (element != nullptr && n < MAXKEYLEN && element[n].type != C_NOEXISTS)
        n++;
    return n;
}

// The length behind the "/", or without one the length of a host.
uint8_t split_prefix(const char *text, char *address, size_t size, uint8_t host_len, bool *has_len)
{
    strlcpy(address, text, size);
    char *slash = strchr(address, '/');
    *has_len = slash != nullptr;
    if (slash == nullptr)
        return host_len;
    *slash = '\0';
    return static_cast<uint8_t>(strtoul(slash + 1, nullptr, 10));
}

void parse_prefix(const char *text, uint32_t family, uint8_t host_len, ip_prefix_t *out)
{
    char address[IP_TEXT_SIZE];
    bool has_len;
    uint8_t len = split_prefix(text, address, sizeof address, host_len, &has_len);
    ip_addr_clear(&out->ip, family);
    ip_addr_from_str(&out->ip, address);
    out->len = len;
}

// False for a value that is no address.
bool value_to_ip(const confd_value_t &value, ip_addr_t *out)
{
    if (value.type == C_IPV4)
        ip_addr_set_v4(out, ntohl(CONFD_GET_IPV4(&value).s_addr));
    else if (value.type == C_IPV6)
        ip_addr_set_v6(out, CONFD_GET_IPV6(&value).s6_addr);
    else
        return false;
    return true;
}

int take_ip(int status, confd_value_t *value, ip_addr_t *out)
{
    if (status != CONFD_OK)
        return status;
    (void)value_to_ip(*value, out); // a leaf of another type leaves out alone
    confd_free_value(value);
    return CONFD_OK;
}

} // namespace

confd_value_t *tconfd_keypath_get_keys(const confd_hkeypath_t *kp, confd_value_t *out, uint32_t count, uint32_t tag)
{
    if (count == 0)
        return nullptr;
    const confd_value_t *element = find_key_element(*kp, tag);
    uint32_t found = count_keys(element);
    if (found != count) {
        tconfd_log("Number of keys given (%d) != number of keys found (%d) !", static_cast<int>(count),
                   static_cast<int>(found));
        return nullptr;
    }
    if (out == nullptr)
        out = static_cast<confd_value_t *>(calloc(count, sizeof *out));
    if (out == nullptr) {
        tconfd_log("Could not allocate memory");
        return nullptr;
    }
    for (uint32_t i = 0; i < count; i++)
        out[i] = element[i];
    return out;
}

void tconfd_free_values(confd_value_t *values, uint32_t count)
{
    for (uint32_t i = 0; i < count && values != nullptr; i++)
        confd_free_value(&values[i]);
    free(values);
}

int tconfd_copy_confd_value(confd_value_t *to, const confd_value_t *value)
{
    confd_value_t copy = *value;
    if (value->type == C_STR) {
        char *text = strdup(CONFD_GET_STR(value));
        if (text == nullptr) {
            tconfd_log("Failed to allocate memory");
            return TCONFD_NO_MEMORY;
        }
        CONFD_SET_STR(&copy, text);
    } else if (value->type == C_BUF) {
        size_t size = CONFD_GET_BUFSIZE(value);
        auto *bytes = static_cast<unsigned char *>(malloc(size + 1)); // with room for a NUL
        if (bytes == nullptr) {
            tconfd_log("Failed to allocate memory");
            return TCONFD_NO_MEMORY;
        }
        if (size > 0)
            memcpy(bytes, CONFD_GET_BUFPTR(value), size);
        bytes[size] = '\0';
        CONFD_SET_BUF(&copy, bytes, size);
    }
    *to = copy;
    return TCONFD_OK;
}

void tconfd_free_value_copy(confd_value_t *value)
{
    if (value->type == C_STR)
        free(const_cast<char *>(CONFD_GET_STR(value)));
    else if (value->type == C_BUF)
        free(CONFD_GET_BUFPTR(value));
    CONFD_SET_NOEXISTS(value);
}

void tconfd_str_to_ipv4_prefix(const char *text, ip_prefix_t *out)
{
    parse_prefix(text, AF_INET, 32, out);
}

void tconfd_str_to_ipv6_prefix(const char *text, ip_prefix_t *out)
{
    parse_prefix(text, AF_INET6, 128, out);
}

void tconfd_str_to_ip_prefix(const char *text, ip_prefix_t *out)
{
    char address[IP_TEXT_SIZE];
    bool has_len;
    uint8_t len = split_prefix(text, address, sizeof address, 0, &has_len);
    ip_addr_clear(&out->ip, AF_INET6);
    bool parsed = ip_addr_parse(address, &out->ip) != 0;
    if (!has_len && parsed)
        len = ip_addr_is_v6(out->ip) ? 128 : 32;
    out->len = len;
}

void tconfd_str_to_ip(const char *text, ip_addr_t *out)
{
    char address[IP_TEXT_SIZE];
    strlcpy(address, text, sizeof address);
    (void)ip_addr_parse(address, out); // zeroed when it does not parse
}

int tconfd_maapi_get_ip(int sock, int th, ip_addr_t *out, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    confd_value_t value;
    int status = maapi_vget_elem(sock, th, &value, fmt, args);
    va_end(args);
    return take_ip(status, &value, out);
}

int tconfd_cdb_get_ip(int sock, ip_addr_t *out, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    confd_value_t value;
    int status = cdb_vget(sock, &value, fmt, args);
    va_end(args);
    return take_ip(status, &value, out);
}

int tconfd_cdb_get_ip_prefix_from_str(int sock, ip_prefix_t *out, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    confd_value_t value;
    int status = cdb_vget(sock, &value, fmt, args);
    va_end(args);
    if (status != CONFD_OK) {
        tconfd_trace("Cannot read IP prefix from CDB (%d)%s (%d) : %s", status, confd_strerror(confd_errno),
                     confd_errno, confd_lasterr());
        return status;
    }
    if (value.type == C_BUF) {
        char text[IP_TEXT_SIZE];
        (void)snprintf(text, sizeof text, "%.*s", static_cast<int>(CONFD_GET_BUFSIZE(&value)),
                       CONFD_GET_CBUFPTR(&value));
        tconfd_str_to_ip_prefix(text, out);
    }
    confd_free_value(&value);
    return CONFD_OK;
}

void tconfd_addr_port_str(const ip_addr_t *ip, uint16_t port, char *out, size_t size)
{
    char address[IP_TEXT_SIZE];
    ip_addr_to_str(*ip, address, sizeof address);
    const auto *bytes = reinterpret_cast<const uint8_t *>(&port);
    (void)snprintf(out, size, "%s.%u.%u", address, bytes[0], bytes[1]);
}

uint32_t tconfd_color_to_level(uint32_t value)
{
    return value >= 1 && value <= 4 ? 2 * value - 1 : 0;
}

uint32_t tconfd_enum_identity(uint32_t value)
{
    constexpr uint32_t OTHER = 12;
    bool is_known = (value >= 1 && value <= 11) || value == 13;
    return is_known ? value : OTHER;
}
