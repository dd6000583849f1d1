// A session with the agent for the benchmarks that commit: any failure is told with the program's name and ends it.
#ifndef BENCH_BENCH_SESSION_H
#define BENCH_BENCH_SESSION_H

#include <arpa/inet.h>
#include <cerrno>
#include <confd_maapi.h>
#include <cstdio>
#include <cstdlib>
#include <netinet/in.h>

inline int sock; // of the session

[[noreturn]] inline void fail(const char *step)
{
    fprintf(stderr, "%s: %s: %s\n", program_invocation_short_name, step, confd_lasterr());
    exit(1);
}

inline void check(int result, const char *step)
{
    if (result != CONFD_OK)
        fail(step);
}

inline void start_session()
{
    sockaddr_in agent{};
    agent.sin_family = AF_INET;
    agent.sin_port = htons(CONFD_PORT);
    agent.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    confd_init(program_invocation_short_name, stderr, CONFD_SILENT);
    sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    check(maapi_connect(sock, reinterpret_cast<sockaddr *>(&agent), sizeof agent), "connect to the agent");
    confd_ip source{};
    source.af = AF_INET;
    source.ip.v4.s_addr = htonl(INADDR_LOOPBACK);
    check(maapi_start_user_session(sock, "bench", "system", nullptr, 0, &source, CONFD_PROTO_TCP), "start a session");
}

inline int start_transaction()
{
    int th = maapi_start_trans(sock, CONFD_RUNNING, CONFD_READ_WRITE);
    if (th < 0)
        fail("start a transaction");
    return th;
}

inline void apply(int th)
{
    check(maapi_apply_trans(sock, th, 0), "commit");
    check(maapi_finish_trans(sock, th), "finish");
}

#endif
