#include "platform/routing/validate.h"

#include "common/tip_handle.h"
#include "proto/bgp.pb-c.h"
#include "proto/policy.pb-c.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <regex.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

constexpr std::string_view BORDER = "(^|[,{}() ]|$)";
constexpr size_t MAX_REASON = 128;
constexpr size_t MAX_SHOWN = AS_PATH_MAX_LENGTH; // of a value in a text

backend_result_t refuse(const char *what, std::string_view value, std::string_view why)
{
    std::string shown(value.substr(0, MAX_SHOWN));
    std::replace_if(
        shown.begin(), shown.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
    return { VALIDATE_REFUSED,
             std::string(what) + " '" + shown + (value.size() > MAX_SHOWN ? "..." : "") + "' : " + std::string(why) };
}

// ---- as-path expressions

// Length of the bracket expression that text begins with; all of the text when it is not closed. A "]" that comes first
// is one of its characters.
size_t brackets_length(std::string_view text)
{
    size_t first = text.substr(0, 2) == "[^" ? 3 : 2;
    size_t end = text.find(']', first);
    return end == std::string_view::npos ? text.size() : end + 1;
}

size_t part_length(std::string_view text)
{
    if (text[0] == '[')
        return brackets_length(text);
    return text[0] == '\\' ? std::min<size_t>(2, text.size()) : 1;
}

// In a process of its own: its end is 0 when the expression compiles, else 1 with the reason written.
[[noreturn]] void compile_and_exit(const char *expression, int fd)
{
    const itimerval limit = { {}, { AS_PATH_MAX_MS / 1000, AS_PATH_MAX_MS % 1000 * 1000 } };
    signal(SIGPROF, SIG_DFL);
    setitimer(ITIMER_PROF, &limit, nullptr);
    regex_t compiled;
    char why[MAX_REASON] = "";
    int code = regcomp(&compiled, expression, REG_EXTENDED | REG_NOSUB);
    if (code == 0)
        _exit(0);
    (void)regerror(code, &compiled, why, sizeof why);
    (void)!write(fd, why, strlen(why)); // the end of the process tells too
    _exit(1);
}

std::string fault_of_compiler(pid_t pid, int fd)
{
    char why[MAX_REASON];
    ssize_t size = 0;
    int status = 0;
    while ((size = read(fd, why, sizeof why)) < 0 && errno == EINTR)
        ;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR)
        ;
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
        return "";
    return size > 0 ? std::string(why, static_cast<size_t>(size)) : "Takes too long to compile";
}

// ---- addresses

bool is_unicast_ipv4(const char *text)
{
    in_addr address{};
    if (inet_pton(AF_INET, text, &address) != 1)
        return false;
    uint32_t first = ntohl(address.s_addr) >> 24;
    return first != 0 && first < 224;
}

bool is_unicast_ipv6(const char *text)
{
    in6_addr address{};
    return inet_pton(AF_INET6, text, &address) == 1 && !IN6_IS_ADDR_UNSPECIFIED(&address) &&
           !IN6_IS_ADDR_MULTICAST(&address);
}

// ---- requests

backend_result_t neighbor_validate(const ProtobufCMessage &message)
{
    const MIpAddress *address = reinterpret_cast<const MBgpNeighbor &>(message).neighbor;
    if (address == nullptr || address->address == nullptr)
        return {};
    bool is_good = address->is_ipv4 ? is_unicast_ipv4(address->address) : is_unicast_ipv6(address->address);
    return is_good ? backend_result_t{} : refuse("neighbor", address->address, "not an address of one router");
}

backend_result_t as_path_validate(const ProtobufCMessage &message)
{
    const char *regex = reinterpret_cast<const MBgpAsPathList &>(message).regex;
    if (regex == nullptr)
        return {};
    std::string fault = as_path_fault(regex);
    return fault.empty() ? backend_result_t{} : refuse("as-path expression", regex, fault);
}

struct request_row_t {
    const ProtobufCMessageDescriptor *descriptor;
    backend_result_t (*validate)(const ProtobufCMessage &message);
};
constexpr request_row_t request_rows[] = {
    { &m_bgp_neighbor__descriptor, neighbor_validate },
    { &m_bgp_as_path_list__descriptor, as_path_validate },
};

} // namespace

backend_result_t message_validate(const message_row_t &row, const ProtobufCMessage &message)
{
    for (const request_row_t &request : request_rows) {
        if (request.descriptor == row.descriptor)
            return request.validate(message);
    }
    return {};
}

std::string as_path_expression(std::string_view text)
{
    std::string expression;
    while (!text.empty()) {
        size_t length = part_length(text);
        expression += text[0] == '_' ? BORDER : text.substr(0, length);
        text.remove_prefix(length);
    }
    return expression;
}

std::string as_path_fault(std::string_view text)
{
    if (text.size() > AS_PATH_MAX_LENGTH)
        return "Longer than " + std::to_string(AS_PATH_MAX_LENGTH) + " characters";
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return strerror(errno);
    unique_fd from(ends[0]), to(ends[1]);
    std::string expression = as_path_expression(text);
    pid_t pid = fork();
    if (pid < 0)
        return strerror(errno);
    if (pid == 0)
        compile_and_exit(expression.c_str(), to.get());
    to.reset();
    return fault_of_compiler(pid, from.get());
}
