// A daemon that provides the rows of lab-prov, as a thread of the test: what it answers follows from a few knobs.
//
// Row i (1, 2, ...) has name "row-i", speed i*10 in its detail, and below it `parts` parts {i part-1}, {i part-2}, ...
#ifndef TESTS_COMPONENT_AGENTD_PROVIDER_H
#define TESTS_COMPONENT_AGENTD_PROVIDER_H

#include "tests/component/agentd_daemon.h"

#include <atomic>
#include <functional>
#include <mutex>
#include <poll.h>
#include <thread>

enum provider_bits_t : uint32_t {
    HAS_EXISTS = 1,
    HAS_GET_ELEM = 2,
    HAS_GET_NEXT = 4,
    HAS_GET_OBJECT = 64,
    HAS_GET_NEXT_OBJECT = 128,
    HAS_FIND_NEXT_OBJECT = 256,
};

struct provider_script_t {
    uint32_t rows = 3;
    uint32_t parts = 0;
    uint32_t page = 2;        // objects of an answer
    bool goes_by_keys = true; // next is -1: the agent comes back with the last keys
    uint32_t timeout_ms = 0;
    uint32_t stall_from = UINT32_MAX; // the question, counted from 1, that is never answered
    uint32_t die_at = UINT32_MAX;     // the question at which the daemon's connections end
    std::function<bool(uint16_t op, wire_writer_t &answer)> twist; // true: the answer is this
};

class provider_daemon
{
public:
    provider_daemon(const agentd_process &agent, const std::string &callpoint, uint32_t bits, provider_script_t script)
        : script_(std::move(script)), daemon_(std::make_unique<scripted_daemon>(agent))
    {
        wire_writer_t row;
        row.text(callpoint);
        row.u32(bits);
        EXPECT_EQ(daemon_->control.ask(WIRE_REG_DATA_CB, row.bytes).status, 0);
        daemon_->done();
        thread_ = std::thread([this] { serve(); });
    }
    provider_daemon(const provider_daemon &) = delete;
    provider_daemon &operator=(const provider_daemon &) = delete;
    ~provider_daemon()
    {
        is_stopped_ = true;
        thread_.join();
    }

    // The questions so far: "get_object", with next or the keys to go on from.
    std::vector<std::string> questions()
    {
        std::lock_guard<std::mutex> hold(lock_);
        return questions_;
    }
    size_t count(const std::string &what)
    {
        size_t n = 0;
        for (const std::string &question : questions())
            n += question.starts_with(what);
        return n;
    }
    void forget()
    {
        std::lock_guard<std::mutex> hold(lock_);
        questions_.clear();
    }
    std::atomic<uint32_t> begun = 0; // transactions
    std::atomic<uint32_t> ended = 0;

private:
    void serve()
    {
        while (!is_stopped_ && daemon_) {
            pollfd items[] = { { daemon_->control.fd(), POLLIN, 0 }, { daemon_->worker.fd(), POLLIN, 0 } };
            if (poll(items, has_worker_ ? 2 : 1, 20) <= 0)
                continue;
            if (items[0].revents && !serve_control())
                return;
            if (daemon_ && has_worker_ && items[1].revents)
                has_worker_ = serve_worker();
        }
    }
    bool serve_control()
    {
        raw_client::frame_t frame = daemon_->control.read_frame();
        daemon_->control.question_id = frame.id;
        begun++;
        wire_writer_t choice;
        choice.u32(daemon_->worker.number);
        daemon_->control.answer(frame.op, choice.bytes);
        return frame.status == 0;
    }
    bool serve_worker()
    {
        raw_client::frame_t frame = daemon_->worker.read_frame();
        if (frame.status < 0)
            return false;
        daemon_->worker.question_id = frame.id;
        wire_writer_t answer;
        if (frame.op == WIRE_CB_TRANS_FINISH) {
            ended++;
            daemon_->worker.answer(frame.op, "");
            return true;
        }
        asked_++;
        make_answer(frame, answer);
        if (asked_ == script_.die_at)
            daemon_.reset();
        else if (asked_ < script_.stall_from)
            daemon_->worker.answer(frame.op, answer.bytes);
        return true;
    }

