// The scripted agent's transactions: what a validator reads. See fake_agent.h.
#include "tests/unit/fake_agent.h"

#include <cstdarg>
#include <cstdlib>

std::string fake_path_text(const char *format, va_list arguments, std::string (*value_text)(const confd_value_t &))
{
    std::string text;
    for (const char *at = format; *at != '\0'; at++) {
        if (*at != '%') {
            text += *at;
            continue;
        }
        bool is_long = at[1] == 'l';
        at += is_long ? 2 : 1;
        if (*at == 'x')
            text += value_text(*va_arg(arguments, const confd_value_t *));
        else if (*at == 's')
            text += va_arg(arguments, const char *);
        else
            text += std::to_string(is_long ? va_arg(arguments, long) : va_arg(arguments, int));
    }
    return text;
}

namespace
{

int give(const std::string &path, confd_value_t *v)
{
    auto found = agent().leaves.find(path);
    auto result = agent().results.find("get " + path);
    if (result != agent().results.end() || found == agent().leaves.end()) {
        confd_errno = result != agent().results.end() ? agent().error : CONFD_ERR_NOEXISTS;
        return CONFD_ERR;
    }
    *v = found->second;
    bool is_hidden = (agent().trans_flags & MAAPI_FLAG_NO_DEFAULTS) != 0 && agent().defaults.count(path) > 0;
    if (is_hidden) {
        *v = {};
        v->type = C_DEFAULT;
    } else if (v->type == C_BUF) {
        v->val.buf.ptr = reinterpret_cast<unsigned char *>(strndup(CONFD_GET_CBUFPTR(v), CONFD_GET_BUFSIZE(v)));
    } else if (v->type == C_LIST) {
        size_t size = v->val.list.size * sizeof(confd_value_t);
        v->val.list.ptr = static_cast<confd_value_t *>(memcpy(malloc(size), found->second.val.list.ptr, size));
    }
    return CONFD_OK;
}

} // namespace

std::string fake_value_text(const confd_value_t &value)
{
    switch (value.type) {
    case C_BUF:
        return { CONFD_GET_CBUFPTR(&value), CONFD_GET_BUFSIZE(&value) };
    case C_UINT64:
        return std::to_string(CONFD_GET_UINT64(&value));
    case C_UINT32:
        return std::to_string(CONFD_GET_UINT32(&value));
    case C_UINT16:
        return std::to_string(CONFD_GET_UINT16(&value));
    case C_ENUM_VALUE:
        return std::to_string(CONFD_GET_ENUM_VALUE(&value));
    default:
        return "";
    }
}

extern "C" {

int maapi_get_elem(int sock, int th, confd_value_t *v, const char *fmt, ...)
{
    va_list arguments;
    va_start(arguments, fmt);
    int result = maapi_vget_elem(sock, th, v, fmt, arguments);
    va_end(arguments);
    return result;
}
int maapi_vget_elem(int, int, confd_value_t *v, const char *fmt, va_list arguments)
{
    return give(fake_path_text(fmt, arguments, fake_value_text), v);
}
int maapi_exists(int, int, const char *fmt, ...)
{
    va_list arguments;
    va_start(arguments, fmt);
    std::string path = fake_path_text(fmt, arguments, fake_value_text);
    va_end(arguments);
    return agent().leaves.count(path) > 0 ? 1 : 0;
}
// The clear text of "$8$TEXT" is TEXT; what does not begin so cannot be read.
int confd_decrypt(const char *ciphertext, int len, char *output)
{
    std::string text(ciphertext, static_cast<size_t>(len));
    if (text.rfind("$8$", 0) != 0) {
        confd_errno = CONFD_ERR_BADTYPE;
        return CONFD_ERR;
    }
    memcpy(output, text.c_str() + 3, text.size() - 2);
    return len - 3;
}
int maapi_set_flags(int, int, int flags)
{
    agent().trans_flags = flags;
    return CONFD_OK;
}
int maapi_init_cursor(int, int th, struct maapi_cursor *mc, const char *fmt, ...)
{
    va_list arguments;
    va_start(arguments, fmt);
    std::string path = fake_path_text(fmt, arguments, fake_value_text);
    va_end(arguments);
    *mc = {};
    if (agent().results.count("walk " + path) > 0) {
        confd_errno = agent().error;
        return CONFD_ERR;
    }
    std::string own = std::to_string(th) + ":" + path;
    mc->path = strdup(agent().entries.count(own) > 0 ? own.c_str() : path.c_str());
    return CONFD_OK;
}
int maapi_get_next(struct maapi_cursor *mc)
{
    const std::vector<std::vector<confd_value_t>> &entries = agent().entries[mc->path];
    size_t at = static_cast<size_t>(mc->next_ahead++);
    mc->n = 0;
    if (at < entries.size()) {
        for (const confd_value_t &key : entries[at])
            mc->keys[mc->n++] = key;
    }
    return CONFD_OK;
}
void maapi_destroy_cursor(struct maapi_cursor *mc)
{
    free(mc->path);
    *mc = {};
}
}
