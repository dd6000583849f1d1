// Values of leaves: between the canonical text of YANG, libyang's own form and the client library's confd_value_t.
//
// A value_t owns a value of one leaf or leaf-list node's type, checked against the type. confd_value_t made here point
// into the value that they are made of and live as long as it does.
#ifndef AGENT_SERVER_VALUE_H
#define AGENT_SERVER_VALUE_H

#include "agent/server/ds_error.h"
#include "agent/server/schema.h"
#include "agent/wire/wire.h"

#include <span>
#include <string>
#include <string_view>
#include <vector>

struct value_t {
    value_t() = default;
    value_t(const ly_ctx *ctx, const lyd_value &original); // a copy
    value_t(const value_t &other);
    value_t(value_t &&other) noexcept;
    value_t &operator=(value_t other) noexcept;
    ~value_t();

    [[nodiscard]] bool is_set() const { return raw.realtype != nullptr; }

    const ly_ctx *ctx = nullptr;
    lyd_value raw{};
};

// Canonical text, valid as long as the value.
[[nodiscard]] std::string_view value_text(const value_t &value);

// Checks text against the type of a leaf or leaf-list. The error names the node's path (as given), the value and the
// rule.
[[nodiscard]] bool value_from_text(const schema_info_t &node, std::string_view text, std::string_view path,
                                   value_t &value, ds_error_t &error);

// As above, from a client's value, whose type has to be the node's (C_STR, C_BUF and C_OID are one; a union takes any).
[[nodiscard]] bool value_from_confd(const schema_t &schema, const schema_info_t &node, const confd_value_t &from,
                                    std::string_view path, value_t &value, ds_error_t &error);

// A client's value of which no node is known: enumerations and bits as numbers, what has no text by its type's name.
[[nodiscard]] std::string value_text_without_type(const schema_t &schema, const confd_value_t &from);

// The client library's form: see value_type for the kinds.
[[nodiscard]] confd_value_t value_to_confd(const value_t &value);
[[nodiscard]] confd_value_t value_to_confd(const ly_ctx *ctx, const lyd_value &value);

// The confd_vtype of a type's values: C_NOEXISTS for a union, the target's for a leafref.
[[nodiscard]] uint8_t value_type(const lysc_type *type);

// Order of keys: numbers by number, addresses by their bytes, enumerations and bits by number, the rest by the bytes of
// the canonical text; members of a union by member first. Both values are of one node's type. <0, 0, >0.
[[nodiscard]] int value_compare(const ly_ctx *ctx, const lyd_value &a, const lyd_value &b);

// u8 count and the values.
void value_put_keys(wire_writer_t &out, std::span<const value_t> keys);

#endif
