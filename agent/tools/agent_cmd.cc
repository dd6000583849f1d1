// agent_cmd: what scripts and people ask of a running agentd.
//
//   agent_cmd [--port N] status [--json] | phase | start-phase2 | dump [running|operational] [json|xml] |
//             discard-candidate | stop
//
// One connection, one request, one answer on standard output. Exit status 0: done; 1: the agent cannot be reached
// or has refused; 2: the command line is wrong. The shared secret, where the agent asks for one, is read from the file
// that CONFD_IPC_ACCESS_FILE names, as all clients do.
#include "agent/wire/wire.h"

#include <arpa/inet.h>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <span>
#include <sys/socket.h>
#include <unistd.h>

enum exit_status_t {
    EXIT_DONE = 0,
    EXIT_REFUSED = 1,
    EXIT_USAGE = 2,
};

static constexpr char usage_text[] = "usage: agent_cmd [--port N] status [--json] | phase | start-phase2 | dump "
                                     "[running|operational] [json|xml] | discard-candidate | stop\n";
static constexpr timeval ANSWER_TIME = { 300, 0 }; // start-phase2 waits for the commits before it

// ---- one exchange with the agent

struct link_t {
    int fd = -1;
    uint16_t port = WIRE_PORT;
    ~link_t()
    {
        if (fd >= 0)
            close(fd);
    }
};

static bool complain(const link_t &link, const char *what)
{
    fprintf(stderr, "agent_cmd: %s at 127.0.0.1:%u: %s; is agentd running?\n", what, link.port, strerror(errno));
    return false;
}

