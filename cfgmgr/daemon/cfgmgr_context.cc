// The published record, the levels of the traces, and the maps of numbers.

#include "cfgmgr/daemon/cfgmgr_context.h"

#include "common/bitmap.h"

#include <cstdlib>

namespace
{

cfgmgrd_t *context;

} // namespace

int32_t cfgmgr_events_level;
int32_t cfgmgr_pppoe_level;

cfgmgrd_t *cfgmgr_context()
{
    return context;
}

void cfgmgr_context_publish(cfgmgrd_t *cfgmgrd_p)
{
    context = cfgmgrd_p;
}

uint8_t *cfgmgr_bitmap_alloc()
{
    auto *map = static_cast<uint8_t *>(calloc(1, CFGMGR_BITMAP_BYTES));
    if (map != nullptr)
        bitmap_set_bit(map, 0);
    return map;
}
