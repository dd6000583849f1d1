#include "agent/server/implicit.h"

#include "agent/server/ly_array.h"
#include "agent/server/schema_rules.h"

#include <string>
#include <vector>

// ---- when

static bool evaluate(lyd_node *context, const lysc_node *owner, const lysc_when &when)
{
    ly_bool holds = 0;
    LY_ERR result = lyd_eval_xpath3(context, owner->module, lyxp_get_expr(when.cond), LY_VALUE_SCHEMA_RESOLVED,
                                    when.prefixes, nullptr, &holds);
    return result == LY_SUCCESS && holds;
}

// The data node that a when is evaluated at: the node itself, or the nearest above it that the statement stands at.
static lyd_node *context_of(const lysc_when &when, lyd_node *parent, lyd_node *node)
{
    if (node && when.context == node->schema)
        return node;
    lyd_node *at = parent;
    while (at && when.context && at->schema != when.context && !(when.context->nodetype & (LYS_CHOICE | LYS_CASE)))
        at = tree_parent(at);
    return at;
}

// Stands in for a node that does not exist, as the place to look from. Freed with it.
struct stand_in_t {
    tree_t &tree;
    lyd_node *node = nullptr;

    stand_in_t(tree_t &of, lyd_node *parent, const lysc_node *schema) : tree(of)
    {
        (void)lyd_new_opaq(parent, parent ? nullptr : schema->module->ctx, schema->name, nullptr, nullptr,
                           schema->module->name, &node); // null on failure: the when does not hold
        if (node && !parent)
            lyd_insert_sibling(tree.first, node, &tree.first);
    }
    ~stand_in_t()
    {
        lyd_node *parent = node ? tree_parent(node) : nullptr;
        if (tree.first == node)
            tree.first = node->next;
        lyd_free_tree(node);
        tree_refresh_default_flag(parent);
    }
    stand_in_t(const stand_in_t &) = delete;
    stand_in_t &operator=(const stand_in_t &) = delete;
};

static bool needs_itself(const lysc_node *schema)
{
    return !for_each_when(schema, [&](const lysc_when &when) { return when.context != schema; });
}

static bool all_hold(lyd_node *parent, const lysc_node *schema, lyd_node *node)
{
    return for_each_when(schema, [&](const lysc_when &when) {
        lyd_node *context = when.context == schema ? node : context_of(when, parent, node);
        return context && evaluate(context, schema, when);
    });
}

bool implicit_when_holds(tree_t &tree, lyd_node *parent, const lysc_node *schema, lyd_node *node)
{
    if (!has_when(schema))
        return true;
    if (node || !needs_itself(schema))
        return all_hold(parent, schema, node);
    stand_in_t stand_in(tree, parent, schema);
    return stand_in.node && all_hold(parent, schema, stand_in.node);
}

// ---- cases

// Calls visit for each data node of a choice's or case's inside, nested choices included.
template <typename Visit> static void for_each_data(const lysc_node *inside, Visit visit)
{
    for (const lysc_node *child = lysc_node_child(inside); child; child = child->next) {
        if (child->nodetype & (LYS_CHOICE | LYS_CASE))
            for_each_data(child, visit);
        else
            visit(child);
    }
}

static std::vector<lyd_node *> instances_of(tree_t &tree, lyd_node *parent, const lysc_node *inside)
{
    std::vector<lyd_node *> nodes;
    for_each_data(inside, [&](const lysc_node *schema) {
        for (lyd_node *at = tree_find_child(tree, parent, schema); at && at->schema == schema; at = at->next)
            nodes.push_back(at);
    });
    return nodes;
}

static void leave_case(edit_log_t &log, lyd_node *parent, const lysc_node *other)
{
    for (lyd_node *node : instances_of(*log.tree, parent, other))
        log_unlink(log, node);
}

void implicit_leave_other_cases(edit_log_t &log, lyd_node *node)
{
    const lysc_node *at = node->schema->parent;
    for (; at && at->nodetype == LYS_CASE; at = at->parent->parent) {
        auto *choice = reinterpret_cast<const lysc_node_choice *>(at->parent);
        for (const lysc_node_case *other = choice->cases; other;
             other = reinterpret_cast<const lysc_node_case *>(other->next))
            if (&other->node != at)
                leave_case(log, tree_parent(node), &other->node);
    }
}

static bool has_set_nodes(tree_t &tree, lyd_node *parent, const lysc_node *inside)
{
    bool has = false;
    for_each_data(inside, [&](const lysc_node *schema) {
        const lyd_node *at = has ? nullptr : tree_find_child(tree, parent, schema);
        has = has || (at && !is_default(at));
    });
    return has;
}

