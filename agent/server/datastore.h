// The datastores of the agent: running (persisted), operational (in memory), and transactions on running.
//
// Running is one tree. An open transaction is applied to it in place with an undo log while somebody looks at it, and
// taken back before somebody else looks: every call here names the view it wants, and switching costs by the size of
// the edits, not of the tree. One thread. Nothing here blocks but the commit's fdatasync.
//
// The steps of a commit, between which the caller may run callbacks: trans_prepare (defaults, when, must, references;
// gives the diff), then trans_commit (on disk, then visible) or trans_unprepare. From trans_prepare on no other
// transaction can be prepared; others can be read and written.
//
// All functions that can fail give false or null and fill the error; outputs are untouched then.
#ifndef AGENT_SERVER_DATASTORE_H
#define AGENT_SERVER_DATASTORE_H

#include "agent/server/diff.h"
#include "agent/server/ds_error.h"
#include "agent/server/path.h"
#include "agent/server/schema.h"
#include "agent/server/value.h"

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

struct datastore_t;
struct trans_t;

struct datastore_deleter {
    void operator()(datastore_t *store) const;
};
using datastore_ptr = std::unique_ptr<datastore_t, datastore_deleter>;

struct trans_deleter {
    void operator()(trans_t *trans) const;
};
using trans_ptr = std::unique_ptr<trans_t, trans_deleter>; // gone before its datastore; unapplied edits are dropped

// ---- opening

struct datastore_options_t {
    std::string yang_dir;
    std::vector<std::string> search_dirs; // for imports
    std::string state_dir;                // empty: running is not persisted
    bool durable = true;                  // a commit is on disk when trans_commit returns
    std::string crypto_keys;              // CRYPTO_KEY_SIZE bytes, for encrypted leaves; empty: they are stored clear
    uint64_t journal_limit = 4u << 20;    // bytes of journal after which a new snapshot replaces it
};

// Loads the model and running. What a restart had to put right (a record torn by a crash is cut off) is told in
// reports, one line each. Damage that would lose committed data refuses to open: the error names file, offset and
// remedy.
[[nodiscard]] datastore_ptr datastore_open(const datastore_options_t &options, std::vector<std::string> &reports,
                                           ds_error_t &error);

[[nodiscard]] const schema_t &datastore_schema(const datastore_t &store);

struct datastore_stats_t {
    uint64_t generation = 0;    // ascends with every commit that changed running, over restarts too
    uint64_t journal_bytes = 0; // since the last snapshot
};
[[nodiscard]] datastore_stats_t datastore_stats(const datastore_t &store);

// Writes a snapshot when the journal is past its limit, or in any case; for the idle time behind a commit. Without it
// the journal grows; trans_commit itself writes none.
[[nodiscard]] bool datastore_snapshot(datastore_t &store, bool in_any_case, ds_error_t &error);

// ---- views

enum view_kind_t : uint8_t {
    VIEW_RUNNING,
    VIEW_OLD,   // running before the last commit, until datastore_drop_old; else as VIEW_RUNNING
    VIEW_TRANS, // running with the transaction's edits
};

struct view_t {
    view_kind_t kind = VIEW_RUNNING;
    trans_t *trans = nullptr; // VIEW_TRANS
};

// The delivery of the last commit is over. Edits of other transactions do not need it, the next commit implies it.
void datastore_drop_old(datastore_t &store);

// ---- reads; a path to operational data (config false) is served from the operational store, whatever the view

// The leaf has no value of its own, only a default (CONFD_ERR_NOEXISTS territory aside: false when it has neither).
[[nodiscard]] bool read_is_default(datastore_t &store, view_t view, const path_t &path);

// The value of a leaf or, as C_LIST, of a leaf-list; of a presence container or list entry C_XMLTAG. Defaults are
// values. CONFD_ERR_NOEXISTS when there is none, or when an entry above does not exist.
[[nodiscard]] bool read_value(datastore_t &store, view_t view, const path_t &path, wire_writer_t &out,
                              ds_error_t &error);
// A leaf's canonical text.
[[nodiscard]] bool read_text(datastore_t &store, view_t view, const path_t &path, std::string &text, ds_error_t &error);

// List entries, presence containers, leaves with a value (defaults included), leaf-list values; containers without
// presence exist when what they stand in exists.
[[nodiscard]] bool read_exists(datastore_t &store, view_t view, const path_t &path);

// Entries of a list, or values of a leaf-list; PATH_LIST. 0 when an entry above does not exist.
[[nodiscard]] uint32_t read_count(datastore_t &store, view_t view, const path_t &list);

