#include "agent/server/provider_read.h"

#include "agent/server/provider.h"
#include "agent/server/server.h"

#include <algorithm>

// ---- a request that waits

struct provider_reading_t {
    request_ref_t ref;
    callback_trans_ref trans;
    bool is_own = false; // the transaction: ends with the request
    path_t path;
    bool is_deferred = false;
    bool is_ended = false;
    answer_t answer; // when it ended before it was deferred
    wire_writer_t out;
};
using reading_ref = std::shared_ptr<provider_reading_t>;

static reading_ref begin(const call_t &call, const provider_target_t &target)
{
    auto reading = std::make_shared<provider_reading_t>();
    reading->ref = call.ref;
    reading->is_own = !target.daemons;
    reading->trans = target.daemons ? target.daemons : provider_begin_reading(call.server, call.conn.maapi.who);
    reading->path = target.path;
    return reading;
}

// Once: behind an interrupt, what providers still say has no effect.
static void end(server_t &server, provider_reading_t &reading, answer_t answer)
{
    if (reading.is_ended)
        return;
    reading.is_ended = true;
    reading.answer = std::move(answer);
    if (reading.is_own)
        callback_trans_finish(server, reading.trans);
    if (reading.is_deferred)
        server_answer(server, reading.ref, reading.answer, reading.out.bytes);
}

static void end_missing(server_t &server, provider_reading_t &reading)
{
    end(server, reading, refused(CONFD_ERR_NOEXISTS, path_text(reading.path) + " does not exist"));
}

// How the handler ends: with the answer, or waiting for it.
static answer_t settle(call_t &call, const reading_ref &reading)
{
    if (!reading->is_ended) {
        reading->is_deferred = true;
        call.conn.maapi.reading = reading;
        return deferred();
    }
    call.out = std::move(reading->out);
    return reading->answer;
}

bool provider_interrupt(server_t &server, maapi_session_t &session)
{
    reading_ref reading = session.reading.lock();
    if (!reading || reading->is_ended)
        return false;
    end(server, *reading, refused(CONFD_ERR_ABORTED, "interrupted"));
    return true;
}

// What the provided instance stands in, as far as the agent stores it, is there.
static bool has_ground(const call_t &call, const provider_target_t &target)
{
    path_t ground = target.path;
    while (ground.node() && ground.node()->callpoint)
        ground.steps.pop_back();
    while (ground.node() && !ground.node()->is(WIRE_NODE_LIST | WIRE_NODE_PRESENCE))
        ground.steps.pop_back();
    return read_exists(*call.server.store, target.view, ground);
}

// False when nobody waits any more: the rest of the list need not be asked for.
static bool is_wanted(server_t &server, provider_reading_t &reading)
{
    if (!reading.is_ended && server_find(server, reading.ref.connection))
        return true;
    end(server, reading, {});
    return false;
}

template <class Take> static provider_done_t for_reading(const reading_ref &reading, Take take)
{
    return { take, [reading](server_t &server) {
                return is_wanted(server, *reading);
            } };
}

// ---- values and existence

static bool is_one_of_leaf_list(const path_t &path)
{
    return path.node()->is(WIRE_NODE_LEAF_LIST) && !path.steps.back().keys.empty();
}

// Is the value that the path names among those of the leaf-list?
static bool has_named_value(const path_t &path, const provider_answer_t &told)
{
    return std::ranges::any_of(told.values, [&](const value_t &value) {
        return provider_equal_keys({ &value, 1 }, path.steps.back().keys);
    });
}

static bool is_there(const path_t &path, const provider_answer_t &told)
{
    return told.is_found && (!is_one_of_leaf_list(path) || has_named_value(path, told));
}

static void put_values(wire_writer_t &out, const path_t &path, const std::vector<value_t> &values)
{
    std::vector<confd_value_t> items;
    for (const value_t &value : values)
        items.push_back(value_to_confd(value));
    confd_value_t value{};
    value.type = C_LIST;
    value.val.list = { items.data(), static_cast<unsigned>(items.size()) };
    if (is_one_of_leaf_list(path))
        value = value_to_confd(path.steps.back().keys[0]);
    else if (path.node()->is(WIRE_NODE_LEAF))
        value = items[0];
    if (value.type == C_XMLTAG)
        value.val.xmltag = { path.node()->tag, path.node()->ns };
    wire_put_value(out, value);
}

static void put_tag(wire_writer_t &out, const schema_info_t &node)
{
    confd_value_t value{};
    value.type = C_XMLTAG;
    value.val.xmltag = { node.tag, node.ns };
    wire_put_value(out, value);
}

static void take_value(server_t &server, provider_reading_t &reading, const provider_answer_t &told)
{
    if (told.code != CONFD_ERR_OK)
        return end(server, reading, refused(told.code, told.text));
    if (!is_there(reading.path, told))
        return end_missing(server, reading);
    if (reading.path.node()->is(WIRE_NODE_LEAF | WIRE_NODE_LEAF_LIST))
        put_values(reading.out, reading.path, told.values);
    else
        put_tag(reading.out, *reading.path.node());
    end(server, reading, {});
}

answer_t provider_read_value(call_t &call, const provider_target_t &target)
{
    if (!has_ground(call, target))
        return refused(CONFD_ERR_NOEXISTS, path_text(target.path) + " does not exist");
    reading_ref reading = begin(call, target);
    auto take = [reading](server_t &of, const provider_answer_t &told) {
        take_value(of, *reading, told);
    };
    provider_ask_exists(call.server, reading->trans, target.path, for_reading(reading, take));
    return settle(call, reading);
}

