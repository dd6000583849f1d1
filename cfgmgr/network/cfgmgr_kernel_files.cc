// Files of the name service, for the device and for each VPN's namespace.

#include "cfgmgr/network/cfgmgr_kernel_files.h"

#include "cfgmgr/network/cfgmgr_if.h"
#include "cfgmgr/network/cfgmgr_kernel.h"
#include "cfgmgr/network/cfgmgr_vpn.h"
#include "chmgr/chmgr_api.h"
#include "common/tip_handle.h"
#include "common/tip_log.h"
#include "common/tip_root.h"
#include "common/tip_text.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <unistd.h>

namespace
{

constexpr char HOST_NAME_FILE[] = "/etc/hostname";
constexpr char NETNS_FILES_DIR[] = "/etc/netns";
constexpr char HOSTS[] = "hosts";
constexpr char RESOLVERS[] = "resolv.conf";

constexpr char HOSTS_HEAD[] = "127.0.0.1       localhost.localdomain           localhost\n";
constexpr char HOSTS_SELF[] = "127.0.0.1\t     ";
constexpr char HOSTS_GAP[] = "       ";
constexpr char RESOLVERS_HEAD[] = "options timeout:1\n#Corvane conf\n";
constexpr char RESOLVER[] = "nameserver ";

// The file of VPN 0 or of a VPN's namespace.
tip_path_t name_service_path(uint64_t vpn_id, const char *file)
{
    return vpn_id == VPN_ID_TRANSPORT ? tip_path("/etc/%s", file)
                                      : tip_path("%s/%lu/%s", NETNS_FILES_DIR, vpn_id, file);
}

// Deliberately in place and not by a new file: programs inside a namespace see these files through a bind mount, which
// would go on showing the old file (and one over the device's own file would even be undone by its replacement). False
// with errno.
bool write_in_place(const char *path, const std::string &text)
{
    file_ptr file(fopen(path, "w+e"));
    return file != nullptr && fwrite(text.data(), 1, text.size(), file.get()) == text.size() && fflush(file.get()) == 0;
}

std::string address_text(const ip_addr_t &address)
{
    char text[IP_ADDR_TEXT];
    return ip_addr_to_str(address, text, sizeof text);
}

// ---- static hosts

int compare_hosts(const void *key, const void *record)
{
    const auto *a = static_cast<const cfgmgr_static_host_t *>(key);
    const auto *b = static_cast<const cfgmgr_static_host_t *>(record);
    if (a->vpn_id != b->vpn_id)
        return a->vpn_id < b->vpn_id ? -1 : 1;
    int by_name = strncmp(a->host_name, b->host_name, sizeof a->host_name);
    return by_name < 0 ? -1 : by_name > 0 ? 1 : 0;
}

cfgmgr_static_host_t make_key(uint64_t vpn_id, const char *name)
{
    cfgmgr_static_host_t key{};
    key.vpn_id = vpn_id;
    strlcpy(key.host_name, name, sizeof key.host_name);
    return key;
}

const cfgmgr_static_host_t *first_host(const avl_tree_t *hosts, uint64_t vpn_id)
{
    cfgmgr_static_host_t key = make_key(vpn_id, "");
    return static_cast<const cfgmgr_static_host_t *>(avl_find_or_next(hosts, &key, nullptr));
}

std::string render_host(const cfgmgr_static_host_t &host)
{
    std::string text;
    for (uint32_t i = 0; i < host.addr_count && i < STATIC_HOST_ADDR_MAX; i++)
        text += address_text(host.addrs[i]) + HOSTS_GAP + host.host_name + "\n";
    return text;
}

// ---- resolvers

// What DHCP has given in a VPN, counted by family over all its interfaces.
struct dhcp_resolvers_t {
    std::string text;
    uint32_t v4_count = 0;
    uint32_t v6_count = 0;

    [[nodiscard]] bool is_full() const { return v4_count >= IF_DHCP_DNS_MAX && v6_count >= IF_DHCP_DNS_MAX; }
    void add(const cfgmgr_if_t &interface)
    {
        for (uint32_t i = 0; i < interface.dhcp_dns_count && i < IF_DHCP_DNS_MAX; i++) {
            ip_addr_t server;
            ip_addr_clear(&server, AF_INET);
            server.addr.v4 = interface.dhcp_dns[i];
            add(server, &v4_count);
        }
        for (uint32_t i = 0; i < interface.dhcp6_dns_count && i < IF_DHCP_DNS_MAX; i++)
            add(interface.dhcp6_dns[i], &v6_count);
    }
    void add(const ip_addr_t &server, uint32_t *count)
    {
        if (*count >= IF_DHCP_DNS_MAX)
            return;
        ++*count;
        text += RESOLVER + address_text(server) + "\n";
    }
};

std::string render_configured(const ip_addr_t &server)
{
    return server.family != 0 ? RESOLVER + address_text(server) + "\n" : "";
}

} // namespace

// ---- static hosts

int cfgmgr_static_dns_init(cfgmgrd_t *cfgmgrd_p)
{
    cfgmgrd_p->static_dns = static_cast<avl_tree_t *>(malloc(sizeof(avl_tree_t)));
    if (cfgmgrd_p->static_dns == nullptr)
        return 1;
    avl_create(cfgmgrd_p->static_dns, compare_hosts, sizeof(cfgmgr_static_host_t),
               offsetof(cfgmgr_static_host_t, node));
    return 0;
}

