// The traversal of a walk. See walk.h.
#include "agent/server/connection.h"
#include "agent/server/server.h"
#include "agent/server/store.h"
#include "agent/server/walk.h"

#include <algorithm>
#include <libyang/libyang.h>

static constexpr size_t PAGE_BYTES = 64 << 10;
static constexpr size_t PAGE_STEPS = 20000; // of a page that finds little to tell; the client asks on

static bool is_oper(const walk_t &walk)
{
    return walk.th == 0;
}

// ---- items

static std::string item_name(const schema_info_t &node)
{
    bool is_foreign = !node.parent || node.parent->node->module != node.node->module;
    return is_foreign ? std::string(node.node->module->name) + ":" + node.name() : node.name();
}

static wire_writer_t &put_item(walk_t &walk, wire_walk_item_t kind)
{
    walk.bytes += walk.items.empty() ? 0 : walk.items.back().bytes.size();
    walk.items.emplace_back().u8(kind);
    return walk.items.back();
}

static void tell_frame(walk_t &walk, walk_frame_t &frame)
{
    frame.is_told = true;
    bool is_entry = frame.node->is(WIRE_NODE_LIST);
    wire_writer_t &item = put_item(walk, is_entry ? WIRE_WALK_ENTRY : WIRE_WALK_CONTAINER);
    item.text(item_name(*frame.node));
    if (!is_entry)
        return;
    item.u8(static_cast<uint8_t>(frame.keys.size()));
    for (const value_t &key : frame.keys)
        item.text(value_text(key));
}

// The instances around what is about to be told.
static void tell_above(walk_t &walk)
{
    for (walk_frame_t &frame : walk.frames)
        if (frame.has_item && !frame.is_told)
            tell_frame(walk, frame);
}

static void tell_leaf(walk_t &walk, const schema_info_t &node, std::string_view text)
{
    tell_above(walk);
    wire_writer_t &item = put_item(walk, WIRE_WALK_LEAF);
    item.text(item_name(node));
    item.text(text);
}

static void tell_leaf_list(walk_t &walk, const schema_info_t &node, const std::vector<std::string_view> &texts)
{
    if (texts.empty())
        return;
    tell_above(walk);
    wire_writer_t &item = put_item(walk, WIRE_WALK_LEAF_LIST);
    item.text(item_name(node));
    item.u32(static_cast<uint32_t>(texts.size()));
    for (std::string_view text : texts)
        item.text(text);
}

static void tell_values(walk_t &walk, const schema_info_t &node, const std::vector<value_t> &values)
{
    std::vector<std::string_view> texts;
    for (const value_t &value : values)
        texts.push_back(value_text(value));
    if (node.is(WIRE_NODE_LEAF_LIST))
        tell_leaf_list(walk, node, texts);
    else if (!texts.empty())
        tell_leaf(walk, node, texts[0]);
}

// What a callpoint has not given: the walk's end when it is all that the walk is about, else a note.
static void tell_failure(walk_t &walk, const std::string &callpoint, const provider_answer_t &answer)
{
    const schema_info_t *target = walk.target.node();
    if (target && target->callpoint && *target->callpoint == callpoint) {
        walk.failure = refused(answer.code, answer.text);
        return;
    }
    bool is_unserved = answer.code == CONFD_ERR_UNAVAILABLE;
    if (is_unserved && !walk.unserved.insert(callpoint).second)
        return;
    put_item(walk, WIRE_WALK_NOTE).text(answer.text);
}

// ---- places

// A child of an instance in a stored tree: with keys an entry of a list.
static walk_place_t find_place(tree_t &tree, const walk_place_t &parent, const schema_info_t &node,
                               std::span<const value_t> keys)
{
    if (!parent.is_there)
        return {};
    lyd_node *found = node.is(WIRE_NODE_LIST) ? tree_find_entry(tree, parent.node, node.node, keys)
                                              : tree_find_child(tree, parent.node, node.node);
    return { found != nullptr, found };
}

static bool has_to_be_there(const schema_info_t &node)
{
    return node.is(WIRE_NODE_LIST | WIRE_NODE_PRESENCE);
}

