// The answers of data callbacks: put into the frame as they are given, since the user's memory is his own again then;
// sent when the callback returns, if it succeeds.
#include "agent/client/confd_daemon.h"

static constexpr int MAX_VALUES = 1000000; // of one object or one array of them

// The running callback, when it asks for an answer of one of these kinds and has none yet. Else null with the error set.
static served_call_t *start_answer(confd_trans_ctx *tctx, unsigned kinds)
{
    served_call_t *call = tctx != nullptr ? confd_callback_state(&tctx->internal).call : nullptr;
    if (call == nullptr)
        (void)confd_fail(CONFD_ERR_PROTOUSAGE, "an answer outside of a data callback");
    else if ((call->wants & kinds) == 0)
        (void)confd_fail(CONFD_ERR_PROTOUSAGE, "the callback asks for an answer of another kind");
    else if (call->is_answered)
        (void)confd_fail(CONFD_ERR_PROTOUSAGE, "the callback has been answered already");
    else
        return call;
    return nullptr;
}

static int answer_existence(served_call_t *call, bool is_there)
{
    wire_writer_t answer;
    answer.u8(is_there);
    return confd_give_answer(call, std::move(answer));
}

int confd_data_reply_value(struct confd_trans_ctx *tctx, const confd_value_t *v)
{
    served_call_t *call = start_answer(tctx, ANSWER_VALUE);
    if (call == nullptr)
        return CONFD_ERR;
    if (v == nullptr)
        return confd_fail(CONFD_ERR_PROTOUSAGE, "no value; confd_data_reply_not_found says that there is none");
    wire_writer_t answer;
    wire_put_value(answer, *v);
    return confd_give_answer(call, std::move(answer));
}

int confd_data_reply_found(struct confd_trans_ctx *tctx)
{
    served_call_t *call = start_answer(tctx, ANSWER_EXISTENCE);
    return call != nullptr ? answer_existence(call, true) : CONFD_ERR;
}

// ---- objects

static void start_objects(wire_writer_t &out, int timeout_ms, bool is_end, size_t count)
{
    out.u32(timeout_ms > 0 ? static_cast<uint32_t>(timeout_ms) : 0);
    out.u8(is_end);
    out.u32(static_cast<uint32_t>(count));
}

static bool is_array(const confd_tag_value_t *values, int n)
{
    return n >= 0 && n <= MAX_VALUES && (n == 0 || values != nullptr);
}

static bool is_next(long next)
{
    return next >= -1;
}

static void put_object(wire_writer_t &out, const confd_cs_node *node, const confd_tag_value_t *values, int n, long next)
{
    out.i64(next);
    confd_put_tag_values(out, node, values, n);
}

static const confd_cs_node *node_of(const served_call_t &call)
{
    return confd_find_cs_node(call.path, call.path->len);
}

int confd_data_reply_not_found(struct confd_trans_ctx *tctx)
{
    served_call_t *call = start_answer(tctx, ANSWER_EXISTENCE | ANSWER_VALUE | ANSWER_OBJECT);
    if (call == nullptr)
        return CONFD_ERR;
    if (call->wants == ANSWER_EXISTENCE)
        return answer_existence(call, false);
    wire_writer_t answer;
    if (call->wants == ANSWER_VALUE)
        answer.u8(C_NOEXISTS);
    else
        start_objects(answer, 0, true, 0);
    return confd_give_answer(call, std::move(answer));
}

int confd_data_reply_next_key(struct confd_trans_ctx *tctx, const confd_value_t *v, int num_vals, long next)
{
    served_call_t *call = start_answer(tctx, ANSWER_KEY);
    if (call == nullptr)
        return CONFD_ERR;
    int count = v != nullptr ? num_vals : 0;
    if (count < 0 || count > MAXKEYLEN || !is_next(next))
        return confd_fail(CONFD_ERR_PROTOUSAGE, "%d keys, next %ld", num_vals, next);
    wire_writer_t answer;
    answer.i64(count > 0 ? next : -1);
    confd_put_keys(answer, v, count);
    return confd_give_answer(call, std::move(answer));
}

int confd_data_reply_tag_value_array(struct confd_trans_ctx *tctx, const confd_tag_value_t *tvs, int n)
{
    served_call_t *call = start_answer(tctx, ANSWER_OBJECT);
    if (call == nullptr)
        return CONFD_ERR;
    if (!is_array(tvs, n))
        return confd_fail(CONFD_ERR_PROTOUSAGE, "%d values of an object", n);
    wire_writer_t answer;
    start_objects(answer, 0, true, 1);
    put_object(answer, node_of(*call), tvs, n, -1);
    return confd_give_answer(call, std::move(answer));
}

int confd_data_reply_next_object_tag_value_array(struct confd_trans_ctx *tctx, const confd_tag_value_t *tvs, int n,
                                                 long next)
{
    served_call_t *call = start_answer(tctx, ANSWER_OBJECTS);
    if (call == nullptr)
        return CONFD_ERR;
    wire_writer_t answer;
    if (tvs == nullptr) {
        start_objects(answer, 0, true, 0);
        return confd_give_answer(call, std::move(answer));
    }
    if (!is_array(tvs, n) || !is_next(next))
        return confd_fail(CONFD_ERR_PROTOUSAGE, "%d values of an object, next %ld", n, next);
    start_objects(answer, 0, false, 1);
    put_object(answer, node_of(*call), tvs, n, next);
    return confd_give_answer(call, std::move(answer));
}

// The objects before the record of the end, if there is one.
static int count_objects(const confd_tag_next_object *objects, int n)
{
    int count = 0;
    while (count < n && objects[count].tv != nullptr)
        count++;
    return count;
}

int confd_data_reply_next_object_tag_value_arrays(struct confd_trans_ctx *tctx,
                                                  const struct confd_tag_next_object *tobj, int nobj,
                                                  int timeout_millisecs)
{
    served_call_t *call = start_answer(tctx, ANSWER_OBJECTS);
    if (call == nullptr)
        return CONFD_ERR;
    if (nobj > MAX_VALUES)
        return confd_fail(CONFD_ERR_PROTOUSAGE, "%d objects", nobj);
    int count = tobj != nullptr ? count_objects(tobj, nobj) : 0;
    bool is_end = tobj == nullptr || nobj <= 0 || count < nobj;
    const confd_cs_node *node = node_of(*call);
    wire_writer_t answer;
    start_objects(answer, timeout_millisecs, is_end, static_cast<size_t>(count));
    for (int i = 0; i < count; i++) {
        if (!is_array(tobj[i].tv, tobj[i].n) || !is_next(tobj[i].next))
            return confd_fail(CONFD_ERR_PROTOUSAGE, "object %d has %d values, next %ld", i, tobj[i].n, tobj[i].next);
        put_object(answer, node, tobj[i].tv, tobj[i].n, tobj[i].next);
    }
    return confd_give_answer(call, std::move(answer));
}
