#include "agent/server/schema_rules.h"
#include "agent/server/ly_array.h"

#include <algorithm>
#include <string_view>

// How far an expression can leave its context node: the number of levels up, or everywhere.
static constexpr int EVERYWHERE = -1;

static size_t count_dots(std::string_view text)
{
    size_t count = 0;
    for (size_t at = text.find(".."); at != std::string_view::npos; at = text.find("..", at + 2))
        count++;
    return count;
}

// The longest run of "../../.." in the expression.
static size_t longest_climb(std::string_view text)
{
    size_t longest = 0;
    for (size_t at = text.find(".."); at != std::string_view::npos; at = text.find("..", at)) {
        size_t run = 0;
        while (text.substr(at, 2) == "..") {
            run++;
            at += 2;
            if (text.substr(at, 1) != "/")
                break;
            at++;
        }
        longest = std::max(longest, run);
    }
    return longest;
}

static bool is_absolute(std::string_view text)
{
    static constexpr std::string_view starts = " \t\r\n(|,=<>![+-*";
    for (size_t at = text.find('/'); at != std::string_view::npos; at = text.find('/', at + 1))
        if (at == 0 || starts.find(text[at - 1]) != std::string_view::npos)
            return true;
    return false;
}

// Overestimates where it has to: an axis or deref() can go anywhere, and a climb in a predicate adds to that of the
// path before it.
static int reach_of(std::string_view text)
{
    for (std::string_view word : { "deref", "ancestor", "preceding", "following", "parent::", "//" })
        if (text.find(word) != std::string_view::npos)
            return EVERYWHERE;
    if (is_absolute(text))
        return EVERYWHERE;
    return static_cast<int>(text.find('[') != std::string_view::npos ? count_dots(text) : longest_climb(text));
}

static const schema_info_t *climb(const schema_info_t *from, int levels)
{
    if (levels == EVERYWHERE)
        return nullptr;
    while (from && levels-- > 0)
        from = from->parent;
    return from;
}

static void add_dependent(schema_t &schema, const lysc_node *atom, const schema_dependent_t &dependent)
{
    const schema_info_t *info = schema_info(atom);
    if (!info)
        return;
    auto &list = schema.nodes[info->index - 1].dependents;
    bool is_known = std::ranges::any_of(list, [&](const schema_dependent_t &known) {
        return known.kind == dependent.kind && known.owner == dependent.owner && known.top == dependent.top;
    });
    if (!is_known)
        list.push_back(dependent);
}

static bool stands_below(const schema_info_t &node, const schema_info_t *above)
{
    const schema_info_t *at = node.parent;
    while (at && at != above)
        at = at->parent;
    return at == above;
}

// libyang does not tell the nodes of axes that go to other entries of the same list: all around the context may be
// meant.
static void add_around(schema_t &schema, const schema_info_t &context, const schema_dependent_t &dependent)
{
    for (const schema_info_t &info : schema.nodes)
        if (info.is(WIRE_NODE_CONFIG) && stands_below(info, context.parent))
            add_dependent(schema, info.node, dependent);
}

// One expression of a rule of owner, evaluated at context.
static void add_rule(schema_t &schema, schema_dependent_t::kind_t kind, const schema_info_t &owner,
                     const schema_info_t *context, const lyxp_expr *expr, const lysc_prefix *prefixes)
{
    ly_set *atoms = nullptr;
    uint32_t options = kind == schema_dependent_t::LEAFREF ? 0 : LYS_FIND_XP_SCHEMA;
    const lysc_node *at = context ? context->node : nullptr;
    if (lys_find_expr_atoms(at, owner.node->module, expr, prefixes, options, &atoms) == LY_SUCCESS) {
        schema_dependent_t dependent = { kind, &owner, climb(context, reach_of(lyxp_get_expr(expr))) };
        for (uint32_t i = 0; i < atoms->count; i++)
            add_dependent(schema, atoms->snodes[i], dependent);
        std::string_view text = lyxp_get_expr(expr);
        if (context && (text.find("preceding") != text.npos || text.find("following") != text.npos))
            add_around(schema, *context, dependent);
    }
    ly_set_free(atoms, nullptr);
}

// The data node at or above a node of the compiled model.
static const schema_info_t *data_node(const lysc_node *node)
{
    while (node && !schema_info(node))
        node = node->parent;
    return schema_info(node);
}

static void add_type_rules(schema_t &schema, const schema_info_t &owner, const lysc_type *type)
{
    if (type->basetype == LY_TYPE_LEAFREF) {
        auto *leafref = reinterpret_cast<const lysc_type_leafref *>(type);
        if (leafref->require_instance)
            add_rule(schema, schema_dependent_t::LEAFREF, owner, &owner, leafref->path, leafref->prefixes);
    } else if (type->basetype == LY_TYPE_UNION) {
        lysc_type **members = reinterpret_cast<const lysc_type_union *>(type)->types;
        for (size_t u = 0; u < ly_count(members); u++) {
            add_type_rules(schema, owner, members[u]);
        }
    }
}

void schema_find_rules(schema_t &schema)
{
    for (const schema_info_t &info : schema.nodes) {
        if (!info.is(WIRE_NODE_CONFIG))
            continue;
        lysc_must *musts = lysc_node_musts(info.node);
        for (size_t u = 0; u < ly_count(musts); u++) {
            add_rule(schema, schema_dependent_t::MUST, info, &info, musts[u].cond, musts[u].prefixes);
        }
        (void)for_each_when(info.node, [&](const lysc_when &when) { // never ends early
            const schema_info_t *context = data_node(when.context);
            add_rule(schema, schema_dependent_t::WHEN, info, context, when.cond, when.prefixes);
            return true;
        });
        if (info.is(WIRE_NODE_LEAF))
            add_type_rules(schema, info, reinterpret_cast<const lysc_node_leaf *>(info.node)->type);
        else if (info.is(WIRE_NODE_LEAF_LIST))
            add_type_rules(schema, info, reinterpret_cast<const lysc_node_leaflist *>(info.node)->type);
    }
}
