// What running shows: itself, the state before the last commit, or a transaction's edits.
//
// A transaction is put in by its log and taken out by it, which costs by its edits. One that is big and often put in
// and out gets a copy of running for itself: then the two trees change places.
#include "agent/server/store.h"

#include <utility>

// Edits that are made again for switching before a copy is thought of.
static constexpr size_t SWITCHED_FOR_NOTHING = 50000;

// ---- a tree of its own

static void go_home(trans_t &trans)
{
    if (!trans.own)
        return;
    log_forget(trans.log);
    tree_free(*trans.own);
    trans.own.reset();
}

static size_t count_nodes(const tree_t &tree)
{
    size_t count = 0;
    for (lyd_node *top = tree.first; top; top = top->next) {
        lyd_node *at = nullptr;
        LYD_TREE_DFS_BEGIN(top, at)
        {
            count++;
            LYD_TREE_DFS_END(top, at);
        }
    }
    return count;
}

// A prepared transaction stays where it was judged.
static bool is_worth_a_copy(datastore_t &store, const trans_t &trans)
{
    if (trans.own || trans.is_prepared || trans.switched < SWITCHED_FOR_NOTHING)
        return false;
    if (store.counted_generation != store.generation) {
        store.node_count = count_nodes(store.running);
        store.counted_generation = store.generation;
    }
    return trans.switched > store.node_count;
}

// Running stands as it is; false when there is no memory for a second one.
static bool make_own(datastore_t &store, trans_t &trans)
{
    auto copy = std::make_unique<tree_t>();
    if (store.running.first && lyd_dup_siblings(store.running.first, nullptr, LYD_DUP_RECURSIVE | LYD_DUP_WITH_FLAGS,
                                                &copy->first) != LY_SUCCESS)
        return false;
    trans.own = std::move(copy);
    return true;
}

// ---- switching

// Takes out whatever stands in running beyond what is committed, or brings the last commit back.
static void show_running(datastore_t &store)
{
    if (store.mounted && store.mounted->own)
        std::swap(store.running, *store.mounted->own);
    else if (store.mounted)
        log_undo(store.mounted->log);
    store.mounted = nullptr;
    log_redo(store.last_commit);
}

// Has somebody else done meanwhile what the wish was for?
static bool is_done_already(const wish_t &wish, const ds_error_t &error)
{
    return (wish.kind == WISH_CREATE && error.code == CONFD_ERR_ALREADY_EXISTS) ||
           (wish.kind == WISH_DELETE && error.code == CONFD_ERR_NOEXISTS);
}

static constexpr char candidate_remedy[] =
    "; the candidate holds this edit: put back what it stands in, or drop the candidate (agent_cmd discard-candidate)";

// Makes a wish again, on a running that has moved.
static bool make_again(trans_t &trans, wish_t &wish, bool is_candidates)
{
    edit_ground_t before = wish.ground;
    ds_error_t error;
    wish.first_edit = trans.log.edits.size();
    if (wish_apply(trans.log, wish, error) ? wish.ground.made <= before.made : is_done_already(wish, error))
        return true;
    log_rollback(trans.log, 0);
    wish.ground = before;
    std::string why = error.code ? error.text : "what it stands in has been deleted";
    return ds_fail(trans.conflict, CONFD_ERR_CONFLICT,
                   "running has changed under the transaction at " + path_text(wish.path) + ": " + why +
                       (is_candidates ? candidate_remedy : ""));
}

// The candidate's wishes stay as they were when they became the candidate's, whoever looks at them.
static bool make_candidate(datastore_t &store, trans_t &trans)
{
    for (const wish_t &wish : store.candidate.wishes) {
        wish_t copy = wish;
        if (!make_again(trans, copy, true))
            return false;
    }
    return true;
}

// In the tree that stands as running.
static void rebase(datastore_t &store, trans_t &trans)
{
    log_forget(trans.log);
    trans.switched = 0;
    trans.generation = store.generation;
    trans.candidate_generation = store.candidate.generation;
    trans.conflict = {};
    trans.is_prepared = false; // the consequences of a judgement went with the log
    if (trans.is_on_candidate && !make_candidate(store, trans))
        return;
    for (size_t i = 0; i < trans.wishes.size(); i++)
        if (!make_again(trans, trans.wishes[i], i < trans.wishes_taken))
            return;
}

// A conflict with running is for good, but the candidate may have lost what was in the way.
static bool is_up_to_date(const datastore_t &store, const trans_t &trans)
{
    bool has_candidate = !trans.is_on_candidate || trans.candidate_generation == store.candidate.generation;
    return has_candidate && (trans.conflict.code || trans.generation == store.generation);
}

static void show_trans(datastore_t &store, trans_t &trans)
{
    if (store.mounted == &trans)
        return;
    show_running(store);
    if (!is_up_to_date(store, trans)) {
        go_home(trans);
        rebase(store, trans);
    } else if (trans.own) {
        std::swap(store.running, *trans.own);
    } else if (is_worth_a_copy(store, trans) && make_own(store, trans)) {
        std::swap(store.running, *trans.own);
        rebase(store, trans);
    } else {
        trans.switched += trans.log.edits.size();
        log_redo(trans.log);
    }
    store.mounted = &trans;
    if (trans.conflict.code)
        show_running(store);
}

void store_go_home(trans_t &trans)
{
    if (!trans.own)
        return;
    store_show_view(*trans.store, {});
    go_home(trans);
    trans.generation = 0;
}

void store_show_view(datastore_t &store, view_t view)
{
    if (view.kind == VIEW_TRANS) {
        show_trans(store, *view.trans);
    } else if (view.kind == VIEW_RUNNING || store.last_commit.edits.empty()) {
        show_running(store);
    } else if (store.last_commit.is_applied) {
        show_running(store);
        log_undo(store.last_commit);
    }
}

tree_t &store_tree(datastore_t &store, view_t view, const path_t &path)
{
    if (path.node() && !path.node()->is(WIRE_NODE_CONFIG))
        return store.operational;
    store_show_view(store, view);
    return store.running;
}

void datastore_drop_old(datastore_t &store)
{
    log_redo(store.last_commit);
    log_forget(store.last_commit);
}
