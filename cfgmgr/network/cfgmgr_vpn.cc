// The VPN table: creation and deletion in their fixed order, VRF indexes, the VPNs that every device has.

#include "cfgmgr/network/cfgmgr_vpn.h"

#include "cfgmgr/network/cfgmgr_if.h"
#include "cfgmgr/network/cfgmgr_if_idx.h"
#include "cfgmgr/network/cfgmgr_kernel.h"
#include "cfgmgr/network/cfgmgr_kernel_files.h"
#include "cfgmgr/network/cfgmgr_kernel_leftovers.h"
#include "cfgmgr/network/cfgmgr_kernel_vpn.h"
#include "cfgmgr/routing/cfgmgr_config_vpn_bgp.h"
#include "cfgmgr/routing/cfgmgr_config_vpn_ospf.h"
#include "cfgmgr/routing/cfgmgr_rtm.h"
#include "chmgr/chmgr_api.h"
#include "common/bitmap.h"
#include "common/tip_assert.h"
#include "common/tip_log.h"

#include <cstddef>
#include <cstdlib>
#include <iterator>

namespace
{

constexpr char EXTERNAL_MGMT_PORT[] = "eth0";
constexpr char TESTBED_COMMAND[] = "fw_printenv testbed 2> /dev/null";
constexpr char DEFAULT_NETNS_COMMAND[] = "ln -s /proc/1/ns/net /var/run/netns/default";

constexpr const char *service_names[] = {
    nullptr, "FW", "IDS", "IDP", "netsvc1", "netsvc2", "netsvc3", "netsvc4", "TE",
};
static_assert(std::size(service_names) == VPN_SERVICE_TE + 1);

uint8_t *vrf_bitmap; // VPN_MAX bits; set while the table stands

int compare_vpn(const void *key, const void *record)
{
    uint64_t a = static_cast<const cfgmgr_vpn_t *>(key)->vpn_id;
    uint64_t b = static_cast<const cfgmgr_vpn_t *>(record)->vpn_id;
    return a < b ? -1 : a > b ? 1 : 0;
}

// First fit. False when all are taken.
bool vrf_id_alloc(uint16_t *out)
{
    int32_t bit = bitmap_find_bit(vrf_bitmap, VPN_MAX, 0, 0);
    if (bit < 0)
        return false;
    bitmap_set_bit(vrf_bitmap, static_cast<uint32_t>(bit));
    *out = static_cast<uint16_t>(bit);
    return true;
}

cfgmgr_vpn_t *alloc_record(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id, uint32_t label)
{
    auto *vpn_p = static_cast<cfgmgr_vpn_t *>(calloc(1, sizeof(cfgmgr_vpn_t)));
    if (vpn_p == nullptr)
        return nullptr;
    vpn_p->vpn_id = vpn_id;
    vpn_p->label = label;
    vpn_p->cfgmgr_p = cfgmgrd_p;
    vpn_p->kernel_sock = -1;
    if (!vrf_id_alloc(&vpn_p->vrf_id)) {
        free(vpn_p);
        return nullptr;
    }
    avl_create(&vpn_p->if_db, cfgmgr_if_compare, sizeof(cfgmgr_if_t), offsetof(cfgmgr_if_t, vpn_node));
    return vpn_p;
}

void free_record(cfgmgr_vpn_t *vpn_p)
{
    bitmap_clear_bit(vrf_bitmap, vpn_p->vrf_id);
    free(vpn_p);
}

void release_label(cfgmgrd_t *cfgmgrd_p, cfgmgr_vpn_t *vpn_p)
{
    cfgmgr_label_free(cfgmgrd_p, vpn_p->label);
    vpn_p->label = CFGMGR_LABEL_NONE;
}

// Takes the interfaces of a VPN away one by one, since the deletion of one may take others with it.
void delete_interfaces(cfgmgrd_t *cfgmgrd_p, cfgmgr_vpn_t *vpn_p, void (*delete_one)(cfgmgrd_t *, cfgmgr_if_t *))
{
    while (auto *if_p = static_cast<cfgmgr_if_t *>(avl_first(&vpn_p->if_db)))
        delete_one(cfgmgrd_p, if_p);
    avl_destroy(&vpn_p->if_db);
}

// The transport VPN goes last and without a namespace switch.
void cfgmgr_vpn_delete_transport(cfgmgrd_t *cfgmgrd_p, cfgmgr_vpn_t *vpn_p, bool remove_from_tree)
{
    release_label(cfgmgrd_p, vpn_p);
    delete_interfaces(cfgmgrd_p, vpn_p, cfgmgr_if_delete_at_exit);
    cfgmgr_kernel_sock_close(vpn_p);
    if (remove_from_tree)
        avl_remove(&cfgmgrd_p->vpn_table, vpn_p);
    cfgmgr_rtm_client_deinit(vpn_p);
    (void)cfgmgr_vpn_namespace_delete(cfgmgrd_p, vpn_p); // has logged its failure
    free_record(vpn_p);
}

// What a VPN gets that was set for the whole device before it came.
void apply_device_settings(cfgmgrd_t *cfgmgrd_p, cfgmgr_vpn_t *vpn_p)
{
    if (cfgmgrd_p->has_system_ip != 0)
        cfgmgr_if_system_vpn_add(cfgmgrd_p, vpn_p, cfgmgrd_p->system_ip, true);
    if (cfgmgrd_p->has_quorvix_system_ip != 0)
        cfgmgr_if_system_vpn_add(cfgmgrd_p, vpn_p, cfgmgrd_p->quorvix_system_ip, false);
    if (cfgmgrd_p->site_id != 0)
        (void)cfgmgr_vpn_update_siteid(cfgmgrd_p, vpn_p->vpn_id, cfgmgrd_p->site_id); // gives 0, as below
    (void)cfgmgr_vpn_ospf_ignore_down_bit_update(cfgmgrd_p, vpn_p->vpn_id);
    (void)cfgmgr_config_vpn_bgp_ignore_soo_update(cfgmgrd_p, vpn_p->vpn_id);
}

// ---- the VPNs that every device has

bool needs_internal_vpn(int chassis_type)
{
    return chassis_type >= 1 && chassis_type <= 6;
}

bool may_have_external_mgmt_port(int chassis_type)
{
    return chassis_type >= 3 && chassis_type <= 5;
}

// A port on a USB adapter stands in for the management port, on test beds only.
void detect_external_mgmt_port(cfgmgrd_t *cfgmgrd_p)
{
    if (!cfgmgr_kernel_if_exists(cfgmgrd_p, VPN_ID_TRANSPORT, EXTERNAL_MGMT_PORT))
        return;
    tip_log("Detected external usb interface for use as mgmt0");
    if (cfgmgr_kernel_command(TESTBED_COMMAND))
        cfgmgrd_p->mgmt_vpn = 1;
    else
        tip_log("But ignoring the usb interface since it is only supported if testbed = 1");
}

int init_internal_vpn(cfgmgrd_t *cfgmgrd_p, int chassis_type)
{
    if (may_have_external_mgmt_port(chassis_type))
        detect_external_mgmt_port(cfgmgrd_p);
    tip_log("Initializing internal VPN (%d) ..", static_cast<int>(VPN_ID_INTERNAL));
    return cfgmgr_vpn_find_or_create(cfgmgrd_p, VPN_ID_INTERNAL, 0);
}

bool has_mgmt_vpn(const cfgmgrd_t &cfgmgrd)
{
    switch (cfgmgrd.personality) {
    case PERSONALITY_KREST:
    case PERSONALITY_TARN:
    case PERSONALITY_LODEST:
    case PERSONALITY_QUORVIX:
    case PERSONALITY_PENDRY:
        return cfgmgrd.mgmt_vpn != 0;
    default:
        return false;
    }
}

} // namespace

