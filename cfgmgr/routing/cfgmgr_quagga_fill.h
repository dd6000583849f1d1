// From the changed leaves of a configuration object to the fields of its message, by a table of rows.
//
// A message has its keys always, and beside them only what has changed. A row says which leaf fills which field, in which
// form, and what the leaf's removal sends: most numbers and booleans go out as 0, texts and addresses have a boolean of
// their own beside them. Rows are looked at in their order; a leaf may have several, and one that has none is of another
// row of the subscription table, or of nobody.
//
//     constexpr quagga_leaf_t leaves[] = {
//         { vpn_shutdown, QUAGGA_SCALAR(MBgpNeighbor, shutdown), cfgmgr_quagga_fill_bool },
//         { vpn_password, QUAGGA_POINTER(MBgpNeighbor, password), cfgmgr_quagga_fill_secret, QUAGGA_REMOVED_FLAG,
//           QUAGGA_SCALAR(MBgpNeighbor, password_is_deleted) },
//     };
//     quagga_fill_t fill;
//     MBgpNeighbor message = M_BGP_NEIGHBOR__INIT;
//     message.neighbor = fill.address(address);
//     (void)cfgmgr_quagga_fill(&fill, &message, leaves, num_tv, tv);
#ifndef CFGMGR_ROUTING_CFGMGR_QUAGGA_FILL_H
#define CFGMGR_ROUTING_CFGMGR_QUAGGA_FILL_H

#include "cfgmgr/daemon/cfgmgr_context.h"
#include "common/ip_util.h"
#include "proto/routing_common.pb-c.h"
#include "tconfd/tconfd_api.h"

#include <confd_lib.h>
#include <cstddef>
#include <cstdint>
#include <forward_list>
#include <span>
#include <string>
#include <string_view>

