#include "agent/server/datastore.h"
#include "agent/server/diff_build.h"
#include "agent/server/encrypt.h"
#include "agent/server/store.h"
#include "agent/server/validate.h"

#include <algorithm>

// ---- life of a transaction

trans_t::trans_t(datastore_t &of) : store(&of), log(&of.running), generation(of.generation)
{
}

trans_ptr trans_begin(datastore_t &store, bool writable, uint64_t holder)
{
    trans_ptr trans(new trans_t(store));
    trans->is_writable = writable;
    trans->holder = holder;
    return trans;
}

void trans_deleter::operator()(trans_t *trans) const
{
    datastore_t &store = *trans->store;
    if (store.mounted == trans)
        store_show_view(store, {});
    if (store.prepared == trans)
        store.prepared = nullptr;
    store_go_home(*trans);
    log_undo(trans->log); // of nothing, when there are no edits
    delete trans;
}

bool trans_check(trans_t &trans, ds_error_t &error)
{
    store_show_view(*trans.store, { VIEW_TRANS, &trans });
    if (trans.conflict.code)
        error = trans.conflict;
    return !trans.conflict.code;
}

bool trans_is_dirty(const trans_t &trans)
{
    return !trans.wishes.empty();
}

// ---- edits

static bool check_editable(const trans_t &trans, const path_t &path, ds_error_t &error)
{
    if (!trans.is_writable)
        return ds_fail(error, CONFD_ERR_NOT_WRITABLE, path_text(path) + ": the transaction is for reading only");
    if (!path.node() || !path.node()->is(WIRE_NODE_CONFIG))
        return ds_fail(error, CONFD_ERR_NOT_WRITABLE, path_text(path) + " is not configuration");
    return true;
}

static bool make_wish(trans_t &trans, wish_t wish, ds_error_t &error)
{
    if (!check_editable(trans, wish.path, error) || !trans_check(trans, error))
        return false;
    wish.first_edit = trans.log.edits.size();
    if (wish_apply(trans.log, wish, error)) {
        trans.wishes.push_back(std::move(wish));
        return true;
    }
    log_rollback(trans.log, wish.first_edit);
    return false;
}

static void forget_preparation(trans_t &trans)
{
    trans.is_prepared = false;
    trans.wishes_prepared = 0;
    if (trans.store->prepared == &trans)
        trans.store->prepared = nullptr;
}

size_t trans_mark(const trans_t &trans)
{
    return trans.wishes.size();
}

void trans_rewind(trans_t &trans, size_t mark)
{
    if (mark >= trans.wishes.size())
        return;
    store_show_view(*trans.store, { VIEW_TRANS, &trans });
    if (trans.conflict.code) { // the edits that stay may be free of it
        trans.conflict = {};
        trans.generation = 0;
    } else {
        log_rollback(trans.log, trans.wishes[mark].first_edit);
    }
    trans.wishes.erase(trans.wishes.begin() + static_cast<ptrdiff_t>(mark), trans.wishes.end());
    if (mark < trans.wishes_prepared)
        forget_preparation(trans);
}

static bool list_values(const trans_t &trans, const path_t &path, const confd_value_t &value,
                        std::vector<value_t> &values, ds_error_t &error)
{
    const schema_t &schema = *trans.store->schema;
    std::string text = path_text(path);
    for (unsigned i = 0; i < value.val.list.size; i++)
        if (!value_from_confd(schema, *path.node(), value.val.list.ptr[i], text, values.emplace_back(), error))
            return false;
    return true;
}

bool trans_set(trans_t &trans, const path_t &path, const confd_value_t &value, ds_error_t &error)
{
    if (!check_editable(trans, path, error))
        return false;
    std::vector<value_t> values;
    if (path.node()->is(WIRE_NODE_LEAF_LIST) && value.type == C_LIST)
        return list_values(trans, path, value, values, error) &&
               make_wish(trans, { WISH_SET_LIST, path, std::move(values) }, error);
    values.resize(1);
    return value_from_confd(*trans.store->schema, *path.node(), value, path_text(path), values[0], error) &&
           encrypt_value(trans, path, values[0], error) &&
           make_wish(trans, { WISH_SET, path, std::move(values) }, error);
}

bool trans_set_text(trans_t &trans, const path_t &path, std::string_view text, ds_error_t &error)
{
    if (!check_editable(trans, path, error))
        return false;
    std::vector<value_t> values(1);
    return value_from_text(*path.node(), text, path_text(path), values[0], error) &&
           encrypt_value(trans, path, values[0], error) &&
           make_wish(trans, { WISH_SET, path, std::move(values) }, error);
}

bool trans_set_words(trans_t &trans, const path_t &list, std::string_view text, ds_error_t &error)
{
    static constexpr std::string_view blanks = " \t\n";
    if (!check_editable(trans, list, error))
        return false;
    std::vector<value_t> values;
    std::string place = path_text(list);
    while (true) {
        text.remove_prefix(std::min(text.find_first_not_of(blanks), text.size()));
        if (text.empty())
            return make_wish(trans, { WISH_SET_LIST, list, std::move(values) }, error);
        std::string_view word = text.substr(0, text.find_first_of(blanks));
        text.remove_prefix(word.size());
        if (!value_from_text(*list.node(), word, place, values.emplace_back(), error))
            return false;
    }
}

