// What programs beside the chassis manager write into the block: the state of ports, and by what name and addresses the
// device goes.
#include "chmgr/chmgr_api.h"
#include "chmgr/chmgr_hw.h"
#include "common/tip_text.h"

int chmgr_port_state_set(chmgr_port_t *port, bool is_up)
{
    if (chmgr_block() == nullptr)
        return -1;
    chmgr_hw_request_t request{ .operation = CHMGR_HW_PORT_STATE, .port = port };
    request.value = is_up ? CHMGR_ADMIN_UP : CHMGR_ADMIN_DOWN;
    return chmgr_hw_set(request);
}

void chmgr_system_ip_set(const ip_addr_t &address)
{
    if (chmgr_block_t *block = chmgr_block())
        block->system_ip = address;
}

void chmgr_quorvix_system_ip_set(const ip_addr_t &address)
{
    if (chmgr_block_t *block = chmgr_block())
        block->quorvix_system_ip = address;
}

void chmgr_host_name_set(const char *name)
{
    if (chmgr_block_t *block = chmgr_block())
        (void)strlcpy(block->host_name, name, sizeof block->host_name); // the record holds 32 characters
}
