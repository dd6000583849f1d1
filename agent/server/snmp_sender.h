// Where SNMP notifications of daemons go: one sender, chosen when the agent is built together.
#ifndef AGENT_SERVER_SNMP_SENDER_H
#define AGENT_SERVER_SNMP_SENDER_H

#include <cstdint>
#include <string>
#include <vector>

struct server_t;

struct snmp_varbind_t {
    std::string name; // of the variable, as the daemon gives it
    std::string text; // canonical
};

struct snmp_notification_t {
    int64_t time_us = 0;
    std::string notify_name; // whose targets it goes to
    std::string context;
    std::string notification;
    std::vector<snmp_varbind_t> varbinds;
};

struct snmp_sender_t {
    const char *name;
    void (*send)(server_t &server, const snmp_notification_t &notification);
};

// Writes each notification as a line of JSON to snmp-notifications.jsonl in the state folder; the file before the
// present one is kept with ".1" behind its name.
extern const snmp_sender_t snmp_recorder;

#endif
