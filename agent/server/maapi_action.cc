// MAAPI connections: actions, completions, interrupts, output for the operator's command line.
#include "agent/server/action.h"
#include "agent/server/maapi.h"
#include "agent/server/op.h"
#include "agent/server/provider_read.h"
#include "agent/server/server.h"
#include "agent/server/walk.h"

static constexpr size_t MAX_OUTPUT = 1 << 20; // of one push
static constexpr size_t MAX_TOKEN = 4096;

// What operations that may name a transaction read; th 0: running.
static answer_t find_view(const call_t &call, uint32_t th, view_t *view)
{
    if (call.conn.maapi.who.id == 0)
        return maapi_no_session();
    answer_t answer;
    if (th == 0)
        return answer;
    *view = { VIEW_TRANS, maapi_find_trans(call, th, &answer) };
    return answer;
}

// ---- actions

struct action_call_t {
    uint32_t th = 0;
    path_t path;
    const std::string *point = nullptr;
    view_t view;
    op_document_t input;
};

// Every list entry above has to be there. What a daemon provides is its own to judge.
static answer_t check_instance(datastore_t &store, view_t view, const path_t &path)
{
    path_t above;
    for (const path_step_t &step : path.steps) {
        bool is_provided = schema_statement(*step.node, "callpoint") && !step.node->is(WIRE_NODE_CONFIG);
        if (is_provided)
            return {};
        above.steps.push_back(step);
        if (step.node->is(WIRE_NODE_LIST) && !read_exists(store, view, above))
            return refused(CONFD_ERR_NOEXISTS, path_text(above) + " does not exist");
    }
    return {};
}

static answer_t find_action(const call_t &call, std::string_view text, action_call_t *action)
{
    ds_error_t error;
    if (!path_parse(datastore_schema(*call.server.store), text, PATH_INSTANCE, action->path, error))
        return refused(error.code, error.text);
    const schema_info_t *node = action->path.node();
    if (!node || !node->is(WIRE_NODE_ACTION))
        return refused(CONFD_ERR_BADPATH, std::string(text) + " is no action");
    action->point = schema_statement(*node, "actionpoint");
    if (!action->point)
        return refused(CONFD_ERR_UNAVAILABLE,
                       std::string(text) + " names no action point in the model, so that no daemon can serve it");
    return check_instance(*call.server.store, action->view, action->path);
}

static answer_t failed_action(const std::string &name, const std::string &client, const callback_reply_t &reply)
{
    return refused(CONFD_ERR_EXTERNAL,
                   reply.text.empty() ? "action " + name + " of " + client + " failed" : reply.text);
}

// A daemon's answer that does not fit is a fault of the daemon, named to both.
static answer_t take_output(server_t &server, const path_t &path, std::string_view payload, const std::string &client,
                            wire_writer_t &out)
{
    wire_reader_t in(payload);
    std::vector<confd_tag_value_t> values = wire_get_tag_values(in);
    op_document_t document;
    ds_error_t error;
    bool is_good = in.finished() && op_read_output(*server.store, path, values, document, error);
    wire_free_tag_values(values);
    if (is_good) {
        out.text(op_json(document, false));
        return {};
    }
    std::string text = client + " has answered wrongly: " + (in.finished() ? error.text : "it is no list of values");
    agent_log(LOG_WARNING, "%s", text.c_str());
    return refused(CONFD_ERR_EXTERNAL, std::move(text));
}

static action_run_t begin_run(const call_t &call, uint32_t th, const std::string &point, std::string what)
{
    action_run_t run;
    run.reply_to = call.ref;
    run.th = th;
    run.who = call.conn.maapi.who;
    run.point = point;
    run.what = std::move(what);
    run.timeout_ms = call.server.config.action_timeout_ms;
    return run;
}

static answer_t start_values(const call_t &call, action_call_t &action, const std::string &name)
{
    const schema_info_t &node = *action.path.node();
    action_run_t run = begin_run(call, action.th, *action.point, "action \"" + name + "\"");
    wire_writer_t payload;
    payload.text(*action.point);
    payload.u32(node.tag);
    payload.u32(node.ns);
    path_put(payload, action.path);
    op_put_values(payload, action.input);
    run.op = WIRE_CB_ACTION;
    run.payload = std::move(payload.bytes);
    run.finish = [path = std::move(action.path), name](server_t &server, const callback_reply_t &reply,
                                                       const std::string &client, wire_writer_t &out) {
        return reply.code == CONFD_ERR_OK ? take_output(server, path, reply.payload, client, out)
                                          : failed_action(name, client, reply);
    };
    return action_start(call.server, std::move(run), ACTION_ACTION);
}

