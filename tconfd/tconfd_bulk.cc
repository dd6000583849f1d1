// Bulk delivery: one walk of a row's whole modification array per bulk list, guided by the schema. It hands over one
// instance of the list at a time, however deep it lies, with all of its keys.
//
// The array is a flat sequence of begin, end and value entries; the walk keeps the schema node of the entry at hand.
// Levels are the lists from the target outwards: level 0 is the target list itself. While the walk is inside the n
// outermost lists, `level` stands n steps in from the outermost, and `key` likewise in the sequence of key nodes.

#include "tconfd/tconfd_internal.h"

#include "common/tip_assert.h"

#include <algorithm>
#include <memory>

namespace
{

constexpr int MAX_KEYS = 16;
constexpr int MAX_VALUES = 128;
constexpr int MAX_LEVELS = 16;

// Work area of one bulk list.
struct bulk_walk_t {
    const tconfd_bulk_list *list;
    const confd_cs_node *levels[MAX_LEVELS]; // list nodes, from the target outwards
    int level_keys[MAX_LEVELS];              // key counts of them
    int num_levels;
    const confd_cs_node *key_nodes[MAX_KEYS]; // last key of the target first, outwards
    confd_value_t key_values[MAX_KEYS];       // in the order of key_nodes
    int num_keys;
    confd_tag_value_t values[MAX_VALUES]; // of the instance at hand, shallow copies
    int num_values;
    bool deleted; // the instance at hand
    int level;    // the list to be entered next: levels[level - 1]; num_levels when outside all
    int key;      // the key that comes next: key_nodes[key - 1]; num_keys when none was met
};

bool is_list(const confd_cs_node *node)
{
    return (node->info.flags & CS_NODE_IS_LIST) != 0;
}

const confd_cs_node *nearest_list(const confd_cs_node *node)
{
    while (node != nullptr && !is_list(node))
        node = node->parent;
    return node;
}

int count_keys(const confd_cs_node *list)
{
    int n = 0;
    while (list->info.keys != nullptr && list->info.keys[n] != 0)
        n++;
    return n;
}

// Appends a list as the next level outwards. False when a fixed limit is reached.
bool add_level(bulk_walk_t *walk, const confd_cs_node *list)
{
    int keys = count_keys(list);
    if (walk->num_levels == MAX_LEVELS || walk->num_keys + keys > MAX_KEYS)
        return false;
    walk->levels[walk->num_levels] = list;
    walk->level_keys[walk->num_levels] = keys;
    walk->num_levels++;
    for (int i = keys - 1; i >= 0; i--)
        walk->key_nodes[walk->num_keys++] = confd_find_cs_node_child(list, { list->info.keys[i], 0 });
    return true;
}

bool prepare(bulk_walk_t *walk, const tconfd_bulk_list *list)
{
    walk->list = list;
    const confd_cs_node *target = confd_cs_node_cd(nullptr, "/%s", list->path);
    if (target == nullptr) {
        tconfd_log("List %s not found", list->path);
        return false;
    }
    for (const confd_cs_node *node = target; node != nullptr; node = node->parent) {
        if (is_list(node) && !add_level(walk, node)) {
            tconfd_log("List %s has too many levels or keys", list->path);
            return false;
        }
    }
    walk->level = walk->num_levels;
    walk->key = walk->num_keys;
    return true;
}

// Hands over the instance that is complete. False when the handler failed.
bool hand_over(tconfd_sub *row, bulk_walk_t *walk)
{
    int result = 0;
    if (walk->num_values > 0 || walk->deleted) {
        confd_value_t keys[MAX_KEYS];
        std::reverse_copy(walk->key_values, walk->key_values + walk->num_keys, keys);
        result = walk->list->handler(row, walk->deleted ? 1 : 0, static_cast<uint8_t>(walk->num_keys), keys,
                                     static_cast<uint16_t>(walk->num_values), walk->values);
        if (result != 0) {
            row->flags |= TCONFD_SUB_FAILED;
            tconfd_log("Config callback failed (%s - %d) : %s", tconfd_name(), result, walk->list->path);
        } else {
            row->flags &= static_cast<uint8_t>(~TCONFD_SUB_FAILED);
        }
    }
    walk->num_values = 0;
    walk->deleted = false;
    return result == 0;
}

void enter_list(bulk_walk_t *walk, const confd_cs_node *node)
{
    if (walk->level > 0 && walk->levels[walk->level - 1] == node)
        walk->level--;
}

// The walk leaves an instance of a list: its keys are forgotten with it.
void leave_list(bulk_walk_t *walk, const confd_cs_node *node)
{
    if (walk->level < walk->num_levels && walk->levels[walk->level] == node) {
        walk->key += walk->level_keys[walk->level];
        walk->level++;
    }
}

bool take_key(bulk_walk_t *walk, const confd_cs_node *node, const confd_value_t &value)
{
    if (walk->key == 0 || walk->key_nodes[walk->key - 1] != node)
        return false;
    walk->key--;
    walk->key_values[walk->key] = value;
    return true;
}

void take_value(bulk_walk_t *walk, const confd_tag_value_t &entry)
{
    tip_assert(walk->num_values < MAX_VALUES);
    walk->values[walk->num_values++] = entry;
}

bool is_begin(confd_vtype type)
{
    return type == C_XMLBEGIN || type == C_XMLBEGINDEL;
}

bool repeats(const confd_tag_value_t *values, int i, int n)
{
    return i + 1 < n && values[i + 1].v.type == values[i].v.type && values[i + 1].tag.tag == values[i].tag.tag;
}

// The schema node of an entry: a child of the innermost open bracket, or a sibling of the root.
const confd_cs_node *find_node(const std::vector<const confd_cs_node *> &open, const confd_cs_node *root, xml_tag tag)
{
    if (!open.empty())
        return confd_find_cs_node_child(open.back(), tag);
    if (tag.tag == root->tag)
        return root;
    return root->parent != nullptr ? confd_find_cs_node_child(root->parent, tag) : nullptr;
}

// The walk of one array for one list. open holds the schema nodes of the brackets that are open, outermost first.
int walk_array(tconfd_sub *row, bulk_walk_t *walk, const confd_cs_node *root, const confd_tag_value_t *values, int n)
{
    const confd_cs_node *target = walk->levels[0];
    std::vector<const confd_cs_node *> open;
    for (int i = 0; i < n; i++) {
        const confd_tag_value_t &entry = values[i];
        confd_vtype type = entry.v.type;
        if (type == C_XMLEND) {
            if (open.empty())
                break;
            const confd_cs_node *node = open.back();
            open.pop_back();
            if (node == target && !hand_over(row, walk))
                return -1;
            if (node != target && nearest_list(node) == target)
                take_value(walk, entry);
            leave_list(walk, node);
            continue;
        }
        const confd_cs_node *node = find_node(open, root, entry.tag);
        if (node == nullptr)
            break;
        if (!is_begin(type)) {
            if (!take_key(walk, node, entry.v) && nearest_list(node) == target)
                take_value(walk, entry);
            continue;
        }
        open.push_back(node);
        if (repeats(values, i, n))
            i++; // a list and its instance are announced by two entries
        if (is_list(node))
            enter_list(walk, node);
        if (node == target)
            walk->deleted = type == C_XMLBEGINDEL;
        else if (nearest_list(node) == target)
            take_value(walk, entry);
    }
    return 0;
}

// The schema node of the first entry: the row's own node, one below it, or one at the top.
const confd_cs_node *find_root(const confd_cs_node *top, xml_tag first)
{
    if (top->tag == first.tag)
        return top;
    const confd_cs_node *child = confd_find_cs_node_child(top, first);
    if (child != nullptr)
        return child;
    const char *name = confd_hash2str(first.tag);
    return name != nullptr ? confd_cs_node_cd(nullptr, "/%s", name) : nullptr;
}

struct bulk_modifications {
    confd_tag_value_t *values = nullptr;
    int n = 0;
    bulk_modifications() = default;
    bulk_modifications(const bulk_modifications &) = delete;
    bulk_modifications &operator=(const bulk_modifications &) = delete;
    ~bulk_modifications() { tconfd_free_modifications(n, values); }
};

} // namespace

