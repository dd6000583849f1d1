// The session and the commands against a scripted agent on a loopback socket.
#include "agent/cli/session.h"
#include "agent/cli/shell.h"
#include "tests/unit/cli_model.h"

#include <arpa/inet.h>
#include <functional>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace
{

struct reply_t {
    uint16_t status = 0;
    std::string payload;
    std::string before; // raw bytes sent ahead of the reply: pushes
    bool is_hang_up = false;
};

using script_t = std::function<reply_t(uint16_t op, wire_reader_t &in)>;

bool read_exactly(int fd, std::string &bytes, size_t size)
{
    bytes.resize(size);
    for (size_t at = 0; at < size;) {
        ssize_t got = recv(fd, bytes.data() + at, size - at, 0);
        if (got <= 0)
            return false;
        at += static_cast<size_t>(got);
    }
    return true;
}

// Serves one connection with the script's answers; hello and session start are answered by itself.
class scripted_agent
{
public:
    explicit scripted_agent(script_t script) : script_(std::move(script))
    {
        listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        EXPECT_EQ(listen(listener_, 1), 0);
        socklen_t size = sizeof address;
        EXPECT_EQ(getsockname(listener_, reinterpret_cast<sockaddr *>(&address), &size), 0);
        peer.port = ntohs(address.sin_port);
        peer.user = "tester";
        thread_ = std::thread([this] { serve(); });
    }
    ~scripted_agent()
    {
        shutdown(listener_, SHUT_RDWR);
        thread_.join();
        close(listener_);
    }
    session_peer_t peer;

private:
    void serve()
    {
        int fd = accept(listener_, nullptr, nullptr);
        std::string head;
        while (fd >= 0 && read_exactly(fd, head, WIRE_HEADER_SIZE) && answer(fd, wire_parse_header(head.data()))) {
        }
        close(fd);
    }
    bool answer(int fd, const wire_header_t &header)
    {
        std::string payload;
        if (!read_exactly(fd, payload, header.length))
            return false;
        wire_reader_t in(payload);
        reply_t reply;
        if (header.op == WIRE_HELLO || header.op == WIRE_MAAPI_START_SESSION)
            reply.payload.assign(4, '\0');
        else
            reply = script_(header.op, in);
        if (reply.is_hang_up)
            return false;
        std::string bytes = reply.before + wire_frame(header.op | WIRE_REPLY, reply.status, header.id, reply.payload);
        return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }

    script_t script_;
    int listener_ = -1;
    std::thread thread_;
};

std::string text_payload(std::string_view text)
{
    wire_writer_t out;
    out.text(text);
    return out.bytes;
}

std::string number_payload(uint32_t number)
{
    wire_writer_t out;
    out.u32(number);
    return out.bytes;
}

TEST(cli_session, pushes_ahead_of_a_reply_reach_the_operator_and_the_reply_its_caller)
{
    scripted_agent agent([](uint16_t, wire_reader_t &) {
        reply_t reply;
        reply.before = wire_frame(WIRE_MAAPI_PROGRESS, 0, 0, text_payload("cfgmgr")) +
                       wire_frame(WIRE_MAAPI_MESSAGE, 0, 0, text_payload("going down"));
        return reply;
    });
    std::vector<std::string> seen;
    session_t session;
    session.sink = &seen;
    session.on_message = [](void *sink, std::string_view text) {
        static_cast<std::vector<std::string> *>(sink)->push_back("message " + std::string(text));
    };
    session.on_progress = [](void *sink, std::string_view text) {
        static_cast<std::vector<std::string> *>(sink)->push_back("progress " + std::string(text));
    };
    cli_error_t error;
    ASSERT_TRUE(session_open(session, agent.peer, error)) << error.text;
    EXPECT_TRUE(session_validate(session, error)) << error.text;
    EXPECT_EQ(seen, (std::vector<std::string>{ "progress cfgmgr", "message going down" }));
    session_close(session);
}

TEST(cli_session, a_refusal_is_told_in_the_agents_words_and_the_session_goes_on)
{
    int calls = 0;
    scripted_agent agent([&calls](uint16_t, wire_reader_t &) {
        return calls++ == 0 ? reply_t{ CONFD_ERR_VALIDATION, text_payload("no such leaf"), "", false } : reply_t{};
    });
    session_t session;
    cli_error_t error;
    ASSERT_TRUE(session_open(session, agent.peer, error)) << error.text;
    EXPECT_FALSE(session_validate(session, error));
    EXPECT_EQ(error.text, "no such leaf");
    EXPECT_EQ(error.status, CONFD_ERR_VALIDATION);
    EXPECT_FALSE(error.is_lost);
    EXPECT_TRUE(session_validate(session, error));
    session_close(session);
}

struct bad_agent_t {
    const char *name;
    std::string before; // instead of a proper reply
    bool is_hang_up;
};

TEST(cli_session, an_agent_that_breaks_the_protocol_or_goes_away_is_lost)
{
    std::string too_long = wire_frame(WIRE_MAAPI_MESSAGE, 0, 0, "");
    uint32_t length = WIRE_MAX_FRAME + 1;
    too_long.replace(0, sizeof length, reinterpret_cast<const char *>(&length), sizeof length);
    const bad_agent_t cases[] = {
        { "hangs up", "", true },
        { "too long a frame", too_long, false },
        { "another id", wire_frame(WIRE_MAAPI_VALIDATE_TRANS | WIRE_REPLY, 0, 4711, ""), false },
        { "another op", wire_frame(WIRE_MAAPI_GET | WIRE_REPLY, 0, 3, ""), false },
    };
    for (const bad_agent_t &c : cases) {
        scripted_agent agent([&c](uint16_t, wire_reader_t &) { return reply_t{ 0, "", c.before, c.is_hang_up }; });
        session_t session;
        cli_error_t error;
        ASSERT_TRUE(session_open(session, agent.peer, error)) << c.name;
        EXPECT_FALSE(session_validate(session, error)) << c.name;
        EXPECT_TRUE(error.is_lost) << c.name;
        cli_error_t later;
        EXPECT_FALSE(session_validate(session, later)) << c.name;
        EXPECT_TRUE(later.is_lost) << c.name;
    }
}

TEST(cli_session, a_list_of_changes_cut_short_is_refused)
{
    scripted_agent agent([](uint16_t, wire_reader_t &) { return reply_t{ 0, number_payload(1000000), "", false }; });
    session_t session;
    cli_error_t error;
    std::vector<change_t> changes;
    ASSERT_TRUE(session_open(session, agent.peer, error)) << error.text;
    EXPECT_FALSE(session_compare(session, changes, error));
    EXPECT_FALSE(error.is_lost);
    session_close(session);
}

TEST(cli_session, nobody_listening_is_lost_at_once)
{
    session_t session;
    session_peer_t peer;
    peer.port = 1;
    cli_error_t error;
    EXPECT_FALSE(session_open(session, peer, error));
    EXPECT_TRUE(error.is_lost);
    EXPECT_NE(error.text.find("127.0.0.1 port 1"), std::string::npos) << error.text;
}

// An agent that keeps a tree of paths, as far as the commands here need one.
struct small_agent_t {
    std::vector<std::string> calls;
    std::vector<std::string> entries; // list entries that exist

    reply_t operator()(uint16_t op, wire_reader_t &in)
    {
        if (op == WIRE_MAAPI_START_TRANS)
            return { 0, number_payload(9), "", false };
        if (op == WIRE_MAAPI_COMPARE)
            return { 0, number_payload(0), "", false };
        (void)in.u32();
        std::string path(in.text());
        if (op == WIRE_MAAPI_CREATE)
            return create(path);
        if (op != WIRE_MAAPI_SET_TEXT)
            return {};
        std::string value(in.text());
        for (size_t brace = path.find('}'); brace != path.npos; brace = path.find('}', brace + 1))
            if (std::find(entries.begin(), entries.end(), path.substr(0, brace + 1)) == entries.end())
                return { CONFD_ERR_NOEXISTS, text_payload("no such entry"), "", false };
        calls.push_back("set " + path + " " + value);
        return {};
    }
    reply_t create(const std::string &path)
    {
        if (std::find(entries.begin(), entries.end(), path) != entries.end())
            return { CONFD_ERR_ALREADY_EXISTS, text_payload("it is there"), "", false };
        calls.push_back("create " + path);
        entries.push_back(path);
        return {};
    }
};

// A shell in configuration mode, and what it printed.
struct shell_fixture_t {
    small_agent_t agent;
    scripted_agent server{ [this](uint16_t op, wire_reader_t &in) {
        return agent(op, in);
    } };
    shell_t shell;
    cli_error_t error;

    shell_fixture_t()
    {
        one_file_folder folder("shop.yang", CLI_TEST_MODEL);
        EXPECT_TRUE(schema_load(folder.name(), "/nonexistent", shell.schema, error)) << error.text;
        EXPECT_TRUE(session_open(shell.session, server.peer, error)) << error.text;
        EXPECT_TRUE(shell_configure(shell, error)) << error.text;
    }
    ~shell_fixture_t() { session_close(shell.session); }
};

TEST(cli_shell, a_setting_creates_the_entries_above_it_once)
{
    shell_fixture_t f;
    EXPECT_TRUE(shell_run_line(f.shell, "set shop shelf 7 item a 1 price 2.5; set shop shelf 7 label x y", f.error))
        << f.error.text;
    EXPECT_TRUE(shell_run_line(f.shell, "set shop shelf 7; edit shop shelf 7; set item a 1 price 3", f.error))
        << f.error.text;
    EXPECT_EQ(f.agent.calls,
              (std::vector<std::string>{ "create /shop/shelf{7}", "create /shop/shelf{7}/item{a 1}",
                                         "set /shop/shelf{7}/item{a 1}/price 2.5", "create /shop/shelf{7}/label{x}",
                                         "create /shop/shelf{7}/label{y}", "set /shop/shelf{7}/item{a 1}/price 3" }));
}

struct refused_case_t {
    const char *line;
    const char *error;
    size_t column;
};

TEST(cli_shell, a_bad_command_is_refused_before_the_agent_sees_it)
{
    static constexpr size_t NONE = CLI_NO_COLUMN;
    static const refused_case_t cases[] = {
        { "sett x", "unknown command 'sett'; did you mean 'set'?", 0 },
        { "configure", "'configure' is a command of operational mode; type 'exit' first", 0 },
        { "set shop mood great", "bad value 'great' for 'mood': good, bad", 14 },
        { "set shop mood", "a value for 'mood' is missing: good, bad", NONE },
        { "set shop mood good bad", "unexpected 'bad' behind 'mood'", 19 },
        { "set shop", "'shop' has no value of its own; name a leaf below it", NONE },
        { "set shop shelf", "'number' of 'shelf' is missing: 0..255", NONE },
        { "set shop visitors 4", "'visitors' is operational data, not configuration", 9 },
        { "set shop open now", "unexpected 'now' behind 'open'", 14 },
        { "set", "a path is missing", NONE },
        { "delete", "delete what? give a path", NONE },
        { "edit shop title", "'title' has nothing below it", 10 },
        { "commit now", "unexpected 'now' behind 'commit'", 7 },
        { "show shop | display yaml", "bad format 'yaml': tree, set, json, xml", 20 },
        { "show shop | less", "'| display FORMAT' is all that may follow '|'", 10 },
        { "up", "this is the top", NONE },
    };
    shell_fixture_t f;
    for (const refused_case_t &c : cases) {
        cli_error_t error;
        EXPECT_FALSE(shell_run_line(f.shell, c.line, error)) << c.line;
        EXPECT_EQ(error.text, c.error) << c.line;
        EXPECT_EQ(error.column, c.column) << c.line;
    }
    EXPECT_TRUE(f.agent.calls.empty());
}

TEST(cli_shell, a_file_stops_at_its_first_bad_line_and_says_where_it_is)
{
    shell_fixture_t f;
    one_file_folder folder("shop.cfg", "# a comment\nset shop mood good\n\n  set shop mod bad\nset shop limit 3\n");
    EXPECT_FALSE(shell_run_file(f.shell, folder.file(), f.error));
    EXPECT_EQ(f.error.text, folder.file() + ":4:12: unknown element 'mod' below 'shop'; did you mean 'mood'?");
    EXPECT_EQ(f.agent.calls, (std::vector<std::string>{ "set /shop/mood good" }));
}

TEST(cli_shell, files_that_load_each_other_come_to_an_end)
{
    shell_fixture_t f;
    one_file_folder folder("loop.cfg", "");
    FILE *file = fopen(folder.file().c_str(), "w");
    fprintf(file, "load %s\n", folder.file().c_str());
    fclose(file);
    EXPECT_FALSE(shell_run_file(f.shell, folder.file(), f.error));
    EXPECT_NE(f.error.text.find("8 files are open already"), std::string::npos) << f.error.text;
}

TEST(cli_shell, a_file_that_cannot_be_read_is_refused_with_its_name)
{
    shell_fixture_t f;
    for (const auto &[name, why] : { std::pair("/nonexistent/x.cfg", "No such file"), { "/", "Is a directory" } }) {
        EXPECT_FALSE(shell_run_file(f.shell, name, f.error)) << name;
        EXPECT_EQ(f.error.text.find(std::string(name) + ": " + why), 0u) << f.error.text;
    }
}

TEST(cli_shell, the_place_in_the_tree_moves_by_whole_entries)
{
    shell_fixture_t f;
    const std::pair<const char *, const char *> steps[] = {
        { "edit shop shelf 7 item a 1", "/shop/shelf{7}/item{a 1}" },
        { "up", "/shop/shelf{7}" },
        { "up", "/shop" },
        { "edit club", "/shop/club" },
        { "top", "" },
    };
    for (const auto &[line, place] : steps) {
        ASSERT_TRUE(shell_run_line(f.shell, line, f.error)) << line << ": " << f.error.text;
        EXPECT_EQ(f.shell.place.text, place) << line;
    }
}

} // namespace
