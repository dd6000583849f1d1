// The one address record of the system, its arithmetic and its text forms.
//
// An address is a plain value: copied freely, compared with ip_addr_compare, zeroed to mean "none". An IPv4 address is
// kept as a number in host byte order, an IPv6 address as its 16 bytes in network order. Nothing here keeps state,
// allocates or logs. ip_util.cc holds constructors and predicates, ip_prefix.cc the prefix arithmetic, ip_text.cc the
// text forms.
//
// Inputs are references, records that are written are pointers. Results are 0 or 1 unless told otherwise.
#ifndef COMMON_IP_UTIL_H
#define COMMON_IP_UTIL_H

#include <cstddef>
#include <cstdint>
#include <sys/socket.h>

// 24 bytes: the address is aligned to 8, and the record travels in that form in shared memory and local messages.
struct ip_addr_t {
    uint32_t family; // AF_INET or AF_INET6; 0 means none
    union {
        uint32_t v4; // host byte order
        uint8_t v6[16];
        uint64_t halves[2]; // the same bytes as two native words
    } addr;
};
static_assert(sizeof(ip_addr_t) == 24);

struct ip_prefix_t {
    ip_addr_t ip;
    uint8_t len; // counted from the top bit
};

struct ip_sock_t {
    ip_addr_t ip;
    uint16_t port; // host byte order, but see ip_addr_from_sockaddr
};

// A transport locator: the originator's address with the colour and encapsulation of common/tip_names.h.
struct wpnt_t {
    ip_addr_t ip;
    uint8_t color;
    uint8_t encap;
};

// ---- Constructors

void ip_addr_set_v4(ip_addr_t *to, uint32_t number); // number in host byte order
void ip_addr_set_v6(ip_addr_t *to, const uint8_t *bytes);
void ip_addr_clear(ip_addr_t *to, uint32_t family);
// Copies the family and the 4 or 16 bytes that count; the rest of *to stays as it is.
void ip_addr_copy(ip_addr_t *to, const ip_addr_t &from);
// Takes bytes in network order, by the family that *to has already; gives the number of bytes taken: 4 for IPv4,
// otherwise 16.
int ip_addr_from_bytes(ip_addr_t *to, const uint8_t *bytes);
// Takes address and port of an IPv4 or IPv6 socket address; another family leaves *to alone. Deliberately, the port is
// brought to host byte order for IPv4 only: an IPv6 port is stored as the socket address holds it.
void ip_addr_from_sockaddr(ip_sock_t *to, const sockaddr *from);

// ---- Predicates and order

bool ip_addr_is_v4(const ip_addr_t &ip);
bool ip_addr_is_v6(const ip_addr_t &ip);
// An unknown family counts as zero.
bool ip_addr_is_zero(const ip_addr_t &ip);
// Family first, then the address as an unsigned number: -1, 0 or 1. Two records of the same unknown family are an
// assertion.
int ip_addr_compare(const ip_addr_t &a, const ip_addr_t &b);
// First two bytes fe80 exactly, not the whole fe80::/10.
bool ip_addr_is_link_local(const ip_addr_t &ip);
// First two bytes fc00 exactly.
bool ip_addr_is_ula(const ip_addr_t &ip);
bool ip_addr_is_multicast(const ip_addr_t &ip);
// An IPv4 address with a first octet that a host may have (not 0, not 127, below 224) and a last octet other than 0
// and 255; an IPv6 address that is neither link-local nor multicast nor zero. Other families: true.
bool ip_addr_is_valid_host(const ip_addr_t &ip);
// The same, with 0 allowed as the last octet of IPv4.
bool ip_addr_is_valid_host_or_net(const ip_addr_t &ip);
// True for all that is not IPv4.
bool ip_addr_first_octet_ok(const ip_addr_t &ip);

// ---- Arithmetic

