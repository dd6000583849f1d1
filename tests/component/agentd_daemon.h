// A daemon of bare frames: a control and a worker connection that a test scripts, and users who ask it for something.
#ifndef TESTS_COMPONENT_AGENTD_DAEMON_H
#define TESTS_COMPONENT_AGENTD_DAEMON_H

#include "tests/component/agentd_process.h"

#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

// A connection that keeps what its hello was answered with.
struct peer_client : raw_client {
    peer_client(const agentd_process &agent, wire_kind_t kind, uint32_t daemon_id = 0) : raw_client(agent)
    {
        wire_writer_t hello;
        hello.u16(WIRE_VERSION);
        hello.u8(kind);
        hello.text("peer");
        hello.u32(4000);
        hello.text("");
        hello.u32(daemon_id);
        frame_t reply = ask(WIRE_HELLO, hello.bytes);
        EXPECT_EQ(reply.status, 0) << reply.text();
        number = wire_reader_t(reply.payload).u32();
    }
    // Reads a question of the agent's, which has to be this one; its payload.
    std::string expect(uint16_t op)
    {
        frame_t frame = read_frame();
        EXPECT_EQ(frame.op, op);
        question_id = frame.id;
        return frame.payload;
    }
    void answer(uint16_t op, std::string_view payload) const { reply(op, 0, payload); }
    void fail(uint16_t op, const std::string &text) const
    {
        wire_writer_t payload;
        payload.text(text);
        reply(op, CONFD_ERR_EXTERNAL, payload.bytes);
    }
    void reply(uint16_t op, uint16_t status, std::string_view payload) const
    {
        send_bytes(wire_frame(static_cast<uint16_t>(op | WIRE_REPLY), status, question_id, payload));
    }
    uint32_t number = 0; // daemon or worker id
    uint32_t question_id = 0;
};

struct scripted_daemon {
    explicit scripted_daemon(const agentd_process &agent)
        : control(agent, WIRE_KIND_CONTROL), worker(agent, WIRE_KIND_WORKER, control.number)
    {
    }
    void register_action(const std::string &point, uint32_t bits)
    {
        wire_writer_t row;
        row.text(point);
        row.u32(bits);
        EXPECT_EQ(control.ask(WIRE_REG_ACTION, row.bytes).status, 0);
    }
    // The handle.
    uint32_t register_stream(const std::string &name)
    {
        wire_writer_t row;
        row.text(name);
        row.u8(0);
        return wire_reader_t(control.ask(WIRE_REG_NOTIF_STREAM, row.bytes).payload).u32();
    }
    uint32_t register_snmp(const std::string &name, const std::string &context)
    {
        wire_writer_t row;
        row.text(name);
        row.text(context);
        return wire_reader_t(control.ask(WIRE_REG_SNMP_NOTIF, row.bytes).payload).u32();
    }
    void done() { EXPECT_EQ(control.ask(WIRE_REG_DONE).status, 0); }
    // Chooses the worker for an invocation; its number.
    uint32_t choose_worker()
    {
        std::string init = control.expect(WIRE_CB_ACTION_INIT);
        wire_writer_t choice;
        choice.u32(worker.number);
        control.answer(WIRE_CB_ACTION_INIT, choice.bytes);
        return wire_reader_t(init).u32();
    }

    peer_client control;
    peer_client worker;
};

struct session_client : peer_client {
    explicit session_client(const agentd_process &agent, const std::string &user = "admin")
        : peer_client(agent, WIRE_KIND_MAAPI)
    {
        wire_writer_t payload;
        payload.text(user);
        payload.text("cli");
        payload.text("127.0.0.1");
        payload.u16(0);
        session = wire_reader_t(ask(WIRE_MAAPI_START_SESSION, payload.bytes).payload).u32();
    }
    void post_action(const std::string &path, const std::string &input = "") const
    {
        wire_writer_t payload;
        payload.u32(0);
        payload.text(path);
        payload.text(input);
        post(WIRE_MAAPI_ACTION, payload.bytes);
    }
    frame_t run_action(const std::string &path, const std::string &input = "") const
    {
        post_action(path, input);
        return read_frame();
    }
    // The handle of a new writable transaction.
    uint32_t begin() const
    {
        wire_writer_t payload;
        payload.u8(WIRE_DB_RUNNING);
        payload.u8(1);
        payload.u32(0);
        return wire_reader_t(ask(WIRE_MAAPI_START_TRANS, payload.bytes).payload).u32();
    }
    // Creates an instance in a transaction of its own.
    void create(const std::string &path) const
    {
        uint32_t th = begin();
        wire_writer_t edit;
        edit.u32(th);
        edit.text(path);
        frame_t reply = ask(WIRE_MAAPI_CREATE, edit.bytes);
        EXPECT_EQ(reply.status, 0) << reply.text();
        apply(th);
    }
    void set(const std::string &path, const std::string &text) const
    {
        uint32_t th = begin();
        wire_writer_t edit;
        edit.u32(th);
        edit.text(path);
        edit.text(text);
        frame_t reply = ask(WIRE_MAAPI_SET_TEXT, edit.bytes);
        EXPECT_EQ(reply.status, 0) << reply.text();
        apply(th);
    }
    void apply(uint32_t th) const
    {
        wire_writer_t payload;
        payload.u32(th);
        payload.u8(0);
        frame_t reply = ask(WIRE_MAAPI_APPLY_TRANS, payload.bytes);
        EXPECT_EQ(reply.status, 0) << reply.text();
        wire_writer_t finish;
        finish.u32(th);
        EXPECT_EQ(ask(WIRE_MAAPI_FINISH_TRANS, finish.bytes).status, 0);
    }
    uint32_t session = 0;
};

// Tagged values as a script: "name=5" with a type letter per kind, see the functions.
struct tag_values_t {
    std::vector<confd_tag_value_t> items;
    std::vector<std::unique_ptr<std::string>> texts;

    confd_value_t &add(const char *name, confd_vtype type)
    {
        confd_tag_value_t item{};
        item.tag = { wire_hash(name), 0 };
        item.v.type = type;
        items.push_back(item);
        return items.back().v;
    }
    tag_values_t &begin(const char *name)
    {
        add(name, C_XMLBEGIN);
        return *this;
    }
    tag_values_t &end(const char *name)
    {
        add(name, C_XMLEND);
        return *this;
    }
    tag_values_t &u8(const char *name, uint8_t value)
    {
        add(name, C_UINT8).val.u8 = value;
        return *this;
    }
    tag_values_t &u32(const char *name, uint32_t value)
    {
        add(name, C_UINT32).val.u32 = value;
        return *this;
    }
    tag_values_t &label(const char *name, int32_t value)
    {
        add(name, C_ENUM_VALUE).val.enumvalue = value;
        return *this;
    }
    tag_values_t &text(const char *name, const std::string &value)
    {
        texts.push_back(std::make_unique<std::string>(value));
        confd_value_t &v = add(name, C_BUF);
        v.val.buf = { reinterpret_cast<unsigned char *>(texts.back()->data()), static_cast<unsigned>(value.size()) };
        return *this;
    }
    std::string bytes() const
    {
        wire_writer_t out;
        wire_put_tag_values(out, items.data(), items.size());
        return out.bytes;
    }
};

#endif
