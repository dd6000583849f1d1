// The doors to the routing daemons. Unless a test has asked for the real ones, the daemons of every VPN come and go at
// once, and messages are written down: "daemon start 29 5", "daemon stop 29 5", "rtm open 5", "message 29 1 5", and
// apart from that what these say.
#include "cfgmgr/routing/cfgmgr_quagga_daemon.h"
#include "cfgmgr/routing/cfgmgr_quagga_pb_api.h"
#include "cfgmgr/routing/cfgmgr_rtm.h"
#include "platform/routing/message_json.h"
#include "tests/unit/cfgmgr_env.h"

namespace
{

void note(const std::string &what, uint64_t vpn_id)
{
    device().effects.push_back(what + " " + std::to_string(vpn_id));
}

} // namespace

extern "C" {

int __real__Z30cfgmgr_vpn_start_quagga_daemonjP12cfgmgr_vpn_t(uint32_t peer_id, cfgmgr_vpn_t *vpn_p);
int __wrap__Z30cfgmgr_vpn_start_quagga_daemonjP12cfgmgr_vpn_t(uint32_t peer_id, cfgmgr_vpn_t *vpn_p)
{
    if (device().has_routing)
        return __real__Z30cfgmgr_vpn_start_quagga_daemonjP12cfgmgr_vpn_t(peer_id, vpn_p);
    note("daemon start " + std::to_string(peer_id), vpn_p->vpn_id);
    return QUAGGA_OK;
}

int __real__Z29cfgmgr_vpn_stop_quagga_daemonjP12cfgmgr_vpn_t(uint32_t peer_id, cfgmgr_vpn_t *vpn_p);
int __wrap__Z29cfgmgr_vpn_stop_quagga_daemonjP12cfgmgr_vpn_t(uint32_t peer_id, cfgmgr_vpn_t *vpn_p)
{
    if (device().has_routing)
        return __real__Z29cfgmgr_vpn_stop_quagga_daemonjP12cfgmgr_vpn_t(peer_id, vpn_p);
    note("daemon stop " + std::to_string(peer_id), vpn_p->vpn_id);
    return QUAGGA_OK;
}

int __real__Z22cfgmgr_rtm_client_initP12cfgmgr_vpn_t(cfgmgr_vpn_t *vpn_p);
int __wrap__Z22cfgmgr_rtm_client_initP12cfgmgr_vpn_t(cfgmgr_vpn_t *vpn_p)
{
    if (device().has_routing)
        return __real__Z22cfgmgr_rtm_client_initP12cfgmgr_vpn_t(vpn_p);
    note("rtm open", vpn_p->vpn_id);
    return QUAGGA_OK;
}

int __real__Z29cfgmgr_quagga_pb_send_messageP12cfgmgr_vpn_tPKvjj(cfgmgr_vpn_t *vpn_p, const void *message,
                                                                 uint32_t peer_id, uint32_t type);
int __wrap__Z29cfgmgr_quagga_pb_send_messageP12cfgmgr_vpn_tPKvjj(cfgmgr_vpn_t *vpn_p, const void *message,
                                                                 uint32_t peer_id, uint32_t type)
{
    if (device().has_routing)
        return __real__Z29cfgmgr_quagga_pb_send_messageP12cfgmgr_vpn_tPKvjj(vpn_p, message, peer_id, type);
    std::string to = std::to_string(peer_id) + " " + std::to_string(type);
    note("message " + to, vpn_p->vpn_id);
    device().messages.push_back(to + " " + std::to_string(vpn_p->vpn_id) + " " +
                                message_json(*static_cast<const ProtobufCMessage *>(message)));
    return QUAGGA_OK;
}

} // extern "C"