static void bind_instance(datastore_t &store, walk_frame_t &frame, const walk_frame_t &above)
{
    if (frame.object)
        return; // where the agent stores nothing
    frame.config = find_place(store.running, above.config, *frame.node, frame.keys);
    frame.oper = find_place(store.operational, above.oper, *frame.node, frame.keys);
    bool is_there = frame.node->is(WIRE_NODE_CONFIG) ? frame.config.is_there : frame.oper.is_there;
    frame.is_real = above.is_real && (is_there || !has_to_be_there(*frame.node));
}

static void bind_ground(datastore_t &store, const path_t &path, walk_frame_t &ground)
{
    ground.config = ground.oper = { true, nullptr };
    ground.is_real = true;
    for (const path_step_t &step : path.steps) {
        if (step.node->callpoint) // the provider knows
            break;
        walk_frame_t at;
        at.node = step.node;
        at.keys = step.keys;
        bind_instance(store, at, ground);
        ground.config = at.config;
        ground.oper = at.oper;
        ground.is_real = at.is_real;
    }
}

static void bind_frame(datastore_t &store, walk_t &walk, size_t at)
{
    walk_frame_t &frame = walk.frames[at];
    if (frame.is_bound)
        return;
    frame.is_bound = true;
    if (at == 0)
        return bind_ground(store, walk.ground, frame);
    const walk_frame_t &above = walk.frames[at - 1];
    if (!frame.is_list)
        return bind_instance(store, frame, above);
    frame.config = above.config;
    frame.oper = above.oper;
    frame.is_real = above.is_real;
}

// ---- frames

static walk_frame_t &push(walk_t &walk, const schema_info_t &node, std::vector<value_t> keys)
{
    walk.path.steps.push_back({ &node, keys });
    walk_frame_t &frame = walk.frames.emplace_back();
    frame.node = &node;
    frame.keys = std::move(keys);
    frame.has_item = true;
    return frame;
}

static walk_frame_t &push_list(walk_t &walk, const schema_info_t &node)
{
    walk_frame_t &frame = walk.frames.emplace_back();
    frame.node = &node;
    frame.is_list = true;
    return frame;
}

static void pop(walk_t &walk)
{
    const walk_frame_t &frame = walk.frames.back();
    if (frame.is_told)
        (void)put_item(walk, WIRE_WALK_END); // says all
    if (frame.has_item)
        walk.path.steps.pop_back();
    walk.frames.pop_back();
}

static path_t path_of_child(const walk_t &walk, const schema_info_t &node)
{
    path_t path = walk.path;
    path.steps.push_back({ &node, {} });
    return path;
}

// The ground of a walk has the target alone; where that is everything, the root has all top-level nodes.
static const std::vector<const schema_info_t *> &children_of(const walk_t &walk, const walk_frame_t &frame)
{
    return frame.has_item ? frame.node->children : walk.tops;
}

// ---- answers of providers

// Hands an answer to the walk that asked, if it is still there.
static void take_answer(server_t &server, uint64_t connection, uint32_t id, const std::string &callpoint,
                        const provider_answer_t &answer, void (*take)(walk_t &walk, const provider_answer_t &answer))
{
    connection_t *conn = server_find(server, connection);
    if (!conn)
        return;
    auto found = conn->maapi.walks.find(id);
    if (found == conn->maapi.walks.end())
        return;
    walk_ref walk = found->second;
    walk->is_waiting = false;
    if (answer.code != CONFD_ERR_OK && walk->frames.back().cursor)
        pop(*walk); // the rest of a list that failed
    if (answer.code != CONFD_ERR_OK)
        tell_failure(*walk, callpoint, answer);
    else
        take(*walk, answer);
    if (!walk->is_running)
        walk_resume(server, *walk);
}

// What a question is made with. The walk waits from here on, unless the answer is there at once.
static provider_done_t wait(walk_t &walk, const schema_info_t &node,
                            void (*take)(walk_t &walk, const provider_answer_t &answer))
{
    walk.is_waiting = true;
    return [connection = walk.connection, id = walk.id, callpoint = *node.callpoint,
            take](server_t &of, const provider_answer_t &answer) {
        take_answer(of, connection, id, callpoint, answer, take);
    };
}