    // What a question is about.
    struct place_t {
        uint32_t tag = 0; // the innermost name
        uint32_t row = 0; // key of the row in the keypath
    };
    static place_t read_place(wire_reader_t &in)
    {
        confd_hkeypath_t path{};
        place_t place;
        EXPECT_TRUE(wire_get_keypath(in, path));
        for (int i = 0; i < path.len; i++) {
            bool is_tag = path.v[i][0].type == C_XMLTAG;
            place.tag = is_tag && place.tag == 0 ? path.v[i][0].val.xmltag.tag : place.tag;
            bool is_row = !is_tag && path.v[i + 1][0].val.xmltag.tag == wire_hash("row");
            place.row = is_row ? path.v[i][0].val.u32 : place.row;
        }
        wire_free_keypath(path);
        return place;
    }
    void note(const std::string &question)
    {
        std::lock_guard<std::mutex> hold(lock_);
        questions_.push_back(question);
    }
    void make_answer(const raw_client::frame_t &frame, wire_writer_t &answer)
    {
        wire_reader_t in(frame.payload);
        (void)in.u32(); // the transaction
        (void)in.text();
        place_t place = read_place(in);
        bool is_part = place.tag == wire_hash("part");
        switch (frame.op) {
        case WIRE_CB_EXISTS:
            note("exists");
            answer.u8(1);
            break;
        case WIRE_CB_GET_ELEM:
            note("get_elem " + std::to_string(place.row));
            put_elem(place, answer);
            break;
        case WIRE_CB_GET_OBJECT:
            note("get_object " + std::to_string(place.row));
            put_object(place, answer);
            break;
        case WIRE_CB_GET_NEXT:
            put_next_key(static_cast<uint32_t>(take_next(in, "get_next ") + 1), answer);
            break;
        case WIRE_CB_GET_NEXT_OBJECT:
            put_page(static_cast<uint32_t>(take_next(in, is_part ? "get_next_object part " : "get_next_object ") + 1),
                     is_part ? place.row : 0, answer);
            break;
        case WIRE_CB_FIND_NEXT_OBJECT:
            put_page(take_keys(in, is_part) + 1, is_part ? place.row : 0, answer);
            break;
        default:
            ADD_FAILURE() << "operation " << frame.op;
        }
        wire_writer_t twisted;
        if (script_.twist && script_.twist(frame.op, twisted))
            answer = std::move(twisted);
    }
    int64_t take_next(wire_reader_t &in, const std::string &what)
    {
        int64_t next = in.i64();
        note(what + std::to_string(next));
        return next == -1 ? 0 : next;
    }
    uint32_t take_keys(wire_reader_t &in, bool is_part)
    {
        uint8_t type = in.u8();
        uint8_t n = in.u8();
        uint32_t number = 0;
        for (uint8_t i = 0; i < n; i++) {
            confd_value_t key = wire_get_value(in);
            if (key.type == C_UINT32)
                number = key.val.u32;
            else if (is_part)
                number = static_cast<uint32_t>(
                    std::stoul(reinterpret_cast<const char *>(key.val.buf.ptr) + strlen("part-")));
            wire_free_value(key);
        }
        note(std::string("find_next_object ") + (is_part ? "part " : "") + std::to_string(number));
        return type == WIRE_FIND_SAME_OR_NEXT ? number - 1 : number;
    }
    void put_next_key(uint32_t number, wire_writer_t &answer) const
    {
        answer.i64(number);
        answer.u8(number <= script_.rows);
        confd_value_t key{};
        key.type = C_UINT32;
        key.val.u32 = number;
        if (number <= script_.rows)
            wire_put_value(answer, key);
    }
    void put_elem(const place_t &place, wire_writer_t &answer) const
    {
        confd_value_t value{};
        value.type = C_NOEXISTS;
        if (place.row > script_.rows)
            value.type = C_NOEXISTS;
        else if (place.tag == wire_hash("id") || place.tag == wire_hash("speed")) {
            value.type = C_UINT32;
            value.val.u32 = place.tag == wire_hash("id") ? place.row : place.row * 10;
        }
        wire_put_value(answer, value);
    }
    void put_object(const place_t &place, wire_writer_t &answer) const
    {
        bool is_row = place.tag == wire_hash("row") && place.row >= 1 && place.row <= script_.rows;
        answer.u32(script_.timeout_ms);
        answer.u8(1);
        answer.u32(is_row);
        if (is_row)
            put_row(answer, place.row);
    }
    void put_row(wire_writer_t &answer, uint32_t number) const
    {
        tag_values_t values;
        values.u32("id", number).text("name", "row-" + std::to_string(number)).begin("detail");
        values.u32("speed", number * 10).end("detail");
        answer.i64(script_.goes_by_keys ? int64_t{ -1 } : number);
        answer.bytes += values.bytes();
    }
    void put_part(wire_writer_t &answer, uint32_t row, uint32_t number) const
    {
        tag_values_t values;
        values.u32("vpn", row).text("name", "part-" + std::to_string(number));
        answer.i64(script_.goes_by_keys ? int64_t{ -1 } : number);
        answer.bytes += values.bytes();
    }
    // Rows, or parts of a row, from a number on; a page that is not full ends with an object without values.
    void put_page(uint32_t first, uint32_t row, wire_writer_t &answer) const
    {
        uint32_t all = row ? script_.parts : script_.rows;
        uint32_t end = std::min(all + 1, first + script_.page);
        bool is_short = end < first + script_.page;
        answer.u32(script_.timeout_ms);
        answer.u8(0);
        answer.u32((end > first ? end - first : 0) + is_short);
        for (uint32_t i = first; i < end; i++)
            row ? put_part(answer, row, i) : put_row(answer, i);
        if (is_short) {
            answer.i64(-1);
            answer.u32(0);
        }
    }

    provider_script_t script_;
    std::unique_ptr<scripted_daemon> daemon_;
    std::mutex lock_;
    std::vector<std::string> questions_;
    uint32_t asked_ = 0;
    bool has_worker_ = true;
    std::atomic<bool> is_stopped_ = false;
    std::thread thread_;
};

