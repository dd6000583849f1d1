#include "common/avl.h"

#include "common/tip_assert.h"

#include <utility>

namespace
{

constexpr int avl_balance2child[] = { 0, 0, 1 }; // by balance + 1
constexpr int avl_child2balance[] = { -1, 1 };   // by child

constexpr uintptr_t BALANCE_BITS = 3;
constexpr uintptr_t CHILD_BIT = 4;
constexpr unsigned CHILD_SHIFT = 2;
constexpr uintptr_t LOW_BITS = BALANCE_BITS | CHILD_BIT;
constexpr uintptr_t COOKIE_DONE = 1; // a place under no parent

// Constness is the view of the caller; the node belongs to the tree.
avl_node_t *node_of(const avl_tree_t *tree, const void *record)
{
    return reinterpret_cast<avl_node_t *>(static_cast<char *>(const_cast<void *>(record)) + tree->avl_offset);
}

void *record_of(const avl_tree_t *tree, avl_node_t *node)
{
    return node != nullptr ? reinterpret_cast<char *>(node) - tree->avl_offset : nullptr;
}

// The node in a word that carries flags in its low bits.
avl_node_t *untag(uintptr_t word)
{
    return reinterpret_cast<avl_node_t *>(word & ~LOW_BITS); // NOLINT(performance-no-int-to-ptr)
}

avl_node_t *parent_of(const avl_node_t *node)
{
    return untag(node->avl_pcb);
}

int child_of(const avl_node_t *node)
{
    return static_cast<int>(node->avl_pcb >> CHILD_SHIFT & 1);
}

int balance_of(const avl_node_t *node)
{
    return static_cast<int>(node->avl_pcb & BALANCE_BITS) - 1;
}

void set_balance(avl_node_t *node, int balance)
{
    node->avl_pcb = (node->avl_pcb & ~BALANCE_BITS) | static_cast<uintptr_t>(balance + 1);
}

void set_parent(avl_node_t *node, avl_node_t *parent, int child)
{
    node->avl_pcb = reinterpret_cast<uintptr_t>(parent) | static_cast<uintptr_t>(child) << CHILD_SHIFT |
                    (node->avl_pcb & BALANCE_BITS);
}

avl_index_t make_place(avl_node_t *parent, int child)
{
    return reinterpret_cast<uintptr_t>(parent) | static_cast<uintptr_t>(child);
}

avl_node_t *place_parent(avl_index_t place)
{
    return untag(place);
}

int place_child(avl_index_t place)
{
    return static_cast<int>(place & 1);
}

int compare(const avl_tree_t *tree, const void *key, avl_node_t *node)
{
    int diff = tree->compar(key, record_of(tree, node));
    tip_assert(-1 <= diff && diff <= 1);
    return diff;
}

// Follows one side to its end; null for null.
avl_node_t *outermost(avl_node_t *node, int child)
{
    if (node == nullptr)
        return nullptr;
    while (node->avl_child[child] != nullptr)
        node = node->avl_child[child];
    return node;
}

// Down into the wanted side and then all the way back, or up until arriving from the other side.
avl_node_t *neighbour(avl_node_t *node, int direction)
{
    if (node->avl_child[direction] != nullptr)
        return outermost(node->avl_child[direction], 1 - direction);
    while (node != nullptr && child_of(node) == direction)
        node = parent_of(node); // a root counts as child 0
    return node != nullptr ? parent_of(node) : nullptr;
}

// What holds the node: the slot of its parent, or the root.
avl_node_t *&slot_of(avl_tree_t *tree, const avl_node_t *node)
{
    avl_node_t *parent = parent_of(node);
    return parent != nullptr ? parent->avl_child[child_of(node)] : tree->avl_root;
}

// Hangs a subtree, which may be null, under a node.
void hang(avl_node_t *parent, int child, avl_node_t *subtree)
{
    parent->avl_child[child] = subtree;
    if (subtree != nullptr)
        set_parent(subtree, parent, child);
}

// Puts a subtree, which may be null, in the place of a node.
void replace(avl_tree_t *tree, const avl_node_t *node, avl_node_t *subtree)
{
    slot_of(tree, node) = subtree;
    if (subtree != nullptr)
        set_parent(subtree, parent_of(node), child_of(node));
}

// The taller child leans inwards: its inner child comes up between the two and hands each one of its subtrees.
bool rotate_twice(avl_tree_t *tree, avl_node_t *node, int side)
{
    int lean = avl_child2balance[side];
    avl_node_t *child = node->avl_child[side];
    avl_node_t *grandchild = child->avl_child[1 - side];
    int inner_lean = balance_of(grandchild);
    replace(tree, node, grandchild);
    hang(child, 1 - side, grandchild->avl_child[side]);
    hang(node, side, grandchild->avl_child[1 - side]);
    hang(grandchild, side, child);
    hang(grandchild, 1 - side, node);
    set_balance(child, inner_lean == -lean ? lean : 0);
    set_balance(node, inner_lean == lean ? -lean : 0);
    set_balance(grandchild, 0);
    return true;
}

// Restores a node that is two levels taller on one side. True when the subtree got shorter by it; false, which happens
// on removal only, when it is as tall as before.
bool avl_rotation(avl_tree_t *tree, avl_node_t *node, int side)
{
    int lean = avl_child2balance[side];
    avl_node_t *child = node->avl_child[side];
    int child_balance = balance_of(child);
    if (child_balance == -lean)
        return rotate_twice(tree, node, side);
    replace(tree, node, child);
    hang(node, side, child->avl_child[1 - side]);
    hang(child, 1 - side, node);
    set_balance(child, child_balance - lean);
    set_balance(node, lean - child_balance);
    return child_balance != 0;
}

// A subtree under a node has grown by one level.
void climb_after_insert(avl_tree_t *tree, avl_node_t *node, int child)
{
    while (node != nullptr) {
        int old_balance = balance_of(node);
        int new_balance = old_balance + avl_child2balance[child];
        if (new_balance == 0) {
            set_balance(node, 0);
            return;
        }
        if (old_balance != 0) {
            (void)avl_rotation(tree, node, child); // after an insertion the height is always as before
            return;
        }
        set_balance(node, new_balance);
        child = child_of(node);
        node = parent_of(node);
    }
}

// A subtree under a node has lost one level.
void climb_after_remove(avl_tree_t *tree, avl_node_t *node, int child)
{
    while (node != nullptr) {
        avl_node_t *parent = parent_of(node);
        int slot = child_of(node);
        int old_balance = balance_of(node);
        int new_balance = old_balance - avl_child2balance[child];
        if (old_balance == 0) {
            set_balance(node, new_balance);
            return;
        }
        if (new_balance == 0)
            set_balance(node, 0);
        else if (!avl_rotation(tree, node, 1 - child))
            return;
        child = slot;
        node = parent;
    }
}

// Exchanges the places of a node with two children and of its neighbour on the taller side, which has at most one.
void swap_with_neighbour(avl_tree_t *tree, avl_node_t *node)
{
    int side = avl_balance2child[balance_of(node) + 1];
    avl_node_t *other = neighbour(node, side);
    bool is_own_child = parent_of(other) == node;
    slot_of(tree, node) = other;
    if (!is_own_child)
        slot_of(tree, other) = node;
    std::swap(*node, *other);
    if (is_own_child)
        other->avl_child[side] = node; // the swap made it point at itself
    for (int child = 0; child < 2; child++) {
        hang(node, child, node->avl_child[child]);
        hang(other, child, other->avl_child[child]);
    }
}

int walk_all(const avl_tree_t *tree, avl_visit_t visit, void *word1, void *word2, int direction)
{
    if (visit == nullptr)
        return 0;
    avl_node_t *next = nullptr;
    for (avl_node_t *node = outermost(tree->avl_root, 1 - direction); node != nullptr; node = next) {
        next = neighbour(node, direction);
        if (int result = visit(record_of(tree, node), word1, word2); result != 0)
            return result;
    }
    return 0;
}

// The leaf that a post-order walk of a subtree gives first, reached by its leftmost node.
avl_node_t *first_leaf(avl_node_t *subtree)
{
    avl_node_t *node = outermost(subtree, 0);
    if (node->avl_child[1] == nullptr) {
        tip_assert_text(balance_of(node) <= 0, "((int)(((node)->avl_pcb & 3) - 1)) <= 0");
        return node;
    }
    tip_assert_text(balance_of(node) == 1, "((int)(((node)->avl_pcb & 3) - 1)) == 1");
    node = node->avl_child[1];
    tip_assert_text(node->avl_child[0] == nullptr && node->avl_child[1] == nullptr,
                    "node->avl_child[0] == ((void *)0) && node->avl_child[1] == ((void *)0)");
    return node;
}

// Drops the root, the last node there is.
void finish_destroy(avl_tree_t *tree)
{
    if (tree->avl_root == nullptr)
        return;
    tip_assert(tree->avl_numnodes == 1);
    tree->avl_root = nullptr;
    tree->avl_numnodes = 0;
}

} // namespace