// A field of a message's record.
struct quagga_field_t {
    uint16_t value;    // offset
    uint16_t presence; // offset of its flag; QUAGGA_NO_FLAG for texts and sub-messages, which are there when not null
};
inline constexpr uint16_t QUAGGA_NO_FLAG = UINT16_MAX;
inline constexpr quagga_field_t QUAGGA_NO_FIELD = { QUAGGA_NO_FLAG, QUAGGA_NO_FLAG };
#define QUAGGA_SCALAR(message, field)                                                                                  \
    quagga_field_t                                                                                                     \
    {                                                                                                                  \
        offsetof(message, field), offsetof(message, has_##field)                                                       \
    }
#define QUAGGA_POINTER(message, field)                                                                                 \
    quagga_field_t                                                                                                     \
    {                                                                                                                  \
        offsetof(message, field), QUAGGA_NO_FLAG                                                                       \
    }

// What a leaf that was removed sends.
enum quagga_removal_t : uint8_t {
    QUAGGA_REMOVED_ZERO,     // the field, 0
    QUAGGA_REMOVED_FLAG,     // the row's other field, true
    QUAGGA_REMOVED_FALLBACK, // the field, with the fallback of the filling
    QUAGGA_REMOVED_IGNORED,  // nothing
};

// What the fields of one message point to: valid as long as this lives. Secrets are wiped with it.
class quagga_fill_t
{
public:
    quagga_fill_t() = default;
    quagga_fill_t(const quagga_fill_t &) = delete;
    quagga_fill_t &operator=(const quagga_fill_t &) = delete;
    ~quagga_fill_t();

    // Copies, owned by this.
    [[nodiscard]] char *text(std::string_view text);
    [[nodiscard]] MIpAddress *address(const ip_addr_t &address);
    // Address, slash, length.
    [[nodiscard]] MIpPrefix *prefix(const ip_prefix_t &prefix);

    uint32_t personality = 0;   // of the device, which decides what interfaces it has
    uint32_t fallback = 0;      // of QUAGGA_REMOVED_FALLBACK
    const char *name = nullptr; // of the object, for a trace of what has changed; null for none

private:
    std::forward_list<std::string> texts_;
    std::forward_list<MIpAddress> addresses_;
    std::forward_list<MIpPrefix> prefixes_;
};

struct quagga_leaf_t;
// Puts a value into the row's field. The value is not a removal.
using quagga_form_t = void(quagga_fill_t *fill, void *message, const quagga_leaf_t &row, const confd_value_t &value);

struct quagga_leaf_t {
    uint32_t tag;
    quagga_field_t field;
    quagga_form_t *form;
    quagga_removal_t removal = QUAGGA_REMOVED_ZERO;
    quagga_field_t deleted = QUAGGA_NO_FIELD;  // boolean of QUAGGA_REMOVED_FLAG
    uint32_t (*map)(uint32_t value) = nullptr; // of cfgmgr_quagga_fill_enum: the daemon's number
    // Tags of a container that the leaf must stand in, or must not stand in, at any depth; 0: anywhere.
    uint32_t inside = 0;
    uint32_t outside = 0;
};

// ---- forms. A value of another type than the form's is a bug and ends the process.

quagga_form_t cfgmgr_quagga_fill_bool;    // C_BOOL
quagga_form_t cfgmgr_quagga_fill_uint8;   // into a number of 32 bits, as those that follow
quagga_form_t cfgmgr_quagga_fill_uint16;  // C_UINT16
quagga_form_t cfgmgr_quagga_fill_uint32;  // C_UINT32
quagga_form_t cfgmgr_quagga_fill_enum;    // C_ENUM_VALUE, through the row's map
quagga_form_t cfgmgr_quagga_fill_as;      // C_UINT32, or C_BUF of two parts
quagga_form_t cfgmgr_quagga_fill_exists;  // true, whatever the type: a leaf or presence container that is there
quagga_form_t cfgmgr_quagga_fill_text;    // C_BUF
quagga_form_t cfgmgr_quagga_fill_secret;  // C_BUF, decrypted; one that cannot be stays out, logged
quagga_form_t cfgmgr_quagga_fill_address; // C_IPV4 or C_IPV6
// C_BUF, an interface by the operator's name: its name in the kernel. One that the device does not have stays out.
quagga_form_t cfgmgr_quagga_fill_interface;
// C_BUF, AS numbers joined by blanks, as plain numbers; what is none stays out. The second is for exclusion: they differ
// in what they log.
quagga_form_t cfgmgr_quagga_fill_prepend;
quagga_form_t cfgmgr_quagga_fill_exclude;
// C_LIST of C_BUF, joined by one blank, at most 127 bytes.
quagga_form_t cfgmgr_quagga_fill_joined;

// Fills the fields of the changed leaves in; how many values had a row.
size_t cfgmgr_quagga_fill(quagga_fill_t *fill, void *message, std::span<const quagga_leaf_t> rows, uint16_t num_tv,
                          const confd_tag_value_t *tv);

// ---- keys. A key of another type than the model's is a bug and ends the process.

[[nodiscard]] uint32_t cfgmgr_quagga_as_key(const confd_value_t *key_p); // C_UINT32, or C_BUF of two parts
[[nodiscard]] uint32_t cfgmgr_quagga_enum_key(const confd_value_t *key_p);
[[nodiscard]] uint32_t cfgmgr_quagga_number_key(const confd_value_t *key_p); // C_UINT32
[[nodiscard]] uint32_t cfgmgr_quagga_short_key(const confd_value_t *key_p);  // C_UINT16
[[nodiscard]] std::string_view cfgmgr_quagga_text_key(const confd_value_t *key_p);
[[nodiscard]] ip_addr_t cfgmgr_quagga_address_key(const confd_value_t *key_p);  // C_IPV4 or C_IPV6
[[nodiscard]] ip_prefix_t cfgmgr_quagga_prefix_key(const confd_value_t *key_p); // C_IPV4PREFIX

// Name in the kernel of an interface by the operator's name; false for one that a device of the personality cannot have.
[[nodiscard]] bool cfgmgr_quagga_interface_name(std::string_view cli_name, uint32_t personality, char *out,
                                                size_t size);

#endif