const char *cfgmgr_vpn_service_name(uint32_t service)
{
    return service < std::size(service_names) ? service_names[service] : nullptr;
}

int cfgmgr_vpn_init(cfgmgrd_t *cfgmgrd_p)
{
    avl_create(&cfgmgrd_p->vpn_table, compare_vpn, sizeof(cfgmgr_vpn_t), offsetof(cfgmgr_vpn_t, node));
    vrf_bitmap = static_cast<uint8_t *>(calloc(1, VPN_MAX / 8));
    if (vrf_bitmap == nullptr)
        return CFGMGR_VPN_FAILED;
    cfgmgr_kernel_remove_leftover_taps();
    int result = cfgmgr_vpn_default_init(cfgmgrd_p);
    if (result != 0)
        cfgmgr_vpn_deinit(cfgmgrd_p);
    return result;
}

void cfgmgr_vpn_deinit(cfgmgrd_t *cfgmgrd_p)
{
    if (vrf_bitmap == nullptr)
        return;
    // The transport VPN goes last, and is in the table until then: what the others give up moves to it.
    while (cfgmgr_vpn_t *vpn_p = cfgmgr_vpn_find_next_after(cfgmgrd_p, VPN_ID_TRANSPORT))
        cfgmgr_vpn_delete(cfgmgrd_p, vpn_p, true);
    cfgmgr_vpn_delete_by_id(cfgmgrd_p, VPN_ID_TRANSPORT);
    free(vrf_bitmap);
    vrf_bitmap = nullptr;
}

