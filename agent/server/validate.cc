// What has to be checked, and the consequences of when statements. The rules themselves are in validate_rules.cc.
#include "agent/server/validate.h"

#include "agent/server/implicit.h"
#include "agent/server/schema_rules.h"
#include "agent/server/validate_rules.h"

#include <set>
#include <string>

// More consequences than this for one edit are when statements that chase each other.
static constexpr size_t MAX_CONSEQUENCES = 100000;

using node_set_t = std::unordered_set<const lyd_node *>;

// Calls visit for the node and all below it.
template <typename Visit> static void for_each_below(lyd_node *node, Visit visit)
{
    lyd_node *at = nullptr;
    LYD_TREE_DFS_BEGIN(node, at)
    {
        if (at->schema && schema_info(at->schema))
            visit(at);
        LYD_TREE_DFS_END(node, at);
    }
}

// Calls visit(instance) for each instance of the schema node below from (which may be one itself).
template <typename Visit>
static void for_each_instance(tree_t &tree, lyd_node *from, const schema_info_t &info, Visit &visit)
{
    if (from && from->schema == info.node) {
        visit(from);
        return;
    }
    const schema_info_t *next = &info; // the node on the way down that is a child of from
    const schema_info_t *above = from ? schema_info(from->schema) : nullptr;
    while (next->parent != above)
        next = next->parent;
    for (lyd_node *at = tree_find_child(tree, from, next->node); at && at->schema == next->node; at = at->next)
        for_each_instance(tree, at, info, visit);
}

// The instance of top that the node, with this parent, stands in; null for the whole tree.
static lyd_node *instance_above(lyd_node *at, const schema_info_t *top)
{
    while (at && top && at->schema != top->node)
        at = tree_parent(at);
    return top ? at : nullptr;
}

// Is there anything of top left to look at?
static bool is_gone(const lyd_node *instance, const schema_info_t *top)
{
    return top && !instance;
}

// ---- when

struct when_work_t {
    edit_log_t &log;
    size_t first; // consequences begin here
    ds_error_t &error;
    bool is_good = true;
    node_set_t detached; // by the first `known` edits
    size_t known = 0;
};

// Does the node stand in the tree as it is now?
static bool is_in_tree(when_work_t &work, const lyd_node *node)
{
    for (; work.known < work.log.edits.size(); work.known++)
        log_note_detached(work.detached, work.log.edits[work.known]);
    return is_attached(work.detached, node);
}

static std::string when_text(const lysc_node *schema)
{
    std::string text;
    (void)for_each_when(schema, [&](const lysc_when &when) { // never ends early
        text += (text.empty() ? "" : "\" and \"") + std::string(lyxp_get_expr(when.cond));
        return true;
    });
    return text;
}

// A node whose when has been true goes with it, as does a default; one that has just been set is a mistake.
static void judge_when(when_work_t &work, lyd_node *node)
{
    if (!has_when(node->schema))
        return;
    if (implicit_when_holds(*work.log.tree, tree_parent(node), node->schema, node)) {
        node->flags |= LYD_WHEN_TRUE;
        return;
    }
    bool is_consequence = (node->flags & LYD_WHEN_TRUE) || is_default(node);
    if (is_consequence) {
        log_unlink(work.log, node);
        return;
    }
    work.is_good =
        ds_fail(work.error, CONFD_ERR_VALIDATION,
                tree_path_text(node) + " may not be there: it is for when \"" + when_text(node->schema) + "\" only");
}

static void judge_when_instances(when_work_t &work, lyd_node *from, const schema_info_t &info)
{
    tree_t &tree = *work.log.tree;
    std::vector<lyd_node *> nodes;
    std::vector<lyd_node *> parents;
    auto add_parent = [&](lyd_node *parent) {
        parents.push_back(parent);
    };
    if (from && from->schema == info.node)
        nodes.push_back(from);
    else if (info.parent)
        for_each_instance(tree, from, *info.parent, add_parent);
    else
        parents.push_back(nullptr);
    for (lyd_node *parent : parents) {
        lyd_node *at = tree_find_child(tree, parent, info.node);
        if (!at)
            implicit_fill_child(work.log, parent, info.node);
        for (; at && at->schema == info.node; at = at->next)
            nodes.push_back(at);
    }
    for (lyd_node *node : nodes)
        if (work.is_good)
            judge_when(work, node);
}

