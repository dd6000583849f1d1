// Memory and comparison of values: free, copy, equal.
#include "agent/wire/value_layout.h"
#include "agent/wire/wire.h"

#include <cstdlib>
#include <cstring>

static constexpr size_t NUM_TYPES = C_XMLBEGINDEL + 1;

struct type_row_t {
    confd_vtype type;
    wire_type_t layout;
};

static constexpr type_row_t type_rows[] = {
    { C_NOEXISTS, { WIRE_LAYOUT_EMPTY, 0 } },
    { C_XMLTAG, { WIRE_LAYOUT_PLAIN, 8 } },
    { C_STR, { WIRE_LAYOUT_TEXT, 0 } },
    { C_BUF, { WIRE_LAYOUT_BYTES, 0 } },
    { C_UINT8, { WIRE_LAYOUT_PLAIN, 1 } },
    { C_UINT16, { WIRE_LAYOUT_PLAIN, 2 } },
    { C_UINT32, { WIRE_LAYOUT_PLAIN, 4 } },
    { C_UINT64, { WIRE_LAYOUT_PLAIN, 8 } },
    { C_INT8, { WIRE_LAYOUT_PLAIN, 1 } },
    { C_INT16, { WIRE_LAYOUT_PLAIN, 2 } },
    { C_INT32, { WIRE_LAYOUT_PLAIN, 4 } },
    { C_INT64, { WIRE_LAYOUT_PLAIN, 8 } },
    { C_DOUBLE, { WIRE_LAYOUT_PLAIN, 8 } },
    { C_IPV4, { WIRE_LAYOUT_PLAIN, 4 } },
    { C_IPV6, { WIRE_LAYOUT_PLAIN, 16 } },
    { C_BOOL, { WIRE_LAYOUT_BOOL, 0 } },
    { C_QNAME, { WIRE_LAYOUT_BYTES, 0 } },
    { C_DATETIME, { WIRE_LAYOUT_DATETIME, 0 } },
    { C_ENUM_VALUE, { WIRE_LAYOUT_PLAIN, 4 } },
    { C_BIT32, { WIRE_LAYOUT_PLAIN, 4 } },
    { C_BIT64, { WIRE_LAYOUT_PLAIN, 8 } },
    { C_DECIMAL64, { WIRE_LAYOUT_DECIMAL64, 0 } },
    { C_IDENTITYREF, { WIRE_LAYOUT_PLAIN, 8 } },
    { C_IPV4PREFIX, { WIRE_LAYOUT_IPV4PREFIX, 0 } },
    { C_IPV6PREFIX, { WIRE_LAYOUT_IPV6PREFIX, 0 } },
    { C_LIST, { WIRE_LAYOUT_LIST, 0 } },
    { C_XMLBEGIN, { WIRE_LAYOUT_PLAIN, 8 } },
    { C_XMLEND, { WIRE_LAYOUT_PLAIN, 8 } },
    { C_OBJECTREF, { WIRE_LAYOUT_OBJECTREF, 0 } },
    { C_OID, { WIRE_LAYOUT_OID, 0 } },
    { C_BINARY, { WIRE_LAYOUT_BYTES, 0 } },
    { C_DEFAULT, { WIRE_LAYOUT_EMPTY, 0 } },
    { C_XMLBEGINDEL, { WIRE_LAYOUT_PLAIN, 8 } },
};

struct type_index_t {
    wire_type_t types[NUM_TYPES] = {};
};

static constexpr type_index_t make_type_index()
{
    type_index_t index;
    for (const type_row_t &row : type_rows)
        index.types[row.type] = row.layout;
    return index;
}

static constexpr type_index_t type_index = make_type_index();

wire_type_t wire_type_of(int type)
{
    if (type < 0 || static_cast<size_t>(type) >= NUM_TYPES)
        return { WIRE_LAYOUT_NONE, 0 };
    return type_index.types[type];
}