// The child of the innermost frame that has been asked about.
static const schema_info_t &asked_child(const walk_t &walk)
{
    return *children_of(walk, walk.frames.back())[walk.frames.back().next_child - 1];
}

static void take_value(walk_t &walk, const provider_answer_t &answer)
{
    if (answer.is_found)
        tell_values(walk, asked_child(walk), answer.values);
}

static void push_provided(walk_t &walk, const schema_info_t &node, std::vector<value_t> keys,
                          provider_object_ref object)
{
    walk_frame_t &frame = push(walk, node, std::move(keys));
    frame.object = std::move(object);
    if (has_to_be_there(node))
        tell_above(walk);
}

// Of a container: lists below it may have entries though it has nothing of its own.
static void take_container(walk_t &walk, const provider_answer_t &answer)
{
    const schema_info_t &node = asked_child(walk);
    if (answer.is_found)
        push_provided(walk, node, {}, answer.objects.front());
    else if (!node.is(WIRE_NODE_PRESENCE))
        push_provided(walk, node, {}, std::make_shared<provider_object_t>());
}

static void take_target_entry(walk_t &walk, const provider_answer_t &answer)
{
    if (answer.is_found)
        push_provided(walk, asked_child(walk), walk.target.steps.back().keys, answer.objects.front());
}

// An entry of the innermost frame's list, which had told its keys only.
static void take_entry(walk_t &walk, const provider_answer_t &answer)
{
    if (!answer.is_found)
        return;
    const provider_object_t &object = *answer.objects.front();
    push_provided(walk, *walk.frames.back().node, object.keys, answer.objects.front());
}

static void take_page(walk_t &walk, const provider_answer_t &answer)
{
    std::ranges::copy(answer.objects, std::back_inserter(walk.frames.back().page));
}

// The target's, which lies in the object of something above.
static void take_inner_container(walk_t &walk, const provider_answer_t &answer)
{
    const schema_info_t &node = asked_child(walk);
    bool is_there =
        answer.is_found && (!node.is(WIRE_NODE_PRESENCE) || provider_find_item(*answer.objects.front(), node));
    if (is_there)
        push_provided(walk, node, {}, answer.objects.front());
}

// ---- provided children

static void enter_list(walk_t &walk, const schema_info_t &node)
{
    walk_frame_t &frame = push_list(walk, node);
    frame.cursor = std::make_shared<provider_cursor_t>();
    frame.cursor->list = path_of_child(walk, node);
    frame.cursor->is_kept = false;
}

// Of the same callpoint as the object around it.
static void enter_in_object(walk_t &walk, const schema_info_t &node)
{
    provider_object_ref object = walk.frames.back().object;
    const provider_item_t *item = provider_find_item(*object, node);
    if (node.is(WIRE_NODE_LEAF | WIRE_NODE_LEAF_LIST)) {
        if (item)
            tell_values(walk, node, item->values);
    } else if (item || !node.is(WIRE_NODE_PRESENCE)) {
        push_provided(walk, node, {}, object);
    }
}

static void ask_for_entry(server_t &server, walk_t &walk, const schema_info_t &node)
{
    provider_ask_object(server, walk.daemons, walk.target, false, wait(walk, node, take_target_entry));
}

// What is not in the object around it, if there is one.
static void ask_for_instance(server_t &server, walk_t &walk, const schema_info_t &node)
{
    path_t path = path_of_child(walk, node);
    path_t root = path;
    root.steps.resize(provider_object_steps(path));
    if (node.is(WIRE_NODE_LEAF | WIRE_NODE_LEAF_LIST))
        provider_ask_value(server, walk.daemons, path, wait(walk, node, take_value));
    else if (root.steps.size() < path.steps.size())
        provider_ask_object(server, walk.daemons, root, false, wait(walk, node, take_inner_container));
    else if (node.is(WIRE_NODE_PRESENCE) || provider_has_object(node))
        provider_ask_object(server, walk.daemons, path, false, wait(walk, node, take_container));
    else
        push_provided(walk, node, {}, std::make_shared<provider_object_t>());
}

static bool is_target_with_keys(const walk_t &walk, const schema_info_t &node)
{
    return walk.frames.size() == 1 && walk.target.node() == &node && !walk.target.steps.back().keys.empty();
}

