// The candidate: wishes on running that all sessions share. It has no tree of its own: who looks at it makes its wishes in
// the log of a transaction. Held in memory only.
#include "agent/server/datastore.h"
#include "agent/server/store.h"

#include <algorithm>
#include <iterator>
#include <utility>

// Whoever looked at the candidate looks anew.
static void note_change(datastore_t &store)
{
    store_show_view(store, {});
    store.candidate.generation++;
}

trans_ptr candidate_begin(datastore_t &store, bool is_writable, uint64_t holder)
{
    trans_ptr trans = trans_begin(store, is_writable, holder);
    trans->is_on_candidate = true;
    return trans;
}

bool candidate_merge(trans_t &trans, ds_error_t &error)
{
    candidate_t &candidate = trans.store->candidate;
    if (!trans.is_on_candidate)
        return ds_fail(error, CONFD_ERR_BADSTATE, "the transaction is on running, not on the candidate");
    if (!trans_check(trans, error))
        return false;
    if (trans.wishes.empty())
        return true;
    note_change(*trans.store);
    std::ranges::move(trans.wishes, std::back_inserter(candidate.wishes));
    trans.wishes.clear();
    trans.candidate_generation = candidate.generation; // its log is what the candidate is now
    return true;
}

bool candidate_is_dirty(const datastore_t &store)
{
    return !store.candidate.wishes.empty();
}

trans_ptr candidate_take(datastore_t &store, uint64_t holder)
{
    trans_ptr trans = trans_begin(store, true, holder);
    note_change(store);
    trans->wishes = std::exchange(store.candidate.wishes, {});
    trans->wishes_taken = trans->wishes.size();
    for (const wish_t &wish : trans->wishes)
        trans->grounds_taken.push_back(wish.ground);
    trans->generation = 0; // its wishes have to be made first
    return trans;
}

void candidate_give_back(datastore_t &store, trans_ptr trans)
{
    trans_rewind(*trans, trans->wishes_taken);
    for (size_t i = 0; i < trans->wishes.size(); i++)
        trans->wishes[i].ground = trans->grounds_taken[i]; // running may lose again what they found in it this time
    note_change(store);
    std::ranges::move(store.candidate.wishes, std::back_inserter(trans->wishes));
    store.candidate.wishes = std::exchange(trans->wishes, {});
}

void candidate_discard(datastore_t &store)
{
    note_change(store);
    store.candidate.wishes.clear();
}
