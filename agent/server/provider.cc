#include "agent/server/provider.h"

#include "agent/server/provider_cache.h"
#include "agent/server/server.h"

#include <algorithm>

// ---- readings, cache

callback_trans_ref provider_begin_reading(server_t &server, const session_identity_t &who)
{
    auto trans = std::make_shared<callback_trans_t>();
    trans->th = server.next_transaction++;
    trans->db = WIRE_DB_OPERATIONAL;
    trans->who = who;
    return trans;
}

void provider_keep(callback_trans_t &trans, const path_t &path, const provider_object_ref &object)
{
    if (!trans.objects)
        trans.objects = std::make_shared<provider_cache_t>();
    provider_cache_put(*trans.objects, path_text(path), object);
}

provider_object_ref provider_find_kept(const callback_trans_t &trans, const path_t &path)
{
    return trans.objects ? provider_cache_find(*trans.objects, path_text(path), monotonic_ms()) : nullptr;
}

void provider_set_expiry(const server_t &server, const provider_objects_t &answer)
{
    uint64_t ms = answer.timeout_ms ? answer.timeout_ms : server.config.object_cache_ms;
    double expires_ms = monotonic_ms() + static_cast<double>(ms);
    for (const provider_object_ref &object : answer.objects)
        object->expires_ms = expires_ms;
}

// ---- one callback

static const char *callback_name(uint16_t op)
{
    switch (op) {
    case WIRE_CB_EXISTS:
        return "exists_optional";
    case WIRE_CB_GET_ELEM:
        return "get_elem";
    case WIRE_CB_GET_NEXT:
        return "get_next";
    case WIRE_CB_GET_OBJECT:
        return "get_object";
    case WIRE_CB_GET_NEXT_OBJECT:
        return "get_next_object";
    default:
        return "find_next_object";
    }
}

// The client that serves a callpoint, for texts.
static std::string server_of(server_t &server, const std::string &callpoint)
{
    const registration_t *row = registry_find(server.registry, REGISTRATION_DATA, callpoint);
    const connection_t *daemon = row ? server_find(server, row->connection) : nullptr;
    return "callpoint \"" + callpoint + "\"" + (daemon ? " of " + connection_title(*daemon) : "");
}

void provider_fail(server_t &server, const path_t &path, int code, const std::string &what, const provider_done_t &done)
{
    provider_answer_t answer;
    answer.code = code;
    answer.text = server_of(server, *path.node()->callpoint) + ": " + path_text(path) + ": " + what;
    done(server, answer);
}

uint32_t provider_find_forms(server_t &server, const path_t &path, const provider_done_t &done)
{
    const std::string &callpoint = *path.node()->callpoint;
    const registration_t *row = registry_find(server.registry, REGISTRATION_DATA, callpoint);
    if (row && row->detail != 0)
        return row->detail;
    provider_fail(server, path, CONFD_ERR_UNAVAILABLE,
                  row ? "it is registered without any callback"
                      : "no daemon serves it; start the daemon that registers this callpoint",
                  done);
    return 0;
}

// What a question is about, kept until its answer.
struct question_t {
    callback_trans_ref trans;
    std::string callpoint;
    std::string place; // client, path and callback, for texts
    provider_parser_t parse;
    provider_done_t done;
};

static bool has_name(const std::string &text, const std::string &callpoint)
{
    return text.find("callpoint \"" + callpoint + "\"") != std::string::npos;
}

static void take_reply(server_t &server, const question_t &question, const callback_reply_t &reply)
{
    provider_answer_t answer;
    provider_fault_t fault;
    answer.code = reply.code;
    if (reply.code == CONFD_ERR_EXTERNAL)
        answer.text = question.place + " failed" + (reply.text.empty() ? ", without a reason" : ": " + reply.text);
    else if (reply.code != CONFD_ERR_OK) // most texts name all that is needed
        answer.text = has_name(reply.text, question.callpoint) ? reply.text : question.place + ": " + reply.text;
    else if (!question.parse(server, reply.payload, answer, fault)) {
        answer = {};
        answer.code = CONFD_ERR_EXTERNAL;
        answer.text = question.place + ": " + fault.text;
        if (fault.is_unreadable)
            callback_refuse_answer(
                server, callback_trans_worker(server, *question.trans, REGISTRATION_DATA, question.callpoint),
                answer.text);
    }
    question.done(server, answer);
}

