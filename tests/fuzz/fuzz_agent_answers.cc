// What daemons may answer: a user's question to agentd, in memory, and a daemon that serves all points of the model with
// the input's bytes. Whatever it says, the question ends, nothing of it stays, and the agent goes on.
//
// An input is: the question (a row), a detail of it (which edits, which path), how the daemon has registered, and then
// steps, one for each callback that comes: what to do (step_t), a length and as many bytes. Behind the last step callbacks
// are answered well and with nothing.
#include "tests/fuzz/agent_in_memory.h"

#include <cstring>

namespace
{

constexpr size_t MAX_CALLBACKS = 300; // then the daemon goes
constexpr size_t MAX_ROUNDS = 20000;  // without the daemon

server_t &server()
{
    static server_t *made = make_server(CONFORM_YANG_DIR, EXTENSION_YANG_DIR);
    return *made;
}

// ---- clients

struct frame_t {
    wire_header_t header;
    std::string payload;
};

class client_t
{
public:
    client_t(uint8_t kind, uint32_t daemon_id) : fd_(connect_client(server()))
    {
        send_bytes(hello_frame(kind, daemon_id));
    }
    client_t(const client_t &) = delete;
    client_t &operator=(const client_t &) = delete;
    ~client_t() { end(); }

    void send_bytes(std::string_view bytes)
    {
        while (!bytes.empty() && fd_ >= 0) {
            ssize_t n = send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (n < 0 && errno != EAGAIN)
                return;
            bytes.remove_prefix(n > 0 ? static_cast<size_t>(n) : 0);
            turn(server(), bytes.empty() ? 0 : 1);
            require(bytes.empty() || ++stalls_ < 100000, "a request is never read");
        }
    }
    // The id of the request.
    uint32_t ask(uint16_t op, std::string_view payload)
    {
        send_bytes(wire_frame(op, 0, ++last_id_, payload));
        return last_id_;
    }
    bool read_frame(frame_t &frame)
    {
        static char bytes[1 << 16];
        ssize_t n = fd_ < 0 ? 0 : recv(fd_, bytes, sizeof bytes, 0);
        is_ended_ = is_ended_ || n == 0 || (n < 0 && errno != EAGAIN);
        in_.append(bytes, n > 0 ? static_cast<size_t>(n) : 0);
        if (in_.size() < WIRE_HEADER_SIZE)
            return false;
        frame.header = wire_parse_header(in_.data());
        require(frame.header.length <= WIRE_MAX_FRAME, "the agent sends a frame that is too long");
        if (in_.size() < WIRE_HEADER_SIZE + frame.header.length)
            return false;
        frame.payload = in_.substr(WIRE_HEADER_SIZE, frame.header.length);
        in_.erase(0, WIRE_HEADER_SIZE + frame.header.length);
        return true;
    }
    // The first item of the reply to the request; 0 when there is none.
    uint32_t await(uint32_t id)
    {
        frame_t frame;
        for (int i = 0; i < 100; turn(server(), 1), i++)
            while (read_frame(frame))
                if (frame.header.id == id) {
                    wire_reader_t in(frame.payload);
                    return in.u32();
                }
        require(false, "a request of the preparation is not answered");
        return 0;
    }
    void end()
    {
        if (fd_ >= 0)
            close(fd_);
        fd_ = -1;
    }
    bool is_ended() const { return is_ended_; }

private:
    int fd_;
    std::string in_;
    uint32_t last_id_ = 1; // the hello
    bool is_ended_ = false;
    int stalls_ = 0;
};

// ---- questions

struct edit_t {
    const char *path;
    const char *text; // null: create
};
constexpr edit_t hook_edits[] = { { "/hook/user{ann}/level", "9" },
                                  { "/hook/user{ann}/task{1}/permission", "rw" },
                                  { "/hook/user{ann}/home", nullptr } };
constexpr edit_t chain_edits[] = { { "/hook/banner", "hi" }, { "/hook/chain", "1" }, { "/hook/needs", "x" } };
constexpr edit_t leaf_edits[] = { { "/valid/address", "10.1.2.3" }, { "/valid/on", nullptr } };
constexpr edit_t list_edits[] = { { "/valid/port{a}/mtu", "1400" },
                                  { "/valid/port{a}/member", "x" },
                                  { "/valid/port{b}/options/speed", "4" } };
constexpr edit_t policy_edits[] = { { "/valid/policy/rate", "5" } };
constexpr edit_t other_edits[] = { { "/data/vpn{5}/extra", "x" },
                                   { "/data/vpn{5}/service{1}/next", "y" },
                                   { "/data/vpn{5}/rule{a}/act", "go" } };
constexpr std::span<const edit_t> edit_groups[] = { hook_edits, chain_edits,  leaf_edits,
                                                    list_edits, policy_edits, other_edits };

constexpr const char *read_paths[] = {
    "/show/element",
    "/show/element{1}",
    "/show/element{1}/size",
    "/show/element{1}/detail/note",
    "/show/object",
    "/show/object{1 a}",
    "/show/object{1 a}/flag",
    "/show/object{1 a}/path",
    "/show/keyed",
    "/show/keyed{a}/value",
    "/show/process",
    "/show/process/title",
    "/show/single",
    "/show/added",
    "/data/vpn{5}/arp",
    "/data/vpn{5}/arp{10.0.0.1}/mac",
    "/show",
    "/data",
    "/",
    "/show/element{1}/inner{2}/text",
};
struct action_row_t {
    const char *path;
    const char *input;
};
constexpr action_row_t action_rows[] = {
    { "/conform:act/add", "{\"a\":1}" },
    { "/conform:act/add", "{\"a\":1,\"note\":[\"x\"]}" },
    { "/conform:act/quiet", "" },
    { "/conform:dump", "{\"what\":\"all\",\"count\":3}" },
    { "/conform:data/vpn{5}/reset", "{\"force\":true}" },
    { "/conform:unserved", "" },
};

void put_th_path(wire_writer_t &out, uint32_t th, const char *path)
{
    out.u32(th);
    out.text(path);
}

struct asking_t {
    client_t &user;
    uint8_t detail;