static void judge_whens_looking_at(when_work_t &work, lyd_node *place, const schema_info_t &info)
{
    for (const schema_dependent_t &dependent : info.dependents) {
        lyd_node *top = instance_above(place, dependent.top);
        if (dependent.kind == schema_dependent_t::WHEN && !is_gone(top, dependent.top))
            judge_when_instances(work, top, *dependent.owner);
    }
}

static bool has_when_dependents(const schema_info_t &info)
{
    for (const schema_dependent_t &dependent : info.dependents)
        if (dependent.kind == schema_dependent_t::WHEN)
            return true;
    return false;
}

// Judging may take nodes out, so what is to be judged is gathered first and looked at again if it is still there.
static void follow_edit(when_work_t &work, lyd_node *node, edit_kind_t kind, lyd_node *parent)
{
    std::vector<lyd_node *> own;
    std::set<const schema_info_t *> seen;
    std::vector<std::pair<lyd_node *, const schema_info_t *>> looked_at;
    lyd_node *place = kind == EDIT_UNLINK ? parent : node;
    auto note = [&](lyd_node *at) {
        const schema_info_t *info = schema_info(at->schema);
        if (kind != EDIT_UNLINK && has_when(at->schema))
            own.push_back(at);
        // Rules inside a new subtree are met at each of its nodes; those outside need one look for each schema node.
        bool is_known = kind == EDIT_UNLINK && !seen.insert(info).second;
        if (has_when_dependents(*info) && !is_known)
            looked_at.emplace_back(kind == EDIT_UNLINK ? place : at, info);
    };
    if (kind == EDIT_VALUE)
        note(node);
    else
        for_each_below(node, note);
    for (lyd_node *at : own)
        if (work.is_good && is_in_tree(work, at))
            judge_when(work, at);
    for (auto &[at, info] : looked_at)
        if (work.is_good && (!at || is_in_tree(work, at)))
            judge_whens_looking_at(work, at, *info);
}

static bool settle_whens(edit_log_t &log, ds_error_t &error)
{
    when_work_t work = { log, log.edits.size(), error, true, {}, 0 };
    for (size_t i = 0; work.is_good && i < log.edits.size(); i++) {
        if (log.edits.size() > work.first + MAX_CONSEQUENCES)
            return ds_fail(error, CONFD_ERR_VALIDATION, "the when statements of the model contradict each other");
        edit_kind_t kind = log.edits[i].kind;
        lyd_node *node = log.edits[i].node;
        lyd_node *parent = log.edits[i].parent;
        if (kind == EDIT_UNLINK ? !parent || is_in_tree(work, parent) : is_in_tree(work, node))
            follow_edit(work, node, kind, parent);
    }
    return work.is_good;
}

// ---- everything else

// What to check once, however often it was touched.
struct check_set_t {
    tree_t &tree;
    node_set_t nodes;                                                        // musts and references of their own
    node_set_t parents;                                                      // what has to be in them, and how often
    bool is_top = false;                                                     // and at the top level
    std::set<std::pair<const schema_dependent_t *, const lyd_node *>> rules; // with the instance of the top
    std::set<std::pair<const lysc_node *, const lyd_node *>> lists;          // unique, and the parent
};

static void add_rules_looking_at(check_set_t &checks, const schema_info_t &info, lyd_node *place, bool is_removal)
{
    for (const schema_dependent_t &dependent : info.dependents) {
        if (dependent.kind == schema_dependent_t::WHEN ||
            (dependent.kind == schema_dependent_t::LEAFREF && !is_removal))
            continue;
        lyd_node *top = instance_above(place, dependent.top);
        if (!is_gone(top, dependent.top))
            checks.rules.emplace(&dependent, top);
    }
}

