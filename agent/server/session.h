// What CDB data connections and MAAPI connections hold: their sessions and transactions.
#ifndef AGENT_SERVER_SESSION_H
#define AGENT_SERVER_SESSION_H

#include "agent/server/callback_trans.h"
#include "agent/server/datastore.h"
#include "agent/server/dispatch.h"
#include "agent/server/notif.h"
#include "agent/wire/wire.h"

#include <cstdint>
#include <map>
#include <memory>
#include <set>

struct server_t;
struct walk_t;
struct provider_reading_t;

struct cdb_session_t {
    bool is_open = false;
    wire_db_t db = WIRE_DB_RUNNING;
};

struct session_trans_t {
    trans_ptr trans;         // null while it is being committed
    bool is_applied = false; // and not kept open: all that is left is to finish it
    wire_db_t db = WIRE_DB_RUNNING;
    callback_trans_ref daemons; // who has been told of it; never null
};

struct maapi_session_t {
    session_identity_t who;                            // id 0: no user session
    std::map<uint32_t, session_trans_t> transactions;  // by handle
    std::set<uint32_t> attached;                       // handles of callbacks' transactions
    std::map<uint32_t, uint32_t> flags;                // wire_trans_flag_t, by handle; also of attached ones
    std::map<uint32_t, std::shared_ptr<walk_t>> walks; // by number
    uint32_t last_walk = 0;                            // the number given last
    std::weak_ptr<provider_reading_t> reading;         // of provided data, begun last
};

// A value read from a request; goes with it.
struct value_holder {
    confd_value_t value{};
    explicit value_holder(wire_reader_t &in) : value(wire_get_value(in)) {}
    value_holder(const value_holder &) = delete;
    value_holder &operator=(const value_holder &) = delete;
    ~value_holder() { wire_free_value(value); }
};

// Tagged values read from a request; go with it.
struct tag_values_t {
    std::vector<confd_tag_value_t> values;
    explicit tag_values_t(wire_reader_t &in) : values(wire_get_tag_values(in)) {}
    tag_values_t(const tag_values_t &) = delete;
    tag_values_t &operator=(const tag_values_t &) = delete;
    ~tag_values_t() { wire_free_tag_values(values); }
};

// Ends the user session with its transactions and locks; no effect without one.
void maapi_session_end(server_t &server, maapi_session_t &session);

// Writes a document as the text of a reply: db is a wire_db_t, format 0 JSON or 1 XML.
[[nodiscard]] answer_t put_shown(call_t &call, view_t view, show_db_t db, uint8_t format, std::string_view path,
                                 bool with_defaults);

#endif
