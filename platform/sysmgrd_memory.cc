#include "platform/sysmgrd_memory.h"

#include "common/tip_root.h"
#include "platform/run_files.h"

#include <charconv>
#include <limits>
#include <unistd.h>

namespace
{

constexpr size_t MAX_FILE = 64 << 10;

struct memory_row_t {
    std::string_view word;
    uint64_t max;
    void (*take)(sysmgrd_memory_t &memory, uint64_t number);
};
constexpr memory_row_t memory_rows[] = {
    { "ready-pid", std::numeric_limits<pid_t>::max(),
      [](sysmgrd_memory_t &memory, uint64_t number) {
          memory.ready_pid = static_cast<pid_t>(number);
      } },
    { "read-bits", UINT32_MAX,
      [](sysmgrd_memory_t &memory, uint64_t number) {
          memory.read_bits = static_cast<uint32_t>(number);
      } },
    { "vpn", UINT64_MAX,
      [](sysmgrd_memory_t &memory, uint64_t number) {
          memory.vpns.insert(number);
      } },
};

void take_line(std::string_view line, sysmgrd_memory_t *memory)
{
    size_t blank = line.find(' ');
    if (blank == std::string_view::npos)
        return;
    uint64_t number = 0;
    auto result = std::from_chars(line.data() + blank + 1, line.data() + line.size(), number);
    if (result.ec != std::errc() || result.ptr != line.data() + line.size())
        return;
    for (const memory_row_t &row : memory_rows) {
        if (row.word == line.substr(0, blank) && number <= row.max)
            row.take(*memory, number);
    }
}

std::string memory_path()
{
    return tip_path("%s/sysmgrd.memory", TIP_RUN_DIR).text;
}

} // namespace

std::string memory_text(const sysmgrd_memory_t &memory)
{
    std::string text = "ready-pid " + std::to_string(memory.ready_pid) + "\n";
    text += "read-bits " + std::to_string(memory.read_bits) + "\n";
    for (uint64_t vpn : memory.vpns)
        text += "vpn " + std::to_string(vpn) + "\n";
    return text;
}

sysmgrd_memory_t memory_parse(std::string_view text)
{
    sysmgrd_memory_t memory;
    for (size_t end; (end = text.find('\n')) != std::string_view::npos; text.remove_prefix(end + 1))
        take_line(text.substr(0, end), &memory);
    return memory;
}

sysmgrd_memory_t memory_load()
{
    return memory_parse(file_text(memory_path(), MAX_FILE));
}

void memory_save(const sysmgrd_memory_t &memory)
{
    (void)file_replace(memory_path(), memory_text(memory)); // has logged its failure
}

void memory_remove()
{
    (void)unlink(memory_path().c_str()); // gone already is as good
}
