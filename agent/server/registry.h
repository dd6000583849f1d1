// What daemons have registered on their control connections: the callbacks they offer, by name.
//
// A registration belongs to its control connection, counts from WIRE_REG_DONE on and goes with the connection. A name
// has one owner: the newer registration wins once it counts, and the loss is logged; until then the older one is
// served. The older one has lost for good: when the newer goes, the name has no owner until a daemon registers it
// again. Names that the data model does not know are kept too, with a log line: the daemon may be newer than the model.
#ifndef AGENT_SERVER_REGISTRY_H
#define AGENT_SERVER_REGISTRY_H

#include <cstdint>
#include <map>
#include <string>
#include <utility>

enum registration_kind_t : uint8_t {
    REGISTRATION_TRANS,
    REGISTRATION_VALIDATE,
    REGISTRATION_DATA,
    REGISTRATION_VALPOINT,
    REGISTRATION_ACTION,
    REGISTRATION_STREAM,
    REGISTRATION_SNMP_NOTIF,
    REGISTRATION_KINDS
};

struct registration_t {
    uint64_t connection = 0; // serial of the control connection
    uint32_t detail = 0;     // bits of the callbacks set; for streams whether there are replay callbacks
    uint32_t handle = 0;     // streams and SNMP notifications
    std::string context;     // SNMP notifications
};

struct registry_t {
    std::map<std::string, registration_t> rows[REGISTRATION_KINDS]; // by name; callbacks without one: by daemon id
    // That wait for the WIRE_REG_DONE of their connection, by connection and name.
    std::map<std::pair<uint64_t, std::string>, registration_t> waiting[REGISTRATION_KINDS];
    uint32_t next_handle = 1;
    uint32_t next_daemon_id = 1;
};

// As status output names a kind: "data", "valpoint" and so on.
[[nodiscard]] const char *registration_kind_name(registration_kind_t kind);

// The registration that is in force for a point; null when there is none.
[[nodiscard]] const registration_t *registry_find(const registry_t &registry, registration_kind_t kind,
                                                  const std::string &name);

void registry_forget_connection(registry_t &registry, uint64_t connection);

#endif
