// Moves among the entries of a user-ordered list.
#include "agent/server/edit.h"

static lyd_node *last_entry(lyd_node *entry)
{
    while (entry->next && entry->next->schema == entry->schema)
        entry = entry->next;
    return entry;
}

static lyd_node *find_set_entry(edit_log_t &log, lyd_node *parent, const path_t &path, std::span<const value_t> keys,
                                ds_error_t &error)
{
    lyd_node *entry = tree_find_entry(*log.tree, parent, path.node()->node, keys);
    if (entry && !is_default(entry))
        return entry;
    path_t wanted = path;
    wanted.steps.back().keys.assign(keys.begin(), keys.end());
    ds_fail(error, CONFD_ERR_NOEXISTS, path_text(wanted) + " does not exist");
    return nullptr;
}

bool edit_move(edit_log_t &log, const path_t &path, wire_move_t where, std::span<const value_t> to, ds_error_t &error)
{
    std::span<const path_step_t> above(path.steps.data(), path.steps.size() - 1);
    lyd_node *parent = tree_find(*log.tree, above);
    if (!parent && !above.empty())
        return ds_fail(error, CONFD_ERR_NOEXISTS, path_text(path) + " does not exist");
    lyd_node *entry = find_set_entry(log, parent, path, path.steps.back().keys, error);
    bool has_other = where == WIRE_MOVE_BEFORE || where == WIRE_MOVE_AFTER;
    lyd_node *other = entry && has_other ? find_set_entry(log, parent, path, to, error) : nullptr;
    if (!entry || (has_other && !other))
        return false;
    if (other == entry)
        return ds_fail(error, CONFD_ERR_BADTYPE, path_text(path) + " cannot be moved before or behind itself");
    lyd_node *prev = other;
    if (where == WIRE_MOVE_FIRST)
        prev = nullptr;
    else if (where == WIRE_MOVE_LAST)
        prev = last_entry(entry);
    else if (where == WIRE_MOVE_BEFORE)
        prev = entry_before(other);
    if (prev != entry && prev != entry_before(entry))
        log_move(log, entry, prev);
    return true;
}
