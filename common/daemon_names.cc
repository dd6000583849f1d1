// The table behind daemon_names.h: the single daemons as written, the instances counted out at compile time.
#include "common/daemon_names.h"

#include "common/tip_assert.h"

#include <array>
#include <string_view>
#include <strings.h>

namespace
{

struct daemon_name_t {
    char text[24];
};

constexpr unsigned INSTANCES = 64;

constexpr std::string_view single_daemons[] = {
    "unknown",    "ovcd",     "wptd",
    "fwtd",       "tdaemon",  "cfgmgr",
    "chmgrd",     "sysmgrd",  "vrrpd",
    "fwpd",       "tdhcprd",  "tdhcpcd",
    "tdhcpsd",    "ttracker", "ncs",
    "igmpd",      "pimd",     "resolvd",
    "fp",         "cflowd",   "snmpd",
    "wland",      "wwand",    "gpsd",
    "containerd", "slxd",     "dnsd",
    "tcpd",       "tdhcpad",  "zebra",
    "ospfd",      "bgpd",     "tdaemon_internal_max",
};
static_assert(std::size(single_daemons) == DAEMON_ID_TDAEMON_FIRST);
static_assert(DAEMON_ID_TDAEMON_FIRST + INSTANCES == DAEMON_ID_ORBEL_FIRST);
static_assert(DAEMON_ID_ORBEL_FIRST + INSTANCES == DAEMON_ID_MAX + 1);

constexpr void append(daemon_name_t &name, size_t &length, std::string_view text)
{
    for (char c : text)
        name.text[length++] = c;
}

constexpr daemon_name_t instance_name(std::string_view kind, unsigned number)
{
    daemon_name_t name = {};
    size_t length = 0;
    append(name, length, kind);
    if (number >= 10)
        name.text[length++] = static_cast<char>('0' + number / 10);
    name.text[length] = static_cast<char>('0' + number % 10);
    return name;
}

constexpr auto make_daemon_names()
{
    std::array<daemon_name_t, DAEMON_ID_MAX + 1> names = {};
    for (unsigned id = 0; id < std::size(single_daemons); ++id) {
        size_t length = 0;
        append(names[id], length, single_daemons[id]);
    }
    for (unsigned number = 0; number < INSTANCES; ++number) {
        names[DAEMON_ID_TDAEMON_FIRST + number] = instance_name("tdaemon_", number);
        names[DAEMON_ID_ORBEL_FIRST + number] = instance_name("orbel_", number);
    }
    return names;
}

constexpr auto daemon_names = make_daemon_names();

} // namespace

const char *daemon_id_to_name(uint32_t id)
{
    tip_assert_at("tip_util", 428, id <= DAEMON_ID_MAX);
    return daemon_names[id].text;
}

uint32_t daemon_name_to_id(const char *name)
{
    for (uint32_t id = 0; id <= DAEMON_ID_MAX; ++id)
        if (strcasecmp(daemon_names[id].text, name) == 0)
            return id;
    return DAEMON_ID_UNKNOWN;
}
