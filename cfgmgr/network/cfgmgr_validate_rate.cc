// Rates that an interface can be held to, by the speed that its name tells: its shaper and the policers on it, also
// those that it has by way of an access list.

#include "cfgmgr/network/cfgmgr_config_value.h"
#include "cfgmgr/network/cfgmgr_validate.h"
#include "cfgmgr/network/cfgmgr_validate_common.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>

namespace
{

constexpr size_t WHAT_SIZE = 160; // "Failed to get " and a path with a name of the policy
constexpr uint64_t POLICER_MIN = 8;

struct speed_t {
    const char *name;     // for the operator
    uint32_t shaper_max;  // kbit/s
    uint64_t policer_max; // bit/s
};
constexpr speed_t SPEED_1G = { "1g", 1'000'000, 1'000'000'000 };
constexpr speed_t SPEED_10G = { "10g", 10'000'000, 10'000'000'000 };

const speed_t &speed_of(const confd_hkeypath_t *kp)
{
    char name[VALIDATE_NAME_SIZE];
    validate_if_key(kp, name);
    bool is_10g = strstr(name, "xge") != nullptr || strncmp(name, "10ge", strlen("10ge")) == 0;
    return is_10g ? SPEED_10G : SPEED_1G;
}

int check_policer(const validate_t &v, const speed_t &speed, const confd_value_t &name)
{
    char policer[VALIDATE_NAME_SIZE];
    cfgmgr_config_text(name, policer, sizeof policer);
    validate_value_t rate;
    if (!validate_get(v, &rate, "/policy/policer{%s}/rate", policer)) {
        char what[WHAT_SIZE];
        (void)snprintf(what, sizeof what, "Failed to get /policy/policer{%s}/rate ", policer); // room for any name
        return validate_refuse_agent(v, what);
    }
    uint64_t bits = CONFD_GET_UINT64(&rate.v);
    if (bits >= POLICER_MIN && bits <= speed.policer_max)
        return 0;
    return validate_refuse(
        v, "Invalid value for policer{%s} rate.. Allowed values for %s intf <%" PRIu64 "..%" PRIu64 ">bps", policer,
        speed.name, POLICER_MIN, speed.policer_max);
}

// A rule without a policer is fine.
int check_sequence(const validate_t &v, const speed_t &speed, const char *acl, const confd_value_t &sequence)
{
    validate_value_t policer;
    if (validate_get(v, &policer, "/policy/access-list{%s}/sequence{%" PRId64 "}/action/policer", acl,
                     cfgmgr_config_number(sequence)))
        return check_policer(v, speed, policer.v);
    return validate_has_failed() ? validate_refuse_agent(v, "Failed to get policer ") : 0;
}

} // namespace

int cfgmgr_validate_vpn_if_shaping_rate(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *newval)
{
    if (cfgmgr_config_is_deleted(*newval))
        return 0;
    const speed_t &speed = speed_of(kp);
    if (cfgmgr_config_number(*newval) <= speed.shaper_max)
        return 0;
    return validate_refuse(validate_of(tctx),
                           "Invalid value for shaping rate.. Allowed values for %s intf <0..%" PRIu32 ">KB", speed.name,
                           speed.shaper_max);
}

int cfgmgr_validate_vpn_if_policer_rate(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *newval)
{
    return cfgmgr_config_is_deleted(*newval) ? 0 : check_policer(validate_of(tctx), speed_of(kp), *newval);
}

int cfgmgr_validate_vpn_if_acl_policer_rate(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *newval)
{
    if (cfgmgr_config_is_deleted(*newval))
        return 0;
    validate_t v = validate_of(tctx);
    char acl[VALIDATE_NAME_SIZE];
    cfgmgr_config_text(*newval, acl, sizeof acl);
    validate_list_t sequences(v, "/policy/access-list{%s}/sequence", acl);
    while (sequences.next()) {
        int result = check_sequence(v, speed_of(kp), acl, sequences.cursor.keys[0]);
        if (result != 0)
            return result;
    }
    if (sequences.is_open)
        return 0;
    char what[WHAT_SIZE];
    (void)snprintf(what, sizeof what, "Failed to initialise maapi cursor for /policy/access-list{%s}/sequence ", acl);
    return validate_refuse_agent(v, what);
}
