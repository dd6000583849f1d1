// VPNs: labels, the table, what is done to the kernel and in which order, and the handler of the configuration.
#include "cfgmgr/daemon/cfgmgr_confd.h"
#include "cfgmgr/network/cfgmgr_bridge.h"
#include "cfgmgr/network/cfgmgr_config_vpn.h"
#include "cfgmgr/network/cfgmgr_if.h"
#include "cfgmgr/network/cfgmgr_label.h"
#include "tests/harness/death.h"
#include "tests/unit/cfgmgr_env.h"

#include <filesystem>
#include <sys/stat.h>

namespace
{

using effects_t = std::vector<std::string>;
using ids_t = std::vector<uint64_t>;

const std::string LOOP0_MAC = "02:00:00:00:00:01"; // of the fake kernel

effects_t fp_tap(uint64_t vpn_id, int vrf_id)
{
    std::string name = "loop0." + std::to_string(vrf_id + 2000);
    std::string inside = vpn_id == 0 ? "" : "ip netns exec " + std::to_string(vpn_id) + " ";
    effects_t effects = { "ip link add link loop0 name " + name + " type vlan id " + std::to_string(vrf_id + 2000),
                          "ifconfig " + name + " mtu 2000" };
    if (vpn_id != 0)
        effects.push_back("/sbin/ip link set " + name + " netns " + std::to_string(vpn_id));
    effects.push_back(inside + "ip link set dev " + name + " address " + LOOP0_MAC);
    effects.push_back(inside + "ip link set " + name + " up");
    return effects;
}

effects_t service_tap(uint64_t vpn_id, int vrf_id)
{
    std::string vrf = std::to_string(vrf_id), name = "loop0." + vrf;
    std::string id = std::to_string(vpn_id), inside = "ip netns exec " + id + " ";
    effects_t effects = {
        "ip link add link loop0 name " + name + " type vlan id " + vrf,
        "ifconfig " + name + " mtu 2000",
        "/sbin/ip link set " + name + " netns " + id,
        inside + "ip addr add 127.1.0.1/24 dev " + name,
        inside + "ip addr add FCFF::01/120 dev " + name,
        inside + "ip link set dev " + name + " address " + LOOP0_MAC,
        inside + "ip link set " + name + " up",
        inside + "ip neighbor add 127.1.0.2 lladdr 00:00:01:02:03:04 nud permanent dev " + name,
        inside + "ip -6 neighbor add FCFF::02 lladdr 00:00:01:02:03:04 nud permanent dev " + name,
    };
    if (vpn_id != 512) {
        effects.push_back(inside + "route add default gw 127.1.0.2");
        effects.push_back(inside + "route -6 add default gw FCFF::02");
    }
    return effects;
}

effects_t daemons(const std::string &what, uint64_t vpn_id)
{
    effects_t effects;
    for (int peer_id = 29; peer_id <= (vpn_id == 512 ? 29 : 31); peer_id++)
        effects.push_back("daemon " + what + " " + std::to_string(peer_id) + " " + std::to_string(vpn_id));
    return effects;
}

effects_t joined(const std::vector<effects_t> &parts);

effects_t creation(uint64_t vpn_id, int vrf_id = 1)
{
    std::string id = std::to_string(vpn_id);
    effects_t down_bit = vpn_id == 65530 ? effects_t{} : effects_t{ "message 30 0 " + id };
    effects_t rest = joined({ daemons("start", vpn_id),
                              { "enter " + id, "leave " + id, "rtm open " + id },
                              fp_tap(vpn_id, vrf_id),
                              down_bit });
    if (vpn_id == 0)
        return rest;
    return joined({ { "ip netns add " + id, "mkdir -p /etc/netns/" + id,
                      "ip netns exec " + id + " ifconfig lo 127.0.0.1 netmask 255.255.255.0 up" },
                    service_tap(vpn_id, vrf_id),
                    { "tell 5 " + id },
                    rest });
}

effects_t taps_deletion(uint64_t vpn_id, int vrf_id)
{
    std::string command = "ip netns exec " + std::to_string(vpn_id) + " ip link delete loop0.";
    return { command + std::to_string(vrf_id) + " type vlan", command + std::to_string(vrf_id + 2000) + " type vlan" };
}

effects_t deletion(uint64_t vpn_id, int vrf_id = 1)
{
    std::string id = std::to_string(vpn_id);
    effects_t end = joined({ { "tell 6 " + id }, daemons("stop", vpn_id) });
    if (vpn_id == 0)
        return end;
    return joined(
        { taps_deletion(vpn_id, vrf_id), { "enter " + id, "leave " + id }, end, { "rm -rf /etc/netns/" + id } });
}

effects_t joined(const std::vector<effects_t> &parts)
{
    effects_t all;
    for (const effects_t &part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

const std::string DEFAULT_NETNS = "ln -s /proc/1/ns/net /var/run/netns/default";
const std::string TESTBED = "fw_printenv testbed 2> /dev/null";

// ---- labels

using cfgmgr_label = cfgmgr_env;

TEST_F(cfgmgr_label, the_transport_vpn_has_label_0_and_takes_none)
{
    EXPECT_EQ(cfgmgr_label_alloc(&daemon, 0), 0u);
    EXPECT_EQ(cfgmgr_label_alloc(&daemon, 0), 0u);
    EXPECT_EQ(cfgmgr_label_alloc(&daemon, 1), 1u);
}

TEST_F(cfgmgr_label, labels_go_up_wrap_and_run_out)
{
    for (uint32_t expected = 1; expected <= 32767; expected++) {
        ASSERT_EQ(cfgmgr_label_alloc(&daemon, 9), expected);
        if (expected == 3)
            cfgmgr_label_free(&daemon, 2);
    }
    EXPECT_EQ(cfgmgr_label_alloc(&daemon, 9), 2u) << "from the front, behind the end";
    EXPECT_EQ(cfgmgr_label_alloc(&daemon, 9), CFGMGR_LABEL_NONE);
    cfgmgr_label_free(&daemon, 1);
    cfgmgr_label_free(&daemon, 30000);
    EXPECT_EQ(cfgmgr_label_alloc(&daemon, 9), 30000u) << "behind the last one first";
    EXPECT_EQ(cfgmgr_label_alloc(&daemon, 9), 1u);
    cfgmgr_label_free(&daemon, 1);
    EXPECT_EQ(cfgmgr_label_alloc(&daemon, 9), 1u) << "also when it is the last one itself";
}

TEST_F(cfgmgr_label, giving_back_what_was_never_taken_changes_nothing)
{
    std::string before(reinterpret_cast<char *>(daemon.reserved_bitmap_p), CFGMGR_BITMAP_BYTES);
    for (uint32_t label : { 0u, 32768u, CFGMGR_LABEL_NONE })
        cfgmgr_label_free(&daemon, label);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(daemon.reserved_bitmap_p), CFGMGR_BITMAP_BYTES), before);
}

// ---- the table

class cfgmgr_vpn : public cfgmgr_env
{
protected:
    cfgmgr_vpn()
    {
        EXPECT_EQ(cfgmgr_vpn_init(&daemon), 0);
        device().take_effects();
        log_clear();
    }
    cfgmgr_vpn_t *make(uint64_t vpn_id, uint32_t label = 0)
    {
        EXPECT_EQ(cfgmgr_vpn_find_or_create(&daemon, vpn_id, label), 0);
        return cfgmgr_vpn_find(&daemon, vpn_id, nullptr);
    }
};

TEST_F(cfgmgr_vpn, is_made_and_taken_down_in_a_fixed_order)
{
    cfgmgr_vpn_t *vpn_p = make(5, 77);
    ASSERT_NE(vpn_p, nullptr);
    EXPECT_EQ(device().take_effects(), creation(5));
    EXPECT_EQ(vpn_p->label, 77u);
    EXPECT_EQ(vpn_p->vrf_id, 1u) << "the transport VPN has 0";
    EXPECT_EQ(vpn_p->dns_primary.family, 0u);
    EXPECT_EQ(vpn_p->cfgmgr_p, &daemon);
    EXPECT_TRUE(log_has("Creating vpn: id: 5 "));
    struct stat info;
    EXPECT_EQ(fstat(vpn_p->kernel_sock, &info), 0);
    int sock = vpn_p->kernel_sock;
    ASSERT_NE(cfgmgr_if_idx_find_or_create(&daemon, 3, "ge0/1", 5), nullptr);
    cfgmgr_vpn_delete_by_id(&daemon, 5);
    EXPECT_EQ(device().take_effects(), deletion(5));
    EXPECT_EQ(fstat(sock, &info), -1);
    EXPECT_EQ(vpns(), ids_t{ 0 });
    EXPECT_EQ(cfgmgr_if_idx_lookup_by_vpn(&daemon, 5, 3, IF_IDX_EXACT), nullptr);
    EXPECT_EQ(daemon.last_ns, 0u);
}

TEST_F(cfgmgr_vpn, that_exists_is_left_as_it_is)
{
    cfgmgr_vpn_t *vpn_p = make(5, 77);
    device().take_effects();
    EXPECT_EQ(make(5, 78), vpn_p);
    EXPECT_EQ(vpn_p->label, 77u);
    EXPECT_TRUE(device().effects.empty());
}

TEST_F(cfgmgr_vpn, that_is_not_there_is_deleted_without_a_word)
{
    cfgmgr_vpn_delete_by_id(&daemon, 5);
    cfgmgr_vpn_delete(&daemon, nullptr, true);
    EXPECT_TRUE(device().effects.empty());
}

TEST_F(cfgmgr_vpn, gives_back_its_label_and_its_index)
{
    uint32_t label = cfgmgr_label_alloc(&daemon, 5);
    make(5, label);
    EXPECT_EQ(make(6)->vrf_id, 2u);
    cfgmgr_vpn_delete_by_id(&daemon, 5);
    EXPECT_EQ(make(7)->vrf_id, 1u) << "the first free one";
    daemon.reserved_bitmap_hint = 0;
    EXPECT_EQ(cfgmgr_label_alloc(&daemon, 7), label);
}

TEST_F(cfgmgr_vpn, the_eightieth_is_the_last)
{
    for (uint64_t id = 1; id < 80; id++)
        ASSERT_EQ(make(id)->vrf_id, id);
    device().take_effects();
    EXPECT_EQ(cfgmgr_vpn_find_or_create(&daemon, 80, 0), 1);
    EXPECT_TRUE(device().effects.empty());
    EXPECT_EQ(vpns().size(), 80u);
    cfgmgr_vpn_delete_by_id(&daemon, 40);
    EXPECT_EQ(make(80)->vrf_id, 40u);
}

TEST_F(cfgmgr_vpn, that_fails_halfway_leaves_nothing_behind)
{
    for (size_t failing : { 1u, 2u }) {
        device().statuses = { { creation(5)[failing], EXIT_1 } };
        daemon.reserved_bitmap_hint = 0;
        uint32_t label = cfgmgr_label_alloc(&daemon, 5);
        EXPECT_EQ(cfgmgr_vpn_find_or_create(&daemon, 5, label), 15);
        effects_t expected = creation(5);
        expected.resize(failing + 1);
        EXPECT_EQ(
            device().take_effects(),
            joined({ expected, taps_deletion(5, 1), { "tell 6 5" }, daemons("stop", 5), { "rm -rf /etc/netns/5" } }));
        EXPECT_EQ(vpns(), ids_t{ 0 });
        daemon.reserved_bitmap_hint = 0;
        EXPECT_EQ(cfgmgr_label_alloc(&daemon, 5), label);
        cfgmgr_label_free(&daemon, label);
    }
    device().statuses.clear();
    EXPECT_EQ(make(5)->vrf_id, 1u);
}

TEST_F(cfgmgr_vpn, a_namespace_of_an_earlier_start_is_no_error)
{
    device().statuses = { { "ip netns add 5", EXIT_1 } };
    std::filesystem::create_directories(root.path() + "/etc/netns/5");
    make(5);
    EXPECT_EQ(device().take_effects(), creation(5));
    EXPECT_FALSE(log_has("ailed"));
    EXPECT_TRUE(std::filesystem::exists(root.path() + "/etc/netns/5/hosts")) << "its programs have files of their own";
    EXPECT_TRUE(std::filesystem::exists(root.path() + "/etc/netns/5/resolv.conf"));
}

TEST_F(cfgmgr_vpn, without_a_socket_inside_it_is_not_made)
{
    child_result_t result = run_in_child([&] {
        rlimit none{ 0, 0 };
        setrlimit(RLIMIT_NOFILE, &none);
        int code = cfgmgr_vpn_find_or_create(&daemon, 5, 0);
        printf("%d %zu %d", code, vpns().size(), log_has("Failed to create kerne_sock\n"));
    });
    EXPECT_EQ(result.output, "17 1 1");
}

TEST_F(cfgmgr_vpn, walks_go_by_number_and_routing_ones_step_over_the_management_vpn)
{
    daemon.mgmt_vpn = 1;
    for (uint64_t id : { 600u, 512u, 3u })
        make(id);
    EXPECT_EQ(vpns(), (ids_t{ 0, 3, 512, 600 }));
    EXPECT_EQ(cfgmgr_vpn_first(&daemon)->vpn_id, 0u);
    EXPECT_EQ(cfgmgr_vpn_find_next_after(&daemon, 3)->vpn_id, 512u);
    EXPECT_EQ(cfgmgr_vpn_find_next_after(&daemon, 600), nullptr);
    EXPECT_EQ(cfgmgr_vpn_find(&daemon, 4, nullptr), nullptr);
    ids_t routing;
    for (cfgmgr_vpn_t *vpn = cfgmgr_vpn_first_routing(&daemon); vpn;
         vpn = cfgmgr_vpn_next_routing(&daemon, vpn->vpn_id))
        routing.push_back(vpn->vpn_id);
    EXPECT_EQ(routing, (ids_t{ 0, 3, 600 }));
    cfgmgr_vpn_delete_by_id(&daemon, 0);
    cfgmgr_vpn_delete_by_id(&daemon, 3);
    EXPECT_EQ(cfgmgr_vpn_first_routing(&daemon)->vpn_id, 600u);
}

TEST_F(cfgmgr_vpn, foreach_visits_all_and_gives_the_last_result)
{
    make(3);
    make(9);
    ids_t seen;
    auto visit = [](void *record, void *ids, void *) {
        static_cast<ids_t *>(ids)->push_back(static_cast<cfgmgr_vpn_t *>(record)->vpn_id);
        return static_cast<int>(static_cast<cfgmgr_vpn_t *>(record)->vpn_id) + 1;
    };
    EXPECT_EQ(cfgmgr_vpn_foreach(&daemon, visit, &seen, nullptr), 10);
    EXPECT_EQ(seen, (ids_t{ 0, 3, 9 }));
    EXPECT_EQ(cfgmgr_vpn_foreach(&daemon, nullptr, nullptr, nullptr), 0);
}

TEST_F(cfgmgr_vpn, at_the_end_all_go_and_the_transport_vpn_last)
{
    make(3);
    make(9);
    device().take_effects();
    cfgmgr_vpn_deinit(&daemon);
    effects_t seen = device().take_effects();
    effects_t last = deletion(0);
    ASSERT_EQ(seen.size(), deletion(3).size() + deletion(9).size() + last.size());
    EXPECT_TRUE(std::equal(last.rbegin(), last.rend(), seen.rbegin()));
    for (uint64_t id : { 3, 9 }) {
        effects_t expected = deletion(id, id == 3 ? 1 : 2);
        EXPECT_NE(std::search(seen.begin(), seen.end(), expected.begin(), expected.end()), seen.end()) << id;
    }
    EXPECT_TRUE(vpns().empty());
    cfgmgr_vpn_deinit(&daemon);
    EXPECT_TRUE(device().effects.empty());
}

TEST_F(cfgmgr_vpn, ports_come_home_before_the_transport_vpn_goes)
{
    device_chassis_set("krest-V1");
    daemon.timer_mgr_p = timer_mgr_create(TIMER_RES_1SEC, nullptr, nullptr, nullptr, TIMER_MASK_ALL);
    ASSERT_EQ(cfgmgr_bridge_init(&daemon), 0);
    ASSERT_EQ(cfgmgr_if_init(&daemon), 0);
    make(5);
    cfgmgr_if_t *port;
    ASSERT_EQ(cfgmgr_if_find_or_create(&daemon, 5, "ge0_1", &port, IF_TYPE_PLAIN), 0);
    device().take_effects();
    cfgmgr_vpn_deinit(&daemon);
    effects_t seen = device().take_effects();
    std::string home = "/sbin/ip netns exec 5 ip link set ge0_1 netns " + std::to_string(getpid());
    EXPECT_EQ(std::count(seen.begin(), seen.end(), home), 1);
    EXPECT_EQ(port->vpn_p, nullptr) << "and its record stays";
    EXPECT_TRUE(vpns().empty());
    cfgmgr_if_deinit(&daemon);
    timer_mgr_delete(daemon.timer_mgr_p);
}

// ---- the VPNs that every device has

struct device_case_t {
    const char *name;
    uint32_t personality;
    int chassis_type;
    uint8_t mgmt_vpn;
    bool has_eth0;
    bool is_testbed;
    ids_t vpns;
    bool asks_for_testbed = false;
};

void PrintTo(const device_case_t &row, std::ostream *out)
{
    *out << row.name;
}

const device_case_t device_cases[] = {
    { "edge_router", PERSONALITY_KREST, 0, 1, false, false, { 0, 512 } },
    { "edge_router_without_management", PERSONALITY_KREST, 0, 0, false, false, { 0 } },
    { "hub", PERSONALITY_TARN, 7, 1, false, false, { 0, 512 } },
    { "controller", PERSONALITY_LODEST, 8, 1, false, false, { 0, 512 } },
    { "orchestrator_has_no_management_vpn", PERSONALITY_ORBEL, 0, 1, false, false, { 0 } },
    { "management_system", PERSONALITY_QUORVIX, 0, 1, false, false, { 0, 512 } },
    { "zero_touch_has_no_management_vpn", PERSONALITY_ZTP, 0, 1, false, false, { 0 } },
    { "container_host", PERSONALITY_PENDRY, 0, 1, false, false, { 0, 512 } },
    { "unknown_has_no_management_vpn", 0, 0, 1, false, false, { 0 } },
    { "chassis_1", PERSONALITY_KREST, 1, 1, true, true, { 0, 512, 65530 } },
    { "chassis_2", PERSONALITY_KREST, 2, 0, true, true, { 0, 65530 } },
    { "chassis_3_with_adapter", PERSONALITY_KREST, 3, 0, true, true, { 0, 512, 65530 }, true },
    { "chassis_4_with_adapter", PERSONALITY_KREST, 4, 0, true, true, { 0, 512, 65530 }, true },
    { "chassis_5_with_adapter", PERSONALITY_KREST, 5, 0, true, true, { 0, 512, 65530 }, true },
    { "chassis_5_with_adapter_in_the_field", PERSONALITY_KREST, 5, 0, true, false, { 0, 65530 }, true },
    { "chassis_5_without_adapter", PERSONALITY_KREST, 5, 0, false, true, { 0, 65530 } },
    { "chassis_6", PERSONALITY_KREST, 6, 0, true, true, { 0, 65530 } },
    { "chassis_7", PERSONALITY_KREST, 7, 0, true, true, { 0 } },
};

// A management system reaches its management VPN through a pair of devices, made once the system manager knows of it.
effects_t with_veth(effects_t effects)
{
    const effects_t veth = { "ip link add veth0512 type veth peer name veth1512",
                             "ip link set veth1512 netns 512",
                             "ifconfig veth0512 169.254.0.254/30 up",
                             "ip netns exec 512 ifconfig veth1512 169.254.0.253/30 up",
                             "ip route add default via 169.254.0.253 dev veth0512 table 512",
                             "ip rule add from 169.254.0.254 table 512" };
    auto told = std::find(effects.begin(), effects.end(), "tell 5 512");
    effects.insert(told + 1, veth.begin(), veth.end());
    return effects;
}

class fixed_vpns : public cfgmgr_env, public testing::WithParamInterface<device_case_t>
{
};
INSTANTIATE_TEST_SUITE_P(devices, fixed_vpns, testing::ValuesIn(device_cases),
                         [](const auto &info) { return info.param.name; });

TEST_P(fixed_vpns, are_those_of_the_device)
{
    const device_case_t &row = GetParam();
    daemon.personality = row.personality;
    daemon.mgmt_vpn = row.mgmt_vpn;
    device().chassis_type = row.chassis_type;
    device().has_eth0 = row.has_eth0;
    device().statuses = { { TESTBED, row.is_testbed ? 0 : EXIT_1 } };
    EXPECT_EQ(cfgmgr_vpn_init(&daemon), 0);
    EXPECT_EQ(vpns(), row.vpns);
    bool has_internal = row.vpns.back() == 65530;
    bool has_mgmt = std::count(row.vpns.begin(), row.vpns.end(), 512u) > 0;
    bool has_veth = has_mgmt && row.personality == PERSONALITY_QUORVIX;
    bool has_zebra_only = row.personality == PERSONALITY_LODEST || row.personality == PERSONALITY_QUORVIX ||
                          row.personality == PERSONALITY_PENDRY;
    effects_t expected = joined({ creation(0, 0),
                                  row.asks_for_testbed ? effects_t{ TESTBED } : effects_t{},
                                  has_internal ? creation(65530, 1) : effects_t{},
                                  has_mgmt ? creation(512, has_internal ? 2 : 1) : effects_t{},
                                  { DEFAULT_NETNS } });
    if (has_zebra_only)
        std::erase_if(expected, [](const std::string &effect) {
            return effect.starts_with("daemon start 30") || effect.starts_with("daemon start 31");
        });
    if (has_veth)
        expected = with_veth(expected);
    EXPECT_EQ(device().take_effects(), expected);
    EXPECT_EQ(log_has("Initializing internal VPN (65530) .."), has_internal);
    EXPECT_EQ(log_has("Detected external usb interface for use as mgmt0"), row.asks_for_testbed);
    EXPECT_EQ(log_has("But ignoring the usb interface since it is only supported if testbed = 1"),
              row.asks_for_testbed && !row.is_testbed);
    for (const cfgmgr_vpn_t &vpn : avl_range<cfgmgr_vpn_t>(&daemon.vpn_table))
        EXPECT_EQ(vpn.label, 0u);
}

using fixed_vpn_failures = cfgmgr_env;

TEST_F(fixed_vpn_failures, a_link_of_an_earlier_start_is_no_error)
{
    device().statuses = { { DEFAULT_NETNS, EXIT_1 } };
    EXPECT_EQ(cfgmgr_vpn_init(&daemon), 0);
    EXPECT_TRUE(log_has("Command failed: " + DEFAULT_NETNS));
}

TEST_F(fixed_vpn_failures, without_an_internal_vpn_the_others_are_made)
{
    device().chassis_type = 6;
    daemon.mgmt_vpn = 1;
    device().statuses = { { "mkdir -p /etc/netns/65530", EXIT_1 } };
    EXPECT_EQ(cfgmgr_vpn_init(&daemon), 0);
    EXPECT_EQ(vpns(), (ids_t{ 0, 512 }));
}

TEST_F(fixed_vpn_failures, a_management_vpn_that_cannot_be_made_ends_the_start_with_all_released)
{
    daemon.mgmt_vpn = 1;
    device().statuses = { { "mkdir -p /etc/netns/512", EXIT_1 } };
    EXPECT_EQ(cfgmgr_vpn_init(&daemon), 15);
    effects_t seen = device().take_effects();
    EXPECT_EQ(std::count(seen.begin(), seen.end(), DEFAULT_NETNS), 1) << "the last step is done all the same";
    EXPECT_TRUE(vpns().empty());
}

// ---- the configuration

class cfgmgr_config_vpn_test : public cfgmgr_vpn
{
protected:
    cfgmgr_config_vpn_test()
    {
        ctx.reg.app_ctx = &daemon;
        row.ctx = &ctx;
        row.state = TCONFD_SUB_IN_PROGRESS; // of the initial read
    }
    int32_t configure(int op, uint64_t vpn_id)
    {
        confd_value_t key = u64(vpn_id);
        return cfgmgr_config_vpn(&row, op, 1, &key, 0, nullptr);
    }
    int64_t leaf(const std::string &path)
    {
        auto found = agent().leaves.find("/vpn/vpn-instance" + path);
        if (found == agent().leaves.end())
            return -1;
        return found->second.type == C_UINT16 ? found->second.val.u16 : found->second.val.u32;
    }