answer_t provider_read_exists(call_t &call, const provider_target_t &target)
{
    if (!has_ground(call, target)) {
        call.out.u8(0);
        return {};
    }
    reading_ref reading = begin(call, target);
    auto take = [reading](server_t &of, const provider_answer_t &told) {
        reading->out.u8(is_there(reading->path, told));
        end(of, *reading, { told.code, told.text });
    };
    provider_ask_exists(call.server, reading->trans, target.path, for_reading(reading, take));
    return settle(call, reading);
}

// ---- entries

static provider_cursor_ref make_cursor(const path_t &list)
{
    auto cursor = std::make_shared<provider_cursor_t>();
    cursor->list = list;
    return cursor;
}

static void count_pages(server_t &server, const reading_ref &reading, const provider_cursor_ref &cursor)
{
    provider_ask_page(server, reading->trans, cursor, [=](server_t &of, const provider_answer_t &page) {
        if (page.code != CONFD_ERR_OK)
            return end(of, *reading, refused(page.code, page.text));
        if (!is_wanted(of, *reading))
            return;
        if (!cursor->at_end)
            return count_pages(of, reading, cursor);
        reading->out.u32(static_cast<uint32_t>(cursor->count));
        end(of, *reading, {});
    });
}

static void count_values(server_t &server, const reading_ref &reading)
{
    provider_ask_value(server, reading->trans, reading->path, [=](server_t &of, const provider_answer_t &told) {
        reading->out.u32(static_cast<uint32_t>(told.values.size()));
        end(of, *reading, { told.code, told.text });
    });
}

answer_t provider_read_count(call_t &call, const provider_target_t &target)
{
    if (!has_ground(call, target)) {
        call.out.u32(0);
        return {};
    }
    reading_ref reading = begin(call, target);
    provider_cursor_ref cursor = make_cursor(target.path);
    cursor->is_kept = false; // a count would drive all else out
    if (target.path.node()->is(WIRE_NODE_LIST))
        count_pages(call.server, reading, cursor);
    else
        count_values(call.server, reading);
    return settle(call, reading);
}

struct next_reading_t {
    reading_ref reading;
    provider_cursor_ref cursor;
    uint32_t most;
    std::vector<entry_keys_t> entries;
};

static void end_next(server_t &server, const next_reading_t &next)
{
    wire_writer_t &out = next.reading->out;
    out.u32(static_cast<uint32_t>(next.entries.size()));
    for (const entry_keys_t &keys : next.entries)
        value_put_keys(out, keys);
    end(server, *next.reading, {});
}

// Entries that are still known, from the one before on.
static void take_kept(next_reading_t &next)
{
    double now_ms = monotonic_ms();
    provider_cursor_t &cursor = *next.cursor;
    provider_object_ref at = cursor.tail.lock();
    while (at && !at->is_last && next.entries.size() < next.most) {
        at = at->follower.lock();
        if (!at || at->expires_ms <= now_ms)
            return;
        next.entries.push_back(at->keys);
        cursor.last = at->keys;
        cursor.next = at->next;
        cursor.tail = at;
        cursor.at_end = at->is_last;
    }
}

static void ask_for_entries(server_t &server, const std::shared_ptr<next_reading_t> &next)
{
    if (next->cursor->at_end || next->entries.size() >= next->most)
        return end_next(server, *next);
    auto take = [=](server_t &of, const provider_answer_t &page) {
        if (page.code != CONFD_ERR_OK)
            return end(of, *next->reading, refused(page.code, page.text));
        if (!is_wanted(of, *next->reading))
            return;
        for (size_t i = 0; i < page.objects.size() && next->entries.size() < next->most; i++)
            next->entries.push_back(page.objects[i]->keys);
        ask_for_entries(of, next);
    };
    provider_ask_page(server, next->reading->trans, next->cursor, for_reading(next->reading, take));
}

static bool read_keys(const call_t &call, const path_t &list, std::span<const confd_value_t> given, entry_keys_t &keys,
                      ds_error_t &error)
{
    const schema_info_t &node = *list.node();
    if (given.size() != node.keys.size())
        return ds_fail(error, CONFD_ERR_BADTYPE,
                       path_text(list) + " takes " + std::to_string(node.keys.size()) + " keys, not " +
                           std::to_string(given.size()));
    for (size_t i = 0; i < given.size(); i++)
        if (!value_from_confd(datastore_schema(*call.server.store), *node.keys[i], given[i], path_text(list),
                              keys.emplace_back(), error))
            return false;
    return true;
}

static answer_t check_list(const path_t &list)
{
    if (list.node()->is(WIRE_NODE_LIST) && !list.node()->keys.empty())
        return {};
    return refused(CONFD_ERR_BADPATH, path_text(list) + " has no keys to go by; walk it");
}

answer_t provider_read_next(call_t &call, const provider_target_t &target, std::span<const confd_value_t> after,
                            uint32_t most)
{
    entry_keys_t keys;
    ds_error_t error;
    answer_t answer = check_list(target.path);
    if (answer.code != CONFD_ERR_OK)
        return answer;
    if (!after.empty() && !read_keys(call, target.path, after, keys, error))
        return refused(error.code, error.text);
    if (!has_ground(call, target)) {
        call.out.u32(0);
        return {};
    }
    reading_ref reading = begin(call, target);
    auto next = std::make_shared<next_reading_t>(next_reading_t{ reading, make_cursor(target.path), most, {} });
    if (!keys.empty())
        provider_cursor_seek(*next->cursor, *reading->trans, std::move(keys));
    take_kept(*next);
    ask_for_entries(call.server, next);
    return settle(call, reading);
}
