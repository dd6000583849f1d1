// Labels of VPNs and services.

#include "cfgmgr/network/cfgmgr_label.h"

#include "common/bitmap.h"
#include "common/vpn_id.h"

uint32_t cfgmgr_label_alloc(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id)
{
    if (vpn_id == VPN_ID_TRANSPORT)
        return 0;
    // A plain scan that wraps: every label from the one behind the last to the end, then the others.
    for (uint32_t tried = 1; tried < CFGMGR_BITMAP_BITS; tried++) {
        uint32_t label = (cfgmgrd_p->reserved_bitmap_hint + tried - 1) % (CFGMGR_BITMAP_BITS - 1) + 1;
        if (bitmap_test_bit(cfgmgrd_p->reserved_bitmap_p, label))
            continue;
        bitmap_set_bit(cfgmgrd_p->reserved_bitmap_p, label);
        cfgmgrd_p->reserved_bitmap_hint = label;
        return label;
    }
    return CFGMGR_LABEL_NONE;
}

void cfgmgr_label_free(cfgmgrd_t *cfgmgrd_p, uint32_t label)
{
    if (label > 0 && label < CFGMGR_BITMAP_BITS)
        bitmap_clear_bit(cfgmgrd_p->reserved_bitmap_p, label);
}
