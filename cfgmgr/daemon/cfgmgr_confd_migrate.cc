// Old forms of configuration, read by position, and the new ones, written by key.

#include "cfgmgr/daemon/cfgmgr_confd_migrate.h"

#include "cfgmgr/daemon/cfgmgr_cdb.h"
#include "cfgmgr/daemon/cfgmgr_confd_write.h"
#include "common/tip_log.h"
#include "common/vpn_id.h"

#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <string>
#include <string_view>

namespace
{

// ---- reading

// A value that is freed with the record.
struct old_value_t {
    confd_value_t v{};
    old_value_t() { v.type = C_NOEXISTS; }
    old_value_t(const old_value_t &) = delete;
    old_value_t &operator=(const old_value_t &) = delete;
    ~old_value_t() { confd_free_value(&v); }
};

[[gnu::format(printf, 3, 4)]] bool read(int sock, old_value_t *out, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    int result = cdb_vget(sock, &out->v, fmt, args);
    va_end(args);
    return result == CONFD_OK;
}

// The entries of a list; none when it cannot be counted, as in a model that does not have it.
[[gnu::format(printf, 2, 3)]] int count(int sock, const char *fmt, ...)
{
    char path[512];
    va_list args;
    va_start(args, fmt);
    (void)vsnprintf(path, sizeof path, fmt, args); // a path that is cut names no list
    va_end(args);
    int entries = cdb_num_instances(sock, "%s", path);
    return entries > 0 ? entries : 0;
}

std::string text_of(const confd_value_t &value)
{
    if (value.type != C_BUF)
        return {};
    return { reinterpret_cast<const char *>(CONFD_GET_BUFPTR(&value)), value.val.buf.size };
}

bool number_of(const confd_value_t &value, uint64_t *out)
{
    switch (value.type) {
    case C_UINT16:
        *out = CONFD_GET_UINT16(&value);
        return true;
    case C_UINT32:
        *out = CONFD_GET_UINT32(&value);
        return true;
    case C_UINT64:
        *out = CONFD_GET_UINT64(&value);
        return true;
    default:
        return false;
    }
}

struct range_t {
    uint64_t first;
    uint64_t last;
};

// "5" or "5-9".
bool parse_range(std::string_view text, range_t *out)
{
    const char *end = text.data() + text.size();
    auto [after, error] = std::from_chars(text.data(), end, out->first);
    out->last = out->first;
    if (error != std::errc() || after == end)
        return error == std::errc();
    if (*after != '-')
        return false;
    auto [rest, wrong] = std::from_chars(after + 1, end, out->last);
    return wrong == std::errc() && rest == end;
}

// Old releases had a number, or a range as text.
bool range_of(const confd_value_t &value, range_t *out)
{
    if (number_of(value, &out->first)) {
        out->last = out->first;
        return true;
    }
    return value.type == C_BUF && parse_range(text_of(value), out);
}

std::string range_text(const range_t &range)
{
    char text[48];
    if (range.first == range.last)
        (void)snprintf(text, sizeof text, "%lu", range.first);
    else
        (void)snprintf(text, sizeof text, "%lu-%lu", range.first, range.last);
    return text;
}

// What a step walks with: the stored configuration, the transaction, and the result so far.
struct migration_t {
    cdb_session session{ CDB_RUNNING };
    confd_write_t to;
    int result = 0;

    migration_t(int maapi, int th) : to{ maapi, th }
    {
        if (session.is_open())
            return;
        cfgmgr_confd_log_failure(session.result(), "Failed to read the configuration");
        result = CFGMGR_CONFD_FAILED;
    }
    [[nodiscard]] int fd() const { return session.fd(); }
    void note(int written)
    {
        if (written != CONFD_OK)
            result = written;
    }
};

// ---- lists of numbers that have become texts

struct number_list_row_t {
    const char *entries;  // count of the lists
    const char *name;     // of a list by its position
    const char *numbers;  // count of the entries of a list
    const char *number;   // one entry, by the positions of both
    const char *new_form; // list by name, entry by text
};
constexpr number_list_row_t site_rows = {
    .entries = "/policy/lists/site-list",
    .name = "/policy/lists/site-list[%d]/name",
    .numbers = "/policy/lists/site-list[%d]/site-id",
    .number = "/policy/lists/site-list[%d]/site-id[%d]/id",
    .new_form = "/policy/lists/site-list{%s}/site-id{%s}",
};
constexpr number_list_row_t vpn_rows = {
    .entries = "/policy/lists/vpn-list",
    .name = "/policy/lists/vpn-list[%d]/name",
    .numbers = "/policy/lists/vpn-list[%d]/vpn",
    .number = "/policy/lists/vpn-list[%d]/vpn[%d]/id",
    .new_form = "/policy/lists/vpn-list{%s}/vpn{%s}",
};

// The formats stand in the rows of one table, each with what it takes.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

void rewrite_number_list(migration_t &migration, const number_list_row_t &row, int list)
{
    old_value_t name;
    if (!read(migration.fd(), &name, row.name, list))
        return;
    int numbers = count(migration.fd(), row.numbers, list);
    for (int i = 0; i < numbers; i++) {
        old_value_t number;
        range_t range;
        if (read(migration.fd(), &number, row.number, list, i) && range_of(number.v, &range))
            migration.note(cfgmgr_confd_write_create(migration.to, row.new_form, text_of(name.v).c_str(),
                                                     range_text(range).c_str()));
    }
}

#pragma GCC diagnostic pop

int rewrite_number_lists(int maapi, int th, const number_list_row_t &row)
{
    migration_t migration(maapi, th);
    if (migration.result != 0)
        return migration.result;
    int lists = count(migration.fd(), "%s", row.entries);
    for (int list = 0; list < lists; list++)
        rewrite_number_list(migration, row, list);
    return migration.result;
}

// ---- ports of access lists

#define RULE_AT "/policy/access-list[%d]/sequence[%d]"

// "80 443 8000-8080 ", of a number, a range, or a list of both; empty when it is neither.
std::string ports_text(const confd_value_t &ports)
{
    const confd_value_t *values = ports.type == C_LIST ? ports.val.list.ptr : &ports;
    unsigned n = ports.type == C_LIST ? ports.val.list.size : 1;
    std::string text;
    for (unsigned i = 0; i < n; i++) {
        range_t range;
        if (range_of(values[i], &range))
            text += range_text(range) + " ";
    }
    return text;
}

void rewrite_rule_ports(migration_t &migration, const char *leaf, int list, int rule)
{
    old_value_t name;
    old_value_t number;
    old_value_t ports;
    uint64_t sequence = 0;
    if (!read(migration.fd(), &ports, RULE_AT "/match/%s", list, rule, leaf) ||
        !read(migration.fd(), &name, "/policy/access-list[%d]/acl-name", list) ||
        !read(migration.fd(), &number, RULE_AT "/seq-value", list, rule) || !number_of(number.v, &sequence))
        return;
    std::string text = ports_text(ports.v);
    if (text.empty())
        return;
    text.pop_back(); // the blank behind the last one
    char path[256];
    (void)snprintf(path, sizeof path, "/policy/access-list{%s}/sequence{%u}/match/%s", text_of(name.v).c_str(),
                   static_cast<unsigned>(sequence), leaf);
    migration.note(cfgmgr_confd_write_text(migration.to, { path, text.c_str() }));
}

int rewrite_ports(int maapi, int th, const char *leaf)
{
    migration_t migration(maapi, th);
    if (migration.result != 0)
        return migration.result;
    int lists = count(migration.fd(), "/policy/access-list");
    for (int list = 0; list < lists; list++) {
        int rules = count(migration.fd(), "/policy/access-list[%d]/sequence", list);
        for (int rule = 0; rule < rules; rule++)
            rewrite_rule_ports(migration, leaf, list, rule);
    }
    return migration.result;
}

} // namespace

