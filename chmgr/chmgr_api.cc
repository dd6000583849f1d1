// The process's one mapping of the block.
#include "chmgr/chmgr_api.h"

#include "chmgr/chmgr_tables.h"
#include "common/tip_handle.h"

#include <fcntl.h>
#include <sys/mman.h>

namespace
{

chmgr_block_t *mapped;

} // namespace

int chmgr_block_map(int flags)
{
    if (mapped != nullptr)
        return CHMGR_MAP_OK;
    unique_fd fd(shm_open(CHMGR_BLOCK_NAME, flags, 0600));
    if (!fd.is_open())
        return CHMGR_MAP_NO_OBJECT;
    if (ftruncate(fd.get(), CHMGR_BLOCK_SIZE) != 0)
        return CHMGR_MAP_NO_SIZE;
    void *memory = mmap(nullptr, CHMGR_BLOCK_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
    if (memory == MAP_FAILED)
        return CHMGR_MAP_NO_MEMORY;
    mapped = static_cast<chmgr_block_t *>(memory);
    return CHMGR_MAP_OK;
}

void chmgr_block_unmap()
{
    if (mapped != nullptr)
        (void)munmap(mapped, CHMGR_BLOCK_SIZE); // cannot fail for a mapping made here
    mapped = nullptr;
}

chmgr_block_t *chmgr_block()
{
    return chmgr_block_map(O_RDWR) == CHMGR_MAP_OK ? mapped : nullptr;
}

int chmgr_chassis_type()
{
    const chmgr_block_t *block = chmgr_block();
    return static_cast<int>(block != nullptr ? block->chassis_type : CHMGR_CHASSIS_UNKNOWN);
}

int chmgr_has_mgmt_port()
{
    const chmgr_block_t *block = chmgr_block();
    if (block == nullptr)
        return -1;
    return block->has_mgmt_port != 0 ? 1 : 0;
}
