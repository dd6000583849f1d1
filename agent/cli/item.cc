// See item.h.
#include "agent/cli/item.h"

#include "agent/wire/crypto.h"

namespace
{

constexpr char COVER[] = "********";

std::string plain_name(const std::string &json_name)
{
    return json_name.substr(json_name.find(':') + 1); // no colon: from 0
}

} // namespace

void item_cover_secret(item_t &item)
{
    if (!item.node || !schema_is_secret(item.node))
        return;
    for (std::string &value : item.values)
        if (!value.empty() && !value.starts_with(WIRE_CRYPTO_MARK))
            value = COVER;
}

const lysc_node *item_tracker_t::find(const std::string &name) const
{
    bool is_lost = above_.size() > 1 && !above_.back();
    return is_lost ? nullptr : schema_find_child(schema_, above_.back(), name);
}

void item_tracker_t::take(item_t &item)
{
    if (item.kind == WIRE_WALK_NOTE)
        return;
    if (item.kind == WIRE_WALK_END) {
        if (above_.size() > 1)
            above_.pop_back();
        return;
    }
    item.node = find(item.name);
    item.name = plain_name(item.name);
    if (item.kind == WIRE_WALK_CONTAINER || item.kind == WIRE_WALK_ENTRY)
        above_.push_back(item.node);
    else
        item_cover_secret(item);
}

std::vector<std::string> item_key_names(const item_t &entry)
{
    std::vector<std::string> names;
    for (const lysc_node *key : schema_keys(entry.node))
        names.emplace_back(key->name);
    names.resize(entry.values.size(), entry.key);
    return names;
}

std::string item_typed_name(const schema_t &schema, const item_t &item)
{
    const lysc_node *first = item.node ? schema_find_child(schema, lysc_data_parent(item.node), item.name) : nullptr;
    return !first || first == item.node ? item.name : std::string(item.node->module->prefix) + ":" + item.name;
}

std::vector<item_t> items_around(const path_t &path)
{
    std::vector<item_t> items;
    for (size_t i = 0; i + 1 < path.steps.size(); i++) {
        const path_step_t &step = path.steps[i];
        wire_walk_item_t kind = schema_is_list(step.node) ? WIRE_WALK_ENTRY : WIRE_WALK_CONTAINER;
        items.push_back({ kind, step.node->name, step.keys, step.node, "" });
    }
    return items;
}
