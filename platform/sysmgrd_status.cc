#include "platform/sysmgrd_status.h"

#include "common/msgq_util.h"
#include "common/tip_root.h"
#include "platform/agent_side.h"
#include "platform/run_files.h"

#include <cstdio>
#include <ctime>

namespace
{

constexpr uint32_t STATUS_DELAY_MS = 100; // changes come in groups

std::string quoted(std::string_view text)
{
    std::string out = "\"";
    for (char c : text) {
        char escape[8];
        bool is_plain = static_cast<unsigned char>(c) >= 0x20 && c != '"' && c != '\\';
        (void)snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(static_cast<unsigned char>(c)));
        out += is_plain ? std::string(1, c) : std::string(escape);
    }
    return out + "\"";
}

// Joins members or elements.
void add(std::string *list, const std::string &item)
{
    if (!list->empty())
        *list += ",";
    *list += item;
}

void member(std::string *object, std::string_view name, const std::string &value)
{
    add(object, quoted(name) + ":" + value);
}

std::string number_or_null(int64_t number, bool is_known)
{
    return is_known ? std::to_string(number) : "null";
}

std::string process_object(const process_t &process, int64_t now_ms)
{
    std::string object;
    bool runs = process.watch.pid != 0;
    member(&object, "name", quoted(process.rule->name));
    member(&object, "pid", number_or_null(process.watch.pid, runs));
    member(&object, "adopted", runs && process.is_adopted ? "true" : "false");
    member(&object, "age-ms", number_or_null(now_ms - process.started_ms, runs));
    member(&object, "restarts", std::to_string(process.restarts));
    member(&object, "last-hello-age-ms", number_or_null(now_ms - process.last_hello_ms, runs && process.has_hello));
    member(&object, "last-end", process.last_end.empty() ? "null" : quoted(process.last_end));
    return "{" + object + "}";
}

std::string agent_object(const sysmgrd_t &sysmgrd)
{
    const agent_side_t &agent = sysmgrd.agent;
    std::string reached, object;
    for (uint8_t step = AGENT_PHASE2; step < NUM_AGENT_STEPS; step++)
        member(&reached, agent_step_name(static_cast<agent_step_t>(step)),
               number_or_null(agent.reached_ms[step], agent.reached_ms[step] >= 0));
    member(&object, "step", quoted(agent_step_name(agent.step)));
    member(&object, "reached-ms", "{" + reached + "}");
    member(&object, "read-bits", std::to_string(sysmgrd.memory.read_bits));
    return "{" + object + "}";
}

// One object a VPN: its number, the pid of each daemon that it has, and how often they were started again.
std::string routing_list(const routing_daemons_t &routing)
{
    std::string list, object;
    uint32_t restarts = 0;
    for (auto entry = routing.daemons.begin(); entry != routing.daemons.end();) {
        const routing_daemon_t &daemon = *entry->second;
        if (object.empty())
            member(&object, "vpn", std::to_string(daemon.vpn_id));
        member(&object, routing_daemon_name(daemon.index), number_or_null(daemon.watch.pid, daemon.watch.pid != 0));
        restarts += daemon.restarts;
        if (++entry != routing.daemons.end() && entry->first.first == daemon.vpn_id)
            continue;
        member(&object, "restarts", std::to_string(restarts));
        add(&list, "{" + object + "}");
        object.clear();
        restarts = 0;
    }
    return "[" + list + "]";
}

} // namespace

std::string status_json(const sysmgrd_t &sysmgrd, int64_t now_ms, int64_t written_at_s)
{
    std::string object, processes, vpns;
    for (const process_t &process : sysmgrd.processes)
        add(&processes, process_object(process, now_ms));
    for (uint64_t vpn : sysmgrd.memory.vpns)
        add(&vpns, std::to_string(vpn));
    member(&object, "pid", std::to_string(getpid()));
    member(&object, "written-at", std::to_string(written_at_s));
    member(&object, "uptime-ms", std::to_string(now_ms - sysmgrd.started_ms));
    member(&object, "personality", quoted(sysmgrd.settings.personality));
    member(&object, "stopping", sysmgrd.is_stopping ? "true" : "false");
    member(&object, "cfgmgr-link", msgq_is_up(sysmgrd.cfgmgr_link) == 1 ? "\"up\"" : "\"down\"");
    member(&object, "processes", "[" + processes + "]");
    member(&object, "agent", agent_object(sysmgrd));
    member(&object, "routing", routing_list(sysmgrd.routing));
    member(&object, "vpns", "[" + vpns + "]");
    return "{" + object + "}\n";
}

void status_write(const sysmgrd_t &sysmgrd)
{
    std::string path = tip_path("%s/sysmgrd.status", TIP_RUN_DIR).text;
    (void)file_replace(path, status_json(sysmgrd, monotonic_ms(), time(nullptr))); // has logged its failure
}

void sysmgrd_changed(sysmgrd_t *sysmgrd)
{
    timeval delay = timeval_of_ms(STATUS_DELAY_MS);
    if (evtimer_pending(sysmgrd->status_timer.get(), nullptr) == 0)
        evtimer_add(sysmgrd->status_timer.get(), &delay);
}
