// Receiving from the routing daemons: answers on the management connections, notifications on the others.
//
// The daemons are trusted to keep to the channel: a frame that is not of it ends the process, and so does a refused
// configuration message, since what validation has passed must not be refused. Validation and show answers belong to
// the transaction whose request is under way; without one they are not of the channel either.
#ifndef CFGMGR_ROUTING_CFGMGR_QUAGGA_PB_MSG_H
#define CFGMGR_ROUTING_CFGMGR_QUAGGA_PB_MSG_H

#include "cfgmgr/routing/cfgmgr_quagga_pb_api.h"

// Read callback of both connections of a daemon. Takes the frame. context is the daemon's record or, on a management
// connection that has carried such a request, the last transaction.
void cfgmgr_vpn_quagga_read_cb(msgq_t *msgq_p, void *frame, uint16_t length, void *context);

// The dispatch by module, then by type. The length in the header is in host order. All give 0 or do not come back.
int cfgmgr_quagga_pb_msg_process(const quagga_header_t *header, const uint8_t *body, void *context);
int cfgmgr_quagga_pb_zebra_msg_process(const quagga_header_t *header, const uint8_t *body, void *context);
int cfgmgr_quagga_pb_ospf_msg_process(const quagga_header_t *header, const uint8_t *body, void *context);
int cfgmgr_quagga_pb_bgp_msg_process(const quagga_header_t *header, const uint8_t *body, void *context);

// ---- responses; message may be null

int cfgmgr_quagga_msg_cfg_resp_process(uint32_t code, const char *message);
// The transaction's t_opaque becomes 0, or -1 with the daemon's text as the transaction's error.
int cfgmgr_quagga_msg_validate_resp_process(uint32_t code, const char *message, confd_trans_ctx *tctx);
int cfgmgr_quagga_msg_clear_resp_process(uint32_t code, const char *message);
int cfgmgr_quagga_msg_debug_resp_process(uint32_t code, const char *message);
int cfgmgr_quagga_pb_ospf_debug_resp_process(uint32_t code, const char *message);

#endif
