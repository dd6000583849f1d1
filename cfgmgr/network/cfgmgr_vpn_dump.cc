// The VPN table as the operator's dump shows it. The lines are fixed: support tools read them.

#include "cfgmgr/daemon/cfgmgr_print.h"
#include "cfgmgr/network/cfgmgr_if.h"
#include "cfgmgr/network/cfgmgr_vpn.h"
#include "cfgmgr/routing/cfgmgr_quagga_daemon.h"

namespace
{

void dump_daemons(const cfgmgr_printer_t &out, const cfgmgr_vpn_t &vpn)
{
    for (uint32_t peer_id = QUAGGA_PEER_FIRST; peer_id <= QUAGGA_PEER_LAST; peer_id++) {
        const q_daemon_t *daemon_p = vpn.q_daemon_p[peer_id];
        out.print("  %s pid %d send_msg_delay %ld ms\n", cfgmgr_quagga_peer(peer_id)->process,
                  daemon_p != nullptr ? daemon_p->pid : 0, daemon_p != nullptr ? daemon_p->send_msg_delay : 0);
    }
}

void dump_interfaces(const cfgmgr_printer_t &out, cfgmgr_vpn_t &vpn)
{
    out.print("  Interfaces:\n");
    for (cfgmgr_if_t &interface : avl_range<cfgmgr_if_t>(&vpn.if_db))
        out.print("    interface: %s (%p) vpn-id: %lu (%p)\n", interface.name, static_cast<void *>(&interface),
                  vpn.vpn_id, static_cast<void *>(&vpn));
}

void dump_packet_debug(const cfgmgr_printer_t &out, const cfgmgr_vpn_bgp_debug_t &debug)
{
    out.print("\n   debug bgp packets ");
    if (debug.direction == BGP_DEBUG_IN)
        out.print(" direction in");
    if (debug.direction == BGP_DEBUG_OUT)
        out.print(" direction out");
    out.print(" packet-type");
    if (debug.keepalive != 0)
        out.print(" keepalive");
    if (debug.update != 0)
        out.print(" update");
    if (debug.keepalive == 0 && debug.update == 0)
        out.print(" all");
}

void dump_bgp_debug(const cfgmgr_printer_t &out, const cfgmgr_vpn_bgp_debug_t &debug)
{
    if (debug.events == 0 && debug.ipc == 0 && debug.fsm == 0 && debug.packets == 0)
        return;
    out.print("\n   =============");
    out.print("\n   BGP Debug");
    out.print("\n   =============\n");
    if (debug.events != 0)
        out.print("\n   debug bgp events");
    if (debug.ipc != 0)
        out.print("\n   debug bgp ipc");
    if (debug.fsm != 0)
        out.print("\n   debug bgp fsm");
    if (debug.packets != 0)
        dump_packet_debug(out, debug);
}

} // namespace

void cfgmgr_dump_vpn_table(cfgmgrd_t *cfgmgrd_p, const cfgmgr_printer_t &out)
{
    out.print("\n   ================================");
    out.print("\n         CFGMGR VPN Database       ");
    out.print("\n   ================================\n");
    for (cfgmgr_vpn_t &vpn : avl_range<cfgmgr_vpn_t>(&cfgmgrd_p->vpn_table)) {
        out.print("\nvpn-id: %lu\n", vpn.vpn_id);
        out.print("  Description: %s, Label: %u\n", vpn.description, vpn.label);
        out.print("  Ospf configured: %s\n", vpn.ospf_configured != 0 ? "True" : "False");
        dump_daemons(out, vpn);
        dump_interfaces(out, vpn);
        dump_bgp_debug(out, vpn.bgp_debug);
    }
}
