// Hooks that write into the transaction, and the callpoints without a program. See cfgmgr_callpoints.h.
#include "cfgmgr/daemon/cfgmgr_callpoints.h"

#include "cfgmgr/daemon/cfgmgr_context.h"
#include "cfgmgr/network/cfgmgr_mirror.h"
#include "chmgr/chmgr_api.h"
#include "chmgr/chmgr_tables.h"
#include "common/tip_file.h"
#include "common/tip_log.h"
#include "common/tip_root.h"
#include "common/tip_text.h"

#include <algorithm>
#include <string>
#include <vector>

namespace
{

// ---- hooks that write into the transaction

struct mirror_row_t {
    const char *callpoint;
    decltype(confd_data_cbs::set_elem) set_elem;
    decltype(confd_data_cbs::remove) remove; // null: a removal changes nothing elsewhere
    const char *failure;
};

// In order of registration.
constexpr mirror_row_t mirrors[] = {
    { "post-login-message", cfgmgr_config_banner_motd_confd_create, cfgmgr_config_banner_motd_confd_delete,
      "Failed to register post-login msg cb" },
    { "system-host-name", cfgmgr_system_host_name_set, nullptr, "Failed to register system-host-name cb" },
    { "set-dhcp-rapid-commit", cfgmgr_vpn_if_set_dhcp_rapid_commit, nullptr,
      "Failed to register dhcp-client-rapid cb" },
    { "system-logs-audit", cfgmgr_system_logs_audit_set, cfgmgr_system_logs_audit_remove,
      "Failed to register system-logs-audit cb" },
    { "system-logs-netconf", cfgmgr_system_logs_netconf_set, cfgmgr_system_logs_netconf_remove,
      "Failed to register system-logs-netconf cb" },
};

confd_data_cbs callbacks_named(const char *callpoint)
{
    confd_data_cbs callbacks{};
    strlcpy(callbacks.callpoint, callpoint, sizeof callbacks.callpoint);
    return callbacks;
}

bool register_mirrors(tconfd_ctx *ctx)
{
    for (const mirror_row_t &row : mirrors) {
        confd_data_cbs callbacks = callbacks_named(row.callpoint);
        callbacks.set_elem = row.set_elem;
        callbacks.remove = row.remove;
        if (cfgmgr_register_data_cb(ctx, callbacks) != CONFD_OK) {
            tip_log("%s", row.failure);
            return false;
        }
    }
    return true;
}

// The names that the daemon answers itself on this connection.
std::vector<std::string> &own_names()
{
    static std::vector<std::string> names;
    return names;
}

bool is_own(const char *callpoint)
{
    return std::ranges::find(own_names(), callpoint) != own_names().end();
}

// ---- callpoints without a program

// Models with radios of their own. They are newer than the table of chassis, which has no rows for them.
struct radio_row_t {
    uint32_t chassis_type;
    bool has_modem;
    bool has_access_point;
};
constexpr radio_row_t radios[] = {
    { 7, false, true },
    { 8, true, true },
    { 9, true, false },
    { 10, true, false },
};

const radio_row_t *find_radio(uint32_t chassis_type)
{
    const radio_row_t *row = std::ranges::find(radios, chassis_type, &radio_row_t::chassis_type);
    return row != std::end(radios) ? row : nullptr;
}

constexpr long USB_MODEM_VENDOR = 4505;
constexpr const char *usb_modem_ports[] = { "3-1", "3-2" };

bool has_usb_modem()
{
    return std::ranges::any_of(usb_modem_ports, [](const char *port) {
        long vendor = 0;
        return file_read_number(tip_path(TIP_USB_DEVICES_DIR "/%s/idVendor", port).text, 16, &vendor) == FILE_OK &&
               vendor == USB_MODEM_VENDOR;
    });
}

bool has_modem_program(uint32_t chassis_type, uint32_t)
{
    const radio_row_t *radio = find_radio(chassis_type);
    return (radio != nullptr && radio->has_modem) || (chassis_type == CHMGR_CHASSIS_S2 && has_usb_modem());
}

bool has_access_point_program(uint32_t chassis_type, uint32_t)
{
    const radio_row_t *radio = find_radio(chassis_type);
    return radio != nullptr && radio->has_access_point;
}

bool has_forwarding_programs(uint32_t, uint32_t personality)
{
    return personality == PERSONALITY_KREST;
}

bool has_overlay_program(uint32_t, uint32_t personality)
{
    return personality == PERSONALITY_KREST || personality == PERSONALITY_LODEST;
}

// By callpoint_group_t.
constexpr bool (*providers[])(uint32_t chassis_type, uint32_t personality) = {
    has_modem_program,
    has_access_point_program,
    has_forwarding_programs,
    has_overlay_program,
};
static_assert(std::size(providers) == CALLPOINT_GROUPS);

// ---- callbacks with nothing to show

int empty_get_next(confd_trans_ctx *tctx, confd_hkeypath_t *, long)
{
    return confd_data_reply_next_key(tctx, nullptr, -1, -1);
}

int empty_get_elem(confd_trans_ctx *tctx, confd_hkeypath_t *)
{
    return confd_data_reply_not_found(tctx);
}

bool register_empty(tconfd_ctx *ctx, const char *callpoint)
{
    if (is_own(callpoint))
        return true;
    confd_data_cbs callbacks = callbacks_named(callpoint);
    callbacks.get_next = empty_get_next;
    callbacks.get_elem = empty_get_elem;
    if (confd_register_data_cb(ctx->daemon_ctx, &callbacks) == CONFD_OK)
        return true;
    tip_log("Failed to register data cb for callpoint %s", callpoint);
    return false;
}

} // namespace

int cfgmgr_confd_register_data_cbs(tconfd_ctx *ctx)
{
    own_names().clear();
    if (!register_mirrors(ctx))
        return CFGMGR_CALLPOINTS_NO_MIRROR;
    cfgmgr_register_for_krest_callpoints_on_lodest(ctx);
    return CFGMGR_CALLPOINTS_OK;
}

int cfgmgr_register_data_cb(tconfd_ctx *ctx, const confd_data_cbs &callbacks)
{
    int result = confd_register_data_cb(ctx->daemon_ctx, &callbacks);
    if (result == CONFD_OK)
        own_names().emplace_back(callbacks.callpoint);
    return result;
}

void cfgmgr_register_for_krest_callpoints_on_lodest(tconfd_ctx *ctx)
{
    const auto *cfgmgrd_p = static_cast<const cfgmgrd_t *>(ctx->reg.app_ctx);
    auto chassis_type = static_cast<uint32_t>(chmgr_chassis_type());
    for (uint8_t i = 0; i < CALLPOINT_GROUPS; i++) {
        auto group = static_cast<callpoint_group_t>(i);
        if (cfgmgr_callpoints_have_provider(group, chassis_type, cfgmgrd_p->personality))
            continue;
        for (const char *callpoint : cfgmgr_callpoint_names(group))
            if (!register_empty(ctx, callpoint))
                return;
    }
}

bool cfgmgr_callpoints_have_provider(callpoint_group_t group, uint32_t chassis_type, uint32_t personality)
{
    return providers[group](chassis_type, personality);
}
