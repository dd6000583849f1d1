// Edits as they were asked for: made in a log, taken from a diff, kept in the journal.
#include "agent/server/store.h"

bool wish_apply(edit_log_t &log, wish_t &wish, ds_error_t &error)
{
    edit_ground_t ground;
    bool is_good = false;
    switch (wish.kind) {
    case WISH_SET:
        is_good = edit_set(log, wish.path, wish.values[0], ground, error);
        break;
    case WISH_SET_LIST:
        is_good = edit_set_list(log, wish.path, wish.values, ground, error);
        break;
    case WISH_CREATE:
        is_good = edit_create(log, wish.path, ground, error);
        break;
    case WISH_DELETE:
        is_good = edit_delete(log, wish.path, error);
        break;
    case WISH_MOVE:
        is_good = edit_move(log, wish.path, wish.where, wish.values, error);
        break;
    }
    wish.ground = ground;
    return is_good;
}

static void add_deletions(const diff_node_t &node, std::vector<wish_t> &wishes)
{
    for (const auto &child : node.children) {
        if (child->op == WIRE_MOP_DELETED)
            wishes.push_back({ WISH_DELETE, diff_path(*child) });
        else if (child->op == WIRE_MOP_MODIFIED || child->op == WIRE_MOP_MOVED_AFTER)
            add_deletions(*child, wishes);
    }
}

// In the order that the entries are to have: each is put behind one that is in its place already.
static void add_moves(const diff_node_t &node, std::vector<wish_t> &wishes)
{
    for (const auto &child : node.children) {
        if (!child->is_placed)
            continue;
        wish_t wish = { WISH_MOVE, diff_path(*child), child->place };
        wish.where = child->place.empty() ? WIRE_MOVE_FIRST : WIRE_MOVE_AFTER;
        wishes.push_back(std::move(wish));
    }
}

static void add_additions(const diff_node_t &node, std::vector<wish_t> &wishes)
{
    for (const auto &child : node.children) {
        const schema_info_t &info = *child->schema;
        if (info.is(WIRE_NODE_KEY) || child->op == WIRE_MOP_DELETED)
            continue;
        if (info.is(WIRE_NODE_LEAF | WIRE_NODE_LEAF_LIST))
            wishes.push_back(
                { info.is(WIRE_NODE_LEAF) ? WISH_SET : WISH_SET_LIST, diff_path(*child), child->new_values });
        else if (child->op == WIRE_MOP_CREATED)
            wishes.push_back({ WISH_CREATE, diff_path(*child) });
        add_additions(*child, wishes);
    }
    add_moves(node, wishes);
}

// Deletions first: what is set in one case of a choice drives out the others by itself.
std::vector<wish_t> wishes_of(const diff_t &diff)
{
    std::vector<wish_t> wishes;
    add_deletions(diff.root, wishes);
    add_additions(diff.root, wishes);
    return wishes;
}

std::string wishes_record(const std::vector<wish_t> &wishes)
{
    wire_writer_t out;
    out.u32(static_cast<uint32_t>(wishes.size()));
    for (const wish_t &wish : wishes) {
        out.u8(wish.kind);
        out.text(path_text(wish.path));
        out.u32(static_cast<uint32_t>(wish.values.size()));
        for (const value_t &value : wish.values)
            out.text(value_text(value));
    }
    return out.bytes;
}

static const schema_info_t &value_node(const wish_t &wish, size_t i)
{
    const schema_info_t &info = *wish.path.node();
    return wish.kind == WISH_MOVE && info.is(WIRE_NODE_LIST) ? *info.keys[i] : info;
}

// How many values has a wish of this kind?
static bool has_values(const wish_t &wish, uint32_t count)
{
    size_t keys = wish.path.steps.back().keys.size();
    if (wish.kind == WISH_MOVE)
        return wish.path.node()->is_user_ordered && keys > 0 && (count == 0 || count == keys);
    return wish.kind != WISH_SET || count == 1;
}

static bool read_wish(const schema_t &schema, wire_reader_t &in, wish_t &wish, ds_error_t &error)
{
    uint8_t kind = in.u8();
    std::string_view path = in.text();
    uint32_t count = in.count(sizeof(uint32_t));
    if (!in.ok || kind > WISH_MOVE || !path_parse(schema, path, PATH_SUBTREE, wish.path, error) || !wish.path.node())
        return false;
    wish.kind = static_cast<wish_kind_t>(kind);
    if (!has_values(wish, count))
        return false;
    wish.where = count == 0 ? WIRE_MOVE_FIRST : WIRE_MOVE_AFTER;
    wish.values.resize(count);
    for (size_t i = 0; i < count; i++)
        if (!value_from_text(value_node(wish, i), in.text(), path, wish.values[i], error))
            return false;
    return in.ok;
}

bool wishes_replay(edit_log_t &log, const schema_t &schema, std::string_view record, ds_error_t &error)
{
    wire_reader_t in(record);
    uint32_t count = in.count(2 * sizeof(uint32_t));
    for (uint32_t i = 0; i < count; i++) {
        wish_t wish{};
        if (!read_wish(schema, in, wish, error) || !wish_apply(log, wish, error))
            return false;
    }
    return in.finished();
}
