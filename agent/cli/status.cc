// Streams of notifications, and the agent's own state.
#include "agent/cli/commands.h"
#include "agent/cli/json_read.h"

#include <charconv>

namespace
{

bool fetch_status(shell_t &shell, std::vector<item_t> &items, cli_error_t &error)
{
    session_t admin;
    cli_error_t lost; // the loss of this connection is not that of the session's
    std::string document;
    bool ok = session_connect(admin, shell.peer, WIRE_KIND_ADMIN, lost) && session_status(admin, document, lost);
    return ok ? json_read_items({}, document, items, error) : cli_fail(error, lost.text);
}

// Keeps the entries of one outermost list.
void keep_list(std::vector<item_t> &items, const std::string &name)
{
    std::vector<item_t> kept;
    size_t depth = 0;
    bool is_inside = false;
    for (item_t &item : items) {
        bool opens = item.kind == WIRE_WALK_CONTAINER || item.kind == WIRE_WALK_ENTRY;
        if (depth == 0)
            is_inside = item.kind == WIRE_WALK_ENTRY && item.name == name;
        depth += opens;
        depth -= item.kind == WIRE_WALK_END && depth > 0;
        if (is_inside)
            kept.push_back(std::move(item));
    }
    items = std::move(kept);
}

} // namespace

bool run_show_agent_status(shell_t &shell, words_view, cli_error_t &error)
{
    std::vector<item_t> items;
    if (!fetch_status(shell, items, error))
        return false;
    shell_show_items(shell, items, { format_t::TABLE, 0, 0, true });
    return true;
}

bool run_show_sessions(shell_t &shell, words_view, cli_error_t &error)
{
    std::vector<item_t> items;
    if (!fetch_status(shell, items, error))
        return false;
    keep_list(items, "sessions");
    if (items.empty())
        return cli_fail(error, "the agent does not tell its sessions");
    shell_show_items(shell, items, { format_t::TABLE });
    return true;
}

namespace
{

// Events of a stream, printed as they come.
struct stream_sink_t {
    shell_t &shell;
    output_t output;
    std::vector<const lysc_node *> nodes; // what an event's document may hold
    bool is_over = false;
    bool goes_on = true; // somebody reads

