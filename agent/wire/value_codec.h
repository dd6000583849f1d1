// The nesting-aware half of the value codec, which keypaths share; for the files of this folder alone.
#ifndef AGENT_WIRE_VALUE_CODEC_H
#define AGENT_WIRE_VALUE_CODEC_H

#include "agent/wire/wire.h"

// What one value read may still use. A keypath record is large beside its bytes on the wire, hence its own limit.
struct wire_budget_t {
    int depth = 4;             // lists and object references within each other
    unsigned objectrefs = 512; // of one value
};

void wire_put_nested_value(wire_writer_t &out, const confd_value_t &value, int depth);
void wire_put_nested_keypath(wire_writer_t &out, const confd_hkeypath_t &path, int depth);
[[nodiscard]] confd_value_t wire_get_nested_value(wire_reader_t &in, wire_budget_t &budget);
[[nodiscard]] bool wire_get_nested_keypath(wire_reader_t &in, confd_hkeypath_t &path, wire_budget_t &budget);

#endif
