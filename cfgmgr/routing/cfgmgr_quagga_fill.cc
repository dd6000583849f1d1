#include "cfgmgr/routing/cfgmgr_quagga_fill.h"

#include "cfgmgr/network/cfgmgr_config_value.h"
#include "cfgmgr/network/cfgmgr_if.h"
#include "cfgmgr/network/cfgmgr_if_name.h"
#include "cfgmgr/routing/cfgmgr_as_number.h"
#include "common/tip_assert.h"
#include "common/tip_log.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace
{

constexpr size_t PREFIX_TEXT_SIZE = 64;
constexpr size_t JOINED_SIZE = 128;

// The text is that of the walk over a change, whichever form finds the value to be of another type.
#define assert_type(value, wanted) tip_assert_text((value).type == (wanted), "(&cur_val_p->v)->type == " #wanted)

template <typename T> void put(void *message, uint16_t offset, T value)
{
    memcpy(static_cast<char *>(message) + offset, &value, sizeof value);
}

void put_presence(void *message, const quagga_field_t &field)
{
    if (field.presence != QUAGGA_NO_FLAG)
        put<protobuf_c_boolean>(message, field.presence, 1);
}

void put_number(void *message, const quagga_field_t &field, uint32_t number)
{
    put(message, field.value, number);
    put_presence(message, field);
}

void put_bool(void *message, const quagga_field_t &field, bool is_set)
{
    put<protobuf_c_boolean>(message, field.value, is_set ? 1 : 0);
    put_presence(message, field);
}

std::string_view text_of(const confd_value_t &value)
{
    return { reinterpret_cast<const char *>(CONFD_GET_BUFPTR(&value)), CONFD_GET_BUFSIZE(&value) };
}

// False, with the field left alone, for a text that is no list of AS numbers.
bool put_as_list(quagga_fill_t *fill, void *message, const quagga_leaf_t &row, const confd_value_t &value)
{
    assert_type(value, C_BUF);
    char list[AS_LIST_SIZE];
    if (!cfgmgr_convert_as_prepend_str(std::string(text_of(value)).c_str(), list, sizeof list))
        return false;
    put(message, row.field.value, fill->text(list));
    return true;
}

// ---- removals

bool is_bool_form(quagga_form_t *form)
{
    return form == cfgmgr_quagga_fill_bool || form == cfgmgr_quagga_fill_exists;
}

void put_small(void *message, const quagga_leaf_t &row, uint32_t number)
{
    if (is_bool_form(row.form))
        put_bool(message, row.field, number != 0);
    else
        put_number(message, row.field, number);
}

void fill_removal(const quagga_fill_t &fill, void *message, const quagga_leaf_t &row)
{
    switch (row.removal) {
    case QUAGGA_REMOVED_ZERO:
        put_small(message, row, 0);
        return;
    case QUAGGA_REMOVED_FALLBACK:
        put_small(message, row, fill.fallback);
        return;
    case QUAGGA_REMOVED_FLAG:
        put_bool(message, row.deleted, true);
        return;
    case QUAGGA_REMOVED_IGNORED:
        return;
    }
}

// ---- containers

// Tags of the containers that the walk is in, outermost first.
class open_containers_t
{
public:
    void note(const confd_tag_value_t &tv)
    {
        if (tv.v.type == C_XMLBEGIN)
            tags_.push_back(tv.tag.tag);
        else if (tv.v.type == C_XMLEND && !tags_.empty())
            tags_.pop_back();
    }
    [[nodiscard]] bool has(uint32_t tag) const { return std::find(tags_.begin(), tags_.end(), tag) != tags_.end(); }

private:
    std::vector<uint32_t> tags_;
};

bool is_for(const quagga_leaf_t &row, const confd_tag_value_t &tv, const open_containers_t &open)
{
    return row.tag == tv.tag.tag && (row.inside == 0 || open.has(row.inside)) &&
           (row.outside == 0 || !open.has(row.outside));
}

void fill_row(quagga_fill_t *fill, void *message, const quagga_leaf_t &row, const confd_value_t &value)
{
    if (cfgmgr_config_is_deleted(value))
        fill_removal(*fill, message, row);
    else
        row.form(fill, message, row, value);
}

void trace(const quagga_fill_t &fill, const confd_tag_value_t &changed)
{
    if (fill.name != nullptr && cfgmgr_events_level > 0)
        tip_log("%s - XML = %u, type: %d", fill.name, changed.tag.tag, static_cast<int>(changed.v.type));
}

} // namespace

