// Operations on transactions and data. See session.h; their payloads are in agent/wire/wire.h.
#include "agent/cli/session.h"

#include "agent/cli/session_call.h"

#include <arpa/inet.h>

bool session_start_trans(session_t &session, bool is_writable, uint32_t &trans, cli_error_t &error)
{
    wire_writer_t request;
    request.u8(WIRE_DB_RUNNING);
    request.u8(is_writable);
    request.u32(0);
    std::string reply;
    if (!session_call(session, WIRE_MAAPI_START_TRANS, request, reply, error))
        return false;
    wire_reader_t in(reply);
    trans = in.u32();
    return in.ok || cli_fail(error, "the agent gave no transaction");
}

bool session_call_number(session_t &session, uint16_t op, uint32_t number, cli_error_t &error)
{
    wire_writer_t request;
    request.u32(number);
    std::string reply;
    return session_call(session, op, request, reply, error);
}

namespace
{

bool call_with_path(session_t &session, uint16_t op, const std::string &path, cli_error_t &error)
{
    wire_writer_t request;
    request.u32(session.trans);
    request.text(path);
    std::string reply;
    return session_call(session, op, request, reply, error);
}

void finish_trans(session_t &session, uint32_t trans)
{
    cli_error_t error;
    (void)session_call_number(session, WIRE_MAAPI_FINISH_TRANS, trans, error); // it ends with the session anyway
}

// The transaction to read from: the writable one, or one of its own for a moment.
struct reading_t {
    session_t &session;
    uint32_t trans = 0;
    bool is_own = false;

    explicit reading_t(session_t &s) : session(s) {}
    reading_t(const reading_t &) = delete;
    reading_t &operator=(const reading_t &) = delete;
    ~reading_t()
    {
        if (is_own)
            finish_trans(session, trans);
    }
    [[nodiscard]] bool begin(bool want_running, cli_error_t &error)
    {
        trans = session.trans;
        if (trans != 0 && !want_running)
            return true;
        is_own = session_start_trans(session, false, trans, error);
        return is_own;
    }
};

// A value as it is typed; of types that no key and no leaf here has, nothing.
std::string text_of_value(const confd_value_t &value, const lysc_node *leaf)
{
    char buffer[INET6_ADDRSTRLEN] = "";
    switch (value.type) {
    case C_STR:
        return value.val.s;
    case C_BUF:
        return { reinterpret_cast<const char *>(value.val.buf.ptr), value.val.buf.size };
    case C_UINT8:
        return std::to_string(value.val.u8);
    case C_UINT16:
        return std::to_string(value.val.u16);
    case C_UINT32:
        return std::to_string(value.val.u32);
    case C_UINT64:
        return std::to_string(value.val.u64);
    case C_INT8:
        return std::to_string(value.val.i8);
    case C_INT16:
        return std::to_string(value.val.i16);
    case C_INT32:
        return std::to_string(value.val.i32);
    case C_INT64:
        return std::to_string(value.val.i64);
    case C_IPV4:
        return inet_ntop(AF_INET, &value.val.ip, buffer, sizeof buffer);
    case C_IPV6:
        return inet_ntop(AF_INET6, &value.val.ip6, buffer, sizeof buffer);
    case C_BOOL:
        return value.val.boolean ? "true" : "false";
    case C_ENUM_VALUE:
        return leaf ? schema_enum_label(leaf, value.val.enumvalue) : "";
    default:
        return "";
    }
}

} // namespace

bool session_begin(session_t &session, cli_error_t &error)
{
    session_end(session);
    return session_start_trans(session, true, session.trans, error);
}

void session_end(session_t &session)
{
    if (session.trans != 0)
        finish_trans(session, session.trans);
    session.trans = 0;
}

bool session_set(session_t &session, const std::string &path, const std::string &value, cli_error_t &error)
{
    wire_writer_t request;
    request.u32(session.trans);
    request.text(path);
    request.text(value);
    std::string reply;
    return session_call(session, WIRE_MAAPI_SET_TEXT, request, reply, error);
}

bool session_create(session_t &session, const std::string &path, cli_error_t &error)
{
    return call_with_path(session, WIRE_MAAPI_CREATE, path, error) || error.status == CONFD_ERR_ALREADY_EXISTS;
}

bool session_delete(session_t &session, const std::string &path, cli_error_t &error)
{
    return call_with_path(session, WIRE_MAAPI_DELETE, path, error);
}

bool session_load(session_t &session, const std::string &document, cli_error_t &error)
{
    static constexpr uint8_t FORMAT_XML = 1;
    wire_writer_t request;
    request.u32(session.trans);
    request.u8(FORMAT_XML);
    request.text(document);
    std::string reply;
    return session_call(session, WIRE_MAAPI_LOAD, request, reply, error);
}

bool session_validate(session_t &session, cli_error_t &error)
{
    return session_call_number(session, WIRE_MAAPI_VALIDATE_TRANS, session.trans, error);
}

bool session_apply(session_t &session, cli_error_t &error)
{
    wire_writer_t request;
    request.u32(session.trans);
    request.u8(1); // the transaction stays open
    std::string reply;
    return session_call(session, WIRE_MAAPI_APPLY_TRANS, request, reply, error);
}