int cfgmgr_confd_startup_set_daemon_config(cfgmgrd_t *, int maapi, int th)
{
    static constexpr confd_text_row_t rows[] = {
        { "/system/daemon-restart", "false" },
        { "/system/daemon-reboot", "false" },
        { "/system/reboot-on-failure", "false" },
    };
    int last = CONFD_OK;
    for (const confd_text_row_t &row : rows) {
        tip_log("Setting %s to '%s'..", row.path + sizeof "/system/" - 1, row.value);
        int result = cfgmgr_confd_write_text({ maapi, th }, row);
        if (result != CONFD_OK)
            last = result;
    }
    return last;
}

int cfgmgr_confd_delete_mgmt_vpn(cfgmgrd_t *, int maapi, int th)
{
    int vpn = static_cast<int>(VPN_ID_MANAGEMENT);
    int result = maapi_delete(maapi, th, "/vpn/vpn-instance{%d}", vpn);
    if (result == CONFD_OK || confd_errno == CONFD_ERR_NOEXISTS)
        return CONFD_OK;
    cfgmgr_confd_log_failure(result, "Failed to delete mgmt vpn (%d)", vpn);
    return result;
}

int cfgmgr_confd_upgrade_bfd_hello_interval(cfgmgrd_t *, int maapi, int th)
{
    migration_t migration(maapi, th);
    if (migration.result != 0)
        return migration.result;
    int colors = count(migration.fd(), "/bfd/color");
    for (int i = 0; i < colors; i++) {
        old_value_t color;
        old_value_t interval;
        if (!read(migration.fd(), &interval, "/bfd/color[%d]/interval", i) ||
            !read(migration.fd(), &color, "/bfd/color[%d]/color", i))
            continue;
        int result = maapi_set_elem(maapi, th, &interval.v, "/bfd/color{%x}/hello-interval", &color.v);
        if (result != CONFD_OK)
            cfgmgr_confd_log_failure(result, "Failed to set hello-interval of color %d", i);
        migration.note(result);
    }
    return migration.result;
}

int cfgmgr_confd_upgrade_apply_data_policy(cfgmgrd_t *, int maapi, int th)
{
    migration_t migration(maapi, th);
    if (migration.result != 0)
        return migration.result;
    int lists = count(migration.fd(), "/apply-policy/site-list");
    for (int i = 0; i < lists; i++) {
        old_value_t name;
        old_value_t policy;
        if (read(migration.fd(), &policy, "/apply-policy/site-list[%d]/data-policy", i) && policy.v.type == C_BUF &&
            read(migration.fd(), &name, "/apply-policy/site-list[%d]/name", i))
            migration.note(cfgmgr_confd_write_create(migration.to, "/apply-policy/site-list{%s}/data-policy{%s}",
                                                     text_of(name.v).c_str(), text_of(policy.v).c_str()));
    }
    return migration.result;
}

int cfgmgr_confd_upgrade_site_list(cfgmgrd_t *, int maapi, int th)
{
    return rewrite_number_lists(maapi, th, site_rows);
}

int cfgmgr_confd_upgrade_vpn_list(cfgmgrd_t *, int maapi, int th)
{
    return rewrite_number_lists(maapi, th, vpn_rows);
}

int cfgmgr_confd_upgrade_acl_source_port(cfgmgrd_t *, int maapi, int th)
{
    return rewrite_ports(maapi, th, "source-port");
}

int cfgmgr_confd_upgrade_acl_destination_port(cfgmgrd_t *, int maapi, int th)
{
    return rewrite_ports(maapi, th, "destination-port");
}
