// Process-wide state of the layer: which daemon it serves, where its lines go, and whether traces print.

#include "tconfd/tconfd_internal.h"

#include <array>

namespace
{

uint8_t module_id;
bool debug_on;
uint32_t debug_level;

constexpr size_t FACILITY_COUNT = 32;

// Daemons that do not log to local7.
struct facility_row_t {
    uint8_t module_id;
    int facility;
};
constexpr facility_row_t facility_rows[] = {
    { 0, LOG_USER },  // "unknown"
    { 15, LOG_USER }, // "igmpd"
    { 19, LOG_KERN }, // "cflowd"
    { 30, LOG_USER }, // "ospfd"
    { 31, LOG_USER }, // "bgpd"
};

constexpr std::array<int, FACILITY_COUNT> make_facilities()
{
    std::array<int, FACILITY_COUNT> table{};
    table.fill(LOG_LOCAL7);
    for (const facility_row_t &row : facility_rows)
        table[row.module_id] = row.facility;
    return table;
}
constexpr std::array<int, FACILITY_COUNT> facilities = make_facilities();
int facility = LOG_LOCAL7;

} // namespace

uint8_t tconfd_module_id()
{
    return module_id;
}

void tconfd_module_id_set(uint8_t id)
{
    module_id = id;
    facility = id < FACILITY_COUNT ? facilities[id] : LOG_LOCAL7;
}

int tconfd_facility()
{
    return facility;
}

bool tconfd_trace_is_on()
{
    return module_id == 0 || debug_on;
}

const char *tconfd_name()
{
    return daemon_id_to_name(module_id);
}

void tconfd_debug_enable(uint32_t level)
{
    debug_on = true;
    debug_level = level;
}

void tconfd_debug_disable()
{
    debug_on = false;
    debug_level = 0;
}

const sockaddr_in &tconfd_agent_address()
{
    static const sockaddr_in address = [] {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(CONFD_PORT);
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return a;
    }();
    return address;
}

unique_fd tconfd_agent_socket()
{
    return unique_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
}

oper_session::oper_session(int flags) : sock(tconfd_agent_socket())
{
    if (!sock.is_open())
        return;
    step = STEP_CONNECT;
    const sockaddr_in &address = tconfd_agent_address();
    if (cdb_connect(sock.get(), CDB_DATA_SOCKET, reinterpret_cast<const sockaddr *>(&address), sizeof address) !=
        CONFD_OK)
        return;
    step = STEP_SESSION;
    if (cdb_start_session2(sock.get(), CDB_OPERATIONAL, flags) != CONFD_OK)
        return;
    step = STEP_OPEN;
}

oper_session::~oper_session()
{
    if (step == STEP_OPEN)
        (void)cdb_end_session(sock.get()); // the connection goes away in any case
    if (step >= STEP_SESSION)
        (void)cdb_close(sock.release());
}