// A user who reads and walks.
struct reading_client : session_client {
    explicit reading_client(const agentd_process &agent) : session_client(agent)
    {
        wire_writer_t begin;
        begin.u8(WIRE_DB_RUNNING);
        begin.u8(0);
        begin.u32(0);
        th = wire_reader_t(ask(WIRE_MAAPI_START_TRANS, begin.bytes).payload).u32();
    }
    frame_t read(uint16_t op, const std::string &path, uint32_t of) const
    {
        wire_writer_t payload;
        payload.u32(of);
        payload.text(path);
        return ask(op, payload.bytes);
    }
    // A number or text, "-" when there is none, else the error's text.
    std::string get(const std::string &path) const
    {
        frame_t reply = read(WIRE_MAAPI_GET, path, th);
        if (reply.status == CONFD_ERR_NOEXISTS)
            return "-";
        if (reply.status != 0)
            return reply.text();
        wire_reader_t in(reply.payload);
        confd_value_t value = wire_get_value(in);
        std::string text = value.type == C_UINT32 ? std::to_string(value.val.u32)
                           : value.type == C_BUF  ? std::string(reinterpret_cast<char *>(value.val.buf.ptr))
                                                  : "type " + std::to_string(value.type);
        wire_free_value(value);
        return text;
    }
    int exists(const std::string &path) const { return wire_reader_t(read(WIRE_MAAPI_EXISTS, path, th).payload).u8(); }
    uint32_t count_of(const std::string &path, uint32_t of) const
    {
        frame_t reply = read(WIRE_MAAPI_NUM_INSTANCES, path, of);
        EXPECT_EQ(reply.status, 0) << reply.text();
        return wire_reader_t(reply.payload).u32();
    }
    // The keys of rows behind one (0: from the first).
    std::vector<uint32_t> next(const std::string &path, uint32_t after, uint32_t most) const
    {
        wire_writer_t payload;
        payload.u32(th);
        payload.text(path);
        payload.u8(after != 0);
        confd_value_t key{};
        key.type = C_UINT32;
        key.val.u32 = after;
        if (after != 0)
            wire_put_value(payload, key);
        payload.u32(most);
        frame_t reply = ask(WIRE_MAAPI_NEXT, payload.bytes);
        EXPECT_EQ(reply.status, 0) << reply.text();
        wire_reader_t in(reply.payload);
        std::vector<uint32_t> keys(in.u32());
        for (uint32_t &at : keys) {
            (void)in.u8();
            confd_value_t value = wire_get_value(in);
            at = value.val.u32;
            wire_free_value(value);
        }
        return keys;
    }
    uint32_t begin_walk(const std::string &path, uint32_t of = 0, uint32_t flags = 0) const
    {
        wire_writer_t payload;
        payload.u32(of);
        payload.text(path);
        payload.u32(flags);
        frame_t reply = ask(WIRE_MAAPI_WALK, payload.bytes);
        EXPECT_EQ(reply.status, 0) << reply.text();
        return wire_reader_t(reply.payload).u32();
    }
    frame_t next_page(uint32_t walk, uint32_t most) const
    {
        wire_writer_t payload;
        payload.u32(walk);
        payload.u32(most);
        return ask(WIRE_MAAPI_WALK_NEXT, payload.bytes);
    }
    // The whole walk as a line, "?text" for the error that ends it: prov:prov( row{1}( name=row-1 ) !note )
    std::string walk(const std::string &path, uint32_t of = 0, uint32_t flags = 0, uint32_t most = 1000) const
    {
        uint32_t id = begin_walk(path, of, flags);
        std::string line;
        for (bool is_end = false; !is_end;) {
            frame_t reply = next_page(id, most);
            if (reply.status != 0)
                return line + "?" + std::to_string(reply.status) + " " + reply.text();
            wire_reader_t in(reply.payload);
            is_end = in.u8() != 0;
            uint32_t n = in.u32();
            EXPECT_LE(n, most);
            for (uint32_t i = 0; i < n; i++)
                line += (line.empty() ? "" : " ") + print_item(in);
            EXPECT_TRUE(in.finished());
        }
        return line;
    }
    static std::string print_item(wire_reader_t &in)
    {
        uint8_t kind = in.u8();
        if (kind == WIRE_WALK_END)
            return ")";
        std::string text(in.text());
        if (kind == WIRE_WALK_NOTE)
            return "!" + text;
        if (kind == WIRE_WALK_CONTAINER)
            return text + "(";
        if (kind == WIRE_WALK_LEAF)
            return text + "=" + std::string(in.text());
        std::string items;
        uint32_t n = kind == WIRE_WALK_ENTRY ? in.u8() : in.u32();
        for (uint32_t i = 0; i < n; i++)
            items += (items.empty() ? "" : " ") + std::string(in.text());
        return kind == WIRE_WALK_ENTRY ? text + "{" + items + "}(" : text + "=[" + items + "]";
    }
    uint32_t th = 0;
};

#endif