static bool connect_agent(link_t &link)
{
    link.fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(link.port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (link.fd < 0 || connect(link.fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0)
        return complain(link, "cannot connect to the agent");
    if (setsockopt(link.fd, SOL_SOCKET, SO_RCVTIMEO, &ANSWER_TIME, sizeof ANSWER_TIME) != 0)
        return complain(link, "cannot limit the wait for the agent");
    return true;
}

static bool send_all(const link_t &link, std::string_view bytes)
{
    while (!bytes.empty()) {
        ssize_t n = send(link.fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return complain(link, "cannot send to the agent");
        bytes.remove_prefix(static_cast<size_t>(n));
    }
    return true;
}

static bool receive_all(const link_t &link, char *to, size_t size)
{
    while (size > 0) {
        ssize_t n = recv(link.fd, to, size, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n == 0)
            errno = ECONNRESET; // the agent closes a connection only when it ends or refuses the client
        if (n <= 0)
            return complain(link, "no answer from the agent");
        to += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

// Sends a request and gives the payload of its answer; what has gone wrong is printed.
static std::optional<std::string> ask(const link_t &link, uint16_t op, std::string_view payload)
{
    char bytes[WIRE_HEADER_SIZE];
    if (!send_all(link, wire_frame(op, 0, 1, payload)) || !receive_all(link, bytes, sizeof bytes))
        return {};
    wire_header_t header = wire_parse_header(bytes);
    if (header.length > WIRE_MAX_FRAME || header.op != (op | WIRE_REPLY)) {
        fprintf(stderr, "agent_cmd: port %u does not speak the agent's protocol; check --port\n", link.port);
        return {};
    }
    std::string answer(header.length, 0);
    if (!receive_all(link, answer.data(), answer.size()))
        return {};
    if (header.status == 0)
        return answer;
    wire_reader_t in(answer);
    std::string_view text = in.text();
    fprintf(stderr, "agent_cmd: the agent refuses: %.*s (%u)\n", static_cast<int>(text.size()), text.data(),
            header.status);
    return {};
}

static std::string read_secret()
{
    const char *path = getenv("CONFD_IPC_ACCESS_FILE");
    FILE *file = path ? fopen(path, "re") : nullptr;
    if (!file)
        return {};
    char bytes[1024];
    std::string secret(bytes, fread(bytes, 1, sizeof bytes, file));
    fclose(file);
    while (!secret.empty() && (secret.back() == '\n' || secret.back() == '\r'))
        secret.pop_back();
    return secret;
}

static bool say_hello(const link_t &link, wire_kind_t kind)
{
    wire_writer_t hello;
    hello.u16(WIRE_VERSION);
    hello.u8(kind);
    hello.text("agent_cmd");
    hello.u32(static_cast<uint32_t>(getpid()));
    hello.text(read_secret());
    hello.u32(0);
    return ask(link, WIRE_HELLO, hello.bytes).has_value();
}

// What is asked on MAAPI connections is asked by somebody.
static bool start_session(const link_t &link)
{
    wire_writer_t session;
    session.text("agent_cmd");
    session.text("system");
    session.text("127.0.0.1");
    session.u16(0);
    return ask(link, WIRE_MAAPI_START_SESSION, session.bytes).has_value();
}

// ---- status for people

// Prints a JSON text as an outline: one line a member, indented by depth, list items behind a dash. The text comes from
// the agent's own printer; whatever else it may be, only its characters are copied.
static void print_outline(std::string_view json)
{
    std::string open; // brackets around the place
    bool in_text = false, at_start = true;
    auto begin_line = [&](const char *mark) {
        if (!at_start)
            putchar('\n');
        at_start = false;
        printf("%*s%s", open.size() > 1 ? 2 * static_cast<int>(open.size() - 1) : 0, "", mark);
    };
    for (size_t i = 0; i < json.size(); i++) {
        char c = json[i];
        char before = i > 0 ? json[i - 1] : 0;
        if (in_text && c == '\\' && i + 1 < json.size()) {
            putchar(json[++i]);
        } else if (c == '"') {
            bool begins_member = !in_text && (before == '{' || before == ',' || before == '[');
            in_text = !in_text;
            if (begins_member)
                begin_line(open.ends_with('[') ? "- " : "");
        } else if (in_text) {
            putchar(c);
        } else if (c == ':') {
            fputs(": ", stdout);
        } else if (c == '{' || c == '[') {
            if (before == '[' || (before == ',' && c == '{'))
                begin_line("-");
            open += c;
        } else if (c == '}' || c == ']') {
            if (!open.empty())
                open.pop_back();
        } else if (c != ',') {
            putchar(c);
        }
    }
    putchar('\n');
}

// ---- commands

using words_t = std::span<char *const>;

// What goes out and how the answer is shown; null when the words do not fit.
struct command_t {
    const char *name;
    uint16_t op;
    bool (*build)(words_t words, wire_writer_t &payload);
    void (*show)(words_t words, wire_reader_t &answer);
    wire_kind_t kind = WIRE_KIND_ADMIN; // of the connection
};

static bool build_empty(words_t words, wire_writer_t &)
{
    return words.empty();
}

static bool build_status(words_t words, wire_writer_t &)
{
    return words.empty() || (words.size() == 1 && strcmp(words[0], "--json") == 0);
}

template <uint32_t Phase> static bool build_phase(words_t words, wire_writer_t &payload)
{
    payload.u32(Phase);
    return words.empty();
}

struct word_row_t {
    const char *word;
    uint8_t number;
};
static constexpr word_row_t databases[] = { { "running", WIRE_DB_RUNNING }, { "operational", WIRE_DB_OPERATIONAL } };
static constexpr word_row_t formats[] = { { "json", 0 }, { "xml", 1 } };

static const word_row_t *find_word(std::span<const word_row_t> rows, const char *word)
{
    for (const word_row_t &row : rows)
        if (strcmp(row.word, word) == 0)
            return &row;
    return nullptr;
}

static bool build_dump(words_t words, wire_writer_t &payload)
{
    uint8_t database = WIRE_DB_RUNNING, format = 0;
    for (const char *word : words) {
        if (const word_row_t *row = find_word(databases, word))
            database = row->number;
        else if (const word_row_t *other = find_word(formats, word))
            format = other->number;
        else
            return false;
    }
    payload.u8(database);
    payload.u8(format);
    return words.size() <= 2;
}

static void show_text(words_t, wire_reader_t &answer)
{
    std::string_view text = answer.text();
    fwrite(text.data(), 1, text.size(), stdout);
    if (text.empty() || text.back() != '\n')
        putchar('\n');
}

static void show_status(words_t words, wire_reader_t &answer)
{
    if (!words.empty())
        return show_text(words, answer);
    print_outline(answer.text());
}

static void show_phase(words_t, wire_reader_t &answer)
{
    printf("%u\n", answer.u32());
}

static void show_nothing(words_t, wire_reader_t &)
{
}

static constexpr command_t commands[] = {
    { "status", WIRE_ADMIN_STATUS, build_status, show_status },
    { "phase", WIRE_ADMIN_PHASE, build_phase<0>, show_phase },
    { "start-phase2", WIRE_ADMIN_PHASE, build_phase<2>, show_phase },
    { "dump", WIRE_ADMIN_DUMP, build_dump, show_text },
    { "discard-candidate", WIRE_MAAPI_CANDIDATE_DISCARD, build_empty, show_nothing, WIRE_KIND_MAAPI },
    { "stop", WIRE_ADMIN_STOP, build_empty, show_nothing },
};

static int run(const command_t &command, words_t words, uint16_t port)
{
    wire_writer_t payload;
    if (!command.build(words, payload)) {
        fprintf(stderr, "agent_cmd: %s does not take these words\n%s", command.name, usage_text);
        return EXIT_USAGE;
    }
    link_t link;
    link.port = port;
    if (!connect_agent(link) || !say_hello(link, command.kind))
        return EXIT_REFUSED;
    if (command.kind == WIRE_KIND_MAAPI && !start_session(link))
        return EXIT_REFUSED;
    std::optional<std::string> answer = ask(link, command.op, payload.bytes);
    if (!answer)
        return EXIT_REFUSED;
    wire_reader_t in(*answer);
    command.show(words, in);
    return in.ok ? EXIT_DONE : EXIT_REFUSED;
}

// Takes "--port N" or "-p N" from the front of the words. False when N is no port.
static bool take_port(words_t *words, uint16_t *port)
{
    if (words->empty() || (strcmp((*words)[0], "--port") != 0 && strcmp((*words)[0], "-p") != 0))
        return true;
    if (words->size() < 2)
        return false;
    std::string_view text = (*words)[1];
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *port);
    *words = words->subspan(2);
    return error == std::errc{} && end == text.data() + text.size() && *port > 0;
}

int main(int argc, char **argv)
{
    words_t words(argv + 1, static_cast<size_t>(argc > 0 ? argc - 1 : 0));
    uint16_t port = WIRE_PORT;
    bool is_good = take_port(&words, &port) && !words.empty();
    if (is_good && (strcmp(words[0], "--help") == 0 || strcmp(words[0], "-h") == 0)) {
        fputs(usage_text, stdout);
        return EXIT_DONE;
    }
    if (!is_good) {
        fputs(usage_text, stderr);
        return EXIT_USAGE;
    }
    for (const command_t &command : commands)
        if (strcmp(command.name, words[0]) == 0)
            return run(command, words.subspan(1), port);
    fprintf(stderr, "agent_cmd: unknown command %s\n%s", words[0], usage_text);
    return EXIT_USAGE;
}
