// Intrusive balanced tree: every keyed table of the system.
//
// The user's record carries one avl_node_t for each tree that it can be in; the tree allocates nothing and owns
// nothing. All operations take and give records, as plain pointers, and null stands for none. A record is 8-byte
// aligned and must not move, nor change its key other than through avl_update, while it is in a tree.
//
// There are no locks and no error results: a violated precondition ends the process. No operation recurses.
#ifndef COMMON_AVL_H
#define COMMON_AVL_H

#include <cstddef>
#include <cstdint>

struct avl_node_t {
    avl_node_t *avl_child[2]; // 0 smaller, 1 larger
    uintptr_t avl_pcb;        // bits 0-1 balance + 1, bit 2 the child slot of the parent, above them the parent
};

// Compares a searched-for record with one in the tree: exactly -1, 0 or 1, anything else is fatal.
using avl_compar_t = int (*)(const void *key, const void *record);

struct avl_tree_t {
    avl_node_t *avl_root;
    avl_compar_t compar;
    size_t avl_offset; // of the avl_node_t in the record
    uint32_t avl_numnodes;
    size_t avl_size; // of the record
};

// Where a new record belongs: the parent node with the child slot in the low bit. 0 and 1 mean the root of an empty
// tree. Valid until the tree changes.
using avl_index_t = uintptr_t;

enum avl_direction_t {
    AVL_BEFORE = 0,
    AVL_AFTER = 1,
};

// The callback of avl_foreach; anything but 0 stops the walk.
using avl_visit_t = int (*)(void *record, void *word1, void *word2);

// Sets up an empty tree of records of the given size, with their node at offset, a multiple of 8.
void avl_create(avl_tree_t *tree, avl_compar_t compar, size_t size, size_t offset);

// The last thing done to a tree, which must be empty.
void avl_destroy(avl_tree_t *tree);

[[nodiscard]] uint32_t avl_numnodes(const avl_tree_t *tree);
[[nodiscard]] bool avl_is_empty(const avl_tree_t *tree);

[[nodiscard]] void *avl_first(const avl_tree_t *tree);
[[nodiscard]] void *avl_last(const avl_tree_t *tree);

// The neighbour in order, null past the end and for a null record.
[[nodiscard]] void *avl_walk(const avl_tree_t *tree, const void *record, int direction);

// The record equal to key. Writes where, unless it is null: 0 on a hit, else the place for avl_insert or avl_nearest.
[[nodiscard]] void *avl_find(const avl_tree_t *tree, const void *key, avl_index_t *where);

// The smallest record strictly greater than key.
[[nodiscard]] void *avl_find_next(const avl_tree_t *tree, const void *key);

// The smallest record not less than key; where as for avl_find.
[[nodiscard]] void *avl_find_or_next(const avl_tree_t *tree, const void *key, avl_index_t *where);

// The record next to a place where avl_find missed, on the side given.
[[nodiscard]] void *avl_nearest(const avl_tree_t *tree, avl_index_t where, int direction);

// Adds a record at a place where avl_find missed it.
void avl_insert(avl_tree_t *tree, void *new_data, avl_index_t where);

// Adds a record directly before or after another; that it belongs there is the caller's word.
void avl_insert_here(avl_tree_t *tree, void *new_data, void *here, int direction);

// Adds a record; one that is equal to a present one is fatal.
void avl_add(avl_tree_t *tree, void *new_data);

// Takes a record out, without freeing it. Its node is stale afterwards.
void avl_remove(avl_tree_t *tree, void *record);

// Puts a record whose key was changed in place where it belongs now: 1 when it had to move, else 0. A new key equal to
// another record's is the caller's fault and may be fatal.
int avl_update(avl_tree_t *tree, void *record);

// Empties a tree without rebalancing. *cookie starts at 0; each call gives one record, which the caller may free, until
// null. Nothing else may be done with the tree meanwhile.
[[nodiscard]] void *avl_destroy_nodes(avl_tree_t *tree, uintptr_t *cookie);

// Calls visit with each record in ascending or descending order and returns its first nonzero result, else 0. The
// callback may remove and free the record that it is called with, but not the next one.
int avl_foreach(const avl_tree_t *tree, avl_visit_t visit, void *word1, void *word2);
int avl_foreach_reverse(const avl_tree_t *tree, avl_visit_t visit, void *word1, void *word2);

// A tree as a range of records, in ascending order: for (cfgmgr_if_t &port : avl_range<cfgmgr_if_t>(&table)). The body
// may remove and free the record in hand, but not the next one.
template <typename T> struct avl_range {
    struct iterator {
        const avl_tree_t *tree;
        T *current;
        T *next;

        T &operator*() const { return *current; }
        T *operator->() const { return current; }
        iterator &operator++()
        {
            current = next;
            next = static_cast<T *>(avl_walk(tree, next, AVL_AFTER));
            return *this;
        }
        bool operator==(const iterator &other) const { return current == other.current; }
    };

    explicit avl_range(const avl_tree_t *of) : tree(of) {}

    [[nodiscard]] iterator begin() const
    {
        T *first = static_cast<T *>(avl_first(tree));
        return { tree, first, static_cast<T *>(avl_walk(tree, first, AVL_AFTER)) };
    }
    [[nodiscard]] iterator end() const { return { tree, nullptr, nullptr }; }

    const avl_tree_t *tree;
};

#endif