    uint32_t begin(uint8_t db, bool writable)
    {
        wire_writer_t out;
        out.u8(db);
        out.u8(writable);
        out.u32(0);
        return user.await(user.ask(WIRE_MAAPI_START_TRANS, out.bytes));
    }
    void edit(uint32_t th, std::span<const edit_t> edits)
    {
        for (const edit_t &edit : edits) {
            wire_writer_t out;
            put_th_path(out, th, edit.path);
            if (edit.text)
                out.text(edit.text);
            user.ask(edit.text ? WIRE_MAAPI_SET_TEXT : WIRE_MAAPI_CREATE, out.bytes);
        }
    }
    uint32_t edited(uint8_t db)
    {
        uint32_t th = begin(db, true);
        for (size_t i = 0; i < std::size(edit_groups); i++)
            if (detail & (1u << i))
                edit(th, edit_groups[i]);
        return th;
    }
    uint32_t apply(uint32_t th, bool keep_open)
    {
        wire_writer_t out;
        out.u32(th);
        out.u8(keep_open);
        return user.ask(WIRE_MAAPI_APPLY_TRANS, out.bytes);
    }
    const char *path() const { return read_paths[detail % std::size(read_paths)]; }
};

uint32_t ask_commit(asking_t &asking)
{
    return asking.apply(asking.edited(WIRE_DB_RUNNING), false);
}
uint32_t ask_candidate(asking_t &asking)
{
    asking.apply(asking.edited(WIRE_DB_CANDIDATE), false);
    return asking.user.ask(WIRE_MAAPI_CANDIDATE_COMMIT, "");
}
uint32_t ask_validation(asking_t &asking)
{
    wire_writer_t out;
    out.u32(asking.edited(WIRE_DB_RUNNING));
    return asking.user.ask(WIRE_MAAPI_VALIDATE_TRANS, out.bytes);
}
uint32_t ask_deletion(asking_t &asking)
{
    uint32_t th = asking.edited(WIRE_DB_RUNNING);
    asking.apply(th, true);
    for (const char *path : { "/hook", "/valid", "/data/vpn{5}" }) {
        wire_writer_t out;
        put_th_path(out, th, path);
        asking.user.ask(WIRE_MAAPI_DELETE, out.bytes);
    }
    return asking.apply(th, false);
}
template <uint16_t op> uint32_t ask_path(asking_t &asking)
{
    wire_writer_t out;
    put_th_path(out, asking.begin(asking.detail & 0x40 ? WIRE_DB_RUNNING : WIRE_DB_OPERATIONAL, false), asking.path());
    return asking.user.ask(op, out.bytes);
}
uint32_t ask_next(asking_t &asking)
{
    wire_writer_t out;
    put_th_path(out, asking.begin(WIRE_DB_OPERATIONAL, false), asking.path());
    out.u8(0);
    out.u32(asking.detail & 0x80 ? 1000000 : 2);
    return asking.user.ask(WIRE_MAAPI_NEXT, out.bytes);
}
uint32_t ask_show(asking_t &asking)
{
    wire_writer_t out;
    put_th_path(out, 0, asking.path());
    out.u8(asking.detail & 1);
    out.u32(1);
    return asking.user.ask(WIRE_MAAPI_SHOW, out.bytes);
}
uint32_t ask_walk(asking_t &asking)
{
    wire_writer_t out;
    put_th_path(out, 0, asking.path());
    out.u32(asking.detail & 0x40 ? 1 : 0);
    uint32_t walk = asking.user.await(asking.user.ask(WIRE_MAAPI_WALK, out.bytes));
    uint32_t last = 0;
    for (uint32_t most : { 1u, 3u, 1000u, 1000u }) {
        wire_writer_t next;
        next.u32(walk);
        next.u32(most);
        last = asking.user.ask(WIRE_MAAPI_WALK_NEXT, next.bytes);
    }
    return last;
}
uint32_t ask_action(asking_t &asking)
{
    const action_row_t &row = action_rows[asking.detail % std::size(action_rows)];
    wire_writer_t out;
    put_th_path(out, asking.detail & 0x40 ? asking.edited(WIRE_DB_RUNNING) : 0, row.path);
    out.text(row.input);
    return asking.user.ask(WIRE_MAAPI_ACTION, out.bytes);
}
uint32_t ask_completion(asking_t &asking)
{
    wire_writer_t out;
    put_th_path(out, 0, "/data/bind");
    out.text("a");
    out.u8(9);
    return asking.user.ask(WIRE_MAAPI_COMPLETE, out.bytes);
}
constexpr uint32_t (*questions[])(asking_t &asking) = {
    ask_commit,
    ask_candidate,
    ask_validation,
    ask_deletion,
    ask_path<WIRE_MAAPI_GET>,
    ask_path<WIRE_MAAPI_EXISTS>,
    ask_path<WIRE_MAAPI_NUM_INSTANCES>,
    ask_next,
    ask_show,
    ask_walk,
    ask_action,
    ask_completion,
};

// ---- the daemon

constexpr uint32_t HOOK_CALLBACKS = 8 | 16 | 32; // set_elem, create, remove
constexpr uint32_t provider_forms[] = {
    2 | 4, 64 | 128 | 256, 64 | 128, 1 | 2 | 4, 0x1ff, 4, 128, 2 | 128, 64 | 4 | 1
};

struct point_row_t {
    wire_op_t op;
    const char *name;
    uint32_t callbacks; // 0: of a provider, by the input
};
constexpr point_row_t point_rows[] = {
    { WIRE_REG_DATA_CB, "hook-user", HOOK_CALLBACKS },
    { WIRE_REG_DATA_CB, "hook-task", HOOK_CALLBACKS },
    { WIRE_REG_DATA_CB, "hook-banner", HOOK_CALLBACKS },
    { WIRE_REG_DATA_CB, "hook-chain", HOOK_CALLBACKS },
    { WIRE_REG_DATA_CB, "hook-service", HOOK_CALLBACKS },
    { WIRE_REG_DATA_CB, "show-arp", 0 },
    { WIRE_REG_DATA_CB, "show-element", 0 },
    { WIRE_REG_DATA_CB, "show-object", 0 },
    { WIRE_REG_DATA_CB, "show-path", 0 },
    { WIRE_REG_DATA_CB, "show-keyed", 0 },
    { WIRE_REG_DATA_CB, "show-process", 0 },
    { WIRE_REG_DATA_CB, "show-single", 0 },
    { WIRE_REG_DATA_CB, "show-added", 0 },
    { WIRE_REG_VALPOINT, "val-address", 0 },
    { WIRE_REG_VALPOINT, "val-port", 0 },
    { WIRE_REG_VALPOINT, "val-port-name", 0 },
    { WIRE_REG_VALPOINT, "val-mtu", 0 },
    { WIRE_REG_VALPOINT, "val-member", 0 },
    { WIRE_REG_VALPOINT, "val-policy", 0 },
    { WIRE_REG_VALPOINT, "val-on", 0 },
    { WIRE_REG_VALPOINT, "val-extra", 0 },
    { WIRE_REG_ACTION, "act-add", ACTION_INIT | ACTION_ABORT | ACTION_ACTION },
    { WIRE_REG_ACTION, "act-quiet", ACTION_INIT | ACTION_ACTION },
    { WIRE_REG_ACTION, "act-reset", ACTION_INIT | ACTION_ABORT | ACTION_ACTION },
    { WIRE_REG_ACTION, "act-dump", ACTION_INIT | ACTION_ABORT | ACTION_COMMAND },
    { WIRE_REG_ACTION, "complete-bind", ACTION_INIT | ACTION_COMPLETION },
};

enum step_t : uint8_t {
    STEP_ANSWER,    // with the bytes as payload
    STEP_FAIL,      // with the bytes as the payload of a failed callback
    STEP_WELL,      // with nothing; the bytes are for nobody
    STEP_RAW,       // the bytes instead of a frame
    STEP_OTHER_ID,  // the bytes as the answer to another callback
    STEP_SILENCE,   // for longer than the agent waits
    STEP_EDIT,      // attached to the callback's transaction, with the bytes as an operation and its payload; then well
    STEP_INTERRUPT, // of the user's question; then well
    STEP_USER_GOES, // then well
    STEP_NOTIFY,    // the bytes as a notification's payload; then well
    STEP_TWICE,     // with the bytes, two times
    STEP_FREE,      // the bytes as an operation of the worker's and its payload; then well
    STEPS
};

// Ends of lists, values that are not there, inits that are content.
std::string nothing_for(uint16_t op, uint32_t worker_id)
{
    wire_writer_t out;
    switch (op) {
    case WIRE_CB_TRANS_INIT:
    case WIRE_CB_VALIDATE_INIT:
    case WIRE_CB_ACTION_INIT:
        out.u32(worker_id);
        break;
    case WIRE_CB_EXISTS:
    case WIRE_CB_GET_ELEM:
        out.u8(op == WIRE_CB_EXISTS ? 0 : static_cast<uint8_t>(C_NOEXISTS));
        break;
    case WIRE_CB_GET_NEXT:
        out.i64(-1);
        out.u8(0);
        break;
    case WIRE_CB_GET_OBJECT:
    case WIRE_CB_GET_NEXT_OBJECT:
    case WIRE_CB_FIND_NEXT_OBJECT:
        out.u32(0);
        out.u8(1);
        out.u32(0);
        break;
    case WIRE_CB_ACTION:
    case WIRE_CB_COMPLETION:
        out.u32(0);
        break;
    default:
        break;
    }
    return out.bytes;
}

class input_t
{
public:
    explicit input_t(std::string_view bytes) : bytes_(bytes) {}
    uint8_t byte()
    {
        uint8_t byte = bytes_.empty() ? 0 : static_cast<uint8_t>(bytes_[0]);
        bytes_.remove_prefix(bytes_.empty() ? 0 : 1);
        return byte;
    }
    std::string_view take(size_t size)
    {
        std::string_view taken = bytes_.substr(0, size);
        bytes_.remove_prefix(taken.size());
        return taken;
    }
    bool is_empty() const { return bytes_.empty(); }

private:
    std::string_view bytes_;
};

struct stage_t {
    input_t &input;
    bool is_init_fuzzed; // inits take steps too
    client_t user{ WIRE_KIND_MAAPI, 0 };
    client_t attached{ WIRE_KIND_MAAPI, 0 };
    client_t control{ WIRE_KIND_CONTROL, 0 };
    std::unique_ptr<client_t> worker = nullptr;
    uint32_t worker_id = 0;
    uint32_t stream = 0; // handle
    size_t callbacks = 0;
    bool is_silent = false;

