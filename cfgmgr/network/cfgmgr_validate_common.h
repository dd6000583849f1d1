// What the validators share: refusing, reading the transaction, and the rules that several points use.
#ifndef CFGMGR_NETWORK_CFGMGR_VALIDATE_COMMON_H
#define CFGMGR_NETWORK_CFGMGR_VALIDATE_COMMON_H

#include "cfgmgr/daemon/cfgmgr_context.h"
#include "tconfd/tconfd_util.h"

#include <confd_dp.h>
#include <confd_maapi.h>
#include <cstddef>
#include <cstdint>

inline constexpr int VALIDATE_NAME_LEN = 16; // bytes of an interface name with its end, as the kernel takes them
inline constexpr size_t VALIDATE_NAME_SIZE = 64;

// One question of the agent: who asks, and the socket through which the transaction is read.
struct validate_t {
    confd_trans_ctx *tctx;
    int sock; // maapi, attached to the transaction
    int th;
    cfgmgrd_t *cfgmgrd_p;
};
[[nodiscard]] validate_t validate_of(confd_trans_ctx *tctx);

// Sets the text for the operator; -1.
[[gnu::format(printf, 2, 3)]] int validate_refuse(const validate_t &v, const char *fmt, ...);
// The same with the agent's last error: what, which ends in its blanks, is followed by "confd_str %s (%d) %s".
int validate_refuse_agent(const validate_t &v, const char *what);
// Logs that the agent gave no session on the datastore, with the result of the step that failed.
void validate_log_no_session(int result);

// Keys of a keypath. Another type than the model's is an assertion.
[[nodiscard]] uint64_t validate_vpn_key(const confd_hkeypath_t *kp);
void validate_if_key(const confd_hkeypath_t *kp, char (&out)[VALIDATE_NAME_SIZE]);
[[nodiscard]] uint32_t validate_bridge_key(const confd_hkeypath_t *kp);

// Reading. A leaf's value lives until the record ends; one that is not there (or cannot be read) is false.
struct validate_value_t {
    confd_value_t v{};
    validate_value_t() = default;
    validate_value_t(const validate_value_t &) = delete;
    validate_value_t &operator=(const validate_value_t &) = delete;
    ~validate_value_t() { confd_free_value(&v); }
};
[[nodiscard, gnu::format(printf, 3, 4)]] bool validate_get(const validate_t &v, validate_value_t *out, const char *fmt,
                                                           ...);
[[nodiscard, gnu::format(printf, 2, 3)]] bool validate_exists(const validate_t &v, const char *fmt, ...);
[[nodiscard, gnu::format(printf, 3, 4)]] bool validate_get_bool(const validate_t &v, bool otherwise, const char *fmt,
                                                                ...);
// Whether the last reading failed for another reason than that nothing is there.
[[nodiscard]] bool validate_has_failed();
// The VLAN that a bridge carries, 0 for none. False when it cannot be read.
[[nodiscard]] bool validate_bridge_vlan(const validate_t &v, uint32_t bridge_id, uint32_t *out);

// While one lives, a leaf that has only its default does not exist and reads as C_DEFAULT.
struct validate_no_defaults_t {
    const validate_t &v;
    explicit validate_no_defaults_t(const validate_t &of);
    validate_no_defaults_t(const validate_no_defaults_t &) = delete;
    validate_no_defaults_t &operator=(const validate_no_defaults_t &) = delete;
    ~validate_no_defaults_t();
};

// A walk over the entries of a list, each step a sign of life to the system manager:
//     validate_list_t list(v, "/vpn/vpn-instance{%ld}/interface", vpn);
//     while (list.next()) ... list.cursor.keys[0] ...
// A list that cannot be walked to its end ends early, and is_open is false then: to be looked at behind the loop.
struct validate_list_t {
    maapi_cursor cursor{};
    bool is_open = false;
    [[gnu::format(printf, 3, 4)]] validate_list_t(const validate_t &v, const char *fmt, ...);
    validate_list_t(const validate_list_t &) = delete;
    validate_list_t &operator=(const validate_list_t &) = delete;
    ~validate_list_t();
    [[nodiscard]] bool next();
};

// ---- rules that several points use; 0 or a refusal

int cfgmgr_validate_if_name_len(const validate_t &v, const char *name);
// 1 when the leaf has no value of its own in the transaction.
[[nodiscard]] int cfgmgr_validate_leaf_is_default(confd_trans_ctx *tctx, const confd_hkeypath_t *kp,
                                                  const confd_value_t *value);
// 1 when the leaf or presence container of that path exists and has not just its default.
[[nodiscard]] int cfgmgr_validate_leaf_set(confd_trans_ctx *tctx, const char *path);
// A port of the operator's name that a bridge has already, for names with "ge".
int cfgmgr_validate_if_bridge_conflict(confd_trans_ctx *tctx, const char *cli_name);
// 0 when the path is container ipv6 itself, else whether the element exists.
[[nodiscard]] int cfgmgr_validate_is_routing_leaf(confd_trans_ctx *tctx, const confd_hkeypath_t *kp,
                                                  const confd_value_t *value);
// The interface has no setting in that VPN that would make it more than a bridge's member.
int cfgmgr_validate_if_not_configured(confd_trans_ctx *tctx, const char *cli_name, uint64_t vpn_id);
// Source interfaces of the servers of a list ("/system/radius/server" and its like, "/snmp/trap/target" with three
// keys) still exist.
int cfgmgr_validate_ext_auth_src_intf(confd_trans_ctx *tctx, const char *list, int num_keys);
// The size that the interface of a VPN, or a member of a bridge (vpn -1), may have.
int cfgmgr_validate_if_mtu(confd_trans_ctx *tctx, const confd_hkeypath_t *kp, int64_t vpn_id, const char *cli_name,
                           uint32_t mtu, const confd_value_t *newval);

#endif