int tconfd_sub_diff_bulk_read(tconfd_delivery *delivery)
{
    tconfd_sub *row = delivery->row;
    bulk_modifications mods;
    int result = cdb_get_modifications(row->ctx->subscr_fd, delivery->point, CDB_GET_MODS_INCLUDE_LISTS, &mods.values,
                                       &mods.n, nullptr);
    if (result != CONFD_OK) {
        tconfd_log("Failed to get bulk modifications(%s - %d) : %s :%s (%d) : %s", tconfd_name(), result, row->path,
                   confd_strerror(confd_errno), confd_errno, confd_lasterr());
        return -1;
    }
    tconfd_trace("Bulk read: %s (%d)", row->path, mods.n);
    if (mods.n == 0) {
        tconfd_log("Received zero bulk read modifications (%s)", row->path);
        return 0;
    }
    const confd_cs_node *top = confd_cs_node_cd(nullptr, "/%s", row->path);
    if (top == nullptr) {
        tconfd_log("Top list node not found (%s)", row->path);
        return -1;
    }
    auto lists = static_cast<size_t>(row->flags & TCONFD_SUB_BULK_COUNT);
    auto walks = std::make_unique<bulk_walk_t[]>(lists);
    for (size_t i = 0; i < lists; i++) {
        if (!prepare(&walks[i], &row->bulk_lists[i]))
            return -1;
    }
    const confd_cs_node *root = find_root(top, mods.values[0].tag);
    if (root == nullptr) {
        const char *name = confd_hash2str(mods.values[0].tag.tag);
        tconfd_log("List %s not found", name != nullptr ? name : "");
        return 0;
    }
    for (size_t i = 0; i < lists; i++) {
        if (walk_array(row, &walks[i], root, mods.values, mods.n) != 0)
            return -1;
    }
    return 0;
}
