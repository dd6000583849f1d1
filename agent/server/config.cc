#include "agent/server/config.h"

#include "agent/server/handle.h"
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <string_view>

static constexpr size_t MAX_CONFIG_BYTES = 64 << 10;
static constexpr size_t MAX_SECRET_BYTES = 1024;

// Takes one value; the text of what is expected when it does not fit, else null.
using taker_t = const char *(*)(agent_config_t &config, std::string_view value);

template <std::string agent_config_t::*Member>
static const char *take_text(agent_config_t &config, std::string_view value)
{
    if (value.empty())
        return "a text";
    config.*Member = value;
    return nullptr;
}

template <bool agent_config_t::*Member> static const char *take_bool(agent_config_t &config, std::string_view value)
{
    if (value != "yes" && value != "no")
        return "yes or no";
    config.*Member = value == "yes";
    return nullptr;
}

template <uint64_t agent_config_t::*Member, uint64_t Least, uint64_t Most>
static const char *take_number(agent_config_t &config, std::string_view value)
{
    uint64_t number = 0;
    auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), number);
    if (error != std::errc{} || end != value.data() + value.size() || number < Least || number > Most) {
        static const std::string expected = "a number from " + std::to_string(Least) + " to " + std::to_string(Most);
        return expected.c_str();
    }
    config.*Member = number;
    return nullptr;
}

static const char *take_log(agent_config_t &config, std::string_view value)
{
    if (value != "stderr" && value != "syslog")
        return "stderr or syslog";
    config.log = value == "syslog" ? LOG_TARGET_SYSLOG : LOG_TARGET_STDERR;
    return nullptr;
}

struct config_row_t {
    std::string_view key;
    taker_t take;
};

static constexpr config_row_t config_rows[] = {
    { "listen-address", take_text<&agent_config_t::listen_address> },
    { "port", take_number<&agent_config_t::port, 0, 65535> },
    { "port-file", take_text<&agent_config_t::port_file> },
    { "yang-dir", take_text<&agent_config_t::yang_dir> },
    { "state-dir", take_text<&agent_config_t::state_dir> },
    { "replay-dir", take_text<&agent_config_t::replay_dir> },
    { "ipc-access-file", take_text<&agent_config_t::ipc_access_file> },
    { "durable", take_bool<&agent_config_t::durable> },
    { "auto-phase2", take_bool<&agent_config_t::auto_phase2> },
    { "log", take_log },
    { "sync-timeout-ms", take_number<&agent_config_t::sync_timeout_ms, 10, 86400000> },
    { "callback-timeout-ms", take_number<&agent_config_t::callback_timeout_ms, 10, 86400000> },
    { "action-timeout-ms", take_number<&agent_config_t::action_timeout_ms, 10, 86400000> },
    { "object-cache-ms", take_number<&agent_config_t::object_cache_ms, 1, 86400000> },
    { "hello-timeout-ms", take_number<&agent_config_t::hello_timeout_ms, 10, 86400000> },
    { "outbound-limit", take_number<&agent_config_t::outbound_limit, 1 << 16, 1ull << 40> },
    { "journal-limit", take_number<&agent_config_t::journal_limit, 1 << 10, 1ull << 30> },
    { "max-connections", take_number<&agent_config_t::max_connections, 1, 100000> },
};

static std::string_view trimmed(std::string_view text)
{
    constexpr std::string_view blanks = " \t\r";
    size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

static std::string known_keys()
{
    std::string keys;
    for (const config_row_t &row : config_rows)
        keys.append(keys.empty() ? "" : ", ").append(row.key);
    return keys;
}

// What is wrong with the line, or nothing.
static std::string take_line(agent_config_t &config, std::string_view line)
{
    line = trimmed(line.substr(0, line.find('#')));
    if (line.empty())
        return {};
    size_t equals = line.find('=');
    if (equals == std::string_view::npos)
        return "no '=' in \"" + std::string(line) + "\"; write key = value";
    std::string_view key = trimmed(line.substr(0, equals));
    for (const config_row_t &row : config_rows) {
        if (row.key != key)
            continue;
        const char *expected = row.take(config, trimmed(line.substr(equals + 1)));
        return expected ? std::string(key) + " takes " + expected : std::string();
    }
    return "unknown key \"" + std::string(key) + "\"; the keys are " + known_keys();
}

static std::optional<std::string> read_file(const std::string &path, size_t most, std::string *error)
{
    owned_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.is_open()) {
        *error = path + ": " + strerror(errno) + "; check the path and its permissions";
        return {};
    }
    std::string bytes(most + 1, 0);
    size_t size = 0;
    ssize_t n = 0;
    while (size < bytes.size() && (n = read(fd.get(), bytes.data() + size, bytes.size() - size)) > 0)
        size += static_cast<size_t>(n);
    if (n < 0 || size > most) {
        *error = path + ": " + (n < 0 ? strerror(errno) : "too long");
        return {};
    }
    bytes.resize(size);
    return bytes;
}

// What the agent cannot do without.
static bool is_complete(const std::string &path, const agent_config_t &config, std::string *error)
{
    const char *missing = config.yang_dir.empty() ? "yang-dir" : config.state_dir.empty() ? "state-dir" : nullptr;
    if (!missing)
        return true;
    *error = path + ": " + missing + " is not set; add a line \"" + missing + " = DIRECTORY\"";
    return false;
}

bool agent_config_read(const std::string &path, agent_config_t *config, std::string *error)
{
    std::optional<std::string> bytes = read_file(path, MAX_CONFIG_BYTES, error);
    if (!bytes)
        return false;
    agent_config_t read_config;
    std::string_view rest = *bytes;
    for (int number = 1; !rest.empty(); number++) {
        size_t end = rest.find('\n');
        std::string wrong = take_line(read_config, rest.substr(0, end));
        if (!wrong.empty()) {
            *error = path + ":" + std::to_string(number) + ": " + wrong;
            return false;
        }
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    }
    if (!is_complete(path, read_config, error))
        return false;
    *config = std::move(read_config);
    return true;
}

bool agent_secret_read(const std::string &path, std::string *secret, std::string *error)
{
    if (path.empty())
        return true;
    std::optional<std::string> bytes = read_file(path, MAX_SECRET_BYTES, error);
    if (!bytes)
        return false;
    while (!bytes->empty() && (bytes->back() == '\n' || bytes->back() == '\r'))
        bytes->pop_back();
    if (bytes->empty()) {
        *error = path + ": empty; put the shared secret into it, or leave ipc-access-file out";
        return false;
    }
    *secret = std::move(*bytes);
    return true;
}