static answer_t start_command(const call_t &call, const action_call_t &action, const std::string &name)
{
    action_run_t run = begin_run(call, action.th, *action.point, "command \"" + name + "\"");
    std::vector<std::string> words = op_texts(action.input);
    wire_writer_t payload;
    payload.text(*action.point);
    payload.text(schema_path(*action.path.node()));
    payload.u32(static_cast<uint32_t>(words.size() + 1));
    payload.text(name);
    for (const std::string &word : words)
        payload.text(word);
    run.op = WIRE_CB_COMMAND;
    run.payload = std::move(payload.bytes);
    run.finish = [name](server_t &, const callback_reply_t &reply, const std::string &client, wire_writer_t &out) {
        out.text("");
        return reply.code == CONFD_ERR_OK ? answer_t{} : failed_action(name, client, reply);
    };
    return action_start(call.server, std::move(run), ACTION_COMMAND);
}

static answer_t run_action(call_t &call)
{
    action_call_t action;
    action.th = call.in.u32();
    std::string_view text = call.in.text();
    std::string_view input = call.in.text();
    if (!call.in.finished())
        return malformed(call);
    answer_t answer = find_view(call, action.th, &action.view);
    if (answer.code == CONFD_ERR_OK)
        answer = find_action(call, text, &action);
    if (answer.code != CONFD_ERR_OK)
        return answer;
    ds_error_t error;
    if (!op_read_input(*call.server.store, action.view, action.path, input, action.input, error))
        return refused(error.code, error.text);
    std::string name = action.path.node()->name();
    const registration_t *row = registry_find(call.server.registry, REGISTRATION_ACTION, *action.point);
    bool is_command = row && (row->detail & ACTION_COMMAND) && !(row->detail & ACTION_ACTION);
    return is_command ? start_command(call, action, name) : start_values(call, action, name);
}

// What the connection waits for and can still be taken back ends now; a commit in progress goes on.
static answer_t interrupt(call_t &call)
{
    if (!call.in.finished())
        return malformed(call);
    uint64_t serial = call.conn.serial;
    if (!action_interrupt(call.server, serial) && !walk_interrupt(call.server, serial) &&
        !provider_interrupt(call.server, call.conn.maapi))
        commit_queue_interrupt(call.server, serial);
    return unanswered();
}

// ---- completions

struct completion_t {
    uint8_t kind;
    std::string_view value;
    std::string_view extra;
};

// The words that go on with the token, and all that is no word: headings, explanations.
static bool filter_completions(std::string_view payload, const std::string &token, wire_writer_t &out)
{
    static constexpr size_t MIN_COMPLETION_SIZE = 9;
    wire_reader_t in(payload);
    std::vector<completion_t> kept;
    for (uint32_t left = in.count(MIN_COMPLETION_SIZE); left > 0 && in.ok; left--) {
        completion_t item = { in.u8(), in.text(), in.text() };
        if (item.kind != 0 || item.value.starts_with(token))
            kept.push_back(item);
    }
    if (!in.finished())
        return false;
    out.u32(static_cast<uint32_t>(kept.size()));
    for (const completion_t &item : kept) {
        out.u8(item.kind);
        out.text(item.value);
        out.text(item.extra);
    }
    return true;
}

static answer_t finish_completion(const callback_reply_t &reply, const std::string &token, const std::string &client,
                                  wire_writer_t &out)
{
    if (reply.code != CONFD_ERR_OK) {
        out.u32(0);
        return reply.text.empty() ? answer_t{} : refused(reply.code, reply.text);
    }
    if (filter_completions(reply.payload, token, out))
        return {};
    return refused(CONFD_ERR_EXTERNAL, client + " has answered wrongly: it is no list of completions");
}

