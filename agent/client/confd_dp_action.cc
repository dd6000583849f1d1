// Actions, commands and completions: invocations from their init to their answer, and what callbacks answer.
//
// An abort comes on the control socket while the callback runs on a worker: a daemon that serves both in one thread
// gets it when there is nothing left to abort.
#include "agent/client/confd_daemon.h"

static constexpr size_t MAX_INVOCATIONS = 10000; // running at once
static constexpr int MAX_VALUES = 1000000;       // of one answer

// ---- init and abort

static bool add_invocation(daemon_t &daemon, uint32_t id, std::shared_ptr<daemon_action_t> action)
{
    std::lock_guard guard(daemon.mutex);
    if (daemon.invocations.size() >= MAX_INVOCATIONS)
        return false;
    daemon.invocations[id] = std::move(action);
    return true;
}

static std::shared_ptr<daemon_action_t> find_invocation(daemon_t &daemon, uint32_t id)
{
    std::lock_guard guard(daemon.mutex);
    auto found = daemon.invocations.find(id);
    return found != daemon.invocations.end() ? found->second : nullptr;
}

static void end_invocation(daemon_t &daemon, uint32_t id)
{
    std::lock_guard guard(daemon.mutex);
    daemon.invocations.erase(id);
}

static void init(served_call_t &call, uint32_t id, const std::shared_ptr<daemon_action_t> &action)
{
    if (!add_invocation(call.daemon, id, action))
        return call.refuse(CONFD_ERR_UNAVAILABLE, "too many actions are running in the daemon");
    if (action->cbs->init != nullptr) {
        callback_scope scope(action->state, call);
        if (action->cbs->init(&action->uinfo) < 0)
            call.refuse(CONFD_ERR_EXTERNAL, action->state.error);
    }
    if (call.refusal == 0)
        confd_answer_worker(call, action->uinfo.worker_fd);
    if (call.refusal != 0)
        end_invocation(call.daemon, id);
}

bool confd_serve_action_init(served_call_t &call)
{
    uint32_t id = call.in.u32();
    auto action = std::make_shared<daemon_action_t>();
    action->uinfo.actx_thandle = static_cast<int>(call.in.u32());
    std::string point(call.in.text());
    confd_read_session(call.in, call.dx, &action->uinfo);
    if (!call.in.finished())
        return false;
    action->cbs = confd_find_row(call.daemon.actions, &confd_action_cbs::actionpoint, point);
    if (action->cbs == nullptr) {
        call.refuse(CONFD_ERR_UNAVAILABLE, "the daemon has no action point \"" + point + "\"");
        return true;
    }
    action->uinfo.internal = &action->state;
    action->uinfo.cb_opaque = action->cbs->cb_opaque;
    init(call, id, action);
    return true;
}

bool confd_serve_action_abort(served_call_t &call)
{
    uint32_t id = call.in.u32();
    if (!call.in.finished())
        return false;
    // The invocation's state is that of the callback which runs, maybe in another thread: it is left alone.
    std::shared_ptr<daemon_action_t> action = find_invocation(call.daemon, id);
    if (action != nullptr && action->cbs->abort != nullptr && action->cbs->abort(&action->uinfo) < 0)
        call.refuse(CONFD_ERR_EXTERNAL, "the action cannot be aborted");
    return true;
}

// ---- serving

// The invocation of a frame that begins with its id and its action point; it ends with the frame's answer. Null, with
// the call refused, when it has not begun.
static std::shared_ptr<daemon_action_t> take_invocation(served_call_t &call, uint32_t id, const char *callback,
                                                        bool (*has)(const confd_action_cbs &cbs))
{
    std::shared_ptr<daemon_action_t> action = find_invocation(call.daemon, id);
    if (action == nullptr) {
        call.refuse(CONFD_ERR_BADSTATE, "the daemon knows of no invocation " + std::to_string(id));
        return nullptr;
    }
    if (has(*action->cbs))
        return action;
    end_invocation(call.daemon, id);
    call.refuse(CONFD_ERR_UNAVAILABLE,
                std::string("the daemon has no ") + callback + " of action point \"" + action->cbs->actionpoint + "\"");
    return nullptr;
}

// Calls and ends the invocation.
template <typename Callback>
static void run(served_call_t &call, uint32_t id, daemon_action_t &action, unsigned wants, const Callback &callback)
{
    action.uinfo.worker_fd = call.fd;
    call.wants = wants;
    {
        callback_scope scope(action.state, call);
        if (callback() < 0)
            call.refuse(CONFD_ERR_EXTERNAL, action.state.error);
        else if (!call.is_answered && wants != ANSWER_NOTHING)
            call.answer.u32(0);
    }
    end_invocation(call.daemon, id);
}

bool confd_serve_action(served_call_t &call)
{
    uint32_t id = call.in.u32();
    (void)call.in.text(); // the action point, which the invocation knows
    xml_tag name = {};
    name.tag = call.in.u32();
    name.ns = call.in.u32();
    owned_keypath_t path;
    owned_tag_values_t params;
    if (!wire_get_keypath(call.in, path.v))
        return false;
    params.v = wire_get_tag_values(call.in);
    if (!call.in.finished())
        return false;
    std::shared_ptr<daemon_action_t> action =
        take_invocation(call, id, "action", [](const confd_action_cbs &cbs) { return cbs.action != nullptr; });
    if (action == nullptr)
        return true;
    call.path = &path.v;
    run(call, id, *action, ANSWER_PARAMETERS, [&] {
        return action->cbs->action(&action->uinfo, &name, &path.v, params.v.data(), static_cast<int>(params.v.size()));
    });
    return true;
}