int cfgmgr_vpn_default_init(cfgmgrd_t *cfgmgrd_p)
{
    int chassis_type = chmgr_chassis_type();
    int result = cfgmgr_vpn_find_or_create(cfgmgrd_p, VPN_ID_TRANSPORT, 0);
    if (result != 0)
        return result;
    if (needs_internal_vpn(chassis_type))
        (void)init_internal_vpn(cfgmgrd_p, chassis_type); // logged; the device works without its internal legs
    if (has_mgmt_vpn(*cfgmgrd_p))
        result = cfgmgr_vpn_find_or_create(cfgmgrd_p, VPN_ID_MANAGEMENT, 0);
    if (!cfgmgr_kernel_command(DEFAULT_NETNS_COMMAND))
        tip_log("Command failed: %s", DEFAULT_NETNS_COMMAND); // it is there since an earlier start
    return result;
}

void cfgmgr_vpn_default_deinit(cfgmgrd_t *cfgmgrd_p)
{
    if (has_mgmt_vpn(*cfgmgrd_p))
        cfgmgr_vpn_delete_by_id(cfgmgrd_p, VPN_ID_MANAGEMENT);
    cfgmgr_vpn_delete_by_id(cfgmgrd_p, VPN_ID_TRANSPORT);
}

int cfgmgr_vpn_find_or_create(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id, uint32_t label)
{
    tip_log("Creating vpn: id: %lu ", vpn_id);
    avl_index_t where;
    if (cfgmgr_vpn_find(cfgmgrd_p, vpn_id, &where) != nullptr)
        return 0;
    cfgmgr_vpn_t *vpn_p = alloc_record(cfgmgrd_p, vpn_id, label);
    if (vpn_p == nullptr)
        return CFGMGR_VPN_FAILED;
    avl_insert(&cfgmgrd_p->vpn_table, vpn_p, where);
    int result = cfgmgr_vpn_namespace_add(cfgmgrd_p, vpn_p);
    if (result == 0)
        result = cfgmgr_rtm_client_init(vpn_p);
    if (result != 0) {
        cfgmgr_vpn_delete(cfgmgrd_p, vpn_p, true);
        return result;
    }
    (void)cfgmgr_vpn_create_fp_tap_interface(vpn_p); // logged; a device without a forwarding plane works without taps
    if (vpn_id != VPN_ID_TRANSPORT)
        cfgmgr_kernel_name_files_create(cfgmgrd_p, *vpn_p);
    if (vpn_id != VPN_ID_INTERNAL)
        apply_device_settings(cfgmgrd_p, vpn_p);
    return 0;
}

cfgmgr_vpn_t *cfgmgr_vpn_find(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id, avl_index_t *where)
{
    cfgmgr_vpn_t key{};
    key.vpn_id = vpn_id;
    return static_cast<cfgmgr_vpn_t *>(avl_find(&cfgmgrd_p->vpn_table, &key, where));
}

