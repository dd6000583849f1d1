// The sender of SNMP notifications that records them. See snmp_sender.h.
#include "agent/server/handle.h"
#include "agent/server/log.h"
#include "agent/server/server.h"
#include "agent/server/snmp_sender.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

static constexpr off_t MAX_RECORD_BYTES = 4 << 20; // of the file; then it is renamed

static std::string time_text(int64_t time_us)
{
    time_t seconds = time_us / 1000000;
    tm utc{};
    gmtime_r(&seconds, &utc);
    char text[96]; // room for fields that no time has
    snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%06dZ", utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday,
             utc.tm_hour, utc.tm_min, utc.tm_sec, static_cast<int>(time_us % 1000000));
    return text;
}

static std::string record_line(const snmp_notification_t &notification)
{
    json_writer_t json;
    json.begin_object();
    json.text("time", time_text(notification.time_us));
    json.text("notify", notification.notify_name);
    json.text("context", notification.context);
    json.text("notification", notification.notification);
    json.begin_list("varbinds");
    for (const snmp_varbind_t &varbind : notification.varbinds) {
        json.begin_object();
        json.text("name", varbind.name);
        json.text("value", varbind.text);
        json.end_object();
    }
    json.end_list();
    json.end_object();
    return json.bytes + "\n";
}

static void record(server_t &server, const snmp_notification_t &notification)
{
    if (server.config.state_dir.empty())
        return;
    std::string path = server.config.state_dir + "/snmp-notifications.jsonl";
    struct stat status {
    };
    if (stat(path.c_str(), &status) == 0 && status.st_size >= MAX_RECORD_BYTES)
        (void)rename(path.c_str(), (path + ".1").c_str()); // else the file grows on
    owned_fd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    std::string line = record_line(notification);
    if (!fd.is_open() || write(fd.get(), line.data(), line.size()) != static_cast<ssize_t>(line.size()))
        agent_log(LOG_ERR, "SNMP notification %s is not recorded: %s: %s", notification.notification.c_str(),
                  path.c_str(), strerror(errno));
}

const snmp_sender_t snmp_recorder = { "recorder", record };
