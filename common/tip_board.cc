// The hardware family's numbers stand in tables; the probes below look at files of /proc and /sys only.
#include "common/tip_board.h"

#include "common/tip_file.h"
#include "common/tip_handle.h"
#include "common/tip_names.h"
#include "common/tip_root.h"
#include "common/vpn_id.h"

#include <cstring>

namespace
{

constexpr char BOARD_TYPE_KEY[] = "board_type:";
constexpr uint32_t BOARD_NOT_EDGE = 3;
constexpr uint32_t BOARD_NOT_KNOWN = 4;
constexpr uint32_t BOARD_NO_FILE = 2;
constexpr uint32_t BOARD_WITH_MODULES = 5;

constexpr uint32_t CHASSIS_WITH_MODEM_SLOT = 4;
constexpr uint32_t CHASSIS_OTHER_BOARD = 12;

constexpr unsigned MODEM_VENDOR = 0x1199;
constexpr unsigned RADIO_VENDOR = 0x168C;
constexpr unsigned RADIO_DEVICE = 0x3C;

constexpr uint32_t MANAGEMENT_TUNNEL_IF_TYPE = 29;

struct number_row_t {
    uint32_t key;
    uint32_t value;
};

constexpr number_row_t board_types[] = { { 20000, 2 }, { 20003, 0 }, { 20004, 1 }, { 20005, 5 }, { 20006, 6 } };
constexpr number_row_t board_chassis[] = { { 0, 4 }, { 1, 5 }, { 2, 12 }, { 6, 11 } };
constexpr number_row_t fixed_chassis[] = {
    { PERSONALITY_LODEST, 1 }, { PERSONALITY_ORBEL, 3 },   { PERSONALITY_QUORVIX, 2 },
    { PERSONALITY_ZTP, 3 },    { PERSONALITY_PENDRY, 13 },
};
constexpr uint32_t FIXED_CHASSIS_OTHER = 4;

template <size_t count> uint32_t value_of(const number_row_t (&rows)[count], uint32_t key, uint32_t otherwise)
{
    for (const number_row_t &row : rows)
        if (row.key == key)
            return row.value;
    return otherwise;
}

// What is plugged into a board with module slots.
struct modules_t {
    bool radio_0 = false;
    bool radio_1 = false;
    bool modem_1 = false; // USB port 1-1
    bool modem_3 = false; // USB port 3-1
};

bool file_holds(const tip_path_t &path, unsigned expected)
{
    unsigned number = 0;
    return hex_file_read(path.text, &number) == 0 && number == expected;
}

bool has_modem(const char *port)
{
    return file_holds(tip_path("%s/%s/idVendor", TIP_USB_DEVICES_DIR, port), MODEM_VENDOR);
}

bool is_radio(const char *device)
{
    return file_holds(tip_path("%s/%s/vendor", TIP_PCI_DEVICES_DIR, device), RADIO_VENDOR) &&
           file_holds(tip_path("%s/%s/device", TIP_PCI_DEVICES_DIR, device), RADIO_DEVICE);
}

void probe_radios(modules_t *modules)
{
    dir_ptr dir(opendir(tip_path("%s", TIP_PCI_DEVICES_DIR).text));
    if (dir == nullptr)
        return;
    while (dirent *entry = readdir(dir.get())) {
        bool in_slot_0 = strstr(entry->d_name, "0000") != nullptr;
        bool in_slot_1 = strstr(entry->d_name, "0001") != nullptr;
        if ((!in_slot_0 && !in_slot_1) || !is_radio(entry->d_name))
            continue;
        modules->radio_0 |= in_slot_0;
        modules->radio_1 |= in_slot_1;
    }
}

uint32_t chassis_from_modules()
{
    modules_t modules;
    probe_radios(&modules);
    modules.modem_1 = has_modem("1-1");
    modules.modem_3 = has_modem("3-1");
    if (modules.radio_0 && modules.radio_1)
        return 7;
    if ((modules.radio_0 && modules.modem_3) || (modules.radio_1 && modules.modem_1))
        return 8;
    if (modules.modem_1 && modules.modem_3)
        return 9;
    return !modules.modem_1 && !modules.modem_3 ? 6 : 10;
}

} // namespace

int hex_file_read(const char *path, unsigned *out)
{
    long number;
    int result = file_read_number(path, 16, &number);
    if (result == 0)
        *out = static_cast<unsigned>(number);
    return result;
}

uint32_t board_type_get(uint32_t personality)
{
    if (personality != PERSONALITY_KREST)
        return BOARD_NOT_EDGE;
    file_ptr file(fopen(tip_path("%s", TIP_BOARD_INFO).text, "re"));
    if (file == nullptr)
        return BOARD_NO_FILE;
    char line[256];
    while (fgets(line, sizeof line, file.get()) != nullptr)
        if (strncmp(line, BOARD_TYPE_KEY, sizeof BOARD_TYPE_KEY - 1) == 0)
            return value_of(board_types, static_cast<uint32_t>(strtol(line + sizeof BOARD_TYPE_KEY - 1, nullptr, 10)),
                            BOARD_NOT_KNOWN);
    return BOARD_NOT_KNOWN;
}

uint32_t chassis_from_board(uint32_t board)
{
    return board == BOARD_WITH_MODULES ? chassis_from_modules() : value_of(board_chassis, board, CHASSIS_OTHER_BOARD);
}

uint32_t chassis_get(uint32_t personality)
{
    if (personality == PERSONALITY_KREST || personality == PERSONALITY_TARN)
        return chassis_from_board(board_type_get(personality));
    return value_of(fixed_chassis, personality, FIXED_CHASSIS_OTHER);
}

int module_slot_probe(uint32_t chassis)
{
    return chassis == CHASSIS_WITH_MODEM_SLOT && (has_modem("3-1") || has_modem("3-2")) ? 1 : 0;
}

int vpn_is_mgmt_tun_if(uint32_t personality, uint64_t vpn_id, uint32_t if_type)
{
    bool is_controller =
        personality == PERSONALITY_QUORVIX || personality == PERSONALITY_LODEST || personality == PERSONALITY_PENDRY;
    if (!is_controller && vpn_id != VPN_ID_MANAGEMENT)
        return 1;
    return if_type == MANAGEMENT_TUNNEL_IF_TYPE ? 1 : 0;
}

const char *if_default_wan_name(uint32_t personality)
{
    if (personality != PERSONALITY_KREST)
        return nullptr;
    switch (board_type_get(personality)) {
    case 0:
        return "ge0/0";
    case 1:
        return "ge2/0";
    case 5:
    case 6:
        return "ge0/4";
    default:
        return nullptr;
    }
}