    void answer(client_t &client, const frame_t &frame, uint16_t status, std::string_view payload,
                uint32_t id_offset = 0)
    {
        client.send_bytes(wire_frame(frame.header.op | WIRE_REPLY, status, frame.header.id + id_offset, payload));
    }
    void answer_well(client_t &client, const frame_t &frame)
    {
        answer(client, frame, 0, nothing_for(frame.header.op, worker_id));
    }
    static uint16_t take_op(std::string_view &bytes, uint16_t first, uint16_t count)
    {
        uint8_t number = bytes.empty() ? 0 : static_cast<uint8_t>(bytes[0]);
        bytes.remove_prefix(bytes.empty() ? 0 : 1);
        return static_cast<uint16_t>(first + number % count);
    }
    void edit(const frame_t &frame, std::string_view bytes)
    {
        std::string th = frame.payload.substr(0, sizeof(uint32_t));
        attached.ask(WIRE_MAAPI_ATTACH, th);
        uint16_t op = take_op(bytes, WIRE_MAAPI_FINISH_TRANS, WIRE_MAAPI_MOVE - WIRE_MAAPI_FINISH_TRANS + 1);
        attached.ask(op, th + std::string(bytes));
        turn(server(), 2);
    }
    void notify(std::string_view bytes)
    {
        wire_writer_t out;
        out.u32(stream);
        worker->ask(WIRE_NOTIFY_SEND, out.bytes + std::string(bytes));
    }
    void serve(client_t &client, const frame_t &frame);
    void serve_all(client_t &client)
    {
        frame_t frame;
        while (client.read_frame(frame))
            if ((frame.header.op & WIRE_REPLY) == 0)
                serve(client, frame);
    }
};

void stage_t::serve(client_t &client, const frame_t &frame)
{
    bool is_init = &client == &control;
    if (++callbacks > MAX_CALLBACKS) {
        control.end();
        worker->end();
        return;
    }
    if (input.is_empty() || (is_init && !is_init_fuzzed))
        return answer_well(client, frame);
    auto step = static_cast<step_t>(input.byte() % STEPS);
    size_t low = input.byte();
    std::string_view bytes = input.take(low | static_cast<size_t>(input.byte() & 3) << 8);
    switch (step) {
    case STEP_ANSWER:
        return answer(client, frame, 0, bytes);
    case STEP_FAIL:
        return answer(client, frame, CONFD_ERR_EXTERNAL, bytes);
    case STEP_RAW:
        return client.send_bytes(bytes);
    case STEP_OTHER_ID:
        return answer(client, frame, 0, bytes, 1);
    case STEP_SILENCE:
        is_silent = true;
        return;
    case STEP_TWICE:
        answer(client, frame, 0, bytes);
        return answer(client, frame, 0, bytes);
    case STEP_EDIT:
        edit(frame, bytes);
        break;
    case STEP_INTERRUPT:
        user.ask(WIRE_MAAPI_INTERRUPT, "");
        turn(server(), 2);
        break;
    case STEP_USER_GOES:
        user.end();
        turn(server(), 2);
        break;
    case STEP_NOTIFY:
        notify(bytes);
        break;
    case STEP_FREE: {
        uint16_t op = take_op(bytes, WIRE_NOTIFY_SEND, 2);
        worker->ask(op, bytes);
        break;
    }
    case STEP_WELL:
    case STEPS:
        break;
    }
    answer_well(client, frame);
}

void start_session(client_t &client)
{
    wire_writer_t out;
    for (const char *text : { "admin", "cli", "127.0.0.1" })
        out.text(text);
    out.u16(0);
    client.ask(WIRE_MAAPI_START_SESSION, out.bytes);
}

void set_up(stage_t &stage, uint8_t registration)
{
    start_session(stage.user);
    start_session(stage.attached);
    uint32_t daemon_id = stage.control.await(1);
    stage.worker = std::make_unique<client_t>(WIRE_KIND_WORKER, daemon_id);
    stage.worker_id = stage.worker->await(1);
    stage.control.ask(WIRE_REG_TRANS_CB, "");
    stage.control.ask(WIRE_REG_VALIDATE_CB, "");
    for (const point_row_t &row : point_rows) {
        wire_writer_t out;
        out.text(row.name);
        if (row.op != WIRE_REG_VALPOINT)
            out.u32(row.callbacks ? row.callbacks : provider_forms[(registration & 0x3f) % std::size(provider_forms)]);
        stage.control.ask(row.op, out.bytes);
    }
    wire_writer_t stream;
    stream.text("conform");
    stream.u8(0);
    stage.stream = stage.control.await(stage.control.ask(WIRE_REG_NOTIF_STREAM, stream.bytes));
    (void)stage.control.await(stage.control.ask(WIRE_REG_DONE, ""));
}

// What operational data stands in; has no points.
void make_instance()
{
    ds_error_t error;
    path_t path;
    diff_ptr diff;
    trans_ptr trans = trans_begin(*server().store, true, 1);
    require(path_parse(datastore_schema(*server().store), "/data/vpn{5}", PATH_INSTANCE, path, error) &&
                trans_create(*trans, path, error) && trans_prepare(*trans, diff, error) && trans_commit(*trans, error),
            "no instance to begin with");
    datastore_drop_old(*server().store);
}

// Until the user is answered. False when nothing moves any more.
bool play(stage_t &stage, uint32_t id)
{
    int idle = 0;
    for (frame_t frame; idle < (stage.is_silent ? 40 : 4); idle++) {
        size_t before = stage.callbacks;
        turn(server(), 2);
        stage.serve_all(stage.control);
        stage.serve_all(*stage.worker);
        (void)stage.attached.read_frame(frame);
        while (stage.user.read_frame(frame)) {
            if (frame.header.id == id && (frame.header.op & WIRE_REPLY))
                return true;
            idle = 0;
        }
        if (stage.callbacks != before)
            idle = -1;
        else if (stage.is_silent)
            usleep(500);
    }
    return false;
}

// With the daemon gone, every question comes to its end.
void await_end(stage_t &stage, uint32_t id)
{
    stage.control.end();
    stage.worker->end();
    frame_t frame;
    for (size_t round = 0; round < MAX_ROUNDS && !stage.user.is_ended(); round++) {
        turn(server(), 1);
        while (stage.user.read_frame(frame))
            if (frame.header.id == id && (frame.header.op & WIRE_REPLY))
                return;
    }
    require(stage.user.is_ended(), "a question has no end although its daemon is gone");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    input_t input({ reinterpret_cast<const char *>(data), size });
    auto question = questions[input.byte() % std::size(questions)];
    uint8_t detail = input.byte();
    uint8_t registration = input.byte();
    make_instance();
    {
        stage_t stage{ .input = input, .is_init_fuzzed = (registration & 0x80) != 0 };
        set_up(stage, registration);
        asking_t asking = { stage.user, detail };
        if (uint32_t id = question(asking); !play(stage, id))
            await_end(stage, id);
    }
    check_nothing_is_left(server());
    empty_stores(server());
    return 0;
}
