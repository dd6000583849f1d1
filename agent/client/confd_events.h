// libconfd: events of the agent itself.
#ifndef AGENT_CLIENT_CONFD_EVENTS_H
#define AGENT_CLIENT_CONFD_EVENTS_H

#include "agent/client/confd_lib.h"

#ifdef __cplusplus
extern "C" {
#endif

enum confd_notification_type {
    CONFD_NOTIF_COMMIT_SIMPLE = 8
};

struct confd_user_sess_info_notif {
    char username[64];
    char context[32];
    char src_addr[64];
    int usid;
};

struct confd_commit_notification {
    enum confd_dbname database;
    struct confd_user_sess_info_notif uinfo;
};

struct confd_notification {
    int type; // confd_notification_type
    union {
        struct confd_commit_notification commit;
    } n;
};

struct confd_notifications_data {
    int interval_ms; // of periodic events
    char reserved[60];
};

// Connects the socket and asks for the events in mask; data may be null.
int confd_notifications_connect2(int sock, const struct sockaddr *srv, int srv_sz, int mask,
                                 const struct confd_notifications_data *data);
// Blocks for the next event. Free it with confd_free_notification.
int confd_read_notification(int sock, struct confd_notification *n);
void confd_free_notification(struct confd_notification *n);

#ifdef __cplusplus
}
#endif

#endif