using entry_keys_t = std::vector<value_t>;

// The keys of at most `most` entries behind the entry with these keys, which itself need not exist, in key order (a
// user-ordered list in its order: there it has to). Without keys: from the first. Wrong keys are CONFD_ERR_BADTYPE.
[[nodiscard]] bool read_next(datastore_t &store, view_t view, const path_t &list, std::span<const confd_value_t> after,
                             uint32_t most, std::vector<entry_keys_t> &entries, ds_error_t &error);

// The keys of the entry at a position in that order; CONFD_ERR_NOEXISTS behind the last.
[[nodiscard]] bool read_nth(datastore_t &store, view_t view, const path_t &list, uint32_t position, entry_keys_t &keys,
                            ds_error_t &error);

enum doc_format_t : uint8_t {
    DOC_JSON = 0,
    DOC_XML = 1
};
enum show_db_t : uint8_t {
    SHOW_CONFIG,
    SHOW_OPERATIONAL
};

// A subtree (PATH_SUBTREE; of the root: everything) with its parents as a document, lists in key order. Empty text when
// there is nothing.
[[nodiscard]] bool read_show(datastore_t &store, view_t view, show_db_t db, const path_t &path, doc_format_t format,
                             bool with_defaults, std::string &text, ds_error_t &error);

// All that is configured, or all operational data, told as created.
[[nodiscard]] diff_ptr read_all_as_diff(datastore_t &store, show_db_t db);

// ---- locks: of running, between those who apply transactions

// The holder is a number of the caller's (a session), the name is for people. CONFD_ERR_LOCKED names the present
// holder.
[[nodiscard]] bool datastore_lock(datastore_t &store, uint64_t holder, const std::string &name, ds_error_t &error);
// Would another's lock keep the holder from applying a transaction?
[[nodiscard]] bool datastore_check_lock(const datastore_t &store, uint64_t holder, ds_error_t &error);
// CONFD_ERR_NOEXISTS when the holder has no lock.
[[nodiscard]] bool datastore_unlock(datastore_t &store, uint64_t holder, ds_error_t &error);
// Also when it has none: for a session that ends.
void datastore_release(datastore_t &store, uint64_t holder);

// ---- transactions

// Of a session: another holder's lock refuses trans_prepare. A read-only one refuses edits with CONFD_ERR_NOT_WRITABLE.
[[nodiscard]] trans_ptr trans_begin(datastore_t &store, bool writable, uint64_t holder);

// Edits are seen by reads of the same transaction at once. They fail with CONFD_ERR_CONFLICT, naming the path, once a
// commit of somebody else has taken away what an earlier edit stands on; so do reads' sources, see trans_check.
// Missing entries and presence containers above are created. Keys cannot be set but to what they are; operational data
// is CONFD_ERR_NOT_WRITABLE. A leaf-list takes C_LIST: its values from now on.
[[nodiscard]] bool trans_set(trans_t &trans, const path_t &path, const confd_value_t &value, ds_error_t &error);
// A leaf-list's text adds one value.
[[nodiscard]] bool trans_set_text(trans_t &trans, const path_t &path, std::string_view text, ds_error_t &error);
// The values of a leaf-list from now on, with blanks between them.
[[nodiscard]] bool trans_set_words(trans_t &trans, const path_t &list, std::string_view text, ds_error_t &error);
// List entries, presence containers, leaves of type empty, a leaf-list's value. CONFD_ERR_ALREADY_EXISTS,
// CONFD_ERR_NOTCREATABLE for other nodes.
[[nodiscard]] bool trans_create(trans_t &trans, const path_t &path, ds_error_t &error);
// Anything but keys; a container without presence loses its content, a leaf goes back to its default, a list without
// keys loses all entries. CONFD_ERR_NOEXISTS when there is nothing, CONFD_ERR_NOTDELETABLE for a key.
[[nodiscard]] bool trans_delete(trans_t &trans, const path_t &path, ds_error_t &error);
// Merges a document into the transaction; all or nothing. XML may be a NETCONF config element or its content.
[[nodiscard]] bool trans_load(trans_t &trans, doc_format_t format, const std::string &document, ds_error_t &error);

// Puts an entry of a user-ordered list in another place among its siblings; `to` are the keys of the other entry for
// before and after. CONFD_ERR_NOEXISTS when one of them is not there, CONFD_ERR_BADPATH when the list is ordered by
// keys.
[[nodiscard]] bool trans_move(trans_t &trans, const path_t &entry, wire_move_t where, std::span<const confd_value_t> to,
                              ds_error_t &error);

