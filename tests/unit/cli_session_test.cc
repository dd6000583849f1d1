// The session and the commands against a scripted agent on a loopback socket.
#include "agent/cli/history.h"
#include "agent/cli/session.h"
#include "agent/cli/shell.h"
#include "tests/unit/cli_model.h"

#include <arpa/inet.h>
#include <functional>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace
{

struct reply_t {
    uint16_t status = 0;
    std::string payload;
    std::string before; // raw bytes sent ahead of the reply: pushes
    bool is_hang_up = false;
    bool waits_for_interrupt = false; // the reply comes behind one, and says so
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
        if (reply.waits_for_interrupt) {
            std::string head;
            if (!read_exactly(fd, head, WIRE_HEADER_SIZE))
                return false;
            EXPECT_EQ(wire_parse_header(head.data()).op, WIRE_MAAPI_INTERRUPT);
            wire_writer_t text;
            text.text("interrupted as asked");
            reply.status = CONFD_ERR_EXTERNAL;
            reply.payload = text.bytes;
        }
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

std::string buf_payload(std::string text)
{
    confd_value_t value{};
    value.type = C_BUF;
    value.val.buf.ptr = reinterpret_cast<unsigned char *>(text.data());
    value.val.buf.size = static_cast<unsigned>(text.size());
    wire_writer_t out;
    wire_put_value(out, value);
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

std::string walk_page(bool is_end, const std::vector<std::string> &leaves)
{
    wire_writer_t out;
    out.u8(is_end);
    out.u32(static_cast<uint32_t>(leaves.size()));
    for (const std::string &leaf : leaves) {
        out.u8(WIRE_WALK_LEAF);
        out.text(leaf);
        out.text("value");
    }
    return out.bytes;
}

TEST(cli_session, a_walk_comes_page_by_page_and_is_given_up_when_nobody_reads_on)
{
    std::vector<uint16_t> ops;
    scripted_agent agent([&ops](uint16_t op, wire_reader_t &) {
        ops.push_back(op);
        bool is_second = std::count(ops.begin(), ops.end(), WIRE_MAAPI_WALK_NEXT) == 2;
        return reply_t{ 0, op == WIRE_MAAPI_WALK_NEXT ? walk_page(is_second, { "a", "b" }) : number_payload(3), "",
                        false };
    });
    session_t session;
    cli_error_t error;
    ASSERT_TRUE(session_open(session, agent.peer, error)) << error.text;
    std::vector<item_t> items;
    {
        session_walk_t walk(session);
        ASSERT_TRUE(walk.start(show_source_t::OPERATIONAL, "/shop", error)) << error.text;
        for (size_t page : { 2, 2, 0 }) {
            ASSERT_TRUE(walk.next(items, error)) << error.text;
            EXPECT_EQ(items.size(), page);
        }
    }
    {
        session_walk_t walk(session);
        ASSERT_TRUE(walk.start(show_source_t::RUNNING, "", error)) << error.text;
    }
    EXPECT_EQ(ops, (std::vector<uint16_t>{ WIRE_MAAPI_WALK, WIRE_MAAPI_WALK_NEXT, WIRE_MAAPI_WALK_NEXT,
                                           WIRE_MAAPI_START_TRANS, WIRE_MAAPI_WALK, WIRE_MAAPI_WALK_STOP,
                                           WIRE_MAAPI_FINISH_TRANS }));
    session_close(session);
}

TEST(cli_session, an_interrupt_goes_to_the_agent_while_its_answer_is_waited_for)
{
    std::string frames;
    session_t session;
    static bool is_pressed;
    is_pressed = false;
    scripted_agent agent([](uint16_t op, wire_reader_t &) {
        if (op == WIRE_MAAPI_VALIDATE_TRANS)
            is_pressed = true;
        return reply_t{ 0, "", "", false, op == WIRE_MAAPI_VALIDATE_TRANS };
    });
    session.is_interrupted = [](void *) {
        return std::exchange(is_pressed, false);
    };
    session.sink = &session;
    cli_error_t error;
    ASSERT_TRUE(session_open(session, agent.peer, error)) << error.text;
    EXPECT_FALSE(session_validate(session, error));
    EXPECT_EQ(error.text, "interrupted as asked");
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
    std::string action_output;

    reply_t operator()(uint16_t op, wire_reader_t &in)
    {
        if (op == WIRE_MAAPI_START_TRANS)
            return { 0, number_payload(9), "", false };
        if (op == WIRE_MAAPI_COMPARE)
            return { 0, number_payload(0), "", false };
        (void)in.u32();
        std::string path(in.text());
        if (op == WIRE_MAAPI_ACTION) {
            calls.push_back("action " + path + " " + std::string(in.text()));
            return { 0, text_payload(action_output), wire_frame(WIRE_MAAPI_OUTPUT, 0, 0, text_payload("at it\n")),
                     false };
        }
        if (op == WIRE_MAAPI_MOVE)
            return move(path, in);
        if (op == WIRE_MAAPI_GET)
            return { 0, buf_payload(path.substr(path.find('{') + 1, 1)), "", false };
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
    reply_t move(const std::string &path, wire_reader_t &in)
    {
        std::string call = "move " + path + " " + std::to_string(in.u8());
        for (uint8_t n = in.u8(); n > 0; n--) {
            confd_value_t value = wire_get_value(in);
            call += " " + std::string(reinterpret_cast<const char *>(value.val.buf.ptr), value.val.buf.size);
            wire_free_value(value);
        }
        EXPECT_TRUE(in.finished());
        calls.push_back(call);
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
        shell.out = tmpfile();
        shell.news = shell.out;
        shell_watch_session(shell);
    }
    ~shell_fixture_t()
    {
        session_close(shell.session);
        fclose(shell.out);
    }
    std::string printed()
    {
        std::string text(static_cast<size_t>(ftell(shell.out)), '\0');
        rewind(shell.out);
        EXPECT_EQ(fread(text.data(), 1, text.size(), shell.out), text.size());
        return text;
    }
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
        { "show shop | display yaml", "bad format 'yaml': tree, table, set, json, xml", 20 },
        { "show shop | less", "'less' cannot stand behind '|' here: display, compare, include, exclude, count, no-more",
          12 },
        { "show shop | displa xml", "'displa' cannot stand behind '|' here; did you mean 'display'?", 12 },
        { "show shop | count x", "unexpected 'x' behind 'count'", 18 },
        { "show shop | include", "TEXT is missing behind 'include'", NONE },
        { "show shop |", "what is to stand behind '|'?", 10 },
        { "commit | count", "this command takes no '|'", 7 },
        { "shop shelf 7 item a 1 sel", "unknown action 'sel' below 'item'; did you mean 'sell'?", 22 },
        { "shop shelf 7", "which action? '?' shows those at 'shop shelf 7'", NONE },
        { "shop shelf 7 item a 1 sell", "'count' is missing: 0..65535", NONE },
        { "shop shelf 7 item a 1 sell count x", "bad value 'x' for 'count': 0..65535", 33 },
        { "shop shelf 7 item a 1 sell count 1 count 2", "'count' is given twice", 35 },
        { "shop shelf 7 item a 1 sell cont 1", "'sell' has no parameter 'cont'; did you mean 'count'?", 27 },
        { "shop shelf 7 item a 1 sell pin \"\"", "bad value for 'pin': 1..16 characters", 31 },
        { "monitor x", "'monitor stream' is the command that begins with 'monitor'", 0 },
        { "show notifications stream x last 0", "'0' is no number of minutes", 33 },
        { "set shop pin 12345678901234567890", "bad value for 'pin': 1..16 characters", 13 },
        { "move shop sign a", "where to? first, last, before KEY or after KEY", NONE },
        { "move shop shelf 7 last", "'shelf' has no order that can be changed", 16 },
        { "insert shop sign a first b", "unexpected 'b' behind 'sign'", 25 },
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

TEST(cli_shell, parameters_of_an_action_are_quoted_by_their_types_and_its_results_are_shown)
{
    shell_fixture_t f;
    f.agent.action_output = "{\"receipt\":77}";
    EXPECT_TRUE(shell_run_line(
        f.shell, "shop shelf 7 item a 1 sell gift coupon 1 count 3 coupon \"b c\" card text \"12\" buyer 5", f.error))
        << f.error.text;
    EXPECT_EQ(f.printed(), "at it\nreceipt 77\n");
    EXPECT_TRUE(shell_run_line(f.shell, "audit; audit shelf 7 | display json", f.error)) << f.error.text;
    ASSERT_EQ(f.agent.calls.size(), 3u);
    std::string blanks;
    for (char c : f.agent.calls[0])
        blanks += c == '\n' ? "" : std::string(1, c);
    EXPECT_EQ(blanks, "action /shop/shelf{7}/item{a 1}/sell {  \"gift\": [null],  \"coupon\": [\"1\", \"b c\"],  "
                      "\"count\": 3,  \"card\": {    \"text\": \"12\"  },  \"buyer\": \"5\"}");
    EXPECT_EQ(f.agent.calls[1], "action /audit ");
}

TEST(cli_shell, entries_move_among_their_siblings)
{
    shell_fixture_t f;
    EXPECT_TRUE(shell_run_line(f.shell,
                               "move shop sign a before b; insert shop sign c first; "
                               "move shop shelf 7 label x after y",
                               f.error))
        << f.error.text;
    EXPECT_EQ(f.agent.calls, (std::vector<std::string>{ "move /shop/sign{a} 2 b", "create /shop/sign{c}",
                                                        "move /shop/sign{c} 1", "move /shop/shelf{7}/label{x} 3 y" }));
}

bool type_secret(void *, const std::string &, std::string &secret)
{
    secret = "0000";
    return true;
}

TEST(cli_shell, a_secret_is_asked_for_and_does_not_get_into_the_history)
{
    shell_fixture_t f;
    f.shell.ask_secret = type_secret;
    EXPECT_TRUE(shell_run_line(f.shell, "set shop pin", f.error)) << f.error.text;
    EXPECT_EQ(f.agent.calls, (std::vector<std::string>{ "set /shop/pin 0000" }));
    static const std::pair<const char *, const char *> lines[] = {
        { "set shop pin 1234", "set shop pin" },
        { "set  shop mood good", "set  shop mood good" },
        { "set shop mood good; set shop pin 1234", "set shop mood good; set shop pin" },
        { "shop shelf 7 item a 1 sell count 3 pin 1234 gift", "shop shelf 7 item a 1 sell count 3 pin gift" },
    };
    for (const auto &[typed, kept] : lines)
        EXPECT_EQ(shell_without_secrets(f.shell, typed), kept);
}

TEST(cli_shell, a_secret_below_the_place_that_the_line_itself_goes_to_is_not_kept_either)
{
    for (const char *before : { "configure; set shop", "edit shop; set" }) {
        shell_fixture_t f;
        f.shell.mode = before[0] == 'c' ? MODE_OPERATIONAL : MODE_CONFIGURATION;
        std::string kept = std::string(before) + " pin 1234";
        EXPECT_TRUE(shell_run_line(f.shell, kept, f.error, &kept)) << f.error.text;
        EXPECT_EQ(kept, std::string(before) + " pin");
    }
}

TEST(cli_history, lines_survive_in_a_file_for_its_owner_alone_and_old_ones_go)
{
    one_file_folder folder("history", "");
    remove(folder.file().c_str());
    for (size_t i = 0; i <= 2 * HISTORY_LINES; i++)
        history_add(folder.file(), "line " + std::to_string(i));
    history_add(folder.file(), "two\nlines");
    std::vector<std::string> lines = history_load(folder.file());
    ASSERT_EQ(lines.size(), HISTORY_LINES);
    EXPECT_EQ(lines.back(), "line " + std::to_string(2 * HISTORY_LINES));
    EXPECT_EQ(history_load(folder.file()), lines) << "cut";
    struct stat status;
    ASSERT_EQ(stat(folder.file().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
    EXPECT_LT(status.st_size, 10000);
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