static void free_list(confd_list &list)
{
    for (unsigned i = 0; i < list.size; i++)
        wire_free_value(list.ptr[i]);
    free(list.ptr);
}

static void free_objectref(confd_hkeypath_t *path)
{
    if (path != nullptr)
        wire_free_keypath(*path);
    free(path);
}

static void free_oid(confd_oid *oid)
{
    if (oid != nullptr)
        free(oid->oid);
    free(oid);
}

void wire_free_value(confd_value_t &value)
{
    switch (wire_type_of(value.type).layout) {
    case WIRE_LAYOUT_TEXT:
        free(const_cast<char *>(value.val.s));
        break;
    case WIRE_LAYOUT_BYTES:
        free(value.val.buf.ptr);
        break;
    case WIRE_LAYOUT_LIST:
        free_list(value.val.list);
        break;
    case WIRE_LAYOUT_OBJECTREF:
        free_objectref(value.val.hkp);
        break;
    case WIRE_LAYOUT_OID:
        free_oid(value.val.oidp);
        break;
    default:
        break;
    }
    value.type = C_NOEXISTS; // so that a second free does no harm
}

static unsigned char *copy_bytes(const void *bytes, size_t size)
{
    auto *copy = static_cast<unsigned char *>(malloc(size + 1));
    if (copy == nullptr)
        return nullptr;
    if (size > 0)
        memcpy(copy, bytes, size);
    copy[size] = 0;
    return copy;
}

static bool copy_list(const confd_list &from, confd_list &to)
{
    auto *values = static_cast<confd_value_t *>(calloc(from.size + size_t{ 1 }, sizeof(confd_value_t)));
    if (values == nullptr)
        return false;
    for (unsigned i = 0; i < from.size; i++)
        values[i] = wire_copy_value(from.ptr[i]);
    to = { values, from.size };
    return true;
}

static bool copy_objectref(const confd_hkeypath_t *from, confd_hkeypath_t *&to)
{
    auto *path = static_cast<confd_hkeypath_t *>(calloc(1, sizeof(confd_hkeypath_t)));
    if (path == nullptr)
        return false;
    path->len = from->len;
    for (int i = 0; i < from->len && i < MAXDEPTH; i++)
        for (int k = 0; k < MAXKEYLEN; k++)
            path->v[i][k] = wire_copy_value(from->v[i][k]);
    to = path;
    return true;
}

static bool copy_oid(const confd_oid *from, confd_oid *&to)
{
    auto *oid = static_cast<confd_oid *>(calloc(1, sizeof(confd_oid)));
    size_t size = static_cast<size_t>(from->len) * sizeof(uint32_t);
    void *arcs = copy_bytes(from->oid, size);
    if (oid == nullptr || arcs == nullptr) {
        free(oid);
        free(arcs);
        return false;
    }
    *oid = { static_cast<uint32_t *>(arcs), from->len };
    to = oid;
    return true;
}

confd_value_t wire_copy_value(const confd_value_t &value)
{
    confd_value_t copy = value;
    bool ok = true;
    switch (wire_type_of(value.type).layout) {
    case WIRE_LAYOUT_NONE:
        ok = false;
        break;
    case WIRE_LAYOUT_TEXT:
        copy.val.s = strdup(value.val.s);
        ok = copy.val.s != nullptr;
        break;
    case WIRE_LAYOUT_BYTES:
        copy.val.buf.ptr = copy_bytes(value.val.buf.ptr, value.val.buf.size);
        ok = copy.val.buf.ptr != nullptr;
        break;
    case WIRE_LAYOUT_LIST:
        ok = copy_list(value.val.list, copy.val.list);
        break;
    case WIRE_LAYOUT_OBJECTREF:
        ok = copy_objectref(value.val.hkp, copy.val.hkp);
        break;
    case WIRE_LAYOUT_OID:
        ok = copy_oid(value.val.oidp, copy.val.oidp);
        break;
    default:
        break;
    }
    if (!ok)
        copy.type = C_NOEXISTS;
    return copy;
}