static void enter_provided(server_t &server, walk_t &walk, const schema_info_t &node)
{
    const walk_frame_t &frame = walk.frames.back();
    if (!frame.is_real || walk.unserved.contains(*node.callpoint))
        return;
    bool is_in_object = frame.object && node.parent && node.parent->callpoint == node.callpoint;
    if (node.is(WIRE_NODE_LIST) && is_target_with_keys(walk, node))
        ask_for_entry(server, walk, node);
    else if (node.is(WIRE_NODE_LIST))
        enter_list(walk, node);
    else if (is_in_object)
        enter_in_object(walk, node);
    else
        ask_for_instance(server, walk, node);
}

// ---- stored children

static void enter_stored_leaf(datastore_t &store, walk_t &walk, const schema_info_t &node)
{
    const walk_frame_t &frame = walk.frames.back();
    bool is_config = node.is(WIRE_NODE_CONFIG);
    if (is_config == is_oper(walk))
        return;
    tree_t &tree = is_config ? store.running : store.operational;
    const walk_place_t &place = is_config ? frame.config : frame.oper;
    if (!place.is_there)
        return;
    std::vector<std::string_view> texts;
    tree_for_each(tree, place.node, node, [&](const lyd_node *at) {
        if (walk.with_defaults || !is_default(at))
            texts.push_back(lyd_get_value(at));
    });
    if (node.is(WIRE_NODE_LEAF_LIST))
        tell_leaf_list(walk, node, texts);
    else if (!texts.empty())
        tell_leaf(walk, node, texts[0]);
}

static void enter_stored_instance(datastore_t &store, walk_t &walk, const schema_info_t &node,
                                  const std::vector<value_t> &keys)
{
    walk_frame_t &frame = push(walk, node, keys);
    bind_frame(store, walk, walk.frames.size() - 1);
    bool is_of_itself = has_to_be_there(node) && node.is(WIRE_NODE_CONFIG) != is_oper(walk);
    bool may_have_provided = is_oper(walk) && !is_of_itself && node.has_provided;
    if (!(is_oper(walk) ? frame.oper : frame.config).is_there && !may_have_provided)
        return pop(walk);
    if (is_of_itself) // told empty as it may be
        tell_above(walk);
}

static void enter_stored(datastore_t &store, walk_t &walk, const schema_info_t &node)
{
    if (node.is(WIRE_NODE_LEAF | WIRE_NODE_LEAF_LIST))
        enter_stored_leaf(store, walk, node);
    else if (!node.is(WIRE_NODE_LIST))
        enter_stored_instance(store, walk, node, {});
    else if (is_target_with_keys(walk, node))
        enter_stored_instance(store, walk, node, walk.target.steps.back().keys);
    else
        push_list(walk, node);
}

static bool is_of_interest(const walk_t &walk, const schema_info_t &node)
{
    if (node.is(WIRE_NODE_ACTION | WIRE_NODE_PARAM | WIRE_NODE_NOTIF | WIRE_NODE_KEY))
        return false;
    return is_oper(walk) ? node.has_operational : node.is(WIRE_NODE_CONFIG);
}

// ---- steps

static void step_instance(server_t &server, walk_t &walk)
{
    walk_frame_t &frame = walk.frames.back();
    const auto &children = children_of(walk, frame);
    if (frame.next_child >= children.size())
        return pop(walk);
    const schema_info_t &child = *children[frame.next_child++];
    if (!is_of_interest(walk, child) && &child != walk.target.node())
        return;
    if (is_oper(walk) && child.callpoint)
        enter_provided(server, walk, child);
    else
        enter_stored(*server.store, walk, child);
}

static void step_provided_list(server_t &server, walk_t &walk)
{
    walk_frame_t &frame = walk.frames.back();
    if (frame.page.empty() && frame.cursor->at_end)
        return pop(walk);
    const schema_info_t &node = *frame.node;
    if (frame.page.empty()) {
        provider_cursor_ref cursor = frame.cursor;
        return provider_ask_page(server, walk.daemons, cursor, wait(walk, node, take_page));
    }
    provider_object_ref object = frame.page.front();
    frame.page.pop_front();
    if (object->is_whole)
        return push_provided(walk, node, object->keys, object);
    path_t path = frame.cursor->list;
    path.steps.back().keys = object->keys;
    provider_ask_object(server, walk.daemons, path, true, wait(walk, node, take_entry));
}

