// What all conformance tests begin with: the agent with the models of this folder, a session of bare frames for what
// only the command line asks for, and words for what the agent says of itself.
#ifndef TESTS_COMPONENT_CONFORMANCE_CONFORM_H
#define TESTS_COMPONENT_CONFORMANCE_CONFORM_H

#include "tests/component/conformance/daemon.h"

class conform_agent : public agentd_process
{
public:
    explicit conform_agent(const std::string &more_config = "")
        : agentd_process("auto-phase2 = yes\n" + more_config, model_dir())
    {
    }
    // Its status as JSON text without blanks.
    std::string status() const
    {
        std::string text;
        EXPECT_EQ(command({ "status", "--json" }, &text), 0) << text;
        std::erase_if(text, [](char c) { return c == ' ' || c == '\n'; });
        return text;
    }
    // Waits up to ten seconds for a status that holds the text.
    bool has_status(const std::string &part) const
    {
        for (int i = 0; i < 500; i++) {
            if (status().find(part) != std::string::npos)
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return false;
    }
};

inline bool mentions(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

// How many of the events begin with the text.
inline size_t count_of(const names_t &events, const std::string &start)
{
    return static_cast<size_t>(std::count_if(events.begin(), events.end(),
                                             [&](const std::string &event) { return event.starts_with(start); }));
}

// A user session of bare frames.
class raw_user : public raw_client
{
public:
    explicit raw_user(const agentd_process &agent, const std::string &user = "admin",
                      const std::string &context = "cli")
        : raw_client(agent, WIRE_KIND_MAAPI)
    {
        wire_writer_t payload;
        payload.text(user);
        payload.text(context);
        payload.text("127.0.0.1");
        payload.u16(0);
        frame_t reply = ask(WIRE_MAAPI_START_SESSION, payload.bytes);
        EXPECT_EQ(reply.status, 0) << reply.text();
        wire_reader_t in(reply.payload);
        session = in.u32();
    }
    // Runs an action; what it prints meanwhile is in `printed`.
    frame_t action(const std::string &path, const std::string &input = "")
    {
        post_action(path, input);
        return wait_for(WIRE_MAAPI_ACTION);
    }
    void post_action(const std::string &path, const std::string &input = "") const
    {
        wire_writer_t payload;
        payload.u32(0);
        payload.text(path);
        payload.text(input);
        post(WIRE_MAAPI_ACTION, payload.bytes);
    }
    // The reply to the request that was posted.
    frame_t wait_for(uint16_t op)
    {
        for (;;) {
            frame_t frame = read_frame();
            if (frame.status < 0 || frame.op == (op | WIRE_REPLY))
                return frame;
            if (frame.op == WIRE_MAAPI_OUTPUT)
                printed += frame.text();
            if (frame.op == WIRE_MAAPI_MESSAGE)
                messages.push_back(frame.text());
        }
    }
    // The completions of a leaf as "kind value extra", joined by "; "; or "error N: text".
    std::string complete(const std::string &path, const std::string &token, uint8_t character = '\t')
    {
        wire_writer_t payload;
        payload.u32(0);
        payload.text(path);
        payload.text(token);
        payload.u8(character);
        post(WIRE_MAAPI_COMPLETE, payload.bytes);
        frame_t reply = wait_for(WIRE_MAAPI_COMPLETE);
        if (reply.status != 0)
            return "error " + std::to_string(reply.status) + ": " + reply.text();
        wire_reader_t in(reply.payload);
        std::string text;
        for (uint32_t n = in.count(9); n > 0; n--) {
            text += (text.empty() ? "" : "; ") + std::to_string(in.u8()) + " ";
            text += in.text();
            std::string_view extra = in.text();
            text += extra.empty() ? "" : " (" + std::string(extra) + ")";
        }
        EXPECT_TRUE(in.finished());
        return text;
    }

    uint32_t session = 0;
    std::string printed;
    names_t messages;
};

#endif
