// The scripted agent's transactions, the half that writes: every edit is written down as "FUNCTION PATH VALUE" and takes
// effect among the leaves. Edits that results name, as "FUNCTION PATH", fail. See fake_agent.h.
#include "tests/unit/fake_agent.h"

#include <cstdarg>
#include <cstdio>

namespace
{

std::string value_text(const confd_value_t &value)
{
    std::string text;
    switch (value.type) {
    case C_BUF:
        return { CONFD_GET_CBUFPTR(&value), CONFD_GET_BUFSIZE(&value) };
    case C_BOOL:
        return CONFD_GET_BOOL(&value) != 0 ? "true" : "false";
    case C_UINT16:
        return std::to_string(CONFD_GET_UINT16(&value));
    case C_UINT32:
        return std::to_string(CONFD_GET_UINT32(&value));
    case C_ENUM_VALUE:
        return "enum " + std::to_string(CONFD_GET_ENUM_VALUE(&value));
    case C_OID:
        for (int i = 0; i < CONFD_GET_OID(&value)->len; i++)
            text += (i == 0 ? "" : ".") + std::to_string(CONFD_GET_OID(&value)->oid[i]);
        return text;
    default:
        return "a value of type " + std::to_string(value.type);
    }
}

#define PATH_OF(path, last)                                                                                            \
    va_list arguments_;                                                                                                \
    va_start(arguments_, last);                                                                                        \
    std::string path = fake_path_text(last, arguments_, value_text);                                                   \
    va_end(arguments_)

int refuse(int error)
{
    confd_errno = error;
    return CONFD_ERR;
}

// The edit, unless it is one of those that fail.
int edit(const std::string &call, const std::string &value = {})
{
    std::lock_guard<std::recursive_mutex> guard(agent().lock);
    agent().calls.push_back(value.empty() ? call : call + " " + value);
    return agent().results.count(call) > 0 ? refuse(agent().error) : CONFD_OK;
}

void put(const std::string &path, const confd_value_t &value)
{
    bool is_plain = value.type != C_BUF && value.type != C_OID;
    agent().leaves[path] = is_plain ? value : nothing();
}

} // namespace

extern "C" {

int maapi_attach_init(int, int *th)
{
    *th = 1;
    return edit("maapi_attach_init");
}
int maapi_create(int, int, const char *fmt, ...)
{
    PATH_OF(path, fmt);
    int result = edit("maapi_create " + path);
    if (result != CONFD_OK)
        return result;
    if (agent().leaves.count(path) > 0)
        return refuse(CONFD_ERR_ALREADY_EXISTS);
    put(path, nothing());
    return CONFD_OK;
}
int maapi_delete(int, int, const char *fmt, ...)
{
    PATH_OF(path, fmt);
    int result = edit("maapi_delete " + path);
    if (result == CONFD_OK && agent().leaves.erase(path) == 0)
        return refuse(CONFD_ERR_NOEXISTS);
    return result;
}
int maapi_set_elem(int, int, const confd_value_t *v, const char *fmt, ...)
{
    PATH_OF(path, fmt);
    int result = edit("maapi_set_elem " + path, value_text(*v));
    if (result == CONFD_OK)
        put(path, *v);
    return result;
}
int maapi_set_elem2(int, int, const char *strval, const char *fmt, ...)
{
    PATH_OF(path, fmt);
    int result = edit("maapi_set_elem2 " + path, strval);
    if (result == CONFD_OK)
        put(path, nothing());
    return result;
}
int maapi_load_config(int, int, int flags, const char *filename)
{
    return edit("maapi_load_config " + std::to_string(flags) + " " + filename);
}
int cdb_exists(int, const char *fmt, ...)
{
    PATH_OF(path, fmt);
    std::lock_guard<std::recursive_mutex> guard(agent().lock);
    return agent().leaves.count(path) > 0 ? 1 : 0;
}

} // extern "C"
