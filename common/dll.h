// Intrusive doubly linked list: the user's record carries the node, the list allocates nothing and owns nothing.
//
// A node off every list has both links null; a zeroed record is therefore ready to be added. Walking is following
// p_next from p_head. Misuse ends the process.
#ifndef COMMON_DLL_H
#define COMMON_DLL_H

#include <cstdint>

struct dll_node_t {
    dll_node_t *p_next = nullptr; // null at the tail
    dll_node_t *p_prev = nullptr; // null at the head
};

struct dll_t {
    dll_node_t *p_head = nullptr;
    dll_node_t *p_tail = nullptr;
    int32_t count = 0;
};

// Appends a node that is on no list. A node that is still linked is fatal; the only member of another list has no
// links and cannot be told from a free one.
void dll_add_tail(dll_t *p_dll, dll_node_t *p_newnode);

// Unlinks a member of this list from any place. The node may be appended again at once. An empty list is fatal.
void dll_remove(dll_t *p_dll, dll_node_t *p_node);

#endif
