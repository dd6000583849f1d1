// How the value types lie in a record and in a payload; for the files of this folder alone.
#ifndef AGENT_WIRE_VALUE_LAYOUT_H
#define AGENT_WIRE_VALUE_LAYOUT_H

#include "agent/wire/confd_value.h"

#include <cstddef>

enum wire_layout_t {
    WIRE_LAYOUT_NONE,  // not a type that can be sent
    WIRE_LAYOUT_EMPTY, // the type says all
    WIRE_LAYOUT_PLAIN, // `size` bytes at the start of the union, without padding between them
    WIRE_LAYOUT_TEXT,  // NUL-terminated
    WIRE_LAYOUT_BYTES, // val.buf; a name with its prefix (C_QNAME) is text in this form
    WIRE_LAYOUT_BOOL,
    WIRE_LAYOUT_DATETIME,
    WIRE_LAYOUT_DECIMAL64,
    WIRE_LAYOUT_IPV4PREFIX,
    WIRE_LAYOUT_IPV6PREFIX,
    WIRE_LAYOUT_LIST,
    WIRE_LAYOUT_OBJECTREF,
    WIRE_LAYOUT_OID,
};

struct wire_type_t {
    wire_layout_t layout;
    size_t size; // of a plain one, in bytes
};

// Of any number, unknown types included.
[[nodiscard]] wire_type_t wire_type_of(int type);

#endif
