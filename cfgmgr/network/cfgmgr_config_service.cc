// The handler of a VPN's services. A service is a label that other sites send to; the interfaces that lead to it matter
// to validation only.

#include "cfgmgr/daemon/cfgmgr_daemon.h"
#include "cfgmgr/network/cfgmgr_config_vpn.h"
#include "cfgmgr/network/cfgmgr_vpn.h"
#include "common/tip_assert.h"
#include "common/tip_log.h"
#include "tconfd/tconfd_util.h"

namespace
{

struct service_t {
    tconfd_ctx *ctx;
    cfgmgrd_t *cfgmgrd_p;
    uint64_t vpn_id;
    int32_t kind;
    const char *name; // in paths
};

service_t service_of(const tconfd_sub *row, const confd_value_t *keys)
{
    uint64_t vpn_id = cfgmgr_config_vpn_id(&keys[0]);
    const confd_value_t *service_p = &keys[1];
    tip_assert((service_p)->type == C_ENUM_VALUE);
    int32_t kind = CONFD_GET_ENUM_VALUE(service_p);
    const char *name = cfgmgr_vpn_service_name(static_cast<uint32_t>(kind));
    tip_assert(name != nullptr);
    return { row->ctx, cfgmgr_config_daemon(row), vpn_id, kind, name };
}

void create_service(const service_t &service)
{
    uint32_t label = cfgmgr_label_alloc(service.cfgmgrd_p, service.vpn_id);
    if (label == CFGMGR_LABEL_NONE) {
        tip_log("Failed to allocate label for vpn: %lu service: %d", service.vpn_id, service.kind);
        tip_assert(label != CFGMGR_LABEL_NONE);
    }
    int result = tconfd_set_service_label(service.ctx, service.vpn_id, service.name, label);
    if (result != 0) {
        tip_log("Failed to set label for vpn: %lu service: %d", service.vpn_id, service.kind);
        tip_assert(result == 0);
    }
}

// The datastore is the only place that knows the label.
void delete_service(const service_t &service)
{
    int label = tconfd_get_service_label(service.ctx, service.vpn_id, service.name);
    if (label >= 0)
        cfgmgr_label_free(service.cfgmgrd_p, static_cast<uint32_t>(label));
}

} // namespace

void cfgmgr_config_services_release(tconfd_ctx *ctx, cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id)
{
    for (int32_t kind = VPN_SERVICE_FW; kind <= VPN_SERVICE_TE; kind++)
        delete_service({ ctx, cfgmgrd_p, vpn_id, kind, cfgmgr_vpn_service_name(static_cast<uint32_t>(kind)) });
}

int32_t cfgmgr_config_service(tconfd_sub *row, int32_t op, uint8_t, confd_value_t *keys, uint16_t num_tv,
                              confd_tag_value_t *)
{
    cfgmgr_timer_keepalive();
    service_t service = service_of(row, keys);
    tip_log("VPN:%lu, service:%u, oper:%d, num_values:%u", service.vpn_id, static_cast<unsigned>(service.kind), op,
            num_tv);
    if (op == MOP_CREATED)
        create_service(service);
    else if (op == MOP_DELETED)
        delete_service(service);
    return 0;
}
