// Actions, completions, streams of notifications, the agent's state. See session.h.
#include "agent/cli/session_call.h"

#include <ctime>

bool session_action(session_t &session, const std::string &path, const std::string &input, std::string &output,
                    cli_error_t &error)
{
    wire_writer_t request;
    request.u32(0);
    request.text(path);
    request.text(input);
    std::string reply;
    if (!session_call(session, WIRE_MAAPI_ACTION, request, reply, error))
        return false;
    wire_reader_t in(reply);
    output = in.text();
    return in.finished() || cli_fail(error, "the action's answer cannot be read");
}

namespace
{

enum completion_kind_t : uint8_t { // CONFD_COMPLETION* of the client library
    COMPLETION_WORD = 0,
    COMPLETION_INFO = 1,
    COMPLETION_DESCRIPTION = 2,
};

} // namespace

bool session_complete(session_t &session, const std::string &leaf, const std::string &token, char character,
                      std::vector<choice_t> &choices, cli_error_t &error)
{
    wire_writer_t request;
    request.u32(session.trans);
    request.text(leaf);
    request.text(token);
    request.u8(static_cast<uint8_t>(character));
    std::string reply;
    if (!session_call(session, WIRE_MAAPI_COMPLETE, request, reply, error))
        return false;
    wire_reader_t in(reply);
    for (uint32_t n = in.count(9); n > 0 && in.ok; n--) {
        uint8_t kind = in.u8();
        std::string value(in.text());
        std::string extra(in.text());
        if (kind == COMPLETION_WORD)
            choices.push_back({ std::move(value), std::move(extra), false });
        else if (kind == COMPLETION_INFO || kind == COMPLETION_DESCRIPTION)
            choices.push_back({ "", value, true });
    }
    return in.finished() || cli_fail(error, "the agent's completions cannot be read");
}

namespace
{

confd_value_t datetime_value(int64_t seconds)
{
    confd_value_t value = {};
    value.type = C_DATETIME;
    time_t when = static_cast<time_t>(seconds);
    tm utc{};
    (void)gmtime_r(&when, &utc); // fails for years that do not fit a number only
    value.val.datetime.year = static_cast<int16_t>(utc.tm_year + 1900);
    value.val.datetime.month = static_cast<uint8_t>(utc.tm_mon + 1);
    value.val.datetime.day = static_cast<uint8_t>(utc.tm_mday);
    value.val.datetime.hour = static_cast<uint8_t>(utc.tm_hour);
    value.val.datetime.min = static_cast<uint8_t>(utc.tm_min);
    value.val.datetime.sec = static_cast<uint8_t>(utc.tm_sec);
    return value;
}

} // namespace

bool session_stream(session_t &session, const std::string &stream, int64_t since, bool is_past_only, cli_error_t &error)
{
    confd_value_t none = {};
    none.type = C_NOEXISTS;
    wire_writer_t request;
    request.text(stream);
    wire_put_value(request, since == 0 ? none : datetime_value(since));
    wire_put_value(request, is_past_only ? datetime_value(time(nullptr)) : none);
    std::string reply;
    return session_call(session, WIRE_STREAM_SUBSCRIBE, request, reply, error);
}

bool session_status(session_t &session, std::string &document, cli_error_t &error)
{
    std::string reply;
    if (!session_call(session, WIRE_ADMIN_STATUS, {}, reply, error))
        return false;
    wire_reader_t in(reply);
    document = in.text();
    return in.finished() || cli_fail(error, "the agent's state cannot be read");
}
