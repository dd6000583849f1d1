// A registered stream of notifications, or the registered way to send SNMP notifications.
#ifndef AGENT_CLIENT_CONFD_NOTIF_H
#define AGENT_CLIENT_CONFD_NOTIF_H

#include <cstdint>
#include <mutex>
#include <string>

struct confd_notification_ctx {
    uint32_t handle = 0; // the agent's
    int fd = -1;         // the worker socket
    bool is_stream = false;

    std::mutex mutex;        // guards what follows: any thread sends
    std::string notify_name; // SNMP, in place of the registered one; empty for that
};

#endif
