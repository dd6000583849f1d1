// What the library's calls put into frames alike: tagged values, keys, datastores.
#include "agent/client/confd_internal.h"

#include <iterator>

// Follows values down into containers and list entries, and up again.
struct value_walk_t {
    std::vector<const confd_cs_node *> above; // nodes that have begun and not ended
    const confd_cs_node *node;
};

static confd_cs_node *find_child(const confd_cs_node *node, xml_tag tag)
{
    return node != nullptr ? confd_find_cs_node_child(node, tag) : nullptr;
}

static confd_tag_value_t with_namespace(value_walk_t &walk, const confd_tag_value_t &from)
{
    confd_tag_value_t value = from;
    bool is_end = from.v.type == C_XMLEND;
    const confd_cs_node *child = is_end ? walk.node : find_child(walk.node, from.tag);
    if (value.tag.ns == 0 && child != nullptr && child->tag == value.tag.tag)
        value.tag.ns = child->ns;
    if (from.v.type == C_XMLBEGIN || from.v.type == C_XMLBEGINDEL) {
        walk.above.push_back(walk.node);
        walk.node = child;
    } else if (is_end && !walk.above.empty()) {
        walk.node = walk.above.back();
        walk.above.pop_back();
    }
    return value;
}

void confd_put_tag_values(wire_writer_t &out, const confd_cs_node *node, const confd_tag_value_t *values, int count)
{
    if (node == nullptr)
        return wire_put_tag_values(out, values, static_cast<size_t>(count));
    std::vector<confd_tag_value_t> filled; // the memory that they point to stays the user's
    filled.reserve(static_cast<size_t>(count));
    value_walk_t walk = { {}, node };
    for (int i = 0; i < count; i++)
        filled.push_back(with_namespace(walk, values[i]));
    wire_put_tag_values(out, filled.data(), filled.size());
}

void confd_put_keys(wire_writer_t &out, const confd_value_t *keys, int count)
{
    out.u8(static_cast<uint8_t>(count));
    for (int i = 0; i < count; i++)
        wire_put_value(out, keys[i]);
}

int confd_take_list(confd_value_t *value, const char *path, confd_value_t **values, int *nvalues)
{
    if (value->type != C_LIST) {
        int got = value->type;
        wire_free_value(*value);
        return confd_fail(CONFD_ERR_BADTYPE, "the value at %s has type %d and is no list", path, got);
    }
    *values = value->val.list.ptr;
    *nvalues = static_cast<int>(value->val.list.size);
    return CONFD_OK;
}

struct db_row_t {
    confd_dbname name;
    wire_db_t wire;
};

static constexpr db_row_t db_rows[] = {
    { CONFD_CANDIDATE, WIRE_DB_CANDIDATE },
    { CONFD_RUNNING, WIRE_DB_RUNNING },
    { CONFD_STARTUP, WIRE_DB_STARTUP },
    { CONFD_OPERATIONAL, WIRE_DB_OPERATIONAL },
    { CONFD_PRE_COMMIT_RUNNING, WIRE_DB_PRE_COMMIT_RUNNING },
};

bool confd_put_db(wire_writer_t *request, enum confd_dbname db)
{
    for (const db_row_t &row : db_rows)
        if (row.name == db) {
            request->u8(row.wire);
            return true;
        }
    (void)confd_fail(CONFD_ERR_NOEXISTS, "the agent keeps no datastore %d", db);
    return false;
}

enum confd_dbname confd_db_of_wire(uint8_t db)
{
    for (const db_row_t &row : db_rows)
        if (row.wire == db)
            return row.name;
    return CONFD_NO_DB;
}