// A place in the transaction's edits, and the way back there: later edits are as if they had never been made.
[[nodiscard]] size_t trans_mark(const trans_t &trans);
void trans_rewind(trans_t &trans, size_t mark);

// Can the transaction's edits still be applied to what running is now? CONFD_ERR_CONFLICT names the path. A view of a
// transaction that cannot shows running.
[[nodiscard]] bool trans_check(trans_t &trans, ds_error_t &error);

// Has it edits?
[[nodiscard]] bool trans_is_dirty(const trans_t &trans);

// Net changes against running as it is now.
[[nodiscard]] bool trans_diff(trans_t &trans, diff_ptr &diff, ds_error_t &error);

// Judges the transaction by the rules of the model and gives the net changes, consequences (nodes whose when no longer
// holds) included. CONFD_ERR_VALIDATION or CONFD_ERR_NOTSET with path and rule; CONFD_ERR_LOCKED names the holder;
// CONFD_ERR_INUSE while another is prepared. Further edits (of hooks, of validation) are allowed and need another
// trans_prepare.
[[nodiscard]] bool trans_prepare(trans_t &trans, diff_ptr &diff, ds_error_t &error);
// The judgement alone: another's lock or preparation does not matter, and nothing stays prepared.
[[nodiscard]] bool trans_validate(trans_t &trans, diff_ptr &diff, ds_error_t &error);
// As trans_validate, but the consequences stay in the transaction's view until trans_unprepare.
[[nodiscard]] bool trans_judge(trans_t &trans, diff_ptr &diff, ds_error_t &error);
// A prepared transaction is open again, with its edits.
void trans_unprepare(trans_t &trans);

// Makes a prepared transaction running. On failure (the disk) it stays prepared and running is as before. Afterwards
// the transaction is open and empty. Operational data of deleted entries stays until oper_prune.
[[nodiscard]] bool trans_commit(trans_t &trans, ds_error_t &error);

// ---- candidate: edits on running that all sessions share until they are committed or discarded; need not be valid

// A transaction on the candidate: its view is running with the candidate's edits and its own. It is not prepared or
// committed but given to candidate_merge, which leaves it open and empty.
[[nodiscard]] trans_ptr candidate_begin(datastore_t &store, bool is_writable, uint64_t holder);
[[nodiscard]] bool candidate_merge(trans_t &trans, ds_error_t &error);
[[nodiscard]] bool candidate_is_dirty(const datastore_t &store);
// Takes the candidate's edits as a transaction to be committed; the candidate is running then. What is not committed is
// put back by candidate_give_back, below edits made meanwhile.
[[nodiscard]] trans_ptr candidate_take(datastore_t &store, uint64_t holder);
void candidate_give_back(datastore_t &store, trans_ptr trans);
void candidate_discard(datastore_t &store);

// ---- operational data, written by clients; each write is a change of its own and gives its diff

// Sets a leaf or (C_LIST) leaf-list; entries of operational lists above are created. Below a configured list the entry
// has to be in running, else CONFD_ERR_NOEXISTS; configuration is CONFD_ERR_NOT_WRITABLE. What is there can be deleted
// even if its entry is gone already.
[[nodiscard]] bool oper_set(datastore_t &store, const path_t &path, const confd_value_t &value, diff_ptr &diff,
                            ds_error_t &error);
[[nodiscard]] bool oper_set_text(datastore_t &store, const path_t &path, std::string_view text, diff_ptr &diff,
                                 ds_error_t &error);
// Several leaves below an instance in one change: see WIRE_CDB_SET_VALUES. All or nothing.
[[nodiscard]] bool oper_set_values(datastore_t &store, const path_t &path, std::span<const confd_tag_value_t> values,
                                   diff_ptr &diff, ds_error_t &error);
[[nodiscard]] bool oper_create(datastore_t &store, const path_t &path, diff_ptr &diff, ds_error_t &error);
[[nodiscard]] bool oper_delete(datastore_t &store, const path_t &path, diff_ptr &diff, ds_error_t &error);

// Takes out the operational data below entries that these changes of a commit have deleted and that running does not
// have (again). For the end of their delivery: a subscriber that is told of a deletion may still read what it has
// written there. Null when there was none.
[[nodiscard]] diff_ptr oper_prune(datastore_t &store, const diff_t &committed);

#endif
