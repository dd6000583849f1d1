// Changes as the client library's rows of tag and value.
#include "agent/server/diff.h"

struct mods_writer_t {
    wire_writer_t &out;
    uint32_t flags;
    uint32_t count = 0;
};

static confd_value_t marker(confd_vtype type, const schema_info_t &info)
{
    confd_value_t value{};
    value.type = type;
    value.val.xmltag = { info.tag, info.ns };
    return value;
}

static void put_item(mods_writer_t &mods, const schema_info_t &info, const confd_value_t &value)
{
    mods.out.u32(info.tag);
    mods.out.u32(info.ns);
    wire_put_value(mods.out, value);
    mods.count++;
}

static void put_marker(mods_writer_t &mods, const schema_info_t &info, confd_vtype type)
{
    put_item(mods, info, marker(type, info));
}

// Calls use with the form that the values have in a row: they live as long as the call.
template <typename Use> static void with_form(const schema_info_t &info, const std::vector<value_t> &values, Use use)
{
    if (values.empty()) {
        use(marker(C_NOEXISTS, info));
    } else if (!info.is(WIRE_NODE_LEAF_LIST | WIRE_NODE_LIST)) {
        confd_value_t value = value_to_confd(values[0]);
        if (value.type == C_XMLTAG)
            value.val.xmltag = { info.tag, info.ns };
        use(value);
    } else {
        std::vector<confd_value_t> items;
        for (const value_t &value : values)
            items.push_back(value_to_confd(value));
        confd_value_t list{};
        list.type = C_LIST;
        list.val.list = { items.data(), static_cast<unsigned>(items.size()) };
        use(list);
    }
}

static void put_values(wire_writer_t &out, const schema_info_t &info, const std::vector<value_t> &values)
{
    with_form(info, values, [&](const confd_value_t &value) { wire_put_value(out, value); });
}

void diff_put_values(wire_writer_t &out, const diff_node_t &node)
{
    put_values(out, *node.schema, node.old_values);
    put_values(out, *node.schema, node.schema->is(WIRE_NODE_LIST) ? node.place : node.new_values);
}

void diff_put_new_value(wire_writer_t &out, const diff_node_t &node)
{
    const schema_info_t &info = *node.schema;
    if (info.is(WIRE_NODE_LEAF | WIRE_NODE_LEAF_LIST))
        with_form(info, node.new_values, [&](const confd_value_t &value) { wire_put_value(out, value); });
    else
        wire_put_value(out, marker(node.op == WIRE_MOP_DELETED ? C_NOEXISTS : C_XMLTAG, info));
}

static void put_node(mods_writer_t &mods, const diff_node_t &node);

static void put_children(mods_writer_t &mods, const diff_node_t &node)
{
    for (const auto &child : node.children)
        put_node(mods, *child);
}

static void put_keys(mods_writer_t &mods, const diff_node_t &entry)
{
    for (size_t i = 0; i < entry.keys.size(); i++)
        put_item(mods, *entry.schema->keys[i], value_to_confd(entry.keys[i]));
}

// A created entry has its keys among its children.
static void put_entry(mods_writer_t &mods, const diff_node_t &entry)
{
    if (!(mods.flags & WIRE_MODS_LISTS))
        return;
    put_marker(mods, *entry.schema, entry.op == WIRE_MOP_DELETED ? C_XMLBEGINDEL : C_XMLBEGIN);
    if (entry.op != WIRE_MOP_CREATED)
        put_keys(mods, entry);
    put_children(mods, entry);
    put_marker(mods, *entry.schema, C_XMLEND);
}

// Would the container's row be empty between begin and end only because its list entries are left out?
static bool has_rows(const mods_writer_t &mods, const diff_node_t &node)
{
    if (node.op == WIRE_MOP_CREATED || (mods.flags & WIRE_MODS_LISTS))
        return true;
    for (const auto &child : node.children)
        if (!child->schema->is(WIRE_NODE_LIST) &&
            (!child->schema->is(WIRE_NODE_CONTAINER) || has_rows(mods, *child) || child->op == WIRE_MOP_DELETED))
            return true;
    return false;
}

static void put_container(mods_writer_t &mods, const diff_node_t &node)
{
    if (node.op == WIRE_MOP_DELETED) {
        put_marker(mods, *node.schema, C_NOEXISTS);
        return;
    }
    if (!has_rows(mods, node))
        return;
    put_marker(mods, *node.schema, C_XMLBEGIN);
    put_children(mods, node);
    put_marker(mods, *node.schema, C_XMLEND);
}

static void put_node(mods_writer_t &mods, const diff_node_t &node)
{
    const schema_info_t &info = *node.schema;
    if (info.is(WIRE_NODE_LIST))
        put_entry(mods, node);
    else if (info.is(WIRE_NODE_CONTAINER))
        put_container(mods, node);
    else
        with_form(info, node.new_values, [&](const confd_value_t &value) { put_item(mods, info, value); });
}

static void put_inside(mods_writer_t &mods, const diff_node_t &node)
{
    bool is_deleted = node.op == WIRE_MOP_DELETED;
    if (node.schema->is(WIRE_NODE_LEAF | WIRE_NODE_LEAF_LIST) || (node.schema->is(WIRE_NODE_CONTAINER) && is_deleted))
        put_node(mods, node);
    else
        put_children(mods, node);
}

uint32_t diff_put_modifications(wire_writer_t &out, const diff_node_t &node, uint32_t flags)
{
    mods_writer_t mods = { out, flags };
    put_inside(mods, node);
    return mods.count;
}

uint32_t diff_put_point_modifications(wire_writer_t &out, const diff_t &diff, const path_t &point, uint32_t flags)
{
    mods_writer_t mods = { out, flags };
    bool is_list = point.node()->is(WIRE_NODE_LIST);
    for (const diff_node_t *node : diff_instances(diff, point))
        is_list &&point.steps.back().keys.empty() ? put_node(mods, *node) : put_inside(mods, *node);
    return mods.count;
}