// ---- what fields point to

quagga_fill_t::~quagga_fill_t()
{
    for (std::string &text : texts_)
        explicit_bzero(text.data(), text.size());
}

char *quagga_fill_t::text(std::string_view text)
{
    return texts_.emplace_front(text).data();
}

MIpAddress *quagga_fill_t::address(const ip_addr_t &address)
{
    char buffer[PREFIX_TEXT_SIZE];
    MIpAddress &to = addresses_.emplace_front(MIpAddress M_IP_ADDRESS__INIT);
    to.is_ipv4 = ip_addr_is_v4(address) ? 1 : 0;
    to.address = text(ip_addr_to_str(address, buffer, sizeof buffer));
    return &to;
}

MIpPrefix *quagga_fill_t::prefix(const ip_prefix_t &prefix)
{
    char buffer[PREFIX_TEXT_SIZE];
    MIpPrefix &to = prefixes_.emplace_front(MIpPrefix M_IP_PREFIX__INIT);
    to.is_ipv4 = ip_addr_is_v4(prefix.ip) ? 1 : 0;
    to.prefix = text(ip_prefix_to_str(prefix, buffer, sizeof buffer));
    return &to;
}

// ---- forms

void cfgmgr_quagga_fill_bool(quagga_fill_t *, void *message, const quagga_leaf_t &row, const confd_value_t &value)
{
    assert_type(value, C_BOOL);
    put_bool(message, row.field, CONFD_GET_BOOL(&value) != 0);
}

void cfgmgr_quagga_fill_uint8(quagga_fill_t *, void *message, const quagga_leaf_t &row, const confd_value_t &value)
{
    assert_type(value, C_UINT8);
    put_number(message, row.field, CONFD_GET_UINT8(&value));
}

void cfgmgr_quagga_fill_uint16(quagga_fill_t *, void *message, const quagga_leaf_t &row, const confd_value_t &value)
{
    assert_type(value, C_UINT16);
    put_number(message, row.field, CONFD_GET_UINT16(&value));
}

void cfgmgr_quagga_fill_uint32(quagga_fill_t *, void *message, const quagga_leaf_t &row, const confd_value_t &value)
{
    assert_type(value, C_UINT32);
    put_number(message, row.field, CONFD_GET_UINT32(&value));
}

void cfgmgr_quagga_fill_enum(quagga_fill_t *, void *message, const quagga_leaf_t &row, const confd_value_t &value)
{
    assert_type(value, C_ENUM_VALUE);
    put_number(message, row.field, row.map(static_cast<uint32_t>(CONFD_GET_ENUM_VALUE(&value))));
}

void cfgmgr_quagga_fill_as(quagga_fill_t *, void *message, const quagga_leaf_t &row, const confd_value_t &value)
{
    put_number(message, row.field, cfgmgr_quagga_as_key(&value));
}

void cfgmgr_quagga_fill_exists(quagga_fill_t *, void *message, const quagga_leaf_t &row, const confd_value_t &value)
{
    // A container's end tells nothing that its beginning has not.
    if (value.type != C_XMLEND)
        put_bool(message, row.field, true);
}

void cfgmgr_quagga_fill_text(quagga_fill_t *fill, void *message, const quagga_leaf_t &row, const confd_value_t &value)
{
    assert_type(value, C_BUF);
    put(message, row.field.value, fill->text(text_of(value)));
}

void cfgmgr_quagga_fill_secret(quagga_fill_t *fill, void *message, const quagga_leaf_t &row, const confd_value_t &value)
{
    assert_type(value, C_BUF);
    std::string_view secret = text_of(value);
    std::string clear(secret.size() + 1, '\0');
    int length = confd_decrypt(secret.data(), static_cast<int>(secret.size()), clear.data());
    if (length < 0)
        tip_log("Failed to decrypt a secret %s (%d) : %s", confd_strerror(confd_errno), confd_errno, confd_lasterr());
    else
        put(message, row.field.value, fill->text({ clear.data(), static_cast<size_t>(length) }));
    explicit_bzero(clear.data(), clear.size());
}

void cfgmgr_quagga_fill_address(quagga_fill_t *fill, void *message, const quagga_leaf_t &row,
                                const confd_value_t &value)
{
    put(message, row.field.value, fill->address(cfgmgr_quagga_address_key(&value)));
}

