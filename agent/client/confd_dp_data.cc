// Data callbacks: what a frame asks for, and whom.
//
// A callback that the daemon has not set answers as one that knows nothing when it is a read; a write is refused. One
// that is set has to answer a read, and a write fails with any result but CONFD_OK.
#include "agent/client/confd_daemon.h"

#include <iterator>

// What a frame holds behind the keypath; of each operation its part.
struct data_args_t {
    owned_keypath_t path;
    owned_value_t value;
    int64_t next = -1;
    int find_type = WIRE_FIND_NEXT;
    owned_value_t keys[MAXKEYLEN];
    int num_keys = 0;
};

static bool read_nothing(wire_reader_t &, data_args_t &)
{
    return true;
}

static bool read_next(wire_reader_t &in, data_args_t &args)
{
    args.next = in.i64();
    return args.next >= -1;
}

static bool read_value(wire_reader_t &in, data_args_t &args)
{
    args.value.v = wire_get_value(in);
    return true;
}

static bool read_position(wire_reader_t &in, data_args_t &args)
{
    args.find_type = in.u8();
    args.num_keys = in.u8();
    if (args.find_type > WIRE_FIND_SAME_OR_NEXT || args.num_keys > MAXKEYLEN)
        return false;
    for (int i = 0; i < args.num_keys; i++)
        args.keys[i].v = wire_get_value(in);
    return true;
}

// ---- calling

static int call_exists(const confd_data_cbs &cbs, confd_trans_ctx *tctx, data_args_t &args)
{
    return cbs.exists_optional(tctx, &args.path.v);
}

static int call_get_elem(const confd_data_cbs &cbs, confd_trans_ctx *tctx, data_args_t &args)
{
    return cbs.get_elem(tctx, &args.path.v);
}

static int call_get_next(const confd_data_cbs &cbs, confd_trans_ctx *tctx, data_args_t &args)
{
    return cbs.get_next(tctx, &args.path.v, static_cast<long>(args.next));
}

static int call_set_elem(const confd_data_cbs &cbs, confd_trans_ctx *tctx, data_args_t &args)
{
    return cbs.set_elem(tctx, &args.path.v, &args.value.v);
}

static int call_create(const confd_data_cbs &cbs, confd_trans_ctx *tctx, data_args_t &args)
{
    return cbs.create(tctx, &args.path.v);
}

static int call_remove(const confd_data_cbs &cbs, confd_trans_ctx *tctx, data_args_t &args)
{
    return cbs.remove(tctx, &args.path.v);
}

static int call_get_object(const confd_data_cbs &cbs, confd_trans_ctx *tctx, data_args_t &args)
{
    return cbs.get_object(tctx, &args.path.v);
}

static int call_get_next_object(const confd_data_cbs &cbs, confd_trans_ctx *tctx, data_args_t &args)
{
    return cbs.get_next_object(tctx, &args.path.v, static_cast<long>(args.next));
}

static int call_find_next_object(const confd_data_cbs &cbs, confd_trans_ctx *tctx, data_args_t &args)
{
    confd_value_t keys[MAXKEYLEN]; // the memory stays the arguments'
    for (int i = 0; i < args.num_keys; i++)
        keys[i] = args.keys[i].v;
    return cbs.find_next_object(tctx, &args.path.v, args.find_type, keys, args.num_keys);
}

// ---- the answer of one who has nothing to say

static void put_nothing(wire_writer_t &)
{
}

static void put_not_there(wire_writer_t &out)
{
    out.u8(0);
}

static void put_no_value(wire_writer_t &out)
{
    out.u8(C_NOEXISTS);
}

static void put_no_key(wire_writer_t &out)
{
    out.i64(-1);
    out.u8(0);
}

static void put_no_objects(wire_writer_t &out)
{
    out.u32(0);
    out.u8(1);
    out.u32(0);
}

