// What a restarted system manager has to know of the time before: it cannot ask again. Kept in a small file of lines
// "word number", rewritten with each change.
#ifndef PLATFORM_SYSMGRD_MEMORY_H
#define PLATFORM_SYSMGRD_MEMORY_H

#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <sys/types.h>

struct sysmgrd_memory_t {
    pid_t ready_pid = 0;     // the cfgmgr that has reported the agent's startup transaction as done, 0: none that lives
    uint32_t read_bits = 0;  // last seen in "/tconfd-initial-read-priority"
    std::set<uint64_t> vpns; // added and not removed since
};

[[nodiscard]] std::string memory_text(const sysmgrd_memory_t &memory);
// Lines that are not understood are left out.
[[nodiscard]] sysmgrd_memory_t memory_parse(std::string_view text);

[[nodiscard]] sysmgrd_memory_t memory_load();
void memory_save(const sysmgrd_memory_t &memory);
void memory_remove();

#endif
