#include "agent/server/diff.h"

#include <algorithm>

static bool has_keys(const diff_node_t &node, const path_step_t &step)
{
    if (step.keys.empty() || !node.schema->is(WIRE_NODE_LIST))
        return true;
    return std::ranges::equal(step.keys, node.keys, [](const value_t &a, const value_t &b) {
        return value_compare(a.ctx, a.raw, b.raw) == 0;
    });
}

// Gives visit each changed instance of the point; ends early, with false, when visit gives false. What is below a
// deleted instance is not in the tree, so it is not found.
template <typename Visit>
static bool for_each_instance(const diff_node_t &from, const path_t &point, size_t at, Visit visit)
{
    if (at == point.steps.size())
        return visit(from);
    const path_step_t &step = point.steps[at];
    auto low = std::ranges::partition_point(from.children,
                                            [&](const auto &child) { return child->schema->order < step.node->order; });
    for (; low != from.children.end() && (*low)->schema == step.node; ++low)
        if (has_keys(**low, step) && !for_each_instance(**low, point, at + 1, visit))
            return false;
    return true;
}

bool diff_touches(const diff_t &diff, const path_t &point)
{
    return !for_each_instance(diff.root, point, 0, [](const diff_node_t &) { return false; });
}

std::vector<const diff_node_t *> diff_instances(const diff_t &diff, const path_t &point)
{
    std::vector<const diff_node_t *> instances;
    (void)for_each_instance(diff.root, point, 0, [&](const diff_node_t &node) { // never ends early
        instances.push_back(&node);
        return true;
    });
    return instances;
}

const diff_node_t *diff_find(const diff_t &diff, const path_t &instance)
{
    const diff_node_t *found = nullptr;
    (void)for_each_instance(diff.root, instance, 0, [&](const diff_node_t &node) { // the result is found
        found = &node;
        return false;
    });
    return found;
}

path_t diff_path(const diff_node_t &node)
{
    path_t path;
    for (const diff_node_t *at = &node; at && at->schema; at = at->parent)
        path.steps.push_back({ at->schema, at->keys });
    std::ranges::reverse(path.steps);
    return path;
}

void diff_put_keypath(wire_writer_t &out, const diff_node_t &node)
{
    path_put(out, diff_path(node));
}

// ---- for people

static std::string values_text(const std::vector<value_t> &values)
{
    std::string text;
    for (const value_t &value : values)
        text += (text.empty() ? "" : " ") + std::string(value_text(value));
    return text;
}

static std::string new_text(const diff_node_t &node)
{
    if (node.op != WIRE_MOP_MOVED_AFTER)
        return values_text(node.new_values);
    return node.place.empty() ? "first" : "after " + values_text(node.place);
}

static void add_lines(const diff_node_t &node, const std::string &above, std::vector<diff_line_t> &lines)
{
    for (const auto &child : node.children) {
        if (child->schema->is(WIRE_NODE_KEY))
            continue;
        std::string path = above + path_text({ { { child->schema, child->keys } } });
        if (child->op != WIRE_MOP_MODIFIED)
            lines.push_back({ child->op, path, values_text(child->old_values), new_text(*child) });
        add_lines(*child, path, lines);
    }
}

std::vector<diff_line_t> diff_lines(const diff_t &diff)
{
    std::vector<diff_line_t> lines;
    add_lines(diff.root, "", lines);
    return lines;
}