bool confd_serve_command(served_call_t &call)
{
    uint32_t id = call.in.u32();
    (void)call.in.text(); // the action point, which the invocation knows
    std::string path(call.in.text());
    std::vector<std::string> words(call.in.count(sizeof(uint32_t)));
    for (std::string &word : words)
        word = call.in.text();
    if (!call.in.finished())
        return false;
    std::shared_ptr<daemon_action_t> action =
        take_invocation(call, id, "command", [](const confd_action_cbs &cbs) { return cbs.command != nullptr; });
    if (action == nullptr)
        return true;
    std::vector<char *> argv;
    for (std::string &word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    run(call, id, *action, ANSWER_NOTHING,
        [&] { return action->cbs->command(&action->uinfo, path.data(), static_cast<int>(words.size()), argv.data()); });
    return true;
}

struct completion_args_t {
    uint8_t style = 0;
    std::string token;
    uint8_t character = 0;
    owned_keypath_t path;
    std::string command_path, parameter, type_prefix, type_name, extra;
};

static bool read_completion(wire_reader_t &in, completion_args_t *args)
{
    args->style = in.u8();
    args->token = in.text();
    args->character = in.u8();
    if (!wire_get_keypath(in, args->path.v))
        return false;
    for (std::string *text :
         { &args->command_path, &args->parameter, &args->type_prefix, &args->type_name, &args->extra })
        *text = in.text();
    return in.finished();
}

static confd_buf buf_of(std::string &text)
{
    return { reinterpret_cast<unsigned char *>(text.data()), static_cast<unsigned>(text.size()) };
}

bool confd_serve_completion(served_call_t &call)
{
    uint32_t id = call.in.u32();
    (void)call.in.text(); // the action point, which the invocation knows
    completion_args_t args;
    if (!read_completion(call.in, &args))
        return false;
    std::shared_ptr<daemon_action_t> action =
        take_invocation(call, id, "completion", [](const confd_action_cbs &cbs) { return cbs.completion != nullptr; });
    if (action == nullptr)
        return true;
    confd_qname type = { buf_of(args.type_prefix), buf_of(args.type_name) };
    run(call, id, *action, ANSWER_COMPLETIONS, [&] {
        return action->cbs->completion(&action->uinfo, args.style, args.token.data(), args.character, &args.path.v,
                                       args.command_path.data(), args.parameter.data(), &type, args.extra.data());
    });
    return true;
}

// ---- the user's calls

void confd_action_set_fd(struct confd_user_info *uinfo, int sock)
{
    uinfo->worker_fd = sock;
}

void confd_action_seterr(struct confd_user_info *uinfo, const char *fmt, ...)
{
    if (uinfo->internal == nullptr)
        return; // of no action
    va_list args;
    va_start(args, fmt);
    confd_set_error(*static_cast<callback_state_t *>(uinfo->internal), fmt, args);
    va_end(args);
}

static served_call_t *start_answer(confd_user_info *uinfo, unsigned kind)
{
    auto *state = uinfo != nullptr ? static_cast<callback_state_t *>(uinfo->internal) : nullptr;
    served_call_t *call = state != nullptr ? state->call : nullptr;
    if (call == nullptr || call->wants != kind || call->is_answered) {
        (void)confd_fail(CONFD_ERR_PROTOUSAGE, call != nullptr && call->is_answered
                                                   ? "the callback has been answered already"
                                                   : "no callback asks for an answer of this kind");
        return nullptr;
    }
    return call;
}

int confd_action_reply_values(struct confd_user_info *uinfo, const confd_tag_value_t *values, int nvalues)
{
    served_call_t *call = start_answer(uinfo, ANSWER_PARAMETERS);
    if (call == nullptr)
        return CONFD_ERR;
    if (nvalues < 0 || nvalues > MAX_VALUES || (nvalues > 0 && values == nullptr))
        return confd_fail(CONFD_ERR_PROTOUSAGE, "%d values of an action", nvalues);
    wire_writer_t answer;
    confd_put_tag_values(answer, confd_find_cs_node(call->path, call->path->len), values, nvalues);
    return confd_give_answer(call, std::move(answer));
}

int confd_action_reply_completion(struct confd_user_info *uinfo, const struct confd_completion_value *values,
                                  int nvalues)
{
    served_call_t *call = start_answer(uinfo, ANSWER_COMPLETIONS);
    if (call == nullptr)
        return CONFD_ERR;
    if (nvalues < 0 || nvalues > MAX_VALUES || (nvalues > 0 && values == nullptr))
        return confd_fail(CONFD_ERR_PROTOUSAGE, "%d values of a completion", nvalues);
    wire_writer_t answer;
    answer.u32(static_cast<uint32_t>(nvalues));
    for (int i = 0; i < nvalues; i++) {
        if (values[i].value == nullptr)
            return confd_fail(CONFD_ERR_PROTOUSAGE, "value %d of a completion is null", i);
        answer.u8(static_cast<uint8_t>(values[i].type));
        answer.text(values[i].value);
        answer.text(values[i].extra != nullptr ? values[i].extra : "");
    }
    return confd_give_answer(call, std::move(answer));
}