static bool is_creatable(const schema_info_t &info)
{
    return info.is(WIRE_NODE_LIST | WIRE_NODE_PRESENCE | WIRE_NODE_LEAF_LIST) ||
           (info.is(WIRE_NODE_LEAF) && info.type == C_XMLTAG);
}

bool trans_create(trans_t &trans, const path_t &path, ds_error_t &error)
{
    if (!check_editable(trans, path, error))
        return false;
    bool needs_keys = path.node()->is(WIRE_NODE_LIST | WIRE_NODE_LEAF_LIST);
    if (!is_creatable(*path.node()) || (needs_keys && path.steps.back().keys.empty()))
        return ds_fail(error, CONFD_ERR_NOTCREATABLE, path_text(path) + " cannot be created, only set or filled");
    return make_wish(trans, { WISH_CREATE, path }, error);
}

bool trans_delete(trans_t &trans, const path_t &path, ds_error_t &error)
{
    return make_wish(trans, { WISH_DELETE, path }, error);
}

bool trans_move(trans_t &trans, const path_t &entry, wire_move_t where, std::span<const confd_value_t> to,
                ds_error_t &error)
{
    if (!check_editable(trans, entry, error))
        return false;
    if (!entry.node()->is_user_ordered || entry.steps.back().keys.empty())
        return ds_fail(error, CONFD_ERR_BADPATH, path_text(entry) + " is no entry of a list that users put in order");
    if (where < WIRE_MOVE_FIRST || where > WIRE_MOVE_LAST)
        return ds_fail(error, CONFD_ERR_BADTYPE, path_text(entry) + ": there is no such place to move to");
    bool has_other = where == WIRE_MOVE_BEFORE || where == WIRE_MOVE_AFTER;
    wish_t wish = { WISH_MOVE, entry };
    wish.where = where;
    return (!has_other || path_keys(*trans.store->schema, entry, to, wish.values, error)) &&
           make_wish(trans, std::move(wish), error);
}

// ---- judging and committing

bool trans_diff(trans_t &trans, diff_ptr &diff, ds_error_t &error)
{
    if (!trans_check(trans, error))
        return false;
    diff = diff_build(trans.log, false);
    return true;
}

// Takes the consequences of the last judgement out again, unless edits have come behind them.
static void drop_consequences(trans_t &trans)
{
    if (trans.is_prepared && trans.wishes.size() == trans.wishes_prepared) {
        store_show_view(*trans.store, { VIEW_TRANS, &trans });
        log_rollback(trans.log, trans.edits_asked_for);
    }
    forget_preparation(trans);
}

static bool judge(trans_t &trans, diff_ptr &diff, ds_error_t &error)
{
    drop_consequences(trans);
    store_go_home(trans);
    if (!trans_check(trans, error))
        return false;
    trans.edits_asked_for = trans.log.edits.size();
    trans.wishes_prepared = trans.wishes.size();
    if (!validate_edits(trans.log, error)) {
        log_rollback(trans.log, trans.edits_asked_for);
        return false;
    }
    diff = diff_build(trans.log, false);
    trans.is_prepared = true;
    return true;
}

bool trans_prepare(trans_t &trans, diff_ptr &diff, ds_error_t &error)
{
    datastore_t &store = *trans.store;
    if (!trans.is_writable)
        return ds_fail(error, CONFD_ERR_NOT_WRITABLE, "the transaction is for reading only");
    if (trans.is_on_candidate)
        return ds_fail(error, CONFD_ERR_BADSTATE, "a transaction on the candidate is merged into it, not committed");
    if (!datastore_check_lock(store, trans.holder, error))
        return false;
    if (store.prepared && store.prepared != &trans)
        return ds_fail(error, CONFD_ERR_INUSE, "another transaction is being committed");
    if (!judge(trans, diff, error))
        return false;
    store.prepared = &trans;
    return true;
}

bool trans_judge(trans_t &trans, diff_ptr &diff, ds_error_t &error)
{
    return judge(trans, diff, error);
}

bool trans_validate(trans_t &trans, diff_ptr &diff, ds_error_t &error)
{
    if (!judge(trans, diff, error))
        return false;
    drop_consequences(trans);
    return true;
}

void trans_unprepare(trans_t &trans)
{
    drop_consequences(trans);
}

bool trans_commit(trans_t &trans, ds_error_t &error)
{
    datastore_t &store = *trans.store;
    if (store.prepared != &trans || trans.wishes.size() != trans.wishes_prepared)
        return ds_fail(error, CONFD_ERR_BADSTATE, "the transaction has to be prepared before it is committed");
    store_show_view(store, { VIEW_TRANS, &trans });
    diff_ptr diff = diff_build(trans.log, false);
    if (!diff->is_empty() && !store.options.state_dir.empty() &&
        !journal_append(store.journal, wishes_record(wishes_of(*diff)), error))
        return false;
    store.mounted = nullptr;
    store.generation++;
    store.changes += diff->is_empty() ? 0 : 1;
    store.last_commit = std::move(trans.log);
    trans.wishes.clear();
    store.candidate.generation += trans.wishes_taken > 0; // who missed them in the candidate finds them in running
    trans.wishes_taken = 0;
    trans.generation = store.generation;
    forget_preparation(trans);
    return true;
}
