// Diff delivery: turns one subscription delivery into calls of the row's handler.
//
// Iterated delivery calls the handler once per changed instance at the row's level, flat delivery once with all that
// changed. A row with a delete priority is delivered twice per commit, at two priorities: the delete pass hands over
// what went away, the add pass the rest. Agent calls for the changes are legal only inside the delivery, so nothing
// here may be deferred.

#include "tconfd/tconfd_internal.h"

#include "common/tip_assert.h"

#include <memory>
#include <string>

namespace
{

constexpr size_t PATH_TEXT_SIZE = 128;

// What the agent handed over. Freed as a whole; the filtered array holds shallow copies of it.
struct modifications {
    confd_tag_value_t *values = nullptr;
    int n = 0;

    modifications() = default;
    modifications(const modifications &) = delete;
    modifications &operator=(const modifications &) = delete;
    ~modifications() { tconfd_free_modifications(n, values); }
};

enum applies_t {
    NOTHING_APPLIES,
    APPLIES
};

// The array to hand over in this pass: the modifications themselves, or a filtered copy kept in `filtered`.
struct applicable_t {
    confd_tag_value_t *values;
    int n;
    std::unique_ptr<confd_tag_value_t[]> filtered;
};

applies_t select_applicable(const tconfd_delivery &delivery, const modifications &mods, applicable_t *out)
{
    if (mods.n == 0) {
        tconfd_trace("Received zero modifications (%s)", delivery.row->path);
        return NOTHING_APPLIES;
    }
    out->values = mods.values;
    out->n = mods.n;
    if (!delivery.has_passes())
        return APPLIES;
    out->filtered = std::make_unique<confd_tag_value_t[]>(static_cast<size_t>(mods.n));
    out->values = out->filtered.get();
    out->n = tconfd_filter_modifications(mods.values, out->values, mods.n, delivery.is_delete_pass());
    if (out->n > 0)
        return APPLIES;
    tconfd_trace("Received zero applicable modifications (%s)", delivery.row->path);
    return NOTHING_APPLIES;
}

void log_get_failure(const char *path, int result)
{
    tconfd_log("Failed to get modifications(%s - %d) : %s :%s (%d) : %s", tconfd_name(), result, path,
               confd_strerror(confd_errno), confd_errno, confd_lasterr());
}

bool is_key_element(const confd_value_t *element)
{
    return element[0].type != C_XMLTAG;
}

// Appends shallow copies of the path's keys, outermost first, to keys, which has room for `most`. The count of keys in
// the path, which may be more.
int collect_keys(const confd_hkeypath_t &path, confd_value_t *keys, int most)
{
    int found = 0;
    for (int level = path.len - 1; level >= 0; level--) {
        const confd_value_t *element = path.v[level];
        if (!is_key_element(element))
            continue;
        for (int i = 0; i < MAXKEYLEN && element[i].type != C_NOEXISTS; i++, found++) {
            if (found < most)
                keys[found] = element[i];
        }
    }
    return found;
}

int call_handler(tconfd_sub *row, int op, uint8_t num_keys, confd_value_t *keys, int n, confd_tag_value_t *values)
{
    tip_assert(n <= UINT16_MAX); // the handlers' counts have 16 bits
    return row->handler(row, op, num_keys, keys, static_cast<uint16_t>(n), values);
}

// Keeps the handler's verdict in the row. True when it was success.
bool note_verdict(tconfd_sub *row, int result, const char *path)
{
    if (result == 0) {
        row->flags &= static_cast<uint8_t>(~TCONFD_SUB_FAILED);
        return true;
    }
    row->flags |= TCONFD_SUB_FAILED;
    tconfd_log("Config callback failed (%s - %d) : %s", tconfd_name(), result, path);
    return false;
}

cdb_iter_ret hand_over(tconfd_sub *row, const confd_hkeypath_t &kp, cdb_iter_op op, const char *path, int n,
                       confd_tag_value_t *values)
{
    std::unique_ptr<confd_value_t[]> keys;
    if (row->num_keys > 0) {
        keys.reset(new (std::nothrow) confd_value_t[row->num_keys]);
        if (keys == nullptr) {
            tconfd_log("Could not allocate memory(%s) : %s", tconfd_name(), path);
            return ITER_STOP;
        }
    }
    int num_keys = row->num_keys;
    int num_keys_found = collect_keys(kp, keys.get(), num_keys);
    tip_assert(num_keys == num_keys_found);
    int result = call_handler(row, op, row->num_keys, keys.get(), n, values);
    return note_verdict(row, result, path) ? ITER_CONTINUE : ITER_STOP;
}

} // namespace

