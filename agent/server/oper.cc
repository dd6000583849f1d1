#include "agent/server/diff_build.h"
#include "agent/server/store.h"

#include <algorithm>

// The innermost configured instance that the path stands in has to be there.
static bool check_ground(datastore_t &store, const path_t &path, ds_error_t &error)
{
    path_t above;
    size_t entries = 0;
    for (const path_step_t &step : path.steps) {
        if (!step.node->is(WIRE_NODE_CONFIG))
            break;
        above.steps.push_back(step);
        if (step.node->is(WIRE_NODE_LIST | WIRE_NODE_PRESENCE))
            entries = above.steps.size();
    }
    above.steps.resize(entries);
    store_show_view(store, {});
    if (entries == 0 || tree_find(store.running, above.steps))
        return true;
    return ds_fail(error, CONFD_ERR_NOEXISTS, path_text(path) + ": " + path_text(above) + " is not configured");
}

static bool check_operational(const path_t &path, ds_error_t &error)
{
    const schema_info_t *info = path.node();
    if (!info || info->is(WIRE_NODE_CONFIG | WIRE_NODE_ACTION | WIRE_NODE_PARAM | WIRE_NODE_NOTIF))
        return ds_fail(error, CONFD_ERR_NOT_WRITABLE, path_text(path) + " is not operational data");
    for (const path_step_t &step : path.steps)
        if (step.node->is(WIRE_NODE_LIST) && step.node->keys.empty())
            return ds_fail(error, CONFD_ERR_NOT_WRITABLE, path_text(path) + " stands in a list without keys");
    return true;
}

static bool check_writable(datastore_t &store, const path_t &path, ds_error_t &error)
{
    return check_operational(path, error) && check_ground(store, path, error);
}

static bool make_change(datastore_t &store, wish_t wish, diff_ptr &diff, ds_error_t &error)
{
    edit_log_t log(&store.operational);
    if (!wish_apply(log, wish, error)) {
        log_rollback(log, 0);
        return false;
    }
    diff = diff_build(log, true);
    return true;
}

static bool make_set(datastore_t &store, const path_t &path, const confd_value_t &value, wish_t &wish,
                     ds_error_t &error)
{
    std::string text = path_text(path);
    bool is_list = path.node()->is(WIRE_NODE_LEAF_LIST) && value.type == C_LIST;
    wish = { is_list ? WISH_SET_LIST : WISH_SET, path };
    wish.values.resize(is_list ? value.val.list.size : 1);
    for (size_t i = 0; i < wish.values.size(); i++) {
        const confd_value_t &from = is_list ? value.val.list.ptr[i] : value;
        if (!value_from_confd(*store.schema, *path.node(), from, text, wish.values[i], error))
            return false;
    }
    return true;
}

bool oper_set(datastore_t &store, const path_t &path, const confd_value_t &value, diff_ptr &diff, ds_error_t &error)
{
    wish_t wish;
    return check_writable(store, path, error) && make_set(store, path, value, wish, error) &&
           make_change(store, std::move(wish), diff, error);
}

bool oper_set_text(datastore_t &store, const path_t &path, std::string_view text, diff_ptr &diff, ds_error_t &error)
{
    if (!check_writable(store, path, error))
        return false;
    std::vector<value_t> values(1);
    return value_from_text(*path.node(), text, path_text(path), values[0], error) &&
           make_change(store, { WISH_SET, path, std::move(values) }, diff, error);
}

bool oper_create(datastore_t &store, const path_t &path, diff_ptr &diff, ds_error_t &error)
{
    if (!check_writable(store, path, error))
        return false;
    const schema_info_t &info = *path.node();
    bool is_entry = info.is(WIRE_NODE_LIST | WIRE_NODE_LEAF_LIST);
    bool is_creatable = is_entry || info.is(WIRE_NODE_PRESENCE) || (info.is(WIRE_NODE_LEAF) && info.type == C_XMLTAG);
    if (!is_creatable || (is_entry && path.steps.back().keys.empty()))
        return ds_fail(error, CONFD_ERR_NOTCREATABLE, path_text(path) + " cannot be created, only set or filled");
    return make_change(store, { WISH_CREATE, path }, diff, error);
}

bool oper_delete(datastore_t &store, const path_t &path, diff_ptr &diff, ds_error_t &error)
{
    return check_operational(path, error) && make_change(store, { WISH_DELETE, path }, diff, error);
}

// ---- several values in one change

struct values_reader_t {
    datastore_t &store;
    std::span<const confd_tag_value_t> values;
    size_t next;
    path_t at; // the instance that the values stand in
    size_t outermost;
    edit_log_t log;
};

// What is there already, or gone already, is as it should be.
static bool make_so(values_reader_t &reader, wish_t wish, ds_error_t &error)
{
    ds_error_t why;
    if (wish_apply(reader.log, wish, why))
        return true;
    bool is_so = (wish.kind == WISH_CREATE && why.code == CONFD_ERR_ALREADY_EXISTS) ||
                 (wish.kind == WISH_DELETE && why.code == CONFD_ERR_NOEXISTS);
    if (!is_so)
        error = std::move(why);
    return is_so;
}

// Takes the keys of a list entry, which come first in it.
static bool take_keys(values_reader_t &reader, ds_error_t &error)
{
    std::vector<confd_value_t> keys;
    for (const schema_info_t *key : reader.at.node()->keys) {
        if (reader.next == reader.values.size() || reader.values[reader.next].tag.tag != key->tag)
            return ds_fail(error, CONFD_ERR_BADTYPE,
                           path_text(reader.at) + ": an entry begins with its keys; " + key->name() + " is missing");
        keys.push_back(reader.values[reader.next++].v);
    }
    return path_keys(*reader.store.schema, reader.at, keys, reader.at.steps.back().keys, error);
}

