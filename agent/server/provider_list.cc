// Lists of providers, page by page: the order of callbacks, and the proof that a list advances. See provider.h.
#include "agent/server/provider.h"
#include "agent/server/provider_cache.h"
#include "agent/server/server.h"

static constexpr uint64_t MAX_ENTRIES = 1u << 24; // of one list; one that has more does not end
static constexpr uint32_t OBJECT_FORMS = PROVIDER_GET_NEXT_OBJECT | PROVIDER_FIND_NEXT_OBJECT;

void provider_cursor_seek(provider_cursor_t &cursor, const callback_trans_t &trans, entry_keys_t keys)
{
    path_t entry = cursor.list;
    entry.steps.back().keys = keys;
    provider_object_ref kept = provider_find_kept(trans, entry);
    cursor.last = std::move(keys);
    cursor.next = kept ? kept->next : -1;
    cursor.at_end = kept && kept->is_last;
    cursor.tail = kept;
}

// ---- a list that advances

static std::string check_advance(provider_cursor_t &cursor, const provider_object_t &object)
{
    if (++cursor.count > MAX_ENTRIES)
        return "the list does not end: it has more than " + std::to_string(MAX_ENTRIES) + " entries";
    if (object.keys.empty())
        return {};
    if (provider_equal_keys(object.keys, cursor.last))
        return "the list does not advance: the entry " + provider_keys_text(object.keys) + " comes again behind itself";
    if (provider_equal_keys(object.keys, cursor.mark))
        return "the list does not end: the entry " + provider_keys_text(object.keys) + " has come by before";
    if (cursor.count == cursor.mark_at) { // a circle of any length meets the last mark before there are twice as many
        cursor.mark = object.keys;
        cursor.mark_at *= 2;
    }
    return {};
}

static void keep_entry(callback_trans_t &trans, provider_cursor_t &cursor, const provider_object_ref &object)
{
    if (provider_object_ref before = cursor.tail.lock())
        before->follower = object;
    cursor.tail = object;
    if (!cursor.is_kept || object->keys.empty())
        return;
    path_t entry = cursor.list;
    entry.steps.back().keys = object->keys;
    provider_keep(trans, entry, object);
}

// While the cursor looks for an entry, those up to it do not count. True when the object belongs to the page.
static bool is_of_page(provider_cursor_t &cursor, const provider_object_t &object)
{
    if (!cursor.is_looking)
        return true;
    cursor.is_looking = !provider_equal_keys(object.keys, cursor.wanted);
    return false;
}

static bool take_page(callback_trans_t &trans, provider_cursor_t &cursor, const provider_objects_t &read,
                      provider_answer_t &answer, provider_fault_t &fault)
{
    for (const provider_object_ref &object : read.objects) {
        fault.text = check_advance(cursor, *object);
        if (!fault.text.empty())
            return false;
        keep_entry(trans, cursor, object);
        cursor.last = object->keys;
        cursor.next = object->next;
        if (is_of_page(cursor, *object))
            answer.objects.push_back(object);
    }
    answer.is_found = !answer.objects.empty();
    cursor.at_end = read.at_end || read.objects.empty();
    provider_object_ref tail = cursor.tail.lock();
    if (cursor.at_end && tail)
        tail->is_last = true;
    return true;
}

// ---- which callback is next

static void ask_callback(server_t &server, const callback_trans_ref &trans, const provider_cursor_ref &cursor,
                         uint16_t op, const wire_writer_t &more, const provider_done_t &done)
{
    auto parse = [trans, cursor, op](server_t &of, std::string_view payload, provider_answer_t &answer,
                                     provider_fault_t &fault) {
        const schema_t &schema = datastore_schema(*of.store);
        const schema_info_t &list = *cursor->list.node();
        provider_objects_t read;
        provider_object_ref entry;
        bool is_good = op == WIRE_CB_GET_NEXT ? provider_parse_next(schema, list, payload, entry, fault)
                                              : provider_parse_objects(schema, list, {}, payload, read, fault);
        if (!is_good)
            return false;
        if (entry)
            read.objects.push_back(entry);
        provider_set_expiry(of, read);
        return take_page(*trans, *cursor, read, answer, fault);
    };
    auto take = [trans, cursor, done](server_t &of, const provider_answer_t &answer) {
        bool is_page = answer.code != CONFD_ERR_OK || answer.is_found || cursor->at_end;
        if (!is_page && !done.goes_on(of))
            return;
        if (!is_page) // nothing but what had to be passed over
            return provider_ask_page(of, trans, cursor, done);
        if (answer.code == CONFD_ERR_OK && cursor->is_looking)
            return provider_fail(of, cursor->list, CONFD_ERR_NOEXISTS,
                                 "the entry " + provider_keys_text(cursor->wanted) + " to go on from does not exist",
                                 done);
        done(of, answer);
    };
    provider_ask_callback(server, trans, cursor->list, op, more, parse, take);
}

static void ask_behind_keys(server_t &server, const callback_trans_ref &trans, const provider_cursor_ref &cursor,
                            const provider_done_t &done)
{
    wire_writer_t more;
    more.u8(WIRE_FIND_NEXT);
    value_put_keys(more, cursor->last);
    ask_callback(server, trans, cursor, WIRE_CB_FIND_NEXT_OBJECT, more, done);
}

static void ask_at(server_t &server, const callback_trans_ref &trans, const provider_cursor_ref &cursor, uint16_t op,
                   int64_t next, const provider_done_t &done)
{
    wire_writer_t more;
    more.i64(next);
    ask_callback(server, trans, cursor, op, more, done);
}

// Keys that the caller has given, and no callback that goes on from keys: the list is walked from its start.
static void begin_looking(provider_cursor_t &cursor)
{
    cursor.is_looking = true;
    cursor.wanted = std::move(cursor.last);
    cursor.last.clear();
}

void provider_ask_page(server_t &server, const callback_trans_ref &trans, const provider_cursor_ref &cursor,
                       provider_done_t done)
{
    if (cursor->at_end)
        return done(server, {});
    uint32_t forms = provider_find_forms(server, cursor->list, done);
    if (forms == 0)
        return;
    bool has_next = forms & PROVIDER_GET_NEXT_OBJECT || (!(forms & OBJECT_FORMS) && (forms & PROVIDER_GET_NEXT));
    if (!has_next && !(forms & PROVIDER_FIND_NEXT_OBJECT))
        return provider_fail(server, cursor->list, CONFD_ERR_UNAVAILABLE,
                             "no callback that gives a list's entries is registered", done);
    uint16_t op = forms & PROVIDER_GET_NEXT_OBJECT ? WIRE_CB_GET_NEXT_OBJECT : WIRE_CB_GET_NEXT;
    bool is_behind_keys = !cursor->last.empty() && cursor->next == -1;
    bool is_given = is_behind_keys && !cursor->is_begun;
    cursor->is_begun = true;
    if (has_next && cursor->next != -1)
        return ask_at(server, trans, cursor, op, cursor->next, done);
    if ((is_behind_keys || !has_next) && (forms & PROVIDER_FIND_NEXT_OBJECT))
        return ask_behind_keys(server, trans, cursor, done);
    if (is_given)
        begin_looking(*cursor);
    if (cursor->count > 0)
        return provider_fail(
            server, cursor->list, CONFD_ERR_EXTERNAL,
            "no way to go on: the last entry came with next -1, and find_next_object is not registered", done);
    ask_at(server, trans, cursor, op, -1, done);
}
