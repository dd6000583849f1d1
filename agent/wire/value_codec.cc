// Values in a payload. The items of a type are the members of its record in their order; a boolean is one byte, a
// list or an object identifier has a u32 count in front, bytes are one text item.
//
// Text leaves as C_BUF whichever of the two text types it has, so that a reader has one kind of text to free.
#include "agent/wire/value_codec.h"
#include "agent/wire/value_layout.h"

#include <cstdlib>
#include <cstring>

static constexpr uint32_t MAX_LIST = 1u << 20; // values of one list
static constexpr uint32_t MAX_ARCS = 128;      // of an object identifier, as SMIv2 (RFC 2578) has it

static void put_datetime(wire_writer_t &out, const confd_datetime &t)
{
    out.u16(static_cast<uint16_t>(t.year));
    for (uint8_t part : { t.month, t.day, t.hour, t.min, t.sec })
        out.u8(part);
    out.u32(t.micro);
    out.u8(static_cast<uint8_t>(t.timezone));
    out.u8(static_cast<uint8_t>(t.timezone_minutes));
}

static confd_datetime get_datetime(wire_reader_t &in)
{
    confd_datetime t = {};
    t.year = static_cast<int16_t>(in.u16());
    for (uint8_t *part : { &t.month, &t.day, &t.hour, &t.min, &t.sec })
        *part = in.u8();
    t.micro = in.u32();
    t.timezone = static_cast<int8_t>(in.u8());
    t.timezone_minutes = static_cast<int8_t>(in.u8());
    return t;
}

static void put_list(wire_writer_t &out, const confd_list &list, int depth)
{
    out.u32(list.size);
    for (unsigned i = 0; i < list.size; i++)
        wire_put_nested_value(out, list.ptr[i], depth - 1);
}

static void put_oid(wire_writer_t &out, const confd_oid &oid)
{
    out.u32(static_cast<uint32_t>(oid.len));
    out.put(oid.oid, static_cast<size_t>(oid.len) * sizeof(uint32_t));
}

static void put_text(wire_writer_t &out, const confd_value_t &value)
{
    out.u8(C_BUF);
    out.text(value.val.s);
}

// What a reader would refuse, for its type or its nesting, goes out as no value.
void wire_put_nested_value(wire_writer_t &out, const confd_value_t &value, int depth)
{
    wire_type_t type = wire_type_of(value.type);
    bool is_nested = type.layout == WIRE_LAYOUT_LIST || type.layout == WIRE_LAYOUT_OBJECTREF;
    if (type.layout == WIRE_LAYOUT_NONE || (is_nested && depth == 0))
        return out.u8(C_NOEXISTS);
    if (type.layout == WIRE_LAYOUT_TEXT)
        return put_text(out, value);

    out.u8(static_cast<uint8_t>(value.type));
    switch (type.layout) {
    case WIRE_LAYOUT_PLAIN:
        return out.put(&value.val, type.size);
    case WIRE_LAYOUT_BYTES:
        return out.text({ reinterpret_cast<const char *>(value.val.buf.ptr), value.val.buf.size });
    case WIRE_LAYOUT_BOOL:
        return out.u8(value.val.boolean != 0);
    case WIRE_LAYOUT_DATETIME:
        return put_datetime(out, value.val.datetime);
    case WIRE_LAYOUT_DECIMAL64:
        out.u64(static_cast<uint64_t>(value.val.d64.value));
        return out.u8(value.val.d64.fraction_digits);
    case WIRE_LAYOUT_IPV4PREFIX:
        out.put(&value.val.ipv4prefix.ip, sizeof(in_addr));
        return out.u8(value.val.ipv4prefix.len);
    case WIRE_LAYOUT_IPV6PREFIX:
        out.put(&value.val.ipv6prefix.ip6, sizeof(in6_addr));
        return out.u8(value.val.ipv6prefix.len);
    case WIRE_LAYOUT_LIST:
        return put_list(out, value.val.list, depth);
    case WIRE_LAYOUT_OBJECTREF:
        return wire_put_nested_keypath(out, *value.val.hkp, depth - 1);
    case WIRE_LAYOUT_OID:
        return put_oid(out, *value.val.oidp);
    default:
        return;
    }
}

static void get_bytes(wire_reader_t &in, confd_value_t &value)
{
    std::string_view bytes = in.text();
    auto *copy = in.ok ? static_cast<unsigned char *>(malloc(bytes.size() + 1)) : nullptr;
    if (copy == nullptr) {
        in.ok = false;
        return;
    }
    memcpy(copy, bytes.data(), bytes.size());
    copy[bytes.size()] = 0;
    value.val.buf = { copy, static_cast<unsigned>(bytes.size()) };
}

static void get_plain(wire_reader_t &in, confd_value_t &value, size_t size)
{
    std::string_view bytes = in.raw(size);
    if (in.ok)
        memcpy(&value.val, bytes.data(), size);
}