static bool begin(values_reader_t &reader, const schema_info_t &info, ds_error_t &error)
{
    reader.at.steps.push_back({ &info, {} });
    if (!info.is(WIRE_NODE_CONTAINER | WIRE_NODE_LIST))
        return ds_fail(error, CONFD_ERR_BADTYPE, path_text(reader.at) + " is no container and no list");
    if (info.is(WIRE_NODE_LIST) && !take_keys(reader, error))
        return false;
    bool is_made = !info.is(WIRE_NODE_CONFIG) && info.is(WIRE_NODE_LIST | WIRE_NODE_PRESENCE);
    return !is_made ||
           (check_writable(reader.store, reader.at, error) && make_so(reader, { WISH_CREATE, reader.at }, error));
}

static bool end(values_reader_t &reader, const schema_info_t *info, ds_error_t &error)
{
    if (reader.at.steps.size() <= reader.outermost || reader.at.node() != info)
        return ds_fail(error, CONFD_ERR_BADTYPE, path_text(reader.at) + ": an end stands where nothing has begun");
    reader.at.steps.pop_back();
    return true;
}

// The instance's own key says nothing new.
static bool check_key(const values_reader_t &reader, const schema_info_t &info, const confd_value_t &from,
                      ds_error_t &error)
{
    const path_step_t &entry = reader.at.steps.back();
    auto place = std::ranges::find(entry.node->keys, &info) - entry.node->keys.begin();
    value_t value;
    if (!value_from_confd(*reader.store.schema, info, from, path_text(reader.at), value, error))
        return false;
    return tree_equal_values(value.raw, entry.keys[static_cast<size_t>(place)].raw) ||
           ds_fail(error, CONFD_ERR_NOT_WRITABLE,
                   path_text(reader.at) + ": the key " + info.name() + " cannot be changed to \"" +
                       std::string(value_text(value)) + "\"");
}

static bool set_one(values_reader_t &reader, const schema_info_t &info, const confd_value_t &value, ds_error_t &error)
{
    if (info.is(WIRE_NODE_KEY))
        return check_key(reader, info, value, error);
    path_t path = reader.at;
    path.steps.push_back({ &info, {} });
    if (value.type == C_NOEXISTS)
        return check_operational(path, error) && make_so(reader, { WISH_DELETE, std::move(path) }, error);
    if (!check_writable(reader.store, path, error))
        return false;
    if (info.is(WIRE_NODE_PRESENCE) && value.type == C_XMLTAG)
        return make_so(reader, { WISH_CREATE, std::move(path) }, error);
    wish_t wish;
    return make_set(reader.store, path, value, wish, error) && make_so(reader, std::move(wish), error);
}

static bool take_value(values_reader_t &reader, ds_error_t &error)
{
    const auto &[tag, value] = reader.values[reader.next++];
    if (value.type == C_XMLEND) {
        bool is_same = reader.at.node() && reader.at.node()->tag == tag.tag;
        return end(reader, is_same ? reader.at.node() : nullptr, error);
    }
    const schema_info_t *info = schema_find_tag(*reader.store.schema, reader.at.node(), tag.tag, tag.ns);
    if (!info) {
        const std::string *name = schema_hash_name(*reader.store.schema, tag.tag);
        return ds_fail(error, CONFD_ERR_BADPATH,
                       path_text(reader.at) + " has no node \"" + (name ? *name : std::to_string(tag.tag)) + "\"");
    }
    return value.type == C_XMLBEGIN ? begin(reader, *info, error) : set_one(reader, *info, value, error);
}

bool oper_set_values(datastore_t &store, const path_t &path, std::span<const confd_tag_value_t> values, diff_ptr &diff,
                     ds_error_t &error)
{
    values_reader_t reader = { store, values, 0, path, path.steps.size(), edit_log_t(&store.operational) };
    bool is_good = true;
    while (is_good && reader.next < values.size())
        is_good = take_value(reader, error);
    if (is_good && reader.at.steps.size() != reader.outermost)
        is_good = ds_fail(error, CONFD_ERR_BADTYPE, path_text(reader.at) + " begins and does not end");
    if (!is_good) {
        log_rollback(reader.log, 0);
        return false;
    }
    diff = diff_build(reader.log, true);
    return true;
}

// ---- data that goes with its configuration

static void prune_entry(datastore_t &store, edit_log_t &log, const path_t &path)
{
    lyd_node *carrier = tree_find(store.operational, path.steps);
    if (carrier && !tree_find(store.running, path.steps))
        log_unlink(log, carrier);
}

static void prune_below(datastore_t &store, edit_log_t &log, const diff_node_t &node)
{
    for (const auto &child : node.children) {
        if (child->op == WIRE_MOP_DELETED && child->schema->is(WIRE_NODE_LIST | WIRE_NODE_PRESENCE))
            prune_entry(store, log, diff_path(*child));
        prune_below(store, log, *child);
    }
}

diff_ptr oper_prune(datastore_t &store, const diff_t &committed)
{
    if (!store.operational.first)
        return nullptr;
    store_show_view(store, {});
    edit_log_t log(&store.operational);
    prune_below(store, log, committed.root);
    diff_ptr diff = diff_build(log, true);
    return diff->is_empty() ? nullptr : std::move(diff);
}
