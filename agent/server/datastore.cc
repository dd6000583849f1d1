#include "agent/server/datastore.h"

#include "agent/server/store.h"

#include <libyang/libyang.h>

// ---- owners

void datastore_deleter::operator()(datastore_t *store) const
{
    delete store;
}

datastore_t::~datastore_t()
{
    log_forget(last_commit);
    tree_free(running);
    tree_free(operational);
}

const schema_t &datastore_schema(const datastore_t &store)
{
    return *store.schema;
}

datastore_stats_t datastore_stats(const datastore_t &store)
{
    return { store.changes, store.journal.size };
}

// ---- locks

bool datastore_check_lock(const datastore_t &store, uint64_t holder, ds_error_t &error)
{
    if (store.lock_holder && store.lock_holder != holder)
        return ds_fail(error, CONFD_ERR_LOCKED, "running is locked by " + store.lock_name);
    return true;
}

bool datastore_lock(datastore_t &store, uint64_t holder, const std::string &name, ds_error_t &error)
{
    if (!datastore_check_lock(store, holder, error))
        return false;
    store.lock_holder = holder;
    store.lock_name = name;
    return true;
}

bool datastore_unlock(datastore_t &store, uint64_t holder, ds_error_t &error)
{
    if (store.lock_holder != holder || !holder)
        return ds_fail(error, CONFD_ERR_NOEXISTS, "running is not locked by this session");
    datastore_release(store, holder);
    return true;
}

void datastore_release(datastore_t &store, uint64_t holder)
{
    if (store.lock_holder != holder)
        return;
    store.lock_holder = 0;
    store.lock_name.clear();
}

// ---- opening

static std::string libyang_text(const ly_ctx *ctx)
{
    const ly_err_item *item = ly_err_last(ctx);
    std::string text = item && item->msg ? item->msg : "unknown reason";
    if (item && item->path)
        text += std::string(" (") + item->path + ")";
    ly_err_clean(const_cast<ly_ctx *>(ctx), nullptr);
    return text;
}

static bool load_snapshot(datastore_t &store, const std::string &json, ds_error_t &error)
{
    const ly_ctx *ctx = store.schema->ctx.get();
    if (lyd_parse_data_mem(ctx, json.c_str(), LYD_JSON, LYD_PARSE_ONLY | LYD_PARSE_STRICT | LYD_PARSE_NO_STATE, 0,
                           &store.running.first) == LY_SUCCESS)
        return true;
    return ds_fail(error, CONFD_ERR_INTERNAL,
                   "the snapshot in " + store.options.state_dir + " does not fit the data model: " + libyang_text(ctx) +
                       "; start with the model that wrote it, or restore the directory from a backup");
}

static bool replay(datastore_t &store, const journal_content_t &content, ds_error_t &error)
{
    for (size_t i = 0; i < content.records.size(); i++) {
        ds_error_t why;
        edit_log_t log(&store.running);
        if (!wishes_replay(log, *store.schema, content.records[i], why))
            return journal_refuse(store.journal, content.offsets[i],
                                  why.text.empty() ? "it is not well formed" : why.text, error);
    }
    return true;
}

// Completes running with its defaults and judges it as a whole.
static bool validate_all(datastore_t &store, ds_error_t &error)
{
    const ly_ctx *ctx = store.schema->ctx.get();
    bool is_new = !store.running.first; // nothing is configured: what is mandatory is still to come
    LY_ERR result = is_new ? lyd_new_implicit_all(&store.running.first, ctx, LYD_IMPLICIT_NO_STATE, nullptr)
                           : lyd_validate_all(&store.running.first, ctx, LYD_VALIDATE_NO_STATE, nullptr);
    if (result == LY_SUCCESS)
        return true;
    return ds_fail(error, CONFD_ERR_VALIDATION,
                   "what " + store.options.state_dir + " holds breaks a rule of the data model: " + libyang_text(ctx) +
                       "; start with the model that wrote it, or restore the directory from a backup");
}

// Entries' indexes that replay has made point into a tree that validation may change.
static void drop_indexes(tree_t &tree)
{
    tree.indexes.lists.clear();
    for (lyd_node *top = tree.first; top; top = top->next) {
        lyd_node *at = nullptr;
        LYD_TREE_DFS_BEGIN(top, at)
        {
            if (at->priv)
                static_cast<node_indexes_t *>(at->priv)->lists.clear();
            LYD_TREE_DFS_END(top, at);
        }
    }
}

datastore_ptr datastore_open(const datastore_options_t &options, std::vector<std::string> &reports, ds_error_t &error)
{
    datastore_ptr store(new datastore_t);
    store->options = options;
    store->schema = schema_load(options.yang_dir, options.search_dirs, error);
    if (!store->schema)
        return nullptr;
    journal_content_t content;
    content.snapshot = "{}";
    if (!options.state_dir.empty() &&
        !journal_open(store->journal, options.state_dir, options.durable, content, reports, error))
        return nullptr;
    if (!load_snapshot(*store, content.snapshot, error) || !replay(*store, content, error))
        return nullptr;
    drop_indexes(store->running);
    store->changes = store->journal.commits + store->journal.sequence;
    if (!validate_all(*store, error))
        return nullptr;
    return store;
}

bool datastore_snapshot(datastore_t &store, bool in_any_case, ds_error_t &error)
{
    if (store.options.state_dir.empty() ||
        (!in_any_case && store.journal.failure.empty() && store.journal.size < store.options.journal_limit))
        return true;
    store_show_view(store, {});
    char *text = nullptr;
    LY_ERR result = lyd_print_mem(&text, store.running.first, LYD_JSON, LYD_PRINT_WITHSIBLINGS | LYD_PRINT_SHRINK);
    bool is_good = result == LY_SUCCESS && journal_snapshot(store.journal, text ? text : "{}", error);
    if (result != LY_SUCCESS)
        ds_fail(error, CONFD_ERR_INTERNAL, "running cannot be printed: " + libyang_text(store.schema->ctx.get()));
    free(text);
    return is_good;
}
