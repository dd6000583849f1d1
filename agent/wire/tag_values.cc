// Arrays of tagged values in frames.
#include "agent/wire/wire.h"

static constexpr size_t MIN_TAG_VALUE_SIZE = 9; // tag, ns, type

void wire_put_tag_values(wire_writer_t &out, const confd_tag_value_t *values, size_t count)
{
    out.u32(static_cast<uint32_t>(count));
    for (size_t i = 0; i < count; i++) {
        out.u32(values[i].tag.tag);
        out.u32(values[i].tag.ns);
        wire_put_value(out, values[i].v);
    }
}

std::vector<confd_tag_value_t> wire_get_tag_values(wire_reader_t &in)
{
    std::vector<confd_tag_value_t> values; // grows with what is read: a count is quickly said
    for (uint32_t left = in.count(MIN_TAG_VALUE_SIZE); left > 0 && in.ok; left--) {
        confd_tag_value_t value{};
        value.tag.tag = in.u32();
        value.tag.ns = in.u32();
        value.v = wire_get_value(in);
        if (in.ok)
            values.push_back(value);
    }
    if (!in.ok)
        wire_free_tag_values(values);
    return values;
}

void wire_free_tag_values(std::vector<confd_tag_value_t> &values)
{
    for (confd_tag_value_t &value : values)
        wire_free_value(value.v);
    values.clear();
}
