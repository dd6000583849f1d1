// Handlers of the configuration of a VPN itself.
//
// A commit has passed validation, so a key of a wrong type or a VPN that cannot be made is a bug and ends the process.

#include "cfgmgr/network/cfgmgr_config_vpn.h"

#include "cfgmgr/daemon/cfgmgr_daemon.h"
#include "cfgmgr/network/cfgmgr_vpn.h"
#include "common/tip_assert.h"
#include "common/tip_handle.h"
#include "common/tip_log.h"
#include "tconfd/tconfd_util.h"

#include <netinet/in.h>
#include <sys/socket.h>

namespace
{

constexpr int CONFIG_FAILED = 16;

uint64_t vpn_id_of(confd_value_t *key_p)
{
    tip_assert((key_p)->type == C_UINT64);
    return CONFD_GET_UINT64(key_p);
}

// The VRF index goes to the datastore through a connection of its own: the subscription socket cannot write while a
// commit is delivered.
int write_vrf_id(uint64_t vpn_id, uint16_t vrf_id)
{
    unique_fd sock(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(CONFD_PORT);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int result = cdb_connect(sock.get(), CDB_DATA_SOCKET, reinterpret_cast<sockaddr *>(&address), sizeof address);
    if (result != CONFD_OK)
        return result;
    result = cdb_start_session2(sock.get(), CDB_OPERATIONAL, 0);
    if (result == CONFD_OK) {
        confd_value_t value{};
        CONFD_SET_UINT16(&value, vrf_id);
        result = cdb_set_elem(sock.get(), &value, "/vpn/vpn-instance{%lu}/vrf-id", vpn_id);
    }
    (void)cdb_close(sock.release()); // ends the session too
    return result;
}

int cfgmgr_vpn_set_vrf_id(const cfgmgr_vpn_t &vpn)
{
    int result = write_vrf_id(vpn.vpn_id, vpn.vrf_id);
    if (result == CONFD_OK)
        return 0;
    tip_log("Failed to set vrf-id %d for vpn-id %lu (%d)%s (%d) : %s", vpn.vrf_id, vpn.vpn_id, result,
            confd_strerror(confd_errno), confd_errno, confd_lasterr());
    return CONFIG_FAILED;
}

uint32_t allocate_label(tconfd_ctx *ctx, cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id)
{
    uint32_t label = cfgmgr_label_alloc(cfgmgrd_p, vpn_id);
    if (label == CFGMGR_LABEL_NONE) {
        tip_log("Failed to get label for vpn: %lu", vpn_id);
        tip_assert(label != CFGMGR_LABEL_NONE);
    }
    int result = tconfd_set_vpn_label(ctx, vpn_id, label);
    if (result != 0) {
        tip_log("Failed to set label for vpn: %lu", vpn_id);
        tip_assert(result == 0);
    }
    return label;
}

cfgmgr_vpn_t *make_vpn(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id, uint32_t label)
{
    int result = cfgmgr_vpn_find_or_create(cfgmgrd_p, vpn_id, label);
    if (result != 0) {
        tip_log("Failed to create vpn: %lu", vpn_id);
        tip_assert(result == 0);
    }
    cfgmgr_vpn_t *vpn_p = cfgmgr_vpn_find(cfgmgrd_p, vpn_id, nullptr);
    if (vpn_p == nullptr) {
        tip_log("Failed to find vpn: %lu", vpn_id);
        tip_assert(vpn_p != nullptr);
    }
    return vpn_p;
}

int create_vpn(tconfd_ctx *ctx, cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id)
{
    uint32_t label = allocate_label(ctx, cfgmgrd_p, vpn_id);
    cfgmgr_vpn_t *vpn_p = make_vpn(cfgmgrd_p, vpn_id, label);
    int result = cfgmgr_vpn_set_vrf_id(*vpn_p);
    if (result != 0) {
        cfgmgr_vpn_delete(cfgmgrd_p, vpn_p, true);
        return result;
    }
    vpn_p->policy_synced = 1; // there is no policy to replay
    return 0;
}

} // namespace

int32_t cfgmgr_config_vpn(tconfd_sub *row, int32_t op, uint8_t, confd_value_t *keys, uint16_t, confd_tag_value_t *)
{
    cfgmgr_timer_keepalive();
    auto *cfgmgrd_p = static_cast<cfgmgrd_t *>(row->ctx->reg.app_ctx);
    uint64_t vpn_id = vpn_id_of(&keys[0]);
    if (op == MOP_CREATED)
        return create_vpn(row->ctx, cfgmgrd_p, vpn_id);
    if (op == MOP_DELETED)
        cfgmgr_vpn_delete_by_id(cfgmgrd_p, vpn_id);
    return 0;
}