// RFC 7950, section 4.2.4, in the order of LY_DATA_TYPE.
static constexpr const char *type_names[] = {
    "unknown", "binary",  "uint8",     "uint16", "uint32",      "uint64",      "string",
    "bits",    "boolean", "decimal64", "empty",  "enumeration", "identityref", "instance-identifier",
    "leafref", "union",   "int8",      "int16",  "int32",       "int64",
};
static_assert(std::size(type_names) == LY_DATA_TYPE_COUNT && LY_TYPE_UNION == 15 && LY_TYPE_BOOL == 8);

static const char *type_name(const schema_info_t &leaf)
{
    const lysc_type *type = leaf.is(WIRE_NODE_LEAF) ? reinterpret_cast<const lysc_node_leaf *>(leaf.node)->type
                                                    : reinterpret_cast<const lysc_node_leaflist *>(leaf.node)->type;
    return type_names[type->basetype];
}

struct completion_call_t {
    uint32_t th;
    std::string_view path;
    std::string token;
    uint8_t character;
};

static std::string completion_payload(const std::string &point, const path_t &path, const completion_call_t &asked)
{
    static constexpr uint8_t CLI_STYLE_J = 1; // commands in the style of paths: "set a b c value"
    wire_writer_t payload;
    payload.text(point);
    payload.u8(CLI_STYLE_J);
    payload.text(asked.token);
    payload.u8(asked.character);
    path_put(payload, path);
    payload.text(schema_path(*path.node()));
    payload.text(path.node()->name());
    payload.text(""); // the built-in types have no prefix
    payload.text(type_name(*path.node()));
    payload.text("");
    return std::move(payload.bytes);
}

static answer_t complete(call_t &call)
{
    completion_call_t asked = { call.in.u32(), call.in.text(), std::string(call.in.text()), call.in.u8() };
    if (!call.in.finished())
        return malformed(call);
    view_t view;
    answer_t answer = find_view(call, asked.th, &view);
    if (answer.code != CONFD_ERR_OK)
        return answer;
    path_t path;
    ds_error_t error;
    if (!path_parse(datastore_schema(*call.server.store), asked.path, PATH_POINT, path, error))
        return refused(error.code, error.text);
    if (!path.node()->is(WIRE_NODE_LEAF | WIRE_NODE_LEAF_LIST) || asked.token.size() > MAX_TOKEN)
        return refused(CONFD_ERR_BADPATH, std::string(asked.path) + " is no leaf, or the word is too long");
    const std::string *point = schema_statement(*path.node(), "completion");
    if (!point) {
        call.out.u32(0);
        return {};
    }
    action_run_t run = begin_run(call, asked.th, *point, "completion of \"" + schema_path(*path.node()) + "\"");
    run.op = WIRE_CB_COMPLETION;
    run.payload = completion_payload(*point, path, asked);
    run.timeout_ms = call.server.config.callback_timeout_ms;
    run.finish = [token = std::move(asked.token)](server_t &, const callback_reply_t &reply, const std::string &client,
                                                  wire_writer_t &out) {
        return finish_completion(reply, token, client, out);
    };
    return action_start(call.server, std::move(run), ACTION_COMPLETION);
}

// ---- output

static answer_t cli_write(call_t &call)
{
    uint32_t session = call.in.u32();
    std::string_view text = call.in.text();
    if (!call.in.finished())
        return malformed(call);
    if (text.size() > MAX_OUTPUT)
        return refused(CONFD_ERR_TOOBIG, "at most " + std::to_string(MAX_OUTPUT) + " bytes at once");
    wire_writer_t push;
    push.text(text);
    for (auto &[serial, conn] : call.server.connections) {
        if (session == 0 || conn->maapi.who.id != session)
            continue;
        connection_send(*conn, WIRE_MAAPI_OUTPUT, 0, 0, push.bytes);
        return {};
    }
    return refused(CONFD_ERR_NOEXISTS, "there is no session " + std::to_string(session));
}

static constexpr op_row_t rows_of_ops[] = {
    { WIRE_MAAPI_ACTION, run_action },
    { WIRE_MAAPI_INTERRUPT, interrupt },
    { WIRE_MAAPI_COMPLETE, complete },
    { WIRE_MAAPI_CLI_WRITE, cli_write },
};

std::span<const op_row_t> maapi_action_ops()
{
    return rows_of_ops;
}