// The next IPv4 address whose octets all lie in 1..254: 10.0.0.254 becomes 10.0.1.1. The top octet restarts at 1. No
// effect on other families.
void ip_addr_next_v4(ip_addr_t *ip);
void ip_addr_invert(ip_addr_t *ip);
// *a &= b; no effect when the families differ.
void ip_addr_and(ip_addr_t *a, const ip_addr_t &b);

// The mask of a prefix length 0..32 in host byte order. A length of 0 gives all ones, by intent: so a prefix of length 0
// contains its own address only.
uint32_t ip_masklen_v4(uint8_t len);
// The top len bits of a byte; 0 for a len above 8.
uint8_t ip_mask_byte(uint8_t len);
// An IPv6 mask; a len above 128 counts as 128.
void ip_masklen_v6(uint8_t len, ip_addr_t *mask);
// The mask of len, by the family that *mask has already. No effect on null and on other families.
void ip_mask_from_len(uint8_t len, ip_addr_t *mask);
// Sum of the leading ones of the four bytes; a byte that is not ones followed by zeros adds 0.
uint8_t ip_mask_to_len_v4(uint32_t mask);

bool ip_prefix_len_ok(const ip_prefix_t &prefix);
// An address that a host can have within its prefix: host bits neither all zero nor all one. True for /31, /32, /127 and
// /128, and for a length that is not valid.
bool ip_prefix_is_host(const ip_prefix_t &prefix);
// Host bits all zero (so also /32). False for a length that is not valid.
bool ip_prefix_is_subnet(const ip_prefix_t &prefix);
// True for all that is not IPv4 and for /32; otherwise host bits neither all zero nor all one.
bool ip_prefix_host_is_unicast(const ip_prefix_t &prefix);
// False when the families differ. A length above 32 or 128 is an assertion. Deliberately, an IPv6 prefix whose length is
// a multiple of 8 contains nothing: only a length that ends inside a byte can match.
bool ip_prefix_contains(const ip_addr_t &ip, const ip_prefix_t &prefix);
// *to becomes from's address under the mask of len, with that length; a len of 0 stands for from's own. No effect for
// an unknown family. to may be &from.
void ip_prefix_mask_apply(const ip_prefix_t &from, ip_prefix_t *to, uint8_t len);
// *out becomes the prefix's address with the host bits under len set; the zero address for IPv4 /31. The host bits of
// IPv6 are counted within each native 8-byte word.
void ip_prefix_broadcast(const ip_prefix_t &prefix, ip_addr_t *out, uint8_t len);

// ---- Text. Each writer terminates what it writes within size bytes and gives buffer back.

inline constexpr size_t IP_ADDR_TEXT = 46;   // INET6_ADDRSTRLEN
inline constexpr size_t IP_PREFIX_TEXT = 50; // with "/128"

const char *ip_v4_to_str(uint32_t number, char *buffer, size_t size);
const char *ip_addr_to_str(const ip_addr_t &ip, char *buffer, size_t size);
const char *ip_sock_to_str(const ip_sock_t &sock, char *buffer, size_t size);       // "address:port"
const char *ip_prefix_to_str(const ip_prefix_t &prefix, char *buffer, size_t size); // "address/len"
const char *wpnt_to_str(const wpnt_t &wpnt, char *buffer, size_t size);      // numbers for colour and encapsulation
const char *wpnt_to_name_str(const wpnt_t &wpnt, char *buffer, size_t size); // names for both

// Reads text by the family that *to has already (anything but IPv4 is read as IPv6). Text that is no address leaves the
// zero address; the caller who must know uses ip_addr_parse.
void ip_addr_from_str(ip_addr_t *to, const char *text);
// Reads an address of either family, 1 on success. IPv4 as inet_network(3) takes it, in host byte order: "1.2" is
// 0x0102, and 255.255.255.255 is not taken. On failure *to is all zero and the result 0.
int ip_addr_parse(const char *text, ip_addr_t *to);

#endif