void provider_ask_callback(server_t &server, const callback_trans_ref &trans, const path_t &path, uint16_t op,
                           const wire_writer_t &more, provider_parser_t parse, provider_done_t done)
{
    const std::string &callpoint = *path.node()->callpoint;
    std::string text = path_text(path);
    std::string name = callback_name(op);
    wire_writer_t payload;
    payload.u32(trans->th);
    payload.text(callpoint);
    path_put(payload, path);
    payload.bytes += more.bytes;
    question_t question = { trans, callpoint, server_of(server, callpoint) + ": " + text + ": " + name,
                            std::move(parse), std::move(done) };
    callback_trans_ask(server, trans, REGISTRATION_DATA, callpoint, op, std::move(payload.bytes),
                       name + " of callpoint \"" + callpoint + "\" for " + text,
                       [question = std::move(question)](server_t &of, const callback_reply_t &reply) {
                           take_reply(of, question, reply);
                       });
}

// ---- single callbacks

static void ask_elem(server_t &server, const callback_trans_ref &trans, const path_t &path, provider_done_t done)
{
    const schema_info_t &node = *path.node();
    auto parse = [&node](server_t &of, std::string_view payload, provider_answer_t &answer, provider_fault_t &fault) {
        if (!provider_parse_value(datastore_schema(*of.store), node, payload, answer.values, fault))
            return false;
        answer.is_found = !answer.values.empty();
        return true;
    };
    provider_ask_callback(server, trans, path, WIRE_CB_GET_ELEM, {}, parse, std::move(done));
}

static void ask_optional(server_t &server, const callback_trans_ref &trans, const path_t &path, provider_done_t done)
{
    auto parse = [](server_t &, std::string_view payload, provider_answer_t &answer, provider_fault_t &fault) {
        return provider_parse_found(payload, answer.is_found, fault);
    };
    provider_ask_callback(server, trans, path, WIRE_CB_EXISTS, {}, parse, std::move(done));
}

static void ask_get_object(server_t &server, const callback_trans_ref &trans, const path_t &path, provider_done_t done)
{
    auto parse = [path, trans](server_t &of, std::string_view payload, provider_answer_t &answer,
                               provider_fault_t &fault) {
        provider_objects_t objects;
        if (!provider_parse_objects(datastore_schema(*of.store), *path.node(), path.steps.back().keys, payload, objects,
                                    fault))
            return false;
        provider_set_expiry(of, objects);
        answer.is_found = !objects.objects.empty();
        if (!answer.is_found)
            return true;
        answer.objects.push_back(objects.objects.front());
        provider_keep(*trans, path, objects.objects.front());
        return true;
    };
    provider_ask_callback(server, trans, path, WIRE_CB_GET_OBJECT, {}, parse, std::move(done));
}

// ---- an entry, out of its list

// Goes through the pages until the entry has come by, or nobody waits for it any more.
static void look_for_entry(server_t &server, const callback_trans_ref &trans, const path_t &path,
                           const provider_cursor_ref &cursor, const provider_done_t &done)
{
    provider_ask_page(server, trans, cursor, [=](server_t &of, const provider_answer_t &page) {
        provider_answer_t found;
        if (page.code != CONFD_ERR_OK)
            return done(of, page);
        for (const provider_object_ref &object : page.objects)
            if (provider_equal_keys(object->keys, path.steps.back().keys))
                found.objects.push_back(object);
        found.is_found = !found.objects.empty();
        if (found.is_found || cursor->at_end)
            return done(of, found);
        if (done.goes_on(of))
            look_for_entry(of, trans, path, cursor, done);
    });
}

static void ask_list_for_entry(server_t &server, const callback_trans_ref &trans, const path_t &path,
                               const provider_done_t &done)
{
    auto cursor = std::make_shared<provider_cursor_t>();
    cursor->list = path;
    cursor->list.steps.back().keys.clear();
    look_for_entry(server, trans, path, cursor, done);
}