    tconfd_ctx ctx{};
    tconfd_sub row{};
};

TEST_F(cfgmgr_config_vpn_test, a_new_vpn_shows_its_label_and_its_index)
{
    EXPECT_EQ(configure(MOP_CREATED, 0), 0);
    EXPECT_EQ(configure(MOP_CREATED, 5), 0);
    EXPECT_EQ(configure(MOP_CREATED, 9), 0);
    EXPECT_EQ(vpns(), (ids_t{ 0, 5, 9 }));
    EXPECT_EQ(leaf("{0}/label"), 0);
    EXPECT_EQ(leaf("{0}/vrf-id"), 0);
    EXPECT_EQ(leaf("{5}/label"), 1);
    EXPECT_EQ(leaf("{5}/vrf-id"), 1);
    EXPECT_EQ(leaf("{9}/label"), 2);
    EXPECT_EQ(leaf("{9}/vrf-id"), 2);
    EXPECT_EQ(agent().leaves["/vpn/vpn-instance{9}/vrf-id"].type, C_UINT16);
    EXPECT_EQ(cfgmgr_vpn_find(&daemon, 9, nullptr)->label, 2u);
    EXPECT_EQ(cfgmgr_vpn_find(&daemon, 9, nullptr)->policy_synced, 1);
    EXPECT_EQ(agent().open_connections(), 0);
}

TEST_F(cfgmgr_config_vpn_test, the_label_is_shown_before_the_vpn_is_made_and_the_index_after)
{
    std::vector<size_t> effects_at_write;
    agent().on_write = [&](const std::string &) {
        effects_at_write.push_back(device().effects.size());
    };
    EXPECT_EQ(configure(MOP_CREATED, 5), 0);
    EXPECT_EQ(effects_at_write, (std::vector<size_t>{ 0, creation(5).size() }));
}

TEST_F(cfgmgr_config_vpn_test, one_made_at_start_keeps_its_record_and_shows_another_label)
{
    make(512);
    EXPECT_EQ(configure(MOP_CREATED, 512), 0);
    EXPECT_EQ(leaf("{512}/label"), 1);
    EXPECT_EQ(cfgmgr_vpn_find(&daemon, 512, nullptr)->label, 0u);
    EXPECT_EQ(cfgmgr_label_alloc(&daemon, 5), 2u) << "the label shown stays taken";
}

TEST_F(cfgmgr_config_vpn_test, a_change_does_nothing_and_a_deletion_removes_it)
{
    EXPECT_EQ(configure(MOP_MODIFIED, 5), 0);
    EXPECT_EQ(vpns(), ids_t{ 0 });
    EXPECT_EQ(configure(MOP_CREATED, 5), 0);
    device().take_effects();
    EXPECT_EQ(configure(MOP_DELETED, 5), 0);
    EXPECT_EQ(device().take_effects(), deletion(5));
    EXPECT_EQ(configure(MOP_DELETED, 5), 0);
    EXPECT_TRUE(device().effects.empty());
}

TEST_F(cfgmgr_config_vpn_test, an_index_that_cannot_be_shown_takes_the_vpn_back)
{
    agent().on_write = [](const std::string &path) {
        if (path.find("vrf-id") != std::string::npos)
            agent().results["cdb_set_elem"] = CONFD_ERR;
    };
    EXPECT_EQ(configure(MOP_CREATED, 5), 16);
    EXPECT_TRUE(log_has("Failed to set vrf-id 1 for vpn-id 5 (-1)scripted (18) : as scripted"));
    EXPECT_EQ(vpns(), ids_t{ 0 });
    EXPECT_EQ(device().take_effects(), joined({ creation(5), deletion(5) }));
    EXPECT_EQ(agent().open_connections(), 0);
}

TEST_F(cfgmgr_config_vpn_test, what_validation_should_have_refused_ends_the_process)
{
    confd_value_t key = u32(5);
    expect_assertion([&] { cfgmgr_config_vpn(&row, MOP_CREATED, 1, &key, 0, nullptr); },
                     "failed assertion `(key_p)->type == C_UINT64'");
    auto create = [&] {
        log_echo(true);
        (void)configure(MOP_CREATED, 5);
    };
    agent().results["cdb_set_elem"] = CONFD_ERR;
    expect_assertion(create, "Failed to set label for vpn: 5\n");
    agent().results.clear();
    device().statuses["mkdir -p /etc/netns/5"] = EXIT_1;
    expect_assertion(create, "Failed to create vpn: 5\n");
    memset(daemon.reserved_bitmap_p, 0xff, CFGMGR_BITMAP_BYTES);
    expect_assertion(create, "Failed to get label for vpn: 5\n");
}

TEST_F(cfgmgr_config_vpn_test, after_a_read_every_vpn_has_its_policies)
{
    make(5);
    daemon.tconfd_ctx_p = &ctx;
    daemon.usergroup_dirty = 1;
    cfgmgr_sync_cb(&ctx, 0);
    EXPECT_EQ(daemon.usergroup_dirty, 0);
    EXPECT_EQ(cfgmgr_vpn_find(&daemon, 5, nullptr)->policy_synced, 0);
    cfgmgr_sync_cb(&ctx, 2);
    EXPECT_EQ(cfgmgr_vpn_find(&daemon, 5, nullptr)->policy_synced, 1);
}

} // namespace