static void get_list(wire_reader_t &in, confd_value_t &value, wire_budget_t &budget)
{
    uint32_t size = in.count(1);
    if (!in.ok || size > MAX_LIST || budget.depth == 0) {
        in.ok = false;
        return;
    }
    auto *values = static_cast<confd_value_t *>(calloc(size + size_t{ 1 }, sizeof(confd_value_t)));
    if (values == nullptr) {
        in.ok = false;
        return;
    }
    value.val.list = { values, 0 };
    budget.depth--;
    while (in.ok && value.val.list.size < size)
        values[value.val.list.size++] = wire_get_nested_value(in, budget);
    budget.depth++;
    if (!in.ok)
        wire_free_value(value);
}

static void get_objectref(wire_reader_t &in, confd_value_t &value, wire_budget_t &budget)
{
    if (!in.ok || budget.depth == 0 || budget.objectrefs == 0) {
        in.ok = false;
        return;
    }
    budget.objectrefs--;
    auto *path = static_cast<confd_hkeypath_t *>(calloc(1, sizeof(confd_hkeypath_t)));
    if (path == nullptr) {
        in.ok = false;
        return;
    }
    budget.depth--;
    bool ok = wire_get_nested_keypath(in, *path, budget);
    budget.depth++;
    if (!ok)
        free(path);
    value.val.hkp = path;
}

static void get_oid(wire_reader_t &in, confd_value_t &value)
{
    uint32_t len = in.count(sizeof(uint32_t));
    std::string_view bytes = in.raw(len * sizeof(uint32_t));
    auto *oid = in.ok && len <= MAX_ARCS ? static_cast<confd_oid *>(malloc(sizeof(confd_oid))) : nullptr;
    auto *arcs = oid != nullptr ? static_cast<uint32_t *>(malloc(bytes.size() + 1)) : nullptr;
    if (arcs == nullptr) {
        free(oid);
        in.ok = false;
        return;
    }
    memcpy(arcs, bytes.data(), bytes.size());
    *oid = { arcs, static_cast<int>(len) };
    value.val.oidp = oid;
}

static void get_decimal64(wire_reader_t &in, confd_value_t &value)
{
    value.val.d64.value = static_cast<int64_t>(in.u64());
    value.val.d64.fraction_digits = in.u8();
}

static void get_ipv4_prefix(wire_reader_t &in, confd_value_t &value)
{
    get_plain(in, value, sizeof(in_addr));
    value.val.ipv4prefix.len = in.u8();
    in.ok = in.ok && value.val.ipv4prefix.len <= 32;
}

static void get_ipv6_prefix(wire_reader_t &in, confd_value_t &value)
{
    get_plain(in, value, sizeof(in6_addr));
    value.val.ipv6prefix.len = in.u8();
    in.ok = in.ok && value.val.ipv6prefix.len <= 128;
}

static void get_content(wire_reader_t &in, confd_value_t &value, wire_type_t type, wire_budget_t &budget)
{
    switch (type.layout) {
    case WIRE_LAYOUT_EMPTY:
        return;
    case WIRE_LAYOUT_PLAIN:
        return get_plain(in, value, type.size);
    case WIRE_LAYOUT_TEXT:
        value.type = C_BUF;
        return get_bytes(in, value);
    case WIRE_LAYOUT_BYTES:
        return get_bytes(in, value);
    case WIRE_LAYOUT_BOOL:
        value.val.boolean = in.u8() != 0;
        return;
    case WIRE_LAYOUT_DATETIME:
        value.val.datetime = get_datetime(in);
        return;
    case WIRE_LAYOUT_DECIMAL64:
        return get_decimal64(in, value);
    case WIRE_LAYOUT_IPV4PREFIX:
        return get_ipv4_prefix(in, value);
    case WIRE_LAYOUT_IPV6PREFIX:
        return get_ipv6_prefix(in, value);
    case WIRE_LAYOUT_LIST:
        return get_list(in, value, budget);
    case WIRE_LAYOUT_OBJECTREF:
        return get_objectref(in, value, budget);
    case WIRE_LAYOUT_OID:
        return get_oid(in, value);
    case WIRE_LAYOUT_NONE:
        in.ok = false;
    }
}

// The functions above leave nothing to free behind when they fail.
confd_value_t wire_get_nested_value(wire_reader_t &in, wire_budget_t &budget)
{
    confd_value_t value = {};
    uint8_t number = in.u8();
    wire_type_t type = wire_type_of(number);
    value.type = type.layout != WIRE_LAYOUT_NONE ? static_cast<confd_vtype>(number) : C_NOEXISTS;
    get_content(in, value, type, budget);
    if (!in.ok) {
        in.left = 0;
        value = {};
        value.type = C_NOEXISTS;
    }
    return value;
}

void wire_put_value(wire_writer_t &out, const confd_value_t &value)
{
    wire_put_nested_value(out, value, wire_budget_t().depth);
}

confd_value_t wire_get_value(wire_reader_t &in)
{
    wire_budget_t budget;
    return wire_get_nested_value(in, budget);
}
