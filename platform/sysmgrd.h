// The system manager's one record of state. Modules around it: supervisor (processes), routing_daemons (those of the
// VPNs), sysmgr_link (messages of the daemons), agent_side (what the agent is asked for), sysmgrd_memory (what survives
// a restart), sysmgrd_status (what people and lab/report see). All of it runs in the one thread of the event loop, and nothing in it waits.
#ifndef PLATFORM_SYSMGRD_H
#define PLATFORM_SYSMGRD_H

#include "platform/child.h"
#include "platform/routing_daemons.h"
#include "platform/sysmgrd_memory.h"

#include <array>

struct msgq_t;
struct sysmgrd_t;

struct sysmgrd_settings_t {
    bool foreground = false;
    std::string personality = "krest";
    std::string root; // of common/tip_root.h
    std::string agentd = "agentd";
    std::string cfgmgr = "cfgmgr";
    std::string agent_cmd = "agent_cmd";
    std::string agent_bits = "agent_bits";
    std::string routing_peer = "routing_peer";
    std::string agent_config; // empty: one is written from the members below
    std::string yang_dir;
    std::string agent_state_dir = "/var/confd/cdb";
    uint32_t agent_port = 4565;
    uint32_t hello_limit_ms = 10000;  // silence after which a process that has said hello counts as dead
    uint32_t start_limit_ms = 120000; // and one that has not yet
};

struct stop_step_t {
    int signal;
    uint32_t wait_ms; // for the end, before the next step
};

enum pid_file_time_t : uint8_t {
    PID_FILE_AT_START,
    PID_FILE_AT_FIRST_HELLO, // the process refuses to start while the file exists
};

// How a process is kept running.
struct process_rule_t {
    const char *name;      // of pid file and log
    uint32_t peer;         // message-queue id of one that says hello, else 0
    uint32_t read_bit;     // in "/tconfd-initial-read-priority", 0: none
    const char *note_name; // pid file of the system manager's own, from start to first hello; null: none
    pid_file_time_t pid_file_time;
    stop_step_t stop_steps[3]; // ended by signal 0
    std::vector<std::string> (*words)(const sysmgrd_t &sysmgrd);
};

struct process_t {
    const process_rule_t *rule = nullptr;
    sysmgrd_t *sysmgrd = nullptr;
    process_watch_t watch;
    bool is_adopted = false; // it was started by a system manager before this one
    bool has_hello = false;  // at least one came
    int64_t started_ms = 0;  // monotonic, or when it was adopted
    int64_t last_hello_ms = 0;
    uint32_t restarts = 0;
    uint32_t quick_deaths = 0; // in a row
    std::string last_end;      // empty: has not ended
    event_ptr restart_timer;
};

enum process_index_t : uint8_t {
    PROCESS_AGENTD,
    PROCESS_CFGMGR,
    NUM_PROCESSES
};

enum agent_step_t : uint8_t {
    AGENT_IDLE,
    AGENT_PHASE2,
    AGENT_BITS,
    AGENT_WATCH,
    AGENT_DONE,
    NUM_AGENT_STEPS
};

struct agent_side_t {
    agent_step_t step = AGENT_IDLE;
    uint32_t failures = 0; // of this step in a row
    async_command_t command;
    event_ptr timer;                                 // runs the step again
    std::array<int64_t, NUM_AGENT_STEPS> reached_ms; // since the start of the program, -1: not yet with this agent
    agent_side_t() { reached_ms.fill(-1); }
};

struct sysmgrd_t {
    sysmgrd_settings_t settings;
    event_base_ptr base;
    int64_t started_ms = 0;
    std::array<process_t, NUM_PROCESSES> processes;
    msgq_t *cfgmgr_link = nullptr;
    agent_side_t agent;
    sysmgrd_memory_t memory;
    routing_daemons_t routing;
    event_ptr tick;
    int64_t last_tick_ms = 0;
    event_ptr status_timer; // a change waits for it to be written
    event_ptr stop_timer;
    bool is_stopping = false;
    uint8_t stop_stage = 0; // step of the process that is being stopped
};

// Something that the status file shows has changed.
void sysmgrd_changed(sysmgrd_t *sysmgrd);

#endif
