// The shared region: a fixed layout written by another daemon, mapped read-only and read without a lock.

#include "tconfd/tconfd_shm.h"

#include "tconfd/tconfd_internal.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

namespace
{

constexpr char REGION_NAME[] = "tconfd_shared_region";
constexpr size_t HOST_NAME_MOST = 253;

struct shared_region_t {
    uint32_t family; // 2 IPv4, otherwise IPv6
    uint32_t unused;
    uint8_t address[16]; // IPv4 in the first 4 bytes, host byte order
    char host_name[256]; // NUL-terminated
};
static_assert(sizeof(shared_region_t) == 280 && offsetof(shared_region_t, address) == 8 &&
              offsetof(shared_region_t, host_name) == 24);

const shared_region_t *region;
char host_name[HOST_NAME_MOST + 1];
ip_addr_t system_ip;

} // namespace

void tconfd_setup_shm()
{
    if (region != nullptr)
        return;
    unique_fd fd(shm_open(REGION_NAME, O_RDONLY, 0400));
    if (!fd.is_open()) {
        tconfd_log("Failed to open shared memory %s with an error %d", REGION_NAME, errno);
        return;
    }
    // A shorter object would be a fault at the first read.
    struct stat info {
    };
    void *memory = MAP_FAILED;
    if (fstat(fd.get(), &info) == 0 && info.st_size >= static_cast<off_t>(sizeof(shared_region_t)))
        memory = mmap(nullptr, sizeof(shared_region_t), PROT_READ, MAP_SHARED, fd.get(), 0);
    if (memory == MAP_FAILED) {
        tconfd_log("Failed to map shared memory %s", REGION_NAME);
        return;
    }
    region = static_cast<const shared_region_t *>(memory);
}

void tconfd_unmap_shm()
{
    if (region == nullptr)
        return;
    munmap(const_cast<shared_region_t *>(region), sizeof *region);
    region = nullptr;
}

const char *tconfd_shm_host_name()
{
    if (region != nullptr) {
        strncpy(host_name, region->host_name, HOST_NAME_MOST);
        host_name[HOST_NAME_MOST] = '\0';
    }
    return host_name;
}

void tconfd_shm_system_ip(ip_addr_t *out)
{
    if (region != nullptr) {
        uint32_t v4;
        memcpy(&v4, region->address, sizeof v4);
        if (region->family == AF_INET)
            ip_addr_set_v4(&system_ip, v4);
        else
            ip_addr_set_v6(&system_ip, region->address);
    }
    *out = system_ip;
}