struct data_row_t {
    wire_op_t op;
    const char *name;
    answer_kind_t wants; // ANSWER_NOTHING: a write
    bool (*read)(wire_reader_t &in, data_args_t &args);
    int (*call)(const confd_data_cbs &cbs, confd_trans_ctx *tctx, data_args_t &args);
    void (*put_default)(wire_writer_t &out);
};

// In the order of the callbacks in their record, which is that of the registered bits.
static constexpr data_row_t data_rows[] = {
    { WIRE_CB_EXISTS, "exists_optional", ANSWER_EXISTENCE, read_nothing, call_exists, put_not_there },
    { WIRE_CB_GET_ELEM, "get_elem", ANSWER_VALUE, read_nothing, call_get_elem, put_no_value },
    { WIRE_CB_GET_NEXT, "get_next", ANSWER_KEY, read_next, call_get_next, put_no_key },
    { WIRE_CB_SET_ELEM, "set_elem", ANSWER_NOTHING, read_value, call_set_elem, put_nothing },
    { WIRE_CB_CREATE, "create", ANSWER_NOTHING, read_nothing, call_create, put_nothing },
    { WIRE_CB_REMOVE, "remove", ANSWER_NOTHING, read_nothing, call_remove, put_nothing },
    { WIRE_CB_GET_OBJECT, "get_object", ANSWER_OBJECT, read_nothing, call_get_object, put_no_objects },
    { WIRE_CB_GET_NEXT_OBJECT, "get_next_object", ANSWER_OBJECTS, read_next, call_get_next_object, put_no_objects },
    { WIRE_CB_FIND_NEXT_OBJECT, "find_next_object", ANSWER_OBJECTS, read_position, call_find_next_object,
      put_no_objects },
};
static_assert(std::size(data_rows) == WIRE_CB_FIND_NEXT_OBJECT - WIRE_CB_EXISTS + 1);

static void run(served_call_t &call, daemon_trans_t &trans, const data_registration_t &registration,
                const data_row_t &row, data_args_t &args)
{
    trans.ctx.worker_fd = call.fd;
    trans.ctx.cb_opaque = registration.cbs.cb_opaque;
    call.wants = row.wants;
    call.path = &args.path.v;
    callback_state_t &state = confd_callback_state(&trans.ctx.internal);
    callback_scope scope(state, call);
    int result = row.call(registration.cbs, &trans.ctx, args);
    bool is_write = row.wants == ANSWER_NOTHING;
    if (result < 0 || (is_write && result != CONFD_OK))
        call.refuse(CONFD_ERR_EXTERNAL, state.error);
    else if (!call.is_answered && !is_write)
        call.refuse(CONFD_ERR_EXTERNAL,
                    std::string(row.name) + " of callpoint \"" + registration.cbs.callpoint + "\" gave no answer");
}

static const data_registration_t *find_registration(const daemon_t &daemon, std::string_view point)
{
    for (auto row = daemon.data.rbegin(); row != daemon.data.rend(); ++row)
        if (point == row->cbs.callpoint)
            return &*row;
    return nullptr;
}

bool confd_serve_data(served_call_t &call, wire_op_t op)
{
    const data_row_t &row = data_rows[op - WIRE_CB_EXISTS];
    uint32_t th = call.in.u32();
    std::string point(call.in.text());
    data_args_t args;
    if (!wire_get_keypath(call.in, args.path.v) || !row.read(call.in, args) || !call.in.finished())
        return false;
    std::shared_ptr<daemon_trans_t> trans = confd_trans_of_call(call, th);
    if (trans == nullptr)
        return true;
    const data_registration_t *registration = find_registration(call.daemon, point);
    bool is_set = registration != nullptr && (registration->bits & 1u << (op - WIRE_CB_EXISTS)) != 0;
    if (is_set)
        run(call, *trans, *registration, row, args);
    else if (row.wants != ANSWER_NOTHING && registration != nullptr)
        row.put_default(call.answer);
    else
        call.refuse(CONFD_ERR_UNAVAILABLE,
                    std::string("the daemon has no ") + row.name + " of callpoint \"" + point + "\"");
    return true;
}
