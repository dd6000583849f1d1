// Intrusive doubly linked list: the user's record carries the node, the list allocates nothing and owns nothing.
//
// A node off every list has both links null; a zeroed record is therefore ready to be added. Walking is following
// p_next from p_head. Misuse ends the process. The operations stand here because timers are linked and unlinked far more
// often than they fire.
#ifndef COMMON_DLL_H
#define COMMON_DLL_H

#include "common/tip_assert.h"

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
inline void dll_add_tail(dll_t *p_dll, dll_node_t *p_newnode)
{
    tip_assert_text_at("dll", __LINE__, p_newnode->p_next == nullptr && p_newnode->p_prev == nullptr,
                       "p_newnode->p_next == NULL && p_newnode->p_prev == NULL");
    if (p_dll->p_tail != nullptr) {
        tip_assert_at("dll", __LINE__, p_dll->count > 0);
        p_newnode->p_prev = p_dll->p_tail;
        p_dll->p_tail->p_next = p_newnode;
    } else {
        tip_assert_at("dll", __LINE__, p_dll->count == 0);
        p_dll->p_head = p_newnode;
    }
    p_dll->p_tail = p_newnode;
    p_dll->count++;
}

// Unlinks a member of this list from any place. The node may be appended again at once. An empty list is fatal.
inline void dll_remove(dll_t *p_dll, dll_node_t *p_node)
{
    tip_assert_at("dll", __LINE__, p_dll->count > 0);
    (p_node->p_prev != nullptr ? p_node->p_prev->p_next : p_dll->p_head) = p_node->p_next;
    (p_node->p_next != nullptr ? p_node->p_next->p_prev : p_dll->p_tail) = p_node->p_prev;
    p_dll->count--;
    *p_node = {};
}

#endif
