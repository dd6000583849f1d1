#include "platform/routing/netlink_parse.h"

#include <cstring>
#include <linux/if_addr.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

namespace
{

// The record that bytes begin with; false when they are too short for it.
template <typename T> bool record_read(std::string_view bytes, T *record)
{
    if (bytes.size() < sizeof *record)
        return false;
    memcpy(record, bytes.data(), sizeof *record);
    return true;
}

// Cuts off the record's part of the bytes, padding included.
void skip(std::string_view *bytes, size_t length)
{
    size_t padded = NLMSG_ALIGN(length);
    bytes->remove_prefix(padded < bytes->size() ? padded : bytes->size());
}

// The value of the first attribute of a type; false without one.
bool attribute_find(std::string_view bytes, uint16_t type, std::string_view *value)
{
    rtattr attribute;
    while (record_read(bytes, &attribute)) {
        if (attribute.rta_len < sizeof attribute || attribute.rta_len > bytes.size())
            return false;
        if ((attribute.rta_type & NLA_TYPE_MASK) == type) {
            *value = bytes.substr(sizeof attribute, attribute.rta_len - sizeof attribute);
            return true;
        }
        skip(&bytes, attribute.rta_len);
    }
    return false;
}

bool link_read(std::string_view body, kernel_change_t *change)
{
    ifinfomsg info;
    std::string_view name;
    // The families are views of the same interface by others, such as a bridge that it is a port of.
    if (!record_read(body, &info) || info.ifi_family != AF_UNSPEC || info.ifi_index <= 0)
        return false;
    skip(&body, sizeof info);
    if (!attribute_find(body, IFLA_IFNAME, &name))
        return false;
    name = name.substr(0, name.find('\0'));
    if (name.empty() || name.size() >= IFNAMSIZ)
        return false;
    change->link = { static_cast<uint32_t>(info.ifi_index), info.ifi_flags, std::string(name) };
    return true;
}

// On a point-to-point link IFA_ADDRESS is the far end's; IPv6 has IFA_LOCAL only there.
bool address_read(std::string_view body, kernel_change_t *change)
{
    ifaddrmsg info;
    std::string_view value;
    if (!record_read(body, &info) || (info.ifa_family != AF_INET && info.ifa_family != AF_INET6))
        return false;
    skip(&body, sizeof info);
    size_t size = info.ifa_family == AF_INET ? 4 : 16;
    if (!attribute_find(body, IFA_LOCAL, &value) && !attribute_find(body, IFA_ADDRESS, &value))
        return false;
    if (value.size() != size || info.ifa_prefixlen > size * 8 || info.ifa_index == 0)
        return false;
    change->address.index = info.ifa_index;
    change->address.family = info.ifa_family;
    change->address.prefix_length = info.ifa_prefixlen;
    memcpy(change->address.bytes.data(), value.data(), size);
    return true;
}

bool done_read(std::string_view, kernel_change_t *)
{
    return true;
}

// An acknowledgement is an error of number 0: nobody has asked for one.
bool error_read(std::string_view body, kernel_change_t *change)
{
    int negative = 0;
    if (!record_read(body, &negative) || negative == 0 || negative < -4095)
        return false;
    change->error = negative < 0 ? -negative : negative;
    return true;
}

struct kind_row_t {
    uint16_t type;
    kernel_change_kind_t kind;
    bool (*read)(std::string_view body, kernel_change_t *change);
};
constexpr kind_row_t kind_rows[] = {
    { RTM_NEWLINK, KERNEL_LINK, link_read },       { RTM_DELLINK, KERNEL_LINK_GONE, link_read },
    { RTM_NEWADDR, KERNEL_ADDRESS, address_read }, { RTM_DELADDR, KERNEL_ADDRESS_GONE, address_read },
    { NLMSG_DONE, KERNEL_DONE, done_read },        { NLMSG_ERROR, KERNEL_ERROR, error_read },
};

} // namespace

std::vector<kernel_change_t> netlink_parse(std::string_view bytes)
{
    std::vector<kernel_change_t> changes;
    nlmsghdr header;
    while (record_read(bytes, &header) && header.nlmsg_len >= sizeof header && header.nlmsg_len <= bytes.size()) {
        for (const kind_row_t &row : kind_rows) {
            kernel_change_t change{};
            change.kind = row.kind;
            change.is_interrupted = (header.nlmsg_flags & NLM_F_DUMP_INTR) != 0;
            change.seq = header.nlmsg_seq;
            std::string_view body = bytes.substr(sizeof header, header.nlmsg_len - sizeof header);
            if (row.type == header.nlmsg_type && row.read(body, &change))
                changes.push_back(change);
        }
        skip(&bytes, header.nlmsg_len);
    }
    return changes;
}

std::string netlink_dump_request(uint16_t type, uint32_t seq)
{
    struct {
        nlmsghdr header;
        rtgenmsg body;
    } request{};
    request.header.nlmsg_len = NLMSG_LENGTH(sizeof request.body);
    request.header.nlmsg_type = type;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.header.nlmsg_seq = seq;
    request.body.rtgen_family = AF_UNSPEC;
    return { reinterpret_cast<const char *>(&request), sizeof request };
}
