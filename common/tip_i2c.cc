// The table of buses, and its one scan.
#include "common/tip_i2c.h"

#include "common/tip_file.h"
#include "common/tip_handle.h"
#include "common/tip_root.h"

#include <cstring>

namespace
{

constexpr size_t NAME_SIZE = 128;
constexpr char ENTRY_PREFIX[] = "i2c-";
constexpr size_t ENTRY_PREFIX_LENGTH = sizeof ENTRY_PREFIX - 1;

struct i2c_bus_t {
    uint32_t number;
    char name[NAME_SIZE]; // empty: end of the table
};

i2c_bus_t buses[I2C_MAX_BUSES];

// The bus of a directory entry "i2c-N"; false for another entry and for a bus without a name.
bool read_bus(const char *entry, i2c_bus_t *bus)
{
    if (strncmp(entry, ENTRY_PREFIX, ENTRY_PREFIX_LENGTH) != 0)
        return false;
    char *end;
    const char *digits = entry + ENTRY_PREFIX_LENGTH;
    bus->number = static_cast<uint32_t>(strtoul(digits, &end, 10));
    if (end == digits)
        return false;
    if (file_read_line(tip_path("%s/%s/name", TIP_I2C_CLASS_DIR, entry).text, bus->name, NAME_SIZE) != 0 &&
        file_read_line(tip_path("%s/%s/device/name", TIP_I2C_CLASS_DIR, entry).text, bus->name, NAME_SIZE) != 0)
        return false;
    return bus->name[0] != '\0';
}

} // namespace

uint32_t i2c_scan()
{
    static bool is_scanned;
    if (is_scanned)
        return 0;
    is_scanned = true;
    memset(buses, 0, sizeof buses);
    dir_ptr dir(opendir(tip_path("%s", TIP_I2C_CLASS_DIR).text));
    if (dir == nullptr)
        return UINT32_MAX;
    int count = 0;
    for (dirent *entry; count < I2C_MAX_BUSES && (entry = readdir(dir.get())) != nullptr;) {
        i2c_bus_t bus = {};
        if (read_bus(entry->d_name, &bus))
            buses[count++] = bus;
    }
    return 0;
}

int i2c_bus_by_name(const char *name)
{
    int found = I2C_NONE;
    for (const i2c_bus_t &bus : buses) {
        if (bus.name[0] == '\0')
            break;
        if (strcmp(bus.name, name) != 0)
            continue;
        if (found != I2C_NONE)
            return I2C_AMBIGUOUS;
        found = static_cast<int>(bus.number);
    }
    return found;
}
