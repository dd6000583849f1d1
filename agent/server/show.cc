// Documents: a copy of the subtree with its lists in key order, printed by libyang.
#include "agent/server/store.h"

#include <cstdlib>

// Owns a tree of copies.
struct copy_t {
    lyd_node *first = nullptr;
    ~copy_t() { lyd_free_all(first); }
};

static lyd_node *copy_one(const lyd_node *from, lyd_node *parent, uint32_t options)
{
    lyd_node *copy = nullptr;
    (void)lyd_dup_single(from, reinterpret_cast<lyd_node_inner *>(parent),
                         options | LYD_DUP_WITH_FLAGS | LYD_DUP_NO_META,
                         &copy); // null when out of memory: the document lacks it
    return copy;
}

static void copy_children(tree_t &tree, lyd_node *from, lyd_node *to);

static void copy_below(tree_t &tree, lyd_node *from, lyd_node *to_parent)
{
    bool is_inner = from->schema->nodetype & LYD_NODE_INNER;
    bool is_key = lysc_is_key(from->schema); // comes with its entry
    lyd_node *copy = is_key ? nullptr : copy_one(from, to_parent, 0);
    if (copy && is_inner)
        copy_children(tree, from, copy);
}

static void copy_children(tree_t &tree, lyd_node *from, lyd_node *to)
{
    const lysc_node *done = nullptr; // instances of one schema node stand together
    for (lyd_node *at = lyd_child(from); at; at = at->next) {
        if (at->schema == done)
            continue;
        done = at->schema;
        bool has_order = at->schema->nodetype & (LYS_LIST | LYS_LEAFLIST);
        if (has_order)
            tree_for_each(tree, from, *schema_info(at->schema), [&](lyd_node *entry) { copy_below(tree, entry, to); });
        else
            copy_below(tree, at, to);
    }
}

static void add_top(copy_t &copy, lyd_node *node)
{
    if (node)
        lyd_insert_sibling(copy.first, node, &copy.first);
}

// The instance with the parents that it stands in.
static void copy_instance(tree_t &tree, lyd_node *from, copy_t &copy)
{
    lyd_node *parent = tree_parent(from);
    if (!parent) {
        lyd_node *top = copy_one(from, nullptr, 0);
        add_top(copy, top);
        if (top && (from->schema->nodetype & LYD_NODE_INNER))
            copy_children(tree, from, top);
        return;
    }
    lyd_node *parent_copy = copy_one(parent, nullptr, LYD_DUP_WITH_PARENTS);
    if (!parent_copy)
        return;
    lyd_node *top = parent_copy;
    while (tree_parent(top))
        top = tree_parent(top);
    add_top(copy, top);
    copy_below(tree, from, parent_copy);
}

static void copy_all(tree_t &tree, copy_t &copy)
{
    const lysc_node *done = nullptr;
    for (lyd_node *at = tree.first; at; at = at->next) {
        if (at->schema == done)
            continue;
        done = at->schema;
        if (at->schema->nodetype & (LYS_LIST | LYS_LEAFLIST))
            tree_for_each(tree, nullptr, *schema_info(at->schema),
                          [&](lyd_node *entry) { copy_instance(tree, entry, copy); });
        else
            copy_instance(tree, at, copy);
    }
}

// All entries of a list, or values of a leaf-list, with the parents.
static void copy_list(tree_t &tree, const path_t &path, copy_t &copy)
{
    std::span<const path_step_t> above(path.steps.data(), path.steps.size() - 1);
    lyd_node *parent = tree_find(tree, above);
    if (!parent && !above.empty())
        return;
    if (!parent) {
        tree_for_each(tree, nullptr, *path.node(), [&](lyd_node *entry) { copy_instance(tree, entry, copy); });
        return;
    }
    lyd_node *parent_copy = copy_one(parent, nullptr, LYD_DUP_WITH_PARENTS);
    lyd_node *top = parent_copy;
    while (top && tree_parent(top))
        top = tree_parent(top);
    add_top(copy, top);
    if (parent_copy)
        tree_for_each(tree, parent, *path.node(), [&](lyd_node *entry) { copy_below(tree, entry, parent_copy); });
}

static bool print(const copy_t &copy, doc_format_t format, bool with_defaults, std::string &text)
{
    char *printed = nullptr;
    uint32_t options = LYD_PRINT_WITHSIBLINGS | (with_defaults ? LYD_PRINT_WD_ALL : LYD_PRINT_WD_EXPLICIT);
    if (copy.first &&
        lyd_print_mem(&printed, copy.first, format == DOC_JSON ? LYD_JSON : LYD_XML, options) != LY_SUCCESS)
        return false;
    text = printed ? printed : "";
    free(printed);
    return true;
}

bool read_show(datastore_t &store, view_t view, show_db_t db, const path_t &path, doc_format_t format,
               bool with_defaults, std::string &text, ds_error_t &error)
{
    store_show_view(store, view);
    tree_t &tree = db == SHOW_CONFIG ? store.running : store.operational;
    copy_t copy;
    bool is_list =
        path.node() && path.node()->is(WIRE_NODE_LIST | WIRE_NODE_LEAF_LIST) && path.steps.back().keys.empty();
    if (!path.node())
        copy_all(tree, copy);
    else if (is_list)
        copy_list(tree, path, copy);
    else if (lyd_node *node = tree_find(tree, path.steps))
        copy_instance(tree, node, copy);
    if (print(copy, format, with_defaults, text))
        return true;
    return ds_fail(error, CONFD_ERR_INTERNAL, path_text(path) + " cannot be printed");
}
