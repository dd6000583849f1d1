// The lists that route policies name, and their members.

#include "cfgmgr/routing/cfgmgr_config_policy.h"

#include "cfgmgr/routing/cfgmgr_quagga_fill.h"
#include "common/tip_log.h"
#include "proto/policy.pb-c.h"
#include "yang/corvane-policy.h"

namespace
{

template <typename message_t>
int32_t change_list(const tconfd_sub *row, int32_t op, const confd_value_t *keys, message_t message)
{
    if (op != MOP_DELETED)
        return 0;
    quagga_fill_t fill;
    message.name = fill.text(cfgmgr_quagga_text_key(&keys[0]));
    message.has_list_is_deleted = 1;
    message.list_is_deleted = 1;
    return cfgmgr_policy_send(row, message.base);
}

// ---- members that are a text

// What the log calls a list's members.
struct member_names_t {
    const char *row;
    const char *member;
};

template <typename message_t>
int32_t change_member(const tconfd_sub *row, int32_t op, const confd_value_t *keys, uint16_t num_tv,
                      const member_names_t &names, char *message_t::*member, message_t message)
{
    quagga_fill_t fill;
    message.name = fill.text(cfgmgr_quagga_text_key(&keys[0]));
    message.*member = fill.text(cfgmgr_quagga_text_key(&keys[1]));
    tip_log("%s Config - Name:%s, %s:%s, Oper:%u, num:%u", names.row, message.name, names.member, message.*member,
            static_cast<unsigned>(op), static_cast<unsigned>(num_tv));
    if (op == MOP_DELETED) {
        message.has_entry_is_deleted = 1;
        message.entry_is_deleted = 1;
    }
    return cfgmgr_policy_send(row, message.base);
}

// ---- members that are a network

constexpr quagga_leaf_t prefix_leaves[] = {
    { .tag = policy_le,
      .field = QUAGGA_SCALAR(MPrefixList, le),
      .form = cfgmgr_quagga_fill_uint8,
      .removal = QUAGGA_REMOVED_FLAG,
      .deleted = QUAGGA_SCALAR(MPrefixList, le_is_deleted) },
    { .tag = policy_ge,
      .field = QUAGGA_SCALAR(MPrefixList, ge),
      .form = cfgmgr_quagga_fill_uint8,
      .removal = QUAGGA_REMOVED_FLAG,
      .deleted = QUAGGA_SCALAR(MPrefixList, ge_is_deleted) },
};

// The daemons know no equality: it is a range of one length, which counts before both bounds.
struct equal_length_t {
    uint32_t length;
    protobuf_c_boolean has_length;
    protobuf_c_boolean is_deleted;
    protobuf_c_boolean has_is_deleted;
};
constexpr quagga_leaf_t equal_leaves[] = {
    { .tag = policy_eq,
      .field = QUAGGA_SCALAR(equal_length_t, length),
      .form = cfgmgr_quagga_fill_uint8,
      .removal = QUAGGA_REMOVED_FLAG,
      .deleted = QUAGGA_SCALAR(equal_length_t, is_deleted) },
};

// Whatever the same change says of the bounds: it takes none away that the message sets.
void set_bounds(MPrefixList *message, uint32_t length)
{
    message->has_le = message->has_ge = 1;
    message->le = message->ge = length;
    message->has_le_is_deleted = message->le_is_deleted = 0;
    message->has_ge_is_deleted = message->ge_is_deleted = 0;
}

// A bound that the same change gives stands in the place of the equality's.
void remove_bounds(MPrefixList *message)
{
    if (message->has_le == 0)
        message->has_le_is_deleted = message->le_is_deleted = 1;
    if (message->has_ge == 0)
        message->has_ge_is_deleted = message->ge_is_deleted = 1;
}

void fill_bounds(quagga_fill_t *fill, MPrefixList *message, uint16_t num_tv, const confd_tag_value_t *tv)
{
    (void)cfgmgr_quagga_fill(fill, message, prefix_leaves, num_tv, tv);
    equal_length_t equal{};
    (void)cfgmgr_quagga_fill(fill, &equal, equal_leaves, num_tv, tv);
    if (equal.has_length != 0)
        set_bounds(message, equal.length);
    else if (equal.is_deleted != 0)
        remove_bounds(message);
}

} // namespace

// ---- lists

int32_t cfgmgr_config_as_path_list(tconfd_sub *row, int32_t op, uint8_t, confd_value_t *keys, uint16_t,
                                   confd_tag_value_t *)
{
    return change_list(row, op, keys, MBgpAsPathList M_BGP_AS_PATH_LIST__INIT);
}

int32_t cfgmgr_config_community_list(tconfd_sub *row, int32_t op, uint8_t, confd_value_t *keys, uint16_t,
                                     confd_tag_value_t *)
{
    return change_list(row, op, keys, MBgpCommunityList M_BGP_COMMUNITY_LIST__INIT);
}

int32_t cfgmgr_config_ext_community_list(tconfd_sub *row, int32_t op, uint8_t, confd_value_t *keys, uint16_t,
                                         confd_tag_value_t *)
{
    return change_list(row, op, keys, MBgpExtCommunityList M_BGP_EXT_COMMUNITY_LIST__INIT);
}

int32_t cfgmgr_config_prefix_list(tconfd_sub *row, int32_t op, uint8_t, confd_value_t *keys, uint16_t,
                                  confd_tag_value_t *)
{
    return change_list(row, op, keys, MPrefixList M_PREFIX_LIST__INIT);
}

// ---- members

int32_t cfgmgr_config_as_path_list_exp(tconfd_sub *row, int32_t op, uint8_t, confd_value_t *keys, uint16_t num_tv,
                                       confd_tag_value_t *)
{
    return change_member(row, op, keys, num_tv, { "AS Path list exp", "Regex" }, &MBgpAsPathList::regex,
                         MBgpAsPathList M_BGP_AS_PATH_LIST__INIT);
}

int32_t cfgmgr_config_community_list_attr(tconfd_sub *row, int32_t op, uint8_t, confd_value_t *keys, uint16_t num_tv,
                                          confd_tag_value_t *)
{
    return change_member(row, op, keys, num_tv, { "Community list attr", "Community" }, &MBgpCommunityList::community,
                         MBgpCommunityList M_BGP_COMMUNITY_LIST__INIT);
}

int32_t cfgmgr_config_ext_community_list_attr(tconfd_sub *row, int32_t op, uint8_t, confd_value_t *keys,
                                              uint16_t num_tv, confd_tag_value_t *)
{
    return change_member(row, op, keys, num_tv, { "Ext Community list attr", "Community" },
                         &MBgpExtCommunityList::community, MBgpExtCommunityList M_BGP_EXT_COMMUNITY_LIST__INIT);
}

int32_t cfgmgr_config_prefix_list_prefix(tconfd_sub *row, int32_t op, uint8_t, confd_value_t *keys, uint16_t num_tv,
                                         confd_tag_value_t *tv)
{
    quagga_fill_t fill;
    MPrefixList message = M_PREFIX_LIST__INIT;
    message.name = fill.text(cfgmgr_quagga_text_key(&keys[0]));
    message.prefix = fill.prefix(cfgmgr_quagga_prefix_key(&keys[1]));
    if (op == MOP_DELETED)
        message.has_prefix_is_deleted = message.prefix_is_deleted = 1;
    else
        fill_bounds(&fill, &message, num_tv, tv);
    return cfgmgr_policy_send(row, message.base);
}