    explicit stream_sink_t(shell_t &s, pager_t &pager) : shell(s), output(shell_output(s, pager)), nodes(s.schema.roots)
    {
        nodes.insert(nodes.begin(), s.schema.notifications.begin(), s.schema.notifications.end());
    }
};

std::string time_text(const confd_value_t &value)
{
    if (value.type != C_DATETIME)
        return "-";
    const confd_datetime &when = value.val.datetime;
    char text[80];
    snprintf(text, sizeof text, "%04d-%02u-%02uT%02u:%02u:%02u.%03u", when.year, when.month, when.day, when.hour,
             when.min, when.sec, static_cast<unsigned>(when.micro / 1000 % 1000));
    std::string zone = when.timezone == 0 && when.timezone_minutes == 0 ? "Z" : "";
    if (zone.empty() && when.timezone != CONFD_TIMEZONE_UNDEF) {
        char offset[16];
        snprintf(offset, sizeof offset, "%+03d:%02d", when.timezone, when.timezone_minutes);
        zone = offset;
    }
    return text + zone;
}

// An event is one line, so that '|' and the eye can pick it: the names of what is around a leaf stand before it.
std::string event_line(const std::string &time, const std::vector<item_t> &items)
{
    std::string line = time;
    std::vector<std::string> around;
    for (const item_t &item : items) {
        bool opens = item.kind == WIRE_WALK_CONTAINER || item.kind == WIRE_WALK_ENTRY;
        if (item.kind == WIRE_WALK_END && !around.empty())
            around.pop_back();
        if (item.kind == WIRE_WALK_END)
            continue;
        line += around.empty() ? " " : "  " + around.back();
        line += item.name;
        if (opens)
            around.push_back(around.empty() ? "" : around.back() + item.name + "/");
        for (const std::string &value : item.values)
            line += " " + cli_quote_word(value);
    }
    return line + "\n";
}

void take_event(void *data, std::string_view payload) noexcept
{
    stream_sink_t &sink = *static_cast<stream_sink_t *>(data);
    wire_reader_t in(payload);
    uint8_t kind = in.u8();
    confd_value_t when = wire_get_value(in);
    std::string time = time_text(when);
    wire_free_value(when);
    std::string_view document = kind == WIRE_STREAM_NOTIFICATION ? in.text() : std::string_view();
    sink.is_over = sink.is_over || kind == WIRE_STREAM_COMPLETE;
    std::vector<item_t> items;
    cli_error_t error;
    if (kind != WIRE_STREAM_NOTIFICATION || !in.finished())
        return;
    bool is_read = json_read_items({ &sink.shell.schema, sink.nodes }, document, items, error);
    sink.goes_on =
        sink.goes_on && sink.output.write(is_read ? event_line(time, items) : time + " " + error.text + "\n");
    fflush(sink.shell.out);
}

// Shows a stream until its end, or until the operator has seen enough.
bool show_stream(shell_t &shell, const std::string &name, int64_t since, bool is_past_only, cli_error_t &error)
{
    session_t stream;
    cli_error_t lost; // the loss of this connection is not that of the session's
    pager_t pager(shell.screen);
    shell.pipe.wants_pages = shell.pipe.wants_pages && is_past_only;
    stream_sink_t sink(shell, pager);
    stream.sink = &sink;
    stream.on_event = take_event;
    bool ok = session_connect(stream, shell.peer, WIRE_KIND_NOTIF, lost) &&
              session_stream(stream, name, since, is_past_only, lost);
    if (ok && !is_past_only && shell.screen.out)
        fprintf(shell.news, "from now on; ^C ends\n");
    while (ok && sink.goes_on && !sink.is_over && !shell_is_interrupted(shell, error))
        ok = session_wait_pushes(stream, lost);
    sink.output.end();
    if (!ok)
        return cli_fail(error, lost.text);
    if (is_past_only && sink.goes_on && !sink.output.has_lines() && !shell.wait.was_interrupted)
        fprintf(shell.out, "no notifications\n");
    return true;
}

} // namespace

bool run_show_notifications(shell_t &shell, words_view args, cli_error_t &error)
{
    static constexpr int64_t ALL = 1; // the first second that is a time
    int64_t since = ALL;
    if (args.empty())
        return cli_fail(error, "which stream?");
    if (args.size() > 1 && args[1].text != "last")
        return cli_fail(error, "unexpected '" + args[1].text + "'; 'last MINUTES' may stand here", args[1].column);
    if (args.size() == 2)
        return cli_fail(error, "'last' how many minutes?");
    if (args.size() > 3)
        return cli_fail(error, "unexpected '" + args[3].text + "'", args[3].column);
    if (args.size() == 3) {
        uint32_t minutes = 0;
        const char *end = args[2].text.data() + args[2].text.size();
        auto [stop, rc] = std::from_chars(args[2].text.data(), end, minutes);
        if (rc != std::errc() || stop != end || minutes == 0)
            return cli_fail(error, "'" + args[2].text + "' is no number of minutes", args[2].column);
        since = std::max<int64_t>(ALL, time(nullptr) - int64_t{ 60 } * minutes);
    }
    return show_stream(shell, args[0].text, since, true, error);
}

bool run_monitor_stream(shell_t &shell, words_view args, cli_error_t &error)
{
    if (args.size() != 1)
        return cli_fail(error, args.empty() ? "which stream?" : "unexpected '" + args[1].text + "'",
                        args.empty() ? CLI_NO_COLUMN : args[1].column);
    return show_stream(shell, args[0].text, 0, false, error);
}
