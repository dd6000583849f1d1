#include "agent/server/edit_log.h"

#include <utility>

edit_log_t::edit_log_t(edit_log_t &&other) noexcept
    : tree(other.tree), edits(std::exchange(other.edits, {})), is_applied(std::exchange(other.is_applied, true))
{
}

edit_log_t &edit_log_t::operator=(edit_log_t &&other) noexcept
{
    log_forget(*this);
    tree = other.tree;
    edits = std::exchange(other.edits, {});
    is_applied = std::exchange(other.is_applied, true);
    return *this;
}

edit_log_t::~edit_log_t()
{
    log_forget(*this);
}

lyd_node *entry_before(const lyd_node *node)
{
    if (!lysc_is_userordered(node->schema))
        return nullptr;
    bool has_before = node->prev->next != nullptr; // the first sibling's prev is the last one
    return has_before && node->prev->schema == node->schema ? node->prev : nullptr;
}

void log_linked(edit_log_t &log, lyd_node *node)
{
    tree_adopt(*log.tree, node);
    log.edits.push_back({ EDIT_LINK, 0, node, tree_parent(node), entry_before(node), {} });
}

void log_unlink(edit_log_t &log, lyd_node *node)
{
    log.edits.push_back({ EDIT_UNLINK, 0, node, tree_parent(node), entry_before(node), {} });
    tree_unlink(*log.tree, node);
}

static void swap_value(edit_t &edit)
{
    auto *term = reinterpret_cast<lyd_node_term *>(edit.node);
    uint32_t flags = edit.node->flags;
    std::swap(term->value, edit.other.raw);
    edit.node->flags = (flags & ~EDIT_FLAGS) | edit.other_flags;
    edit.other_flags = flags & EDIT_FLAGS;
    tree_refresh_default_flag(tree_parent(edit.node));
}

void log_change(edit_log_t &log, lyd_node *leaf, value_t value)
{
    log.edits.push_back({ EDIT_VALUE, 0, leaf, tree_parent(leaf), nullptr, std::move(value) });
    swap_value(log.edits.back());
}

static void swap_place(edit_log_t &log, edit_t &edit)
{
    lyd_node *other = entry_before(edit.node);
    tree_unlink(*log.tree, edit.node);
    tree_link(*log.tree, edit.parent, edit.node, edit.prev);
    edit.prev = other;
}

void log_move(edit_log_t &log, lyd_node *node, lyd_node *prev)
{
    log.edits.push_back({ EDIT_MOVE, 0, node, tree_parent(node), prev, {} });
    swap_place(log, log.edits.back());
}

static void take_back(edit_log_t &log, edit_t &edit)
{
    if (edit.kind == EDIT_VALUE)
        swap_value(edit);
    else if (edit.kind == EDIT_MOVE)
        swap_place(log, edit);
    else if (edit.kind == EDIT_LINK)
        tree_unlink(*log.tree, edit.node);
    else
        tree_link(*log.tree, edit.parent, edit.node, edit.prev);
}

static void make_again(edit_log_t &log, edit_t &edit)
{
    if (edit.kind == EDIT_VALUE)
        swap_value(edit);
    else if (edit.kind == EDIT_MOVE)
        swap_place(log, edit);
    else if (edit.kind == EDIT_LINK)
        tree_link(*log.tree, edit.parent, edit.node, edit.prev);
    else
        tree_unlink(*log.tree, edit.node);
}

void log_rollback(edit_log_t &log, size_t count)
{
    while (log.edits.size() > count) {
        edit_t &edit = log.edits.back();
        take_back(log, edit);
        if (edit.kind == EDIT_LINK)
            tree_free_node(edit.node);
        log.edits.pop_back();
    }
}

void log_undo(edit_log_t &log)
{
    for (size_t i = log.edits.size(); log.is_applied && i > 0; i--)
        take_back(log, log.edits[i - 1]);
    log.is_applied = false;
}

void log_redo(edit_log_t &log)
{
    for (size_t i = 0; !log.is_applied && i < log.edits.size(); i++)
        make_again(log, log.edits[i]);
    log.is_applied = true;
}

static void note_detached(std::unordered_set<const lyd_node *> &detached, const edit_t &edit, edit_kind_t taken_out)
{
    if (edit.kind == taken_out)
        detached.insert(edit.node);
    else if (edit.kind == EDIT_LINK || edit.kind == EDIT_UNLINK)
        detached.erase(edit.node);
}

void log_note_detached(std::unordered_set<const lyd_node *> &detached, const edit_t &edit)
{
    note_detached(detached, edit, EDIT_UNLINK);
}

std::unordered_set<const lyd_node *> log_detached(const edit_log_t &log)
{
    std::unordered_set<const lyd_node *> detached;
    if (log.is_applied)
        for (const edit_t &edit : log.edits)
            note_detached(detached, edit, EDIT_UNLINK);
    else
        for (size_t i = log.edits.size(); i > 0; i--)
            note_detached(detached, log.edits[i - 1], EDIT_LINK);
    return detached;
}

void log_forget(edit_log_t &log)
{
    for (const lyd_node *node : log_detached(log))
        tree_free_node(const_cast<lyd_node *>(node)); // the log's own
    log.edits.clear();
    log.is_applied = true;
}

bool is_attached(const std::unordered_set<const lyd_node *> &detached, const lyd_node *node)
{
    if (detached.empty())
        return true;
    const lyd_node *root = node;
    while (const lyd_node *parent = tree_parent(root))
        root = parent;
    return !detached.contains(root);
}
