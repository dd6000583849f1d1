#include "platform/sysmgrd_options.h"

#include "common/tip_root.h"
#include "platform/run_files.h"

#include <charconv>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace
{

struct option_row_t {
    const char *name;
    const char *letter;                    // short form, or ""
    std::string sysmgrd_settings_t::*text; // one of the two takes the value
    uint32_t sysmgrd_settings_t::*number;
    uint32_t max;
    const char *help;
};
constexpr option_row_t option_rows[] = {
    { "--personality", "-p", &sysmgrd_settings_t::personality, nullptr, 0, "what the device is, for cfgmgr" },
    { "--root", "", &sysmgrd_settings_t::root, nullptr, 0, "folder in the place of /, for /var/run and /var/log" },
    { "--agent-config", "", &sysmgrd_settings_t::agent_config, nullptr, 0, "agentd's file; else one is written" },
    { "--agent-port", "", nullptr, &sysmgrd_settings_t::agent_port, 65535, "port of the agent" },
    { "--agent-state", "", &sysmgrd_settings_t::agent_state_dir, nullptr, 0, "folder of the agent's datastore" },
    { "--yang-dir", "", &sysmgrd_settings_t::yang_dir, nullptr, 0, "folder of the data models" },
    { "--agentd", "", &sysmgrd_settings_t::agentd, nullptr, 0, "program" },
    { "--cfgmgr", "", &sysmgrd_settings_t::cfgmgr, nullptr, 0, "program" },
    { "--agent-cmd", "", &sysmgrd_settings_t::agent_cmd, nullptr, 0, "program" },
    { "--agent-bits", "", &sysmgrd_settings_t::agent_bits, nullptr, 0, "program" },
    { "--routing-peer", "", &sysmgrd_settings_t::routing_peer, nullptr, 0, "program" },
    { "--hello-limit-ms", "", nullptr, &sysmgrd_settings_t::hello_limit_ms, 3600000, "silence that means dead" },
    { "--start-limit-ms", "", nullptr, &sysmgrd_settings_t::start_limit_ms, 3600000, "the same before a first hello" },
};

bool wrong(const char *text, const char *word)
{
    fprintf(stderr, "sysmgrd: %s '%s'\nusage: sysmgrd [-f | --foreground] [OPTION VALUE]...\n", text, word);
    for (const option_row_t &row : option_rows)
        fprintf(stderr, "  %-16s %s\n", row.name, row.help);
    return false;
}

const option_row_t *row_find(std::string_view word)
{
    for (const option_row_t &row : option_rows) {
        if (word == row.name || (*row.letter != '\0' && word == row.letter))
            return &row;
    }
    return nullptr;
}

bool take(const option_row_t &row, std::string_view value, sysmgrd_settings_t *settings)
{
    if (row.text != nullptr) {
        settings->*row.text = value;
        return !value.empty();
    }
    uint32_t number = 0;
    auto result = std::from_chars(value.data(), value.data() + value.size(), number);
    settings->*row.number = number;
    return result.ec == std::errc() && result.ptr == value.data() + value.size() && number > 0 && number <= row.max;
}

} // namespace

bool sysmgrd_options_read(int argc, char **argv, sysmgrd_settings_t *settings)
{
    for (int i = 1; i < argc; i++) {
        std::string_view word = argv[i];
        if (word == "-f" || word == "--foreground") {
            settings->foreground = true;
            continue;
        }
        const option_row_t *row = row_find(word);
        if (row == nullptr)
            return wrong("unknown option", argv[i]);
        if (++i == argc)
            return wrong("no value behind", argv[i - 1]);
        if (!take(*row, argv[i], settings))
            return wrong("not a value for this option:", argv[i]);
    }
    return true;
}

// Beside the agent's stores: /var/confd/netconf_replay on a device, where cfgmgr empties it for an operator.
static std::string replay_dir(const sysmgrd_settings_t &settings)
{
    size_t slash = settings.agent_state_dir.rfind('/');
    return (slash == std::string::npos ? "." : settings.agent_state_dir.substr(0, slash)) + "/netconf_replay";
}

bool agent_config_provide(sysmgrd_settings_t *settings)
{
    if (!settings->agent_config.empty())
        return true;
    settings->agent_config = tip_path("%s/agentd.conf", TIP_RUN_DIR).text;
    return file_replace(settings->agent_config, "# Written by sysmgrd at its start.\n"
                                                "port = " +
                                                    std::to_string(settings->agent_port) +
                                                    "\n"
                                                    "yang-dir = " +
                                                    settings->yang_dir +
                                                    "\n"
                                                    "state-dir = " +
                                                    settings->agent_state_dir +
                                                    "\n"
                                                    "replay-dir = " +
                                                    replay_dir(*settings) +
                                                    "\n"
                                                    "log = syslog\n");
}