cfgmgr_vpn_t *cfgmgr_vpn_get(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id)
{
    cfgmgr_vpn_t *vpn_p = cfgmgr_vpn_find(cfgmgrd_p, vpn_id, nullptr);
    if (vpn_p == nullptr) {
        tip_log("Cannot find VPN %lu", vpn_id);
        tip_assert(vpn_p != nullptr);
    }
    return vpn_p;
}

cfgmgr_vpn_t *cfgmgr_vpn_find_next_after(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id)
{
    cfgmgr_vpn_t key{};
    key.vpn_id = vpn_id;
    return static_cast<cfgmgr_vpn_t *>(avl_find_next(&cfgmgrd_p->vpn_table, &key));
}

cfgmgr_vpn_t *cfgmgr_vpn_first(cfgmgrd_t *cfgmgrd_p)
{
    return static_cast<cfgmgr_vpn_t *>(avl_first(&cfgmgrd_p->vpn_table));
}

cfgmgr_vpn_t *cfgmgr_vpn_first_routing(cfgmgrd_t *cfgmgrd_p)
{
    cfgmgr_vpn_t *vpn_p = cfgmgr_vpn_first(cfgmgrd_p);
    bool is_mgmt = vpn_p != nullptr && vpn_p->vpn_id == VPN_ID_MANAGEMENT;
    return is_mgmt ? cfgmgr_vpn_next_routing(cfgmgrd_p, vpn_p->vpn_id) : vpn_p;
}

cfgmgr_vpn_t *cfgmgr_vpn_next_routing(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id)
{
    cfgmgr_vpn_t *vpn_p = cfgmgr_vpn_find_next_after(cfgmgrd_p, vpn_id);
    bool is_mgmt = vpn_p != nullptr && vpn_p->vpn_id == VPN_ID_MANAGEMENT;
    return is_mgmt ? cfgmgr_vpn_find_next_after(cfgmgrd_p, vpn_p->vpn_id) : vpn_p;
}

int cfgmgr_vpn_foreach(cfgmgrd_t *cfgmgrd_p, avl_visit_t visit, void *word1, void *word2)
{
    int result = 0;
    for (cfgmgr_vpn_t &vpn : avl_range<cfgmgr_vpn_t>(&cfgmgrd_p->vpn_table)) {
        if (visit != nullptr)
            result = visit(&vpn, word1, word2);
    }
    return result;
}

void cfgmgr_vpn_delete(cfgmgrd_t *cfgmgrd_p, cfgmgr_vpn_t *vpn_p, bool remove_from_tree)
{
    if (vpn_p == nullptr)
        return;
    // Its ports have no other VPN to go to.
    if (vpn_p->vpn_id == VPN_ID_TRANSPORT) {
        cfgmgr_vpn_delete_transport(cfgmgrd_p, vpn_p, remove_from_tree);
        return;
    }
    release_label(cfgmgrd_p, vpn_p);
    cfgmgr_static_hosts_remove(cfgmgrd_p, vpn_p->vpn_id); // their own handler is not told of what goes with its VPN
    delete_interfaces(cfgmgrd_p, vpn_p, cfgmgr_if_delete);
    cfgmgr_if_idx_remove_vpn(cfgmgrd_p, vpn_p->vpn_id);
    cfgmgr_vpn_delete_taps(vpn_p);
    if (vpn_p->kernel_sock >= 0) {
        cfgmgr_set_ns(cfgmgrd_p, vpn_p->vpn_id);
        cfgmgr_kernel_sock_close(vpn_p);
        cfgmgr_reset_ns(cfgmgrd_p, vpn_p->vpn_id);
    }
    cfgmgr_rtm_client_deinit(vpn_p);
    (void)cfgmgr_vpn_namespace_delete(cfgmgrd_p, vpn_p); // has logged its failure
    if (remove_from_tree)
        avl_remove(&cfgmgrd_p->vpn_table, vpn_p);
    free_record(vpn_p);
}

void cfgmgr_vpn_delete_by_id(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id)
{
    cfgmgr_vpn_delete(cfgmgrd_p, cfgmgr_vpn_find(cfgmgrd_p, vpn_id, nullptr), true);
}