void avl_create(avl_tree_t *tree, avl_compar_t compar, size_t size, size_t offset)
{
    tip_assert(tree);
    tip_assert(compar);
    tip_assert(size > 0);
    tip_assert_text(size >= offset + sizeof(avl_node_t), "size >= offset + sizeof (avl_node_t)");
    tip_assert((offset & 0x7) == 0);
    *tree = { nullptr, compar, offset, 0, size };
}

void avl_destroy(avl_tree_t *tree)
{
    tip_assert(tree);
    tip_assert(tree->avl_numnodes == 0);
    tip_assert_text(tree->avl_root == nullptr, "tree->avl_root == ((void *)0)");
}

uint32_t avl_numnodes(const avl_tree_t *tree)
{
    return tree->avl_numnodes;
}

bool avl_is_empty(const avl_tree_t *tree)
{
    return tree->avl_numnodes == 0;
}

void *avl_first(const avl_tree_t *tree)
{
    return record_of(tree, outermost(tree->avl_root, 0));
}

void *avl_last(const avl_tree_t *tree)
{
    return record_of(tree, outermost(tree->avl_root, 1));
}

void *avl_walk(const avl_tree_t *tree, const void *record, int direction)
{
    if (record == nullptr)
        return nullptr;
    return record_of(tree, neighbour(node_of(tree, record), direction));
}