// ---- an object, leaf by leaf

struct gathering_t {
    callback_trans_ref trans;
    path_t root;
    std::vector<const schema_info_t *> nodes; // leaves, leaf-lists and containers with presence, parents first
    size_t at = 0;
    uint32_t forms = 0;
    provider_object_ref object;
    provider_done_t done;
};

static void collect_nodes(const schema_info_t &node, std::vector<const schema_info_t *> &nodes)
{
    for (const schema_info_t *child : node.children) {
        if (child->callpoint != node.callpoint || child->is(WIRE_NODE_KEY))
            continue;
        if (child->is(WIRE_NODE_LEAF | WIRE_NODE_LEAF_LIST | WIRE_NODE_PRESENCE))
            nodes.push_back(child);
        if (child->is(WIRE_NODE_CONTAINER))
            collect_nodes(*child, nodes);
    }
}

bool provider_has_object(const schema_info_t &node)
{
    std::vector<const schema_info_t *> nodes;
    collect_nodes(node, nodes);
    return !nodes.empty();
}

static path_t path_below(const path_t &root, const schema_info_t &node)
{
    path_t path = root;
    size_t at = path.steps.size();
    for (const schema_info_t *above = &node; above != root.node(); above = above->parent)
        path.steps.insert(path.steps.begin() + static_cast<ptrdiff_t>(at), { above, {} });
    return path;
}

// A container with presence that has not been found takes what is in it along.
static bool is_in_absent(const gathering_t &gathering, const schema_info_t &node)
{
    for (const schema_info_t *at = node.parent; at != gathering.root.node(); at = at->parent)
        if (at->is(WIRE_NODE_PRESENCE) && (gathering.forms & PROVIDER_EXISTS) &&
            !provider_find_item(*gathering.object, *at))
            return true;
    return false;
}

static bool is_optional(const schema_info_t &node)
{
    return node.is(WIRE_NODE_PRESENCE) || (node.is(WIRE_NODE_LEAF) && node.type == C_XMLTAG);
}

static void take_gathered(gathering_t &gathering, const schema_info_t &node, const provider_answer_t &answer)
{
    if (!answer.is_found)
        return;
    provider_item_t item = { &node, answer.values };
    if (item.values.empty() && node.is(WIRE_NODE_LEAF)) { // of type empty, by exists_optional
        ds_error_t error;
        if (!value_from_text(node, "", node.name(), item.values.emplace_back(), error))
            return;
    }
    gathering.object->items.push_back(std::move(item));
}

static void gather(server_t &server, const std::shared_ptr<gathering_t> &gathering);

static void ask_one(server_t &server, const std::shared_ptr<gathering_t> &gathering, const schema_info_t &node)
{
    path_t path = path_below(gathering->root, node);
    auto take = [gathering, &node](server_t &of, const provider_answer_t &answer) {
        if (answer.code != CONFD_ERR_OK)
            return gathering->done(of, answer);
        take_gathered(*gathering, node, answer);
        gather(of, gathering);
    };
    if (is_optional(node) && (gathering->forms & PROVIDER_EXISTS))
        ask_optional(server, gathering->trans, path, take);
    else
        ask_elem(server, gathering->trans, path, take);
}

static void gather(server_t &server, const std::shared_ptr<gathering_t> &gathering)
{
    while (gathering->at < gathering->nodes.size()) {
        const schema_info_t &node = *gathering->nodes[gathering->at++];
        bool is_asked = is_optional(node) && (gathering->forms & PROVIDER_EXISTS);
        bool is_readable = !node.is(WIRE_NODE_PRESENCE) && (gathering->forms & PROVIDER_GET_ELEM);
        if ((is_asked || is_readable) && !is_in_absent(*gathering, node))
            return ask_one(server, gathering, node);
    }
    provider_answer_t answer;
    answer.is_found = true;
    answer.objects.push_back(gathering->object);
    gathering->done(server, answer);
}

