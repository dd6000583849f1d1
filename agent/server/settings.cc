#include "agent/server/settings.h"

#include "agent/server/log.h"
#include "agent/server/server.h"

#include <algorithm>
#include <set>

static constexpr const char *ROOT = "/confd_dyncfg:confdConfig";
static constexpr const char *STREAMS = "/notifications/eventStreams/stream";
static constexpr uint32_t MOST_STREAMS = 1000;

// A leaf's text below the root; empty when it has no value, or the model is not there.
static std::string read_setting(server_t &server, const std::string &below)
{
    path_t path;
    ds_error_t error;
    std::string text;
    if (path_parse(datastore_schema(*server.store), ROOT + below, PATH_INSTANCE, path, error))
        (void)read_text(*server.store, {}, path, text, error); // no value: empty
    return text;
}

// ---- the developer log

struct level_row_t {
    std::string_view name;
    int priority;
};
static constexpr level_row_t level_rows[] = {
    { "error", LOG_ERR },
    { "info", LOG_INFO },
    { "trace", LOG_DEBUG },
};

static void follow_developer_log(server_t &server)
{
    std::string level = read_setting(server, "/logs/developerLogLevel");
    auto row = std::ranges::find(level_rows, level, &level_row_t::name);
    bool is_on = read_setting(server, "/logs/developerLog/enabled") == "true" && row != std::end(level_rows);
    bool is_in_file = read_setting(server, "/logs/developerLog/file/enabled") == "true";
    bool has_folder = !server.config.state_dir.empty();
    agent_log_develop(is_on ? row->priority : LOG_DEVELOP_OFF,
                      is_in_file && has_folder ? server.config.state_dir + "/devel.log" : std::string());
}

// ---- replay stores

static void follow_replay_stores(server_t &server)
{
    path_t list;
    ds_error_t error;
    std::vector<entry_keys_t> entries;
    if (path_parse(datastore_schema(*server.store), std::string(ROOT) + STREAMS, PATH_LIST, list, error))
        (void)read_next(*server.store, {}, list, {}, MOST_STREAMS, entries, error); // none: all are on
    std::set<std::string> disabled;
    for (const entry_keys_t &keys : entries) {
        std::string name(value_text(keys.front()));
        std::string path = std::string(STREAMS) + "{" + wire_quote_key(name) + "}/builtinReplayStore/enabled";
        if (read_setting(server, path) == "false")
            disabled.insert(std::move(name));
    }
    if (disabled != server.streams.store.disabled)
        stream_store_set_disabled(server.streams.store, std::move(disabled));
}

void settings_follow(server_t &server)
{
    follow_developer_log(server);
    follow_replay_stores(server);
}

void settings_follow_commit(server_t &server, const diff_t &changes)
{
    static constexpr std::string_view top = "confdConfig";
    bool is_touched = std::ranges::any_of(changes.root.children,
                                          [](const auto &node) { return node->schema && node->schema->name() == top; });
    if (is_touched)
        settings_follow(server);
}
