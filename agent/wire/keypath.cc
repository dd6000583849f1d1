// Keypaths in a payload: outermost element first, where the record has the innermost first.
#include "agent/wire/value_codec.h"

enum element_kind_t : uint8_t {
    ELEMENT_TAG = 0,
    ELEMENT_KEYS = 1
};

// u8 kind and the least that follows it.
static constexpr size_t MIN_ELEMENT = 2;

static uint8_t count_keys(const confd_value_t *keys)
{
    uint8_t n = 0;
    while (n < MAXKEYLEN && keys[n].type != C_NOEXISTS)
        n++;
    return n;
}

static void put_element(wire_writer_t &out, const confd_value_t *element, int depth)
{
    if (element[0].type == C_XMLTAG) {
        out.u8(ELEMENT_TAG);
        out.u32(element[0].val.xmltag.tag);
        out.u32(element[0].val.xmltag.ns);
        return;
    }
    uint8_t n = count_keys(element);
    out.u8(ELEMENT_KEYS);
    out.u8(n);
    for (uint8_t i = 0; i < n; i++)
        wire_put_nested_value(out, element[i], depth);
}

void wire_put_nested_keypath(wire_writer_t &out, const confd_hkeypath_t &path, int depth)
{
    out.u32(static_cast<uint32_t>(path.len));
    for (int i = path.len - 1; i >= 0; i--)
        put_element(out, path.v[i], depth);
}

static bool get_tag(wire_reader_t &in, confd_value_t *element)
{
    element[0].type = C_XMLTAG;
    element[0].val.xmltag.tag = in.u32();
    element[0].val.xmltag.ns = in.u32();
    return in.ok;
}

// A key is a value, and not one that would make the element look like a tag or end the row early.
static bool get_keys(wire_reader_t &in, confd_value_t *element, wire_budget_t &budget)
{
    uint8_t n = in.u8();
    if (!in.ok || n > MAXKEYLEN)
        return false;
    for (uint8_t i = 0; i < n; i++) {
        element[i] = wire_get_nested_value(in, budget);
        if (!in.ok || element[i].type == C_NOEXISTS || (i == 0 && element[i].type == C_XMLTAG))
            return false;
    }
    if (n < MAXKEYLEN)
        element[n].type = C_NOEXISTS;
    return true;
}

static bool get_element(wire_reader_t &in, confd_value_t *element, wire_budget_t &budget)
{
    switch (in.u8()) {
    case ELEMENT_TAG:
        return get_tag(in, element);
    case ELEMENT_KEYS:
        return get_keys(in, element, budget);
    default:
        return false;
    }
}

bool wire_get_nested_keypath(wire_reader_t &in, confd_hkeypath_t &path, wire_budget_t &budget)
{
    path = {};
    uint32_t count = in.count(MIN_ELEMENT);
    if (in.ok && count <= MAXDEPTH) {
        path.len = static_cast<int>(count);
        int i = path.len - 1;
        while (i >= 0 && get_element(in, path.v[i], budget))
            i--;
        if (in.ok && i < 0)
            return true;
    }
    wire_free_keypath(path);
    in.ok = false;
    in.left = 0;
    return false;
}

void wire_put_keypath(wire_writer_t &out, const confd_hkeypath_t &path)
{
    wire_put_nested_keypath(out, path, wire_budget_t().depth);
}

bool wire_get_keypath(wire_reader_t &in, confd_hkeypath_t &path)
{
    wire_budget_t budget;
    return wire_get_nested_keypath(in, path, budget);
}

void wire_free_keypath(confd_hkeypath_t &path)
{
    for (int i = 0; i < path.len; i++)
        for (confd_value_t &value : path.v[i])
            wire_free_value(value);
    path.len = 0;
}
