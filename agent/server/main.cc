// agentd: the management agent of the device. agentd -f CONFIG [--auto-phase2] [--foreground]
//
// Loads the data model and running, listens for clients, serves them on one thread until SIGTERM, SIGINT or an admin
// client ends it. It always stays in the foreground; the option says what is the case. Exit status 0: stopped in order,
// 1: could not start or go on, 2: wrong command line.

#include "agent/server/config.h"
#include "agent/server/crypto_keys.h"
#include "agent/server/log.h"
#include "agent/server/server.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <sys/stat.h>

static constexpr char usage_text[] = "usage: agentd -f CONFIG [--auto-phase2] [--foreground]\n";

struct options_t {
    std::string config_path;
    bool auto_phase2 = false;
};

static bool read_options(int argc, char **argv, options_t *options)
{
    for (int i = 1; i < argc; i++) {
        std::string_view word = argv[i];
        if (word == "-f" && i + 1 < argc)
            options->config_path = argv[++i];
        else if (word == "--auto-phase2")
            options->auto_phase2 = true;
        else if (word != "--foreground")
            return false;
    }
    return !options->config_path.empty();
}

static bool make_state_dir(const std::string &path, std::string *error)
{
    if (mkdir(path.c_str(), 0700) == 0 || errno == EEXIST)
        return true;
    *error = "cannot make state-dir " + path + ": " + strerror(errno);
    return false;
}

static bool open_store(server_t &server, std::string *error)
{
    datastore_options_t options;
    options.yang_dir = server.config.yang_dir;
    options.state_dir = server.config.state_dir;
    options.durable = server.config.durable;
    options.crypto_keys = server.crypto_keys;
    options.journal_limit = server.config.journal_limit;
    std::vector<std::string> reports;
    ds_error_t ds_error;
    server.store = datastore_open(options, reports, ds_error);
    for (const std::string &report : reports)
        agent_log(LOG_WARNING, "%s", report.c_str());
    if (!server.store)
        *error = ds_error.text;
    return server.store != nullptr;
}

static bool start(server_t &server, const options_t &options, std::string *error)
{
    if (!agent_config_read(options.config_path, &server.config, error))
        return false;
    server.config.auto_phase2 |= options.auto_phase2;
    agent_log_open(server.config.log);
    return agent_secret_read(server.config.ipc_access_file, &server.secret, error) &&
           make_state_dir(server.config.state_dir, error) &&
           crypto_keys_load(server.config.state_dir, &server.crypto_keys, error) && open_store(server, error) &&
           server_prepare(server, error);
}

int main(int argc, char **argv)
{
    options_t options;
    if (!read_options(argc, argv, &options)) {
        fputs(usage_text, stderr);
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    server_t server;
    std::string error;
    bool is_ok = start(server, options, &error) && server_run(server, &error);
    if (!is_ok)
        agent_log(LOG_ERR, "%s", error.c_str());
    server_close(server);
    if (is_ok)
        agent_log(LOG_NOTICE, "stopped");
    return is_ok ? 0 : 1;
}
