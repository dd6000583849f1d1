#include "common/dll.h"

#include "common/tip_assert.h"

void dll_add_tail(dll_t *p_dll, dll_node_t *p_newnode)
{
    tip_assert_text(p_newnode->p_next == nullptr && p_newnode->p_prev == nullptr,
                    "p_newnode->p_next == NULL && p_newnode->p_prev == NULL");
    if (p_dll->p_tail != nullptr) {
        tip_assert(p_dll->count > 0);
        p_newnode->p_prev = p_dll->p_tail;
        p_dll->p_tail->p_next = p_newnode;
    } else {
        tip_assert(p_dll->count == 0);
        p_dll->p_head = p_newnode;
    }
    p_dll->p_tail = p_newnode;
    p_dll->count++;
}

void dll_remove(dll_t *p_dll, dll_node_t *p_node)
{
    tip_assert(p_dll->count > 0);
    (p_node->p_prev != nullptr ? p_node->p_prev->p_next : p_dll->p_head) = p_node->p_next;
    (p_node->p_next != nullptr ? p_node->p_next->p_prev : p_dll->p_tail) = p_node->p_prev;
    p_dll->count--;
    *p_node = {};
}