// The entry behind the last one, in key order; null at the end.
static lyd_node *next_in_order(tree_t &tree, const walk_place_t &parent, const walk_frame_t &frame)
{
    if (!parent.is_there)
        return nullptr;
    size_t at = frame.position == 0 ? 0 : tree_upper_bound(tree, parent.node, frame.node->node, frame.last);
    const auto &entries = tree_entries(tree, parent.node, frame.node->node);
    return at < entries.size() ? entries[at] : nullptr;
}

// In the list's own order. When the last entry has gone, the one at its position is the next.
static lyd_node *next_in_own_order(tree_t &tree, const walk_place_t &parent, walk_frame_t &frame)
{
    if (!parent.is_there)
        return nullptr;
    const lysc_node *schema = frame.node->node;
    lyd_node *last = nullptr;
    if (frame.position > 0 && !frame.node->keys.empty())
        last = tree_find_entry(tree, parent.node, schema, frame.last);
    lyd_node *at = last ? last->next : tree_find_child(tree, parent.node, schema);
    size_t skipped = frame.node->keys.empty() ? frame.position : frame.position - (frame.position > 0);
    for (size_t i = 0; !last && i < skipped && at && at->schema == schema; i++)
        at = at->next;
    return at && at->schema == schema ? at : nullptr;
}

static lyd_node *next_entry(datastore_t &store, const walk_t &walk, walk_frame_t &frame)
{
    bool is_config = !is_oper(walk);
    tree_t &tree = is_config ? store.running : store.operational;
    const walk_place_t &place = is_config ? frame.config : frame.oper;
    bool is_merged = !is_config && frame.node->is(WIRE_NODE_CONFIG) && frame.node->has_provided;
    if (!is_merged && (frame.node->is_user_ordered || frame.node->keys.empty()))
        return next_in_own_order(tree, place, frame);
    lyd_node *entry = next_in_order(tree, place, frame);
    lyd_node *configured = is_merged ? next_in_order(store.running, frame.config, frame) : nullptr;
    if (!entry || !configured)
        return entry ? entry : configured;
    return tree_compare(configured, entry) < 0 ? configured : entry;
}

static void step_stored_list(datastore_t &store, walk_t &walk)
{
    walk_frame_t &frame = walk.frames.back();
    const lyd_node *entry = next_entry(store, walk, frame);
    if (!entry)
        return pop(walk);
    frame.last = tree_keys(entry);
    frame.position++;
    enter_stored_instance(store, walk, *frame.node, std::vector<value_t>(frame.last));
}

static void step(server_t &server, walk_t &walk)
{
    bind_frame(*server.store, walk, walk.frames.size() - 1);
    if (!walk.frames.back().is_list)
        step_instance(server, walk);
    else if (walk.frames.back().cursor)
        step_provided_list(server, walk);
    else
        step_stored_list(*server.store, walk);
}

void walk_begin(walk_t &walk, const schema_t &schema)
{
    walk.ground = walk.target;
    if (walk.target.node()) {
        walk.ground.steps.pop_back();
        walk.tops = { walk.target.node() };
    }
    for (const schema_module_t &module : schema.modules)
        if (!walk.target.node())
            walk.tops.insert(walk.tops.end(), module.tops.begin(), module.tops.end());
    walk.path = walk.ground;
    walk.frames.emplace_back();
}

void walk_run(server_t &server, walk_t &walk, view_t view)
{
    store_show_view(*server.store, view);
    for (walk_frame_t &frame : walk.frames)
        frame.is_bound = false;
    for (size_t i = 0; i < walk.frames.size(); i++)
        bind_frame(*server.store, walk, i);
    walk.is_running = true;
    walk.steps = 0;
    while (!walk.frames.empty() && !walk.is_waiting && walk.failure.code == CONFD_ERR_OK &&
           walk.items.size() < walk.most && walk.bytes < PAGE_BYTES && walk.steps++ < PAGE_STEPS)
        step(server, walk);
    walk.is_running = false;
}
