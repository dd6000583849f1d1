#include "agent/server/diff_build.h"
#include "agent/server/store.h"

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

bool oper_set(datastore_t &store, const path_t &path, const confd_value_t &value, diff_ptr &diff, ds_error_t &error)
{
    if (!check_writable(store, path, error))
        return false;
    std::string text = path_text(path);
    bool is_list = path.node()->is(WIRE_NODE_LEAF_LIST) && value.type == C_LIST;
    std::vector<value_t> values(is_list ? value.val.list.size : 1);
    for (size_t i = 0; i < values.size(); i++) {
        const confd_value_t &from = is_list ? value.val.list.ptr[i] : value;
        if (!value_from_confd(*store.schema, *path.node(), from, text, values[i], error))
            return false;
    }
    return make_change(store, { is_list ? WISH_SET_LIST : WISH_SET, path, std::move(values) }, diff, error);
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
