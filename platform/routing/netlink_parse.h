// Messages of the kernel about interfaces and addresses (rtnetlink(7)), from bytes to records. Every length in them is
// checked against what was received.
#ifndef PLATFORM_ROUTING_NETLINK_PARSE_H
#define PLATFORM_ROUTING_NETLINK_PARSE_H

#include <array>
#include <compare>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

struct kernel_link_t {
    uint32_t index = 0;
    uint32_t flags = 0; // IFF_*
    std::string name;
};

struct kernel_address_t {
    uint32_t index = 0;                 // of the interface
    uint8_t family = 0;                 // AF_INET or AF_INET6
    uint8_t prefix_length = 0;          // 0 to 32 or 128
    std::array<uint8_t, 16> bytes = {}; // the first 4 of an IPv4 address
    auto operator<=>(const kernel_address_t &) const = default;
};

enum kernel_change_kind_t : uint8_t {
    KERNEL_LINK, // new or changed
    KERNEL_LINK_GONE,
    KERNEL_ADDRESS,
    KERNEL_ADDRESS_GONE,
    KERNEL_DONE,  // end of a dump
    KERNEL_ERROR, // a request was refused: error
};

struct kernel_change_t {
    kernel_change_kind_t kind;
    bool is_interrupted = false; // the dump that this is a part of has missed changes
    uint32_t seq = 0;            // of the request that this answers, 0: of none
    int error = 0;               // errno
    kernel_link_t link;
    kernel_address_t address;
};

// The changes in one datagram; messages of other kinds, and what is malformed, are left out.
[[nodiscard]] std::vector<kernel_change_t> netlink_parse(std::string_view bytes);

// The request for a dump of all links, or of all addresses of both families.
[[nodiscard]] std::string netlink_dump_request(uint16_t type, uint32_t seq);

#endif
