// The library's own door to the codec's memory and comparison of values.
#include "agent/client/confd_internal.h"

void confd_free_value(confd_value_t *v)
{
    if (v != nullptr)
        wire_free_value(*v);
}

confd_value_t *confd_value_dup_to(const confd_value_t *v, confd_value_t *out)
{
    *out = wire_copy_value(*v);
    return out->type == v->type ? out : nullptr;
}

int confd_val_eq(const confd_value_t *a, const confd_value_t *b)
{
    return wire_equal_values(*a, *b);
}