void *avl_find(const avl_tree_t *tree, const void *key, avl_index_t *where)
{
    avl_node_t *parent = nullptr;
    int child = 0;
    for (avl_node_t *node = tree->avl_root; node != nullptr; node = node->avl_child[child]) {
        int diff = compare(tree, key, node);
        if (diff == 0) {
            if (where != nullptr)
                *where = 0;
            return record_of(tree, node);
        }
        parent = node;
        child = diff > 0; // without a branch to mispredict or a table to load
    }
    if (where != nullptr)
        *where = make_place(parent, child);
    return nullptr;
}

void *avl_find_next(const avl_tree_t *tree, const void *key)
{
    avl_node_t *greater = nullptr;
    for (avl_node_t *node = tree->avl_root; node != nullptr;) {
        int diff = compare(tree, key, node);
        if (diff == 0)
            return record_of(tree, neighbour(node, 1));
        if (diff < 0)
            greater = node;
        node = node->avl_child[diff > 0];
    }
    return record_of(tree, greater);
}

void *avl_find_or_next(const avl_tree_t *tree, const void *key, avl_index_t *where)
{
    void *record = avl_find(tree, key, where);
    return record != nullptr ? record : avl_find_next(tree, key);
}

void *avl_nearest(const avl_tree_t *tree, avl_index_t where, int direction)
{
    avl_node_t *parent = place_parent(where);
    if (parent == nullptr) {
        tip_assert_text(tree->avl_root == nullptr, "tree->avl_root == ((void *)0)");
        return nullptr;
    }
    return record_of(tree, place_child(where) == direction ? neighbour(parent, direction) : parent);
}