cdb_iter_ret tconfd_sub_diff_iter(confd_hkeypath_t *kp, cdb_iter_op op, confd_value_t *, confd_value_t *, void *state)
{
    auto *delivery = static_cast<tconfd_delivery *>(state);
    tconfd_sub *row = delivery->row;
    char path[PATH_TEXT_SIZE];
    (void)confd_pp_kpath(path, sizeof path, kp);
    tconfd_trace("iter: Path buffer: %s, oper: %d", path, op);
    if (op == MOP_DELETED) {
        if (delivery->has_passes() && !delivery->is_delete_pass()) {
            // Handled once, in the delete pass.
            tconfd_trace("Delete suppressed in add subscription (%s)", path);
            return ITER_CONTINUE;
        }
        return hand_over(row, *kp, op, path, 0, nullptr);
    }
    modifications mods;
    int result = cdb_get_modifications_iter(row->ctx->subscr_fd, 0, &mods.values, &mods.n);
    if (result != CONFD_OK) {
        log_get_failure(path, result);
        return ITER_STOP;
    }
    if (mods.values == nullptr)
        return ITER_STOP;
    applicable_t applicable{};
    if (select_applicable(*delivery, mods, &applicable) == NOTHING_APPLIES)
        return ITER_CONTINUE;
    return hand_over(row, *kp, op, path, applicable.n, applicable.values);
}

int tconfd_sub_diff_no_keys(tconfd_delivery *delivery)
{
    tconfd_sub *row = delivery->row;
    modifications mods;
    int result = cdb_get_modifications(row->ctx->subscr_fd, delivery->point, 0, &mods.values, &mods.n, nullptr);
    if (result != CONFD_OK) {
        log_get_failure(row->path, result);
        return -1;
    }
    applicable_t applicable{};
    if (select_applicable(*delivery, mods, &applicable) == NOTHING_APPLIES)
        return 0;
    result = call_handler(row, MOP_MODIFIED, 0, nullptr, applicable.n, applicable.values);
    (void)note_verdict(row, result, row->path); // the failure travels in the row's flags
    return 0;
}

int tconfd_filter_modifications(const confd_tag_value_t *src, confd_tag_value_t *dst, int n, bool delete_pass)
{
    if (n <= 0)
        return 0;
    confd_vtype prev = src[0].v.type;
    bool applicable = false;
    int count = 0;
    for (int i = 0; i < n; i++) {
        confd_vtype type = src[i].v.type;
        bool is_bracket = type == C_XMLBEGIN || type == C_XMLEND;
        bool copied = delete_pass ? type == C_NOEXISTS || is_bracket : type != C_NOEXISTS;
        if (copied) {
            dst[count++] = src[i];
            // An empty container that was added counts as a change.
            if (!is_bracket || (!delete_pass && type == C_XMLEND && prev == C_XMLBEGIN))
                applicable = true;
        }
        prev = type;
    }
    return applicable ? count : 0;
}

void tconfd_free_modifications(int n, confd_tag_value_t *values)
{
    for (int i = 0; i < n && values != nullptr; i++) {
        switch (values[i].v.type) {
        case C_BUF:
        case C_QNAME:
        case C_LIST:
        case C_OBJECTREF:
        case C_OID:
        case C_BINARY:
            confd_free_value(&values[i].v);
            break;
        default:
            break; // holds no memory
        }
    }
    free(values);
}
