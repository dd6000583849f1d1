// Schema nodes in a payload.
#include "agent/wire/wire.h"

void wire_put_schema_node(wire_writer_t &out, const wire_schema_node_t &node)
{
    out.text(node.name);
    out.u32(node.tag);
    out.u32(node.ns);
    out.u32(node.parent);
    out.u16(node.flags);
    out.u8(node.type);
    out.u8(static_cast<uint8_t>(node.keys.size()));
    for (uint32_t key : node.keys)
        out.u32(key);
    out.u32(static_cast<uint32_t>(node.names.size()));
    for (const auto &[number, name] : node.names) {
        out.u64(static_cast<uint64_t>(number));
        out.text(name);
    }
}

bool wire_get_schema_node(wire_reader_t &in, wire_schema_node_t &node)
{
    constexpr size_t MIN_NAME = sizeof(uint64_t) + sizeof(uint32_t);
    node.name = in.text();
    node.tag = in.u32();
    node.ns = in.u32();
    node.parent = in.u32();
    node.flags = in.u16();
    node.type = in.u8();
    uint8_t num_keys = in.u8();
    if (num_keys > MAXKEYLEN)
        in.ok = false;
    node.keys.clear();
    for (uint8_t i = 0; in.ok && i < num_keys; i++)
        node.keys.push_back(in.u32());
    uint32_t num_names = in.count(MIN_NAME);
    node.names.clear();
    for (uint32_t i = 0; in.ok && i < num_names; i++) {
        auto number = static_cast<int64_t>(in.u64());
        node.names.emplace_back(number, in.text());
    }
    return in.ok;
}