// The text of a C_STR or C_BUF value.
static bool get_text(const confd_value_t &value, std::string_view &text)
{
    if (value.type == C_STR)
        text = value.val.s;
    else if (value.type == C_BUF)
        text = { reinterpret_cast<const char *>(value.val.buf.ptr), value.val.buf.size };
    else
        return false;
    return true;
}

static bool equal_lists(const confd_list &a, const confd_list &b)
{
    if (a.size != b.size)
        return false;
    for (unsigned i = 0; i < a.size; i++)
        if (!wire_equal_values(a.ptr[i], b.ptr[i]))
            return false;
    return true;
}

static bool equal_elements(const confd_value_t *a, const confd_value_t *b)
{
    for (int i = 0; i < MAXKEYLEN; i++) {
        if (!wire_equal_values(a[i], b[i]))
            return false;
        if (a[i].type == C_NOEXISTS || a[0].type == C_XMLTAG)
            return true;
    }
    return true;
}

static bool equal_keypaths(const confd_hkeypath_t &a, const confd_hkeypath_t &b)
{
    if (a.len != b.len)
        return false;
    for (int i = 0; i < a.len && i < MAXDEPTH; i++)
        if (!equal_elements(a.v[i], b.v[i]))
            return false;
    return true;
}

static bool equal_datetimes(const confd_datetime &a, const confd_datetime &b)
{
    return a.year == b.year && a.month == b.month && a.day == b.day && a.hour == b.hour && a.min == b.min &&
           a.sec == b.sec && a.micro == b.micro && a.timezone == b.timezone && a.timezone_minutes == b.timezone_minutes;
}

static bool equal_oids(const confd_oid &a, const confd_oid &b)
{
    return a.len == b.len && memcmp(a.oid, b.oid, static_cast<size_t>(a.len) * sizeof(uint32_t)) == 0;
}

static bool equal_bytes(const confd_buf &a, const confd_buf &b)
{
    return a.size == b.size && (a.size == 0 || memcmp(a.ptr, b.ptr, a.size) == 0);
}

bool wire_equal_values(const confd_value_t &a, const confd_value_t &b)
{
    std::string_view text_a, text_b;
    if (get_text(a, text_a) && get_text(b, text_b))
        return text_a == text_b;
    if (a.type != b.type)
        return false;
    wire_type_t type = wire_type_of(a.type);
    switch (type.layout) {
    case WIRE_LAYOUT_EMPTY:
        return true;
    case WIRE_LAYOUT_PLAIN:
        return a.type == C_DOUBLE ? a.val.d == b.val.d : memcmp(&a.val, &b.val, type.size) == 0;
    case WIRE_LAYOUT_BYTES:
        return equal_bytes(a.val.buf, b.val.buf);
    case WIRE_LAYOUT_BOOL:
        return (a.val.boolean != 0) == (b.val.boolean != 0);
    case WIRE_LAYOUT_DATETIME:
        return equal_datetimes(a.val.datetime, b.val.datetime);
    case WIRE_LAYOUT_DECIMAL64:
        return a.val.d64.value == b.val.d64.value && a.val.d64.fraction_digits == b.val.d64.fraction_digits;
    case WIRE_LAYOUT_IPV4PREFIX:
        return memcmp(&a.val.ipv4prefix, &b.val.ipv4prefix, 5) == 0;
    case WIRE_LAYOUT_IPV6PREFIX:
        return memcmp(&a.val.ipv6prefix, &b.val.ipv6prefix, 17) == 0;
    case WIRE_LAYOUT_LIST:
        return equal_lists(a.val.list, b.val.list);
    case WIRE_LAYOUT_OBJECTREF:
        return equal_keypaths(*a.val.hkp, *b.val.hkp);
    case WIRE_LAYOUT_OID:
        return equal_oids(*a.val.oidp, *b.val.oidp);
    case WIRE_LAYOUT_TEXT:
    case WIRE_LAYOUT_NONE:
        return false;
    }
    return false;
}
