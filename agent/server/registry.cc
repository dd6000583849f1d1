#include "agent/server/registry.h"

#include "agent/server/dispatch.h"
#include "agent/server/log.h"
#include "agent/server/server.h"

static constexpr size_t MAX_REGISTRATION_NAME = 255;
static constexpr size_t MAX_REGISTRATIONS = 10000; // of one kind

static constexpr const char *kind_names[] = {
    "trans", "validate", "data", "valpoint", "action", "stream", "snmp-notif"
};
static_assert(std::size(kind_names) == REGISTRATION_KINDS);

const char *registration_kind_name(registration_kind_t kind)
{
    return kind_names[kind];
}

void registry_forget_connection(registry_t &registry, uint64_t connection)
{
    for (auto &rows : registry.rows)
        std::erase_if(rows, [&](const auto &row) { return row.second.connection == connection; });
    for (auto &rows : registry.waiting)
        std::erase_if(rows, [&](const auto &row) { return row.second.connection == connection; });
}

const registration_t *registry_find(const registry_t &registry, registration_kind_t kind, const std::string &name)
{
    auto found = registry.rows[kind].find(name);
    return found != registry.rows[kind].end() ? &found->second : nullptr;
}

// The newer owner wins; the one before, if another and still there, is told of in the log.
static void tell_of_loss(call_t &call, size_t kind, const std::string &name, const registration_t &before)
{
    connection_t *owner = server_find(call.server, before.connection);
    if (before.connection == call.conn.serial || !owner)
        return;
    agent_log(LOG_WARNING, "%s loses %s \"%s\" to %s, which has registered it too", connection_title(*owner).c_str(),
              kind_names[kind], name.c_str(), connection_title(call.conn).c_str());
}

static answer_t add_registration(call_t &call, registration_kind_t kind, const std::string &name, registration_t row)
{
    registry_t &registry = call.server.registry;
    if (registry.rows[kind].size() + registry.waiting[kind].size() >= MAX_REGISTRATIONS)
        return refused(CONFD_ERR_TOOBIG, std::string("too many registrations of kind ") + kind_names[kind]);
    row.connection = call.conn.serial;
    registry.waiting[kind].insert_or_assign({ call.conn.serial, name }, std::move(row));
    return {};
}

static bool is_name(std::string_view name)
{
    return !name.empty() && name.size() <= MAX_REGISTRATION_NAME;
}

// A registration without a name: one for each daemon.
template <registration_kind_t Kind> static answer_t register_daemon(call_t &call)
{
    if (!call.in.finished())
        return malformed(call);
    return add_registration(call, Kind, std::to_string(call.conn.daemon_id), {});
}

// The statements of the model that name points of a kind.
static constexpr const char *statements_of_kinds[REGISTRATION_KINDS][2] = {
    {}, {}, { "callpoint", "transaction-hook" }, { "validate", nullptr }, { "actionpoint", "completion" }, {}, {},
};

static bool is_in_model(const schema_t &schema, registration_kind_t kind, const std::string &name)
{
    for (const char *statement : statements_of_kinds[kind])
        if (statement && schema_has_statement(schema, statement, name))
            return true;
    return false;
}

static void tell_of_unknown(call_t &call, registration_kind_t kind, const std::string &name)
{
    if (!is_in_model(datastore_schema(*call.server.store), kind, name))
        agent_log(LOG_NOTICE, "%s registers %s \"%s\", which the data model does not name",
                  connection_title(call.conn).c_str(), kind_names[kind], name.c_str());
}

// A named point, with the bits of the callbacks that are set where the operation has them.
template <registration_kind_t Kind, bool HasBits> static answer_t register_point(call_t &call)
{
    std::string name(call.in.text());
    uint32_t bits = HasBits ? call.in.u32() : 0;
    if (!call.in.finished() || !is_name(name))
        return malformed(call);
    tell_of_unknown(call, Kind, name);
    registration_t row;
    row.detail = bits;
    return add_registration(call, Kind, name, std::move(row));
}

static answer_t add_with_handle(call_t &call, registration_kind_t kind, const std::string &name, registration_t row)
{
    row.handle = call.server.registry.next_handle++;
    call.out.u32(row.handle);
    return add_registration(call, kind, name, std::move(row));
}

static answer_t register_stream(call_t &call)
{
    std::string name(call.in.text());
    registration_t row;
    row.detail = call.in.u8();
    if (!call.in.finished() || !is_name(name))
        return malformed(call);
    return add_with_handle(call, REGISTRATION_STREAM, name, std::move(row));
}

static answer_t register_snmp_notif(call_t &call)
{
    std::string name(call.in.text());
    registration_t row;
    row.context = call.in.text();
    if (!call.in.finished() || !is_name(name) || row.context.size() > MAX_REGISTRATION_NAME)
        return malformed(call);
    return add_with_handle(call, REGISTRATION_SNMP_NOTIF, name, std::move(row));
}

// The connection's waiting registrations count from here on.
static size_t put_in_force(call_t &call, size_t kind)
{
    registry_t &registry = call.server.registry;
    auto &rows = registry.rows[kind];
    for (auto &[key, row] : registry.waiting[kind]) {
        if (row.connection != call.conn.serial)
            continue;
        auto found = rows.find(key.second);
        if (found != rows.end())
            tell_of_loss(call, kind, key.second, found->second);
        rows.insert_or_assign(key.second, std::move(row));
    }
    return std::erase_if(registry.waiting[kind], [&](const auto &row) { return row.first.first == call.conn.serial; });
}

static answer_t finish_registrations(call_t &call)
{
    if (!call.in.finished())
        return malformed(call);
    size_t count = 0;
    for (size_t kind = 0; kind < REGISTRATION_KINDS; kind++)
        count += put_in_force(call, kind);
    agent_log(LOG_INFO, "%s has registered %zu callbacks", connection_title(call.conn).c_str(), count);
    return {};
}

static constexpr op_row_t rows_of_ops[] = {
    { WIRE_REG_TRANS_CB, register_daemon<REGISTRATION_TRANS> },
    { WIRE_REG_VALIDATE_CB, register_daemon<REGISTRATION_VALIDATE> },
    { WIRE_REG_DATA_CB, register_point<REGISTRATION_DATA, true> },
    { WIRE_REG_VALPOINT, register_point<REGISTRATION_VALPOINT, false> },
    { WIRE_REG_ACTION, register_point<REGISTRATION_ACTION, true> },
    { WIRE_REG_NOTIF_STREAM, register_stream },
    { WIRE_REG_SNMP_NOTIF, register_snmp_notif },
    { WIRE_REG_DONE, finish_registrations },
};

std::span<const op_row_t> control_ops()
{
    return rows_of_ops;
}