static void gather_object(server_t &server, const callback_trans_ref &trans, const path_t &path, uint32_t forms,
                          provider_done_t done)
{
    auto gathering = std::make_shared<gathering_t>();
    gathering->trans = trans;
    gathering->root = path;
    gathering->forms = forms;
    gathering->done = std::move(done);
    gathering->object = std::make_shared<provider_object_t>();
    gathering->object->keys = path.steps.back().keys;
    collect_nodes(*path.node(), gathering->nodes);
    for (size_t i = 0; i < gathering->object->keys.size(); i++)
        gathering->object->items.push_back({ path.node()->keys[i], { gathering->object->keys[i] } });
    gather(server, gathering);
}

// ---- what is asked for

size_t provider_object_steps(const path_t &path)
{
    size_t steps = path.steps.size();
    while (steps > 1 && !path.steps[steps - 1].node->is(WIRE_NODE_LIST) &&
           path.steps[steps - 2].node->callpoint == path.node()->callpoint)
        steps--;
    return steps;
}

static path_t object_path(const path_t &path)
{
    path_t root = path;
    root.steps.resize(provider_object_steps(path));
    return root;
}

static provider_answer_t answer_of(const provider_object_ref &object)
{
    provider_answer_t answer;
    answer.is_found = true;
    answer.objects.push_back(object);
    return answer;
}

// The entry's first key is there when the entry is.
static void ask_key(server_t &server, const callback_trans_ref &trans, const path_t &entry, provider_done_t done)
{
    path_t key = entry;
    key.steps.push_back({ entry.node()->keys[0], {} });
    ask_elem(server, trans, key, std::move(done));
}

static void ask_proof(server_t &server, const callback_trans_ref &trans, const path_t &path, uint32_t forms,
                      const provider_done_t &done)
{
    ask_key(server, trans, path, [=](server_t &of, const provider_answer_t &answer) {
        if (answer.code != CONFD_ERR_OK || !answer.is_found)
            return done(of, answer);
        gather_object(of, trans, path, forms, done);
    });
}

void provider_ask_object(server_t &server, const callback_trans_ref &trans, const path_t &path, bool is_known_to_exist,
                         provider_done_t done)
{
    provider_object_ref kept = provider_find_kept(*trans, path);
    if (kept && kept->is_whole)
        return done(server, answer_of(kept));
    uint32_t forms = provider_find_forms(server, path, done);
    if (forms == 0)
        return;
    bool is_entry = path.node()->is(WIRE_NODE_LIST);
    if (forms & PROVIDER_GET_OBJECT)
        ask_get_object(server, trans, path, std::move(done));
    else if (is_entry && !is_known_to_exist && (forms & PROVIDER_GET_ELEM))
        ask_proof(server, trans, path, forms, done);
    else if (is_entry && !is_known_to_exist)
        ask_list_for_entry(server, trans, path, done);
    else
        gather_object(server, trans, path, forms, std::move(done));
}

static void answer_from_object(server_t &server, const provider_object_t &object, const schema_info_t &node,
                               const provider_done_t &done)
{
    provider_answer_t answer;
    const provider_item_t *item = provider_find_item(object, node);
    answer.is_found = item != nullptr;
    if (item)
        answer.values = item->values;
    done(server, answer);
}

// A node out of the object that holds it.
static void ask_in_object(server_t &server, const callback_trans_ref &trans, const path_t &root,
                          const schema_info_t &node, const provider_done_t &done)
{
    auto take = [&node, done](server_t &of, const provider_answer_t &answer) {
        if (answer.code != CONFD_ERR_OK || !answer.is_found)
            return done(of, answer);
        answer_from_object(of, *answer.objects.front(), node, done);
    };
    provider_ask_object(server, trans, root, false, { take, done.is_wanted });
}

// exists_optional tells of a leaf of type empty; its value then is no news.
static void ask_empty_leaf(server_t &server, const callback_trans_ref &trans, const path_t &path,
                           const provider_done_t &done)
{
    const schema_info_t &node = *path.node();
    ask_optional(server, trans, path, [&node, done](server_t &of, const provider_answer_t &told) {
        provider_answer_t answer = told;
        ds_error_t error;
        if (told.is_found && !value_from_text(node, "", node.name(), answer.values.emplace_back(), error))
            answer.is_found = false;
        done(of, answer);
    });
}

