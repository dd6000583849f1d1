// The scripted agent's data callbacks and completions, and the sessions of a program of its own. See fake_agent.h.
#include "tests/unit/fake_agent.h"

#include <cstdarg>
#include <cstdio>
#include <unistd.h>

namespace
{

void write_down(std::string call)
{
    std::lock_guard<std::recursive_mutex> guard(agent().lock);
    agent().calls.push_back(std::move(call));
}

// The scripted result of a function, or of one call of it.
int outcome(const std::string &call)
{
    std::lock_guard<std::recursive_mutex> guard(agent().lock);
    auto found = agent().results.find(call);
    if (found == agent().results.end())
        return CONFD_OK;
    confd_errno = agent().error;
    return found->second;
}

int answer(const char *function, const std::string &arguments = "")
{
    write_down(arguments.empty() ? function : std::string(function) + " " + arguments);
    return outcome(function);
}

std::string vtext(const char *format, va_list arguments)
{
    char text[512];
    vsnprintf(text, sizeof text, format, arguments);
    return text;
}

} // namespace

extern "C" {

int confd_register_data_cb(struct confd_daemon_ctx *, const struct confd_data_cbs *cbs)
{
    std::string call = std::string("confd_register_data_cb ") + cbs->callpoint;
    write_down(call);
    int result = outcome(call);
    if (result == CONFD_OK)
        agent().data_cbs.insert_or_assign(cbs->callpoint, *cbs);
    return result;
}
int confd_data_reply_next_key(struct confd_trans_ctx *, const confd_value_t *v, int, long next)
{
    return answer("confd_data_reply_next_key", (v != nullptr ? "a key, next " : "none, next ") + std::to_string(next));
}
int confd_data_reply_not_found(struct confd_trans_ctx *)
{
    return answer("confd_data_reply_not_found");
}

// ---- completions

int confd_action_reply_completion(struct confd_user_info *, const struct confd_completion_value *values, int nvalues)
{
    std::string words;
    for (int i = 0; i < nvalues; i++) {
        words += (i > 0 ? " " : "") + std::string(values[i].value);
        if (values[i].type != CONFD_COMPLETION || values[i].extra != nullptr)
            words += "(not plain)";
    }
    return answer("confd_action_reply_completion", words);
}
void confd_action_seterr(struct confd_user_info *, const char *fmt, ...)
{
    va_list arguments;
    va_start(arguments, fmt);
    write_down("confd_action_seterr " + vtext(fmt, arguments));
    va_end(arguments);
}
void confd_fatal(const char *fmt, ...)
{
    va_list arguments;
    va_start(arguments, fmt);
    fputs(vtext(fmt, arguments).c_str(), stderr);
    va_end(arguments);
    _exit(1);
}

// ---- sessions

int maapi_start_user_session3(int, const char *username, const char *context, const char **, int,
                              const struct confd_ip *, int, enum confd_proto, const char *, const char *, const char *,
                              const char *)
{
    return answer("maapi_start_user_session3", std::string(username) + " " + context);
}
int maapi_end_user_session(int)
{
    return answer("maapi_end_user_session");
}
int maapi_start_trans_flags2(int, enum confd_dbname db, enum confd_trans_mode mode, int, int, const char *,
                             const char *, const char *, const char *)
{
    int result = answer("maapi_start_trans_flags2", std::to_string(db) + " " + std::to_string(mode));
    return result == CONFD_OK ? 1 : result;
}
int maapi_finish_trans(int, int)
{
    return answer("maapi_finish_trans");
}

} // extern "C"