void avl_insert(avl_tree_t *tree, void *new_data, avl_index_t where)
{
    tip_assert(tree);
    tip_assert(((uintptr_t)new_data & 0x7) == 0);
    avl_node_t *node = node_of(tree, new_data);
    avl_node_t *parent = place_parent(where);
    int which_child = place_child(where);
    tree->avl_numnodes++;
    *node = { { nullptr, nullptr }, 0 };
    set_balance(node, 0);
    if (parent == nullptr) {
        tip_assert_text(tree->avl_root == nullptr, "tree->avl_root == ((void *)0)");
        tree->avl_root = node;
        return;
    }
    tip_assert_text(parent->avl_child[which_child] == nullptr, "parent->avl_child[which_child] == ((void *)0)");
    hang(parent, which_child, node);
    climb_after_insert(tree, parent, which_child);
}

void avl_insert_here(avl_tree_t *tree, void *new_data, void *here, int direction)
{
    tip_assert(tree);
    tip_assert(new_data);
    tip_assert(here);
    tip_assert(direction == 0 || direction == 1);
    avl_node_t *node = node_of(tree, here);
    if (node->avl_child[direction] == nullptr)
        avl_insert(tree, new_data, make_place(node, direction));
    else
        avl_insert(tree, new_data, make_place(neighbour(node, direction), 1 - direction));
}

void avl_add(avl_tree_t *tree, void *new_data)
{
    avl_index_t where = 0;
    bool is_present = avl_find(tree, new_data, &where) != nullptr;
    tip_assert_text(!is_present, "0");
    avl_insert(tree, new_data, where);
}

void avl_remove(avl_tree_t *tree, void *record)
{
    tip_assert(tree);
    avl_node_t *node = node_of(tree, record);
    if (node->avl_child[0] != nullptr && node->avl_child[1] != nullptr)
        swap_with_neighbour(tree, node);
    tip_assert(tree->avl_numnodes > 0);
    tree->avl_numnodes--;
    replace(tree, node, node->avl_child[0] != nullptr ? node->avl_child[0] : node->avl_child[1]);
    climb_after_remove(tree, parent_of(node), child_of(node));
}

int avl_update(avl_tree_t *tree, void *record)
{
    avl_node_t *node = node_of(tree, record);
    avl_node_t *previous = neighbour(node, 0);
    avl_node_t *next = neighbour(node, 1);
    bool is_in_order = (previous == nullptr || compare(tree, record, previous) >= 0) &&
                       (next == nullptr || compare(tree, record, next) <= 0);
    if (is_in_order)
        return 0;
    avl_remove(tree, record);
    avl_add(tree, record);
    return 1;
}

// The cookie is the place of the record given last: its parent and slot. The tree is walked in post-order, so a slot
// is only ever cleared above nodes that are gone.
void *avl_destroy_nodes(avl_tree_t *tree, uintptr_t *cookie)
{
    avl_node_t *node = nullptr;
    if (*cookie == 0) {
        node = tree->avl_root != nullptr ? first_leaf(tree->avl_root) : nullptr;
        if (node == nullptr) {
            *cookie = COOKIE_DONE;
            return nullptr;
        }
    } else {
        avl_node_t *parent = place_parent(*cookie);
        int child = place_child(*cookie);
        if (parent == nullptr) {
            finish_destroy(tree);
            return nullptr;
        }
        parent->avl_child[child] = nullptr;
        tip_assert(tree->avl_numnodes > 1);
        tree->avl_numnodes--;
        node = child == 1 || parent->avl_child[1] == nullptr ? parent : first_leaf(parent->avl_child[1]);
    }
    tip_assert_text(parent_of(node) != nullptr || node == tree->avl_root, "node == tree->avl_root");
    *cookie = parent_of(node) != nullptr ? make_place(parent_of(node), child_of(node)) : COOKIE_DONE;
    return record_of(tree, node);
}

int avl_foreach(const avl_tree_t *tree, avl_visit_t visit, void *word1, void *word2)
{
    return walk_all(tree, visit, word1, word2, 1);
}

int avl_foreach_reverse(const avl_tree_t *tree, avl_visit_t visit, void *word1, void *word2)
{
    return walk_all(tree, visit, word1, word2, 0);
}