// The case that something has been set of, else the default case, else none.
static const lysc_node *case_in_force(tree_t &tree, lyd_node *parent, const lysc_node_choice *choice)
{
    for (const lysc_node_case *at = choice->cases; at; at = reinterpret_cast<const lysc_node_case *>(at->next))
        if (has_set_nodes(tree, parent, &at->node))
            return &at->node;
    return choice->dflt ? &choice->dflt->node : nullptr;
}

// ---- defaults

static void add_default(edit_log_t &log, lyd_node *parent, const lysc_node *schema, const char *text)
{
    lyd_node *node = nullptr;
    tree_before_link(parent);
    if (schema->nodetype == LYS_CONTAINER)
        (void)lyd_new_inner(parent, schema->module, schema->name, 0, &node); // null when out of memory: no default then
    else
        (void)lyd_new_term_canon(parent, schema->module, schema->name, text, 0, &node); // as above
    if (!node)
        return;
    node->flags |= LYD_DEFAULT;
    if (has_when(schema))
        node->flags |= LYD_WHEN_TRUE;
    if (!parent)
        lyd_insert_sibling(log.tree->first, node, &log.tree->first);
    log_linked(log, node);
    if (schema->nodetype == LYS_CONTAINER)
        implicit_fill(log, node);
}

static void fill_data_node(edit_log_t &log, lyd_node *parent, const lysc_node *schema)
{
    bool is_leaf = schema->nodetype == LYS_LEAF;
    const lyd_value *one = is_leaf ? reinterpret_cast<const lysc_node_leaf *>(schema)->dflt : nullptr;
    lyd_value **many =
        schema->nodetype == LYS_LEAFLIST ? reinterpret_cast<const lysc_node_leaflist *>(schema)->dflts : nullptr;
    if (!one && !many && !lysc_is_np_cont(schema))
        return;
    if (!(schema->flags & LYS_CONFIG_W) || tree_find_child(*log.tree, parent, schema) ||
        !implicit_when_holds(*log.tree, parent, schema, nullptr))
        return;
    const ly_ctx *ctx = schema->module->ctx;
    for (size_t u = 0; u < ly_count(many); u++) {
        add_default(log, parent, schema, lyd_value_get_canonical(ctx, many[u]));
    }
    if (!many)
        add_default(log, parent, schema, one ? lyd_value_get_canonical(ctx, one) : nullptr);
}

static void fill_siblings(edit_log_t &log, lyd_node *parent, const lysc_node *first);

static void fill_choice(edit_log_t &log, lyd_node *parent, const lysc_node_choice *choice)
{
    const lysc_node *in_force = case_in_force(*log.tree, parent, choice);
    for (const lysc_node_case *at = choice->cases; at; at = reinterpret_cast<const lysc_node_case *>(at->next))
        if (&at->node != in_force)
            leave_case(log, parent, &at->node);
    if (in_force)
        fill_siblings(log, parent, lysc_node_child(in_force));
}

static void fill_one(edit_log_t &log, lyd_node *parent, const lysc_node *schema)
{
    if (schema->nodetype == LYS_CHOICE)
        fill_choice(log, parent, reinterpret_cast<const lysc_node_choice *>(schema));
    else
        fill_data_node(log, parent, schema);
}

static void fill_siblings(edit_log_t &log, lyd_node *parent, const lysc_node *first)
{
    for (const lysc_node *schema = first; schema; schema = schema->next)
        fill_one(log, parent, schema);
}

void implicit_fill(edit_log_t &log, lyd_node *parent)
{
    if (parent) {
        fill_siblings(log, parent, lysc_node_child(parent->schema));
        return;
    }
    const ly_ctx *ctx = log.tree->first ? tree_ctx(log.tree->first) : nullptr;
    uint32_t at = 0;
    while (const lys_module *mod = ctx ? ly_ctx_get_module_iter(ctx, &at) : nullptr)
        if (mod->implemented && mod->compiled)
            fill_siblings(log, nullptr, mod->compiled->data);
}

void implicit_fill_child(edit_log_t &log, lyd_node *parent, const lysc_node *schema)
{
    const lysc_node *at = schema;
    while (at->parent && (at->parent->nodetype & (LYS_CHOICE | LYS_CASE)))
        at = at->parent;
    fill_one(log, parent, at);
}

void implicit_fill_tree(edit_log_t &log, lyd_node *parent)
{
    implicit_fill(log, parent);
    for (lyd_node *child = lyd_child(parent); child; child = child->next)
        if (child->schema && (child->schema->nodetype & (LYS_CONTAINER | LYS_LIST)))
            implicit_fill_tree(log, child);
}