void cfgmgr_quagga_fill_interface(quagga_fill_t *fill, void *message, const quagga_leaf_t &row,
                                  const confd_value_t &value)
{
    assert_type(value, C_BUF);
    char name[IF_NAME_SIZE];
    if (cfgmgr_quagga_interface_name(text_of(value), fill->personality, name, sizeof name))
        put(message, row.field.value, fill->text(name));
    else if (cfgmgr_events_level > 0)
        tip_log("BGP interface not present - %s", name);
}

void cfgmgr_quagga_fill_prepend(quagga_fill_t *fill, void *message, const quagga_leaf_t &row,
                                const confd_value_t &value)
{
    if (!put_as_list(fill, message, row, value))
        tip_log("invalid as-path prepend string");
}

void cfgmgr_quagga_fill_exclude(quagga_fill_t *fill, void *message, const quagga_leaf_t &row,
                                const confd_value_t &value)
{
    if (!put_as_list(fill, message, row, value))
        tip_log("invalid as-path exclude string");
}

void cfgmgr_quagga_fill_joined(quagga_fill_t *fill, void *message, const quagga_leaf_t &row, const confd_value_t &value)
{
    assert_type(value, C_LIST);
    std::string joined;
    for (unsigned i = 0; i < CONFD_GET_LISTSIZE(&value); i++) {
        const confd_value_t &item = CONFD_GET_LIST(&value)[i];
        assert_type(item, C_BUF);
        joined += (joined.empty() ? "" : " ") + std::string(text_of(item));
    }
    put(message, row.field.value, fill->text(std::string_view(joined).substr(0, JOINED_SIZE - 1)));
}

size_t cfgmgr_quagga_fill(quagga_fill_t *fill, void *message, std::span<const quagga_leaf_t> rows, uint16_t num_tv,
                          const confd_tag_value_t *tv)
{
    size_t recognised = 0;
    open_containers_t open;
    for (const confd_tag_value_t &changed : std::span(tv, num_tv)) {
        trace(*fill, changed);
        bool has_row = false;
        for (const quagga_leaf_t &row : rows) {
            if (!is_for(row, changed, open))
                continue;
            fill_row(fill, message, row, changed.v);
            has_row = true;
        }
        recognised += has_row ? 1 : 0;
        open.note(changed);
    }
    return recognised;
}

// ---- keys

uint32_t cfgmgr_quagga_as_key(const confd_value_t *key_p)
{
    tip_assert((key_p)->type == C_UINT32 || (key_p)->type == C_BUF);
    return key_p->type == C_UINT32 ? CONFD_GET_UINT32(key_p) : cfgmgr_as_number(text_of(*key_p));
}

uint32_t cfgmgr_quagga_enum_key(const confd_value_t *key_p)
{
    tip_assert((key_p)->type == C_ENUM_VALUE);
    return static_cast<uint32_t>(CONFD_GET_ENUM_VALUE(key_p));
}

uint32_t cfgmgr_quagga_number_key(const confd_value_t *key_p)
{
    tip_assert((key_p)->type == C_UINT32);
    return CONFD_GET_UINT32(key_p);
}

uint32_t cfgmgr_quagga_short_key(const confd_value_t *key_p)
{
    tip_assert((key_p)->type == C_UINT16);
    return CONFD_GET_UINT16(key_p);
}

std::string_view cfgmgr_quagga_text_key(const confd_value_t *key_p)
{
    tip_assert((key_p)->type == C_BUF);
    return text_of(*key_p);
}

ip_addr_t cfgmgr_quagga_address_key(const confd_value_t *key_p)
{
    tip_assert((key_p)->type == C_IPV4 || (key_p)->type == C_IPV6);
    return cfgmgr_config_address(*key_p);
}

ip_prefix_t cfgmgr_quagga_prefix_key(const confd_value_t *key_p)
{
    tip_assert((key_p)->type == C_IPV4PREFIX);
    return cfgmgr_config_prefix(*key_p);
}

bool cfgmgr_quagga_interface_name(std::string_view cli_name, uint32_t personality, char *out, size_t size)
{
    bool is_convertible = cfgmgr_if_cli_to_kernel_name(std::string(cli_name).c_str(), out, size, nullptr) != nullptr;
    return is_convertible && cfgmgr_if_is_provisioned(out, personality, nullptr);
}