void cfgmgr_static_dns_deinit(cfgmgrd_t *cfgmgrd_p)
{
    if (cfgmgrd_p->static_dns == nullptr)
        return;
    uintptr_t cookie = 0;
    while (void *host = avl_destroy_nodes(cfgmgrd_p->static_dns, &cookie))
        free(host);
    free(cfgmgrd_p->static_dns);
    cfgmgrd_p->static_dns = nullptr;
}

cfgmgr_static_host_t *cfgmgr_static_host_find(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id, const char *name)
{
    cfgmgr_static_host_t key = make_key(vpn_id, name);
    return static_cast<cfgmgr_static_host_t *>(avl_find(cfgmgrd_p->static_dns, &key, nullptr));
}

void cfgmgr_static_hosts_remove(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id)
{
    if (cfgmgrd_p->static_dns == nullptr)
        return;
    for (cfgmgr_static_host_t &host : avl_range<cfgmgr_static_host_t>(cfgmgrd_p->static_dns)) {
        if (host.vpn_id != vpn_id)
            continue;
        avl_remove(cfgmgrd_p->static_dns, &host);
        free(&host);
    }
}

// ---- files

std::string cfgmgr_hosts_render(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id)
{
    std::string text = std::string(HOSTS_HEAD) + HOSTS_SELF + cfgmgrd_p->host_name + "\n";
    const avl_tree_t *hosts = cfgmgrd_p->static_dns;
    const cfgmgr_static_host_t *host = hosts != nullptr ? first_host(hosts, vpn_id) : nullptr;
    while (host != nullptr && host->vpn_id == vpn_id) {
        text += render_host(*host);
        host = static_cast<const cfgmgr_static_host_t *>(avl_walk(hosts, host, AVL_AFTER));
    }
    return text;
}

std::string cfgmgr_resolv_render(const cfgmgr_vpn_t &vpn)
{
    dhcp_resolvers_t learnt;
    for (auto *if_p = static_cast<const cfgmgr_if_t *>(avl_first(&vpn.if_db)); if_p != nullptr && !learnt.is_full();
         if_p = static_cast<const cfgmgr_if_t *>(avl_walk(&vpn.if_db, if_p, AVL_AFTER))) {
        if (if_p->shutdown == 0)
            learnt.add(*if_p);
    }
    return RESOLVERS_HEAD + render_configured(vpn.dns_primary) + render_configured(vpn.dns_secondary) + learnt.text;
}

static bool update_resolvers(const cfgmgr_vpn_t &vpn)
{
    tip_path_t path = name_service_path(vpn.vpn_id, RESOLVERS);
    bool is_written = write_in_place(path.text, cfgmgr_resolv_render(vpn));
    if (!is_written && cfgmgr_events_level > CFGMGR_DETAILED)
        tip_log("File open of %s failed: %s\n", path.text, strerror(errno));
    return is_written;
}

int cfgmgr_kernel_hostname_set(cfgmgrd_t *cfgmgrd_p, const char *name)
{
    if (sethostname(name, strlen(name)) != 0) {
        tip_log("Failed to set hostname to %s: %s", name, strerror(errno));
        return CFGMGR_KERNEL_COMMAND_FAILED;
    }
    if (!write_in_place(tip_path("%s", HOST_NAME_FILE).text, std::string(name) + "\n"))
        tip_log("Failed to update file '%s': %s", HOST_NAME_FILE, strerror(errno));
    chmgr_host_name_set(name);
    for (const cfgmgr_vpn_t &vpn : avl_range<cfgmgr_vpn_t>(&cfgmgrd_p->vpn_table)) {
        if (vpn.vpn_id != VPN_ID_INTERNAL)
            (void)cfgmgr_kernel_update_host(cfgmgrd_p, vpn.vpn_id); // logged; the other VPNs still get theirs
    }
    return CFGMGR_KERNEL_OK;
}

int cfgmgr_kernel_update_host(cfgmgrd_t *cfgmgrd_p, uint64_t vpn_id)
{
    tip_path_t path = name_service_path(vpn_id, HOSTS);
    if (write_in_place(path.text, cfgmgr_hosts_render(cfgmgrd_p, vpn_id)))
        return CFGMGR_KERNEL_OK;
    tip_log("File open of %s failed: %s\n", path.text, strerror(errno));
    return CFGMGR_KERNEL_FILE_FAILED;
}

int cfgmgr_kernel_update_dns(cfgmgrd_t *cfgmgrd_p)
{
    for (const cfgmgr_vpn_t &vpn : avl_range<cfgmgr_vpn_t>(&cfgmgrd_p->vpn_table)) {
        if (!update_resolvers(vpn))
            return CFGMGR_KERNEL_FILE_FAILED;
    }
    return CFGMGR_KERNEL_OK;
}

void cfgmgr_kernel_name_files_create(cfgmgrd_t *cfgmgrd_p, const cfgmgr_vpn_t &vpn)
{
    if (vpn.vpn_id != VPN_ID_INTERNAL)
        (void)cfgmgr_kernel_update_host(cfgmgrd_p, vpn.vpn_id); // logged; a later change writes it again, as below
    (void)update_resolvers(vpn);
}