bool session_compare(session_t &session, std::vector<change_t> &changes, cli_error_t &error)
{
    wire_writer_t request;
    request.u32(session.trans);
    std::string reply;
    if (!session_call(session, WIRE_MAAPI_COMPARE, request, reply, error))
        return false;
    wire_reader_t in(reply);
    changes.clear();
    for (uint32_t n = in.count(13); n > 0 && in.ok; n--) {
        change_t change;
        change.op = in.u8();
        change.path = in.text();
        change.old_value = in.text();
        change.new_value = in.text();
        changes.push_back(std::move(change));
    }
    return in.finished() || cli_fail(error, "the agent's list of changes cannot be read");
}

namespace
{

// Adds the values of the keys of an entry, or the value of a leaf-list, as the agent has them.
bool put_keys(session_t &session, const path_t &path, wire_writer_t &out, cli_error_t &error)
{
    if (schema_is_leaf_list(path.node)) {
        const std::string &text = path.words.back();
        confd_value_t value = {};
        value.type = C_BUF;
        value.val.buf.ptr = reinterpret_cast<unsigned char *>(const_cast<char *>(text.data())); // only read
        value.val.buf.size = static_cast<unsigned>(text.size());
        out.u8(1);
        wire_put_value(out, value);
        return true;
    }
    std::vector<const lysc_node *> keys = schema_keys(path.node);
    out.u8(static_cast<uint8_t>(keys.size()));
    for (const lysc_node *key : keys) {
        wire_writer_t request;
        request.u32(session.trans);
        request.text(path.text + "/" + key->name);
        std::string reply;
        if (!session_call(session, WIRE_MAAPI_GET, request, reply, error))
            return false;
        out.put(reply.data(), reply.size());
    }
    return true;
}

} // namespace

bool session_move(session_t &session, const path_t &entry, wire_move_t where, const path_t &other, cli_error_t &error)
{
    wire_writer_t request;
    request.u32(session.trans);
    request.text(entry.text);
    request.u8(where);
    if (!other.node)
        request.u8(0);
    else if (!put_keys(session, other, request, error))
        return false;
    std::string reply;
    return session_call(session, WIRE_MAAPI_MOVE, request, reply, error);
}

bool session_get_text(session_t &session, const std::string &path, std::string &text, cli_error_t &error)
{
    text.clear();
    reading_t reading(session);
    if (!reading.begin(true, error))
        return false;
    wire_writer_t request;
    request.u32(reading.trans);
    request.text(path);
    std::string reply;
    if (!session_call(session, WIRE_MAAPI_GET, request, reply, error))
        return error.status == CONFD_ERR_NOEXISTS;
    wire_reader_t in(reply);
    confd_value_t value = wire_get_value(in);
    text = text_of_value(value, nullptr);
    wire_free_value(value);
    return in.finished() || cli_fail(error, "the agent's value cannot be read");
}

namespace
{

// The keys of an operational list, found by a walk, which meets much else: it ends when that has become much.
bool walk_instances(session_t &session, const path_t &list, uint32_t most,
                    std::vector<std::vector<std::string>> &entries, cli_error_t &error)
{
    static constexpr size_t MOST_ITEMS = 20000;
    session_walk_t walk(session);
    if (!walk.start(show_source_t::OPERATIONAL, list.text, error))
        return false;
    size_t seen = 0;
    size_t depth = 0;
    for (std::vector<item_t> items; seen < MOST_ITEMS; seen += items.size()) {
        if (!walk.next(items, error) || items.empty())
            return items.empty();
        for (item_t &item : items) {
            if (item.kind == WIRE_WALK_ENTRY && depth == 0)
                entries.push_back(std::move(item.values));
            depth += item.kind == WIRE_WALK_ENTRY || item.kind == WIRE_WALK_CONTAINER;
            depth -= item.kind == WIRE_WALK_END && depth > 0;
            if (entries.size() == most)
                return true;
        }
    }
    return true;
}

} // namespace

bool session_instances(session_t &session, const path_t &list, uint32_t most,
                       std::vector<std::vector<std::string>> &entries, cli_error_t &error)
{
    if (!schema_is_config(list.node))
        return walk_instances(session, list, most, entries, error);
    reading_t reading(session);
    if (!reading.begin(false, error))
        return false;
    wire_writer_t request;
    request.u32(reading.trans);
    request.text(list.text);
    request.u8(0);
    request.u32(most);
    std::string reply;
    if (!session_call(session, WIRE_MAAPI_NEXT, request, reply, error))
        return false;
    wire_reader_t in(reply);
    std::vector<const lysc_node *> nodes = schema_keys(list.node);
    for (uint32_t n = in.count(1); n > 0 && in.ok; n--) {
        std::vector<std::string> keys;
        for (uint8_t k = in.u8(); k > 0 && in.ok; k--) {
            confd_value_t value = wire_get_value(in);
            keys.push_back(text_of_value(value, keys.size() < nodes.size() ? nodes[keys.size()] : nullptr));
            wire_free_value(value);
        }
        entries.push_back(std::move(keys));
    }
    return in.finished() || cli_fail(error, "the agent's list of entries cannot be read");
}
