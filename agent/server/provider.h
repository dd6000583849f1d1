// Operational data that daemons provide: asking the callbacks registered for a callpoint.
//
// A node of the model has a callpoint or none (schema_info_t). Questions here are about instances of nodes that have
// one; that what they stand in exists has been looked at before. Each takes the best form that the daemon has
// registered, and ends once, through done, which may be called before the question returns: with what the provider
// said, or with an error that names the callpoint, the client, the path and what is wrong. An answer that breaks the
// model costs that question; one that cannot be parsed costs the client its connection.
#ifndef AGENT_SERVER_PROVIDER_H
#define AGENT_SERVER_PROVIDER_H

#include "agent/server/callback_trans.h"
#include "agent/server/path.h"
#include "agent/server/provider_object.h"

#include <concepts>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

struct server_t;

// Bits of a registration: the callbacks that a daemon has set.
enum provider_form_t : uint32_t {
    PROVIDER_EXISTS = 1,
    PROVIDER_GET_ELEM = 2,
    PROVIDER_GET_NEXT = 4,
    PROVIDER_GET_OBJECT = 64,
    PROVIDER_GET_NEXT_OBJECT = 128,
    PROVIDER_FIND_NEXT_OBJECT = 256,
};

struct provider_answer_t {
    int code = CONFD_ERR_OK; // otherwise text says why, and the rest means nothing
    std::string text;
    bool is_found = false;
    std::vector<value_t> values;              // of a leaf or leaf-list
    std::vector<provider_object_ref> objects; // of a page; of one instance: one, or none when it does not exist
};

// Who gets the answer. A question that takes many callbacks looks before each further one whether it is still wanted.
struct provider_done_t {
    std::function<void(server_t &server, const provider_answer_t &answer)> take;
    std::function<bool(server_t &server)> is_wanted; // null: to its end

    provider_done_t() = default;
    template <class Take>
    requires(!std::same_as<std::remove_cvref_t<Take>, provider_done_t>)
        provider_done_t(Take &&take_it, std::function<bool(server_t &server)> is_still_wanted = nullptr)
        : take(std::forward<Take>(take_it)), is_wanted(std::move(is_still_wanted))
    {
    }
    void operator()(server_t &server, const provider_answer_t &answer) const { take(server, answer); }
    // False when the question has ended, as nobody waits for it.
    [[nodiscard]] bool goes_on(server_t &server) const
    {
        if (!is_wanted || is_wanted(server))
            return true;
        provider_answer_t answer;
        answer.code = CONFD_ERR_ABORTED;
        answer.text = "interrupted";
        take(server, answer);
        return false;
    }
};

// The value of a leaf, the values of a leaf-list; not found: it has none.
void provider_ask_value(server_t &server, const callback_trans_ref &trans, const path_t &path, provider_done_t done);

// Does the instance exist? Containers without presence do when what they stand in does.
void provider_ask_exists(server_t &server, const callback_trans_ref &trans, const path_t &path, provider_done_t done);

// All of a list entry or container but lists below it. Keys that are told by the list itself need no proof that the
// entry exists.
void provider_ask_object(server_t &server, const callback_trans_ref &trans, const path_t &path, bool is_known_to_exist,
                         provider_done_t done);

// The instance whose object holds a node: the list entry, or the outermost container of the callpoint, that it stands
// in; itself when it stands in none. As the number of steps of the path.
[[nodiscard]] size_t provider_object_steps(const path_t &path);

// Does the model have anything that an object of this list or container could hold, keys apart?
[[nodiscard]] bool provider_has_object(const schema_info_t &node);

// ---- lists

// A place in a list. A page is asked for at a time, and nobody else moves the cursor meanwhile.
struct provider_cursor_t {
    path_t list; // PATH_LIST
    entry_keys_t last;
    int64_t next = -1; // where to go on behind last; -1: by its keys
    bool is_begun = false;
    bool at_end = false;
    bool is_kept = true;     // entries go to the transaction's cache
    bool is_looking = false; // from the start of the list for the entry `wanted`, behind which pages begin
    entry_keys_t wanted;
    uint64_t count = 0;   // of entries gone by
    uint64_t mark_at = 1; // the count at which the next mark is made
    entry_keys_t mark;    // an entry that must not come again
    std::weak_ptr<provider_object_t> tail;
};
using provider_cursor_ref = std::shared_ptr<provider_cursor_t>;

// Moves the cursor behind an entry: by what is known of it in the transaction, else by its keys.
void provider_cursor_seek(provider_cursor_t &cursor, const callback_trans_t &trans, entry_keys_t keys);

// The next entries, as many as the provider gives at once; none: the end (at_end is set, perhaps with the last ones).
void provider_ask_page(server_t &server, const callback_trans_ref &trans, const provider_cursor_ref &cursor,
                       provider_done_t done);

// Puts the object of an instance into the transaction's cache.
void provider_keep(callback_trans_t &trans, const path_t &path, const provider_object_ref &object);
// Null when it is not there.
[[nodiscard]] provider_object_ref provider_find_kept(const callback_trans_t &trans, const path_t &path);

// A reading of operational data that belongs to no transaction of a session; ended by callback_trans_finish.
[[nodiscard]] callback_trans_ref provider_begin_reading(server_t &server, const session_identity_t &who);

// ---- between provider.cc and provider_list.cc

// Reads a payload into the answer.
using provider_parser_t =
    std::function<bool(server_t &server, std::string_view payload, provider_answer_t &answer, provider_fault_t &fault)>;

// One callback: more is what its payload holds behind the keypath.
void provider_ask_callback(server_t &server, const callback_trans_ref &trans, const path_t &path, uint16_t op,
                           const wire_writer_t &more, provider_parser_t parse, provider_done_t done);

// The forms that the callpoint's daemon has registered; nothing when nobody serves it, and done has been told.
[[nodiscard]] uint32_t provider_find_forms(server_t &server, const path_t &path, const provider_done_t &done);

void provider_fail(server_t &server, const path_t &path, int code, const std::string &what,
                   const provider_done_t &done);

// Sets when the objects of an answer grow old.
void provider_set_expiry(const server_t &server, const provider_objects_t &answer);

#endif