// Every list with a unique statement that a leaf named by one stands in.
static void add_lists_above(check_set_t &checks, const lyd_node *leaf)
{
    if (leaf->schema->nodetype != LYS_LEAF || !(leaf->schema->flags & LYS_UNIQUE))
        return;
    for (const lyd_node *at = tree_parent(leaf); at; at = tree_parent(at))
        if (at->schema->nodetype == LYS_LIST && reinterpret_cast<const lysc_node_list *>(at->schema)->uniques)
            checks.lists.emplace(at->schema, tree_parent(at));
}

static void add_parent(check_set_t &checks, lyd_node *parent)
{
    if (parent)
        checks.parents.insert(parent);
    else
        checks.is_top = true;
}

static void add_link(check_set_t &checks, lyd_node *node)
{
    add_parent(checks, tree_parent(node));
    for_each_below(node, [&](lyd_node *at) {
        checks.nodes.insert(at);
        if (at->schema->nodetype & LYD_NODE_INNER)
            checks.parents.insert(at);
        add_lists_above(checks, at);
        add_rules_looking_at(checks, *schema_info(at->schema), at, false);
    });
}

static void add_unlink(check_set_t &checks, lyd_node *node, lyd_node *parent)
{
    add_parent(checks, parent);
    std::unordered_set<const schema_info_t *> seen;
    for_each_below(node, [&](lyd_node *at) {
        const schema_info_t *info = schema_info(at->schema);
        if (seen.insert(info).second)
            add_rules_looking_at(checks, *info, parent, true);
    });
}

static void add_change(check_set_t &checks, lyd_node *leaf)
{
    checks.nodes.insert(leaf);
    add_lists_above(checks, leaf);
    add_rules_looking_at(checks, *schema_info(leaf->schema), leaf, true);
}

static void gather_checks(const edit_log_t &log, check_set_t &checks)
{
    auto detached = log_detached(log);
    for (const edit_t &edit : log.edits) {
        if (!schema_info(edit.node->schema))
            continue;
        if (edit.kind == EDIT_UNLINK) {
            if (!edit.parent || is_attached(detached, edit.parent))
                add_unlink(checks, edit.node, edit.parent);
        } else if (is_attached(detached, edit.node)) {
            edit.kind == EDIT_VALUE ? add_change(checks, edit.node) : add_link(checks, edit.node);
        }
    }
}

static bool run_rules(check_set_t &checks, ds_error_t &error)
{
    node_set_t musts;
    node_set_t references;
    for (auto &[dependent, top] : checks.rules) {
        node_set_t &to = dependent->kind == schema_dependent_t::MUST ? musts : references;
        auto add = [&](lyd_node *node) {
            to.insert(node);
        };
        for_each_instance(checks.tree, const_cast<lyd_node *>(top), *dependent->owner, add);
    }
    musts.insert(checks.nodes.begin(), checks.nodes.end());
    references.insert(checks.nodes.begin(), checks.nodes.end());
    for (const lyd_node *node : references)
        if (!rule_references(checks.tree, node, error))
            return false;
    for (const lyd_node *node : musts)
        if (!rule_musts(node, error))
            return false;
    return true;
}

static bool run_structure(check_set_t &checks, ds_error_t &error)
{
    if (checks.is_top && !rule_children(checks.tree, nullptr, error))
        return false;
    for (const lyd_node *parent : checks.parents)
        if (!rule_children(checks.tree, const_cast<lyd_node *>(parent), error))
            return false;
    for (auto &[list, parent] : checks.lists)
        if (!rule_unique(checks.tree, const_cast<lyd_node *>(parent), list, error))
            return false;
    return true;
}

bool validate_edits(edit_log_t &log, ds_error_t &error)
{
    if (!settle_whens(log, error))
        return false;
    check_set_t checks = { *log.tree, {}, {}, false, {}, {} };
    gather_checks(log, checks);
    return run_rules(checks, error) && run_structure(checks, error);
}