void provider_ask_value(server_t &server, const callback_trans_ref &trans, const path_t &path, provider_done_t done)
{
    path_t root = object_path(path);
    const schema_info_t &node = *path.node();
    bool is_in_object = root.steps.size() < path.steps.size();
    provider_object_ref kept = is_in_object ? provider_find_kept(*trans, root) : nullptr;
    if (kept && kept->is_whole)
        return answer_from_object(server, *kept, node, done);
    uint32_t forms = provider_find_forms(server, path, done);
    if (forms == 0)
        return;
    if (is_in_object && (forms & PROVIDER_GET_OBJECT))
        ask_in_object(server, trans, root, node, done);
    else if (is_optional(node) && (forms & PROVIDER_EXISTS))
        ask_empty_leaf(server, trans, path, done);
    else if (forms & PROVIDER_GET_ELEM)
        ask_elem(server, trans, path, std::move(done));
    else if (is_in_object && root.node()->is(WIRE_NODE_LIST))
        ask_in_object(server, trans, root, node, done);
    else
        provider_fail(server, path, CONFD_ERR_UNAVAILABLE, "no callback that gives single values is registered", done);
}

// A container without presence is there with what it stands in.
static void ask_transparent(server_t &server, const callback_trans_ref &trans, const path_t &path, const path_t &root,
                            provider_done_t done)
{
    if (root.node()->is(WIRE_NODE_LIST))
        return provider_ask_exists(server, trans, root, std::move(done));
    size_t presence = path.steps.size();
    while (presence >= root.steps.size() && !path.steps[presence - 1].node->is(WIRE_NODE_PRESENCE))
        presence--;
    provider_answer_t answer;
    answer.is_found = true;
    if (presence < root.steps.size())
        return done(server, answer);
    path_t above = path;
    above.steps.resize(presence);
    provider_ask_exists(server, trans, above, std::move(done));
}

static void ask_presence(server_t &server, const callback_trans_ref &trans, const path_t &path, const path_t &root,
                         uint32_t forms, provider_done_t done)
{
    if (root.steps.size() == path.steps.size() && (forms & PROVIDER_GET_OBJECT))
        provider_ask_object(server, trans, path, false, std::move(done));
    else if (forms & PROVIDER_GET_OBJECT)
        ask_in_object(server, trans, root, *path.node(), done);
    else if (forms & PROVIDER_EXISTS)
        ask_optional(server, trans, path, std::move(done));
    else if (root.node()->is(WIRE_NODE_LIST))
        ask_in_object(server, trans, root, *path.node(), done);
    else
        provider_fail(server, path, CONFD_ERR_UNAVAILABLE, "no callback that tells of single nodes is registered",
                      done);
}

void provider_ask_exists(server_t &server, const callback_trans_ref &trans, const path_t &path, provider_done_t done)
{
    const schema_info_t &node = *path.node();
    if (node.is(WIRE_NODE_LEAF | WIRE_NODE_LEAF_LIST))
        return provider_ask_value(server, trans, path, std::move(done));
    if (provider_object_ref kept = provider_find_kept(*trans, path))
        return done(server, answer_of(kept));
    uint32_t forms = provider_find_forms(server, path, done);
    if (forms == 0)
        return;
    path_t root = object_path(path);
    bool has_lists_only = !(forms & (PROVIDER_GET_OBJECT | PROVIDER_GET_ELEM));
    if (!node.is(WIRE_NODE_LIST | WIRE_NODE_PRESENCE))
        ask_transparent(server, trans, path, root, std::move(done));
    else if (node.is(WIRE_NODE_PRESENCE))
        ask_presence(server, trans, path, root, forms, std::move(done));
    else if (has_lists_only)
        ask_list_for_entry(server, trans, path, done);
    else if (forms & PROVIDER_GET_OBJECT)
        provider_ask_object(server, trans, path, false, std::move(done));
    else
        ask_key(server, trans, path, std::move(done));
}
