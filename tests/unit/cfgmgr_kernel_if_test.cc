// The kernel layer's devices: which commands make, move and delete each kind, in which order, and what a failing one
// leaves behind.
#include "cfgmgr/network/cfgmgr_kernel_command.h"
#include "tests/harness/death.h"
#include "tests/unit/cfgmgr_kernel_env.h"

#include <fcntl.h>

namespace
{

const std::string OWN_PID = std::to_string(getpid());

enum mark_t {
    MARK_KEPT,
    MARK_SET,
    MARK_CLEARED,
};

// What becomes of the rest when a command fails.
enum on_failure_t {
    STOPS, // the operation ends there with 17, and the mark stays as it was
    GOES_ON,
    GOES_ON_WITH_ERROR,
};

struct device_op_t {
    const char *title;
    const char *name;
    uint32_t flags;
    uint32_t vlan_id;
    int (*run)(cfgmgr_if_t *if_p);
    effects_t effects;
    mark_t mark;
    on_failure_t on_failure = STOPS;
    const char *failure_log = "Command Failed: "; // with the command behind it when it ends in a blank
};

void PrintTo(const device_op_t &row, std::ostream *out)
{
    *out << row.title;
}

const device_op_t device_ops[] = {
    { "move_into_a_vpn",
      "ge0_1",
      0,
      0,
      [](cfgmgr_if_t *if_p) { return cfgmgr_kernel_if_move(0, 5, if_p); },
      { "/sbin/ip link set ge0_1 netns 5" },
      MARK_KEPT },
    { "move_back",
      "ge0_1",
      0,
      0,
      [](cfgmgr_if_t *if_p) { return cfgmgr_kernel_if_move(5, 0, if_p); },
      { "/sbin/ip netns exec 5 ip link set ge0_1 netns " + OWN_PID },
      MARK_KEPT },
    { "move_nowhere",
      "ge0_1",
      0,
      0,
      [](cfgmgr_if_t *if_p) { return cfgmgr_kernel_if_move(5, 5, if_p); },
      {},
      MARK_KEPT },
    { "subif_of_a_port",
      "ge0_1.100",
      0,
      100,
      [](cfgmgr_if_t *if_p) { return cfgmgr_kernel_subif_add("ge0_1", 100, if_p); },
      { "ip link add link ge0_1 name ge0_1.100 type vlan id 100" },
      MARK_SET },
    { "subif_on_a_loop_takes_large_frames",
      "loop0.7",
      0,
      7,
      [](cfgmgr_if_t *if_p) { return cfgmgr_kernel_subif_add("loop0", 7, if_p); },
      { "ip link add link loop0 name loop0.7 type vlan id 7", "ifconfig loop0.7 mtu 2000" },
      MARK_SET },
    { "subif_delete_in_a_vpn",
      "ge0_1.100",
      IF_PRESENT,
      100,
      [](cfgmgr_if_t *if_p) { return cfgmgr_kernel_subif_delete(5, if_p); },
      { "ip netns exec 5 ip link delete ge0_1.100 type vlan" },
      MARK_CLEARED },
    { "subif_delete_in_the_transport_vpn",
      "ge0_1.100",
      IF_PRESENT,
      100,
      [](cfgmgr_if_t *if_p) { return cfgmgr_kernel_subif_delete(0, if_p); },
      { "ip link delete ge0_1.100 type vlan" },
      MARK_CLEARED },
    { "cellular",
      "cellular0",
      0,
      20,
      [](cfgmgr_if_t *if_p) {
          if_p->default_mac = 0x0200000000ab;
          return cfgmgr_kernel_cellular_add(5, if_p);
      },
      { "enter 5", "ip link add link loop2 name cellular0 address 02:00:00:00:00:ab type vlan id 20", "leave 5" },
      MARK_SET,
      GOES_ON },
    { "cellular_delete",
      "cellular0",
      IF_PRESENT,
      20,
      [](cfgmgr_if_t *if_p) { return cfgmgr_kernel_cellular_delete(5, if_p); },
      { "enter 5", "ip link delete cellular0 type vlan", "leave 5" },
      MARK_CLEARED },
    { "internal_leg",
      "loop2.10",
      IF_INTERNAL,
      10,
      [](cfgmgr_if_t *if_p) { return cfgmgr_kernel_internal_if_add(5, if_p); },
      { "ip link add link loop2 name loop2.10 type vlan id 10", "ifconfig loop2.10 mtu 2000",
        "/sbin/ip link set loop2.10 netns 5", "enter 5", "ip link set dev loop2.10 address 0:0:0:0:10:1", "leave 5" },
      MARK_SET },
    { "internal_radio_is_there_already",
      "wwan0",
      IF_INTERNAL,
      0,
      [](cfgmgr_if_t *if_p) { return cfgmgr_kernel_internal_if_add(5, if_p); },
      { "/sbin/ip link set wwan0 netns 5" },
      MARK_KEPT },
    { "internal_leg_delete",
      "loop2.10",
      IF_INTERNAL | IF_PRESENT,
      10,
      [](cfgmgr_if_t *if_p) { return cfgmgr_kernel_internal_if_delete(5, if_p); },
      { "enter 5", "ip link delete loop2.10 type vlan", "leave 5" },
      MARK_CLEARED },
    { "internal_that_was_not_made_is_not_deleted",
      "wwan0",
      IF_INTERNAL,
      0,
      [](cfgmgr_if_t *if_p) { return cfgmgr_kernel_internal_if_delete(5, if_p); },
      {},
      MARK_KEPT },
    { "access_point",
      "vap3",
      IF_VAP,
      4,
      cfgmgr_kernel_wlan_internal_if_add,
      { "ip link add link loop3 name loop3.4 type vlan id 4", "ip link set dev loop3.4 address 0:3:0:0:4:1",
        "brctl addbr wlan3", "brctl addif wlan3 loop3.4", "brctl addif wlan3 vap3", "ip link set loop3.4 up",
        "ip link set wlan3  up" },
      MARK_SET },
    { "access_point_delete",
      "vap3",
      IF_VAP | IF_PRESENT,
      4,
      cfgmgr_kernel_wlan_internal_if_delete,
      { "brctl delif wlan3 vap3", "brctl delif wlan3 loop3.4", "ip link set wlan3 down", "brctl delbr wlan3",
        "ip link delete loop3.4 type vlan" },
      MARK_CLEARED,
      GOES_ON_WITH_ERROR },
    { "new_mac_on_a_device_that_stays_down",
      "wifi0",
      0,
      0,
      [](cfgmgr_if_t *if_p) { return cfgmgr_kernel_if_update_mac(if_p->name, 0x0a0b0c0d0eff, false); },
      { "ip link set wifi0 down", "ip link set wifi0 address 0a:0b:0c:0d:0e:ff" },
      MARK_KEPT },
    { "new_mac_on_a_device_that_is_up",
      "wifi0",
      0,
      0,
      [](cfgmgr_if_t *if_p) { return cfgmgr_kernel_if_update_mac(if_p->name, 0x0a0b0c0d0eff, true); },
      { "ip link set wifi0 down", "ip link set wifi0 address 0a:0b:0c:0d:0e:ff", "ip link set wifi0 up" },
      MARK_KEPT },
    { "offload",
      "ge0_1",
      0,
      0,
      [](cfgmgr_if_t *if_p) {
          cfgmgr_kernel_if_set_tso_off(5, if_p);
          return 0;
      },
      { "enter 5", "ethtool -K ge0_1 gso off gro off", "leave 5" },
      MARK_KEPT,
      GOES_ON,
      "Unable to turn segmentation offload off on ge0_1" },
    { "offload_of_an_access_point_stays",
      "vap1",
      IF_VAP,
      0,
      [](cfgmgr_if_t *if_p) {
          cfgmgr_kernel_if_set_tso_off(5, if_p);
          return 0;
      },
      {},
      MARK_KEPT },
};

uint32_t flags_after(const device_op_t &row)
{
    switch (row.mark) {
    case MARK_SET:
        return row.flags | IF_PRESENT;
    case MARK_CLEARED:
        return row.flags & ~IF_PRESENT;
    default:
        return row.flags;
    }
}

class device_ops_test : public cfgmgr_kernel_env, public testing::WithParamInterface<device_op_t>
{
};
INSTANTIATE_TEST_SUITE_P(kernel, device_ops_test, testing::ValuesIn(device_ops),
                         [](const auto &info) { return info.param.title; });

TEST_P(device_ops_test, run_their_commands_and_mark_the_record)
{
    const device_op_t &row = GetParam();
    cfgmgr_if_t interface = make_if(row.name, row.flags, 5, row.vlan_id);
    EXPECT_EQ(row.run(&interface), 0);
    EXPECT_EQ(device().take_effects(), row.effects);
    EXPECT_EQ(interface.flags, flags_after(row));
    EXPECT_FALSE(log_has("ailed"));
}

TEST_P(device_ops_test, end_as_told_when_a_command_fails)
{
    const device_op_t &row = GetParam();
    for (size_t i = 0; i < row.effects.size(); i++) {
        const std::string &failing = row.effects[i];
        if (!is_command(failing))
            continue;
        SCOPED_TRACE(failing);
        device().statuses = { { failing, EXIT_1 } };
        cfgmgr_if_t interface = make_if(row.name, row.flags, 5, row.vlan_id);
        log_clear();
        EXPECT_EQ(row.run(&interface), row.on_failure == GOES_ON ? 0 : 17);
        EXPECT_EQ(device().take_effects(), row.on_failure == STOPS ? effects_until(row.effects, i) : row.effects);
        std::string log = row.failure_log;
        EXPECT_EQ(log_count(log.back() == ' ' ? log + failing : log), 1);
        bool made_nothing =
            row.on_failure == STOPS && failing == *std::find_if(row.effects.begin(), row.effects.end(), is_command);
        EXPECT_TRUE(!made_nothing || interface.flags == row.flags) << interface.flags;
    }
}

using kernel_devices = cfgmgr_kernel_env;

TEST_F(kernel_devices, the_failure_texts_of_moves_and_modems_tell_the_error)
{
    cfgmgr_if_t port = make_if("ge0_1");
    device().statuses = { { "/sbin/ip link set ge0_1 netns 5", EXIT_1 },
                          { "ip link add link loop2 name ge0_1 address 00:00:00:00:00:00 type vlan id 0", EXIT_1 } };
    EXPECT_EQ(cfgmgr_kernel_if_move(0, 5, &port), 17);
    EXPECT_TRUE(log_has("Command Failed: /sbin/ip link set ge0_1 netns 5, errno: 2"));
    EXPECT_EQ(cfgmgr_kernel_cellular_add(0, &port), 0);
    EXPECT_TRUE(log_has("address 00:00:00:00:00:00 type vlan id 0 2"));
}

TEST_F(kernel_devices, move_between_two_vpns_only_through_the_transport_vpn)
{
    cfgmgr_if_t port = make_if("ge0_1");
    expect_assertion([&] { (void)cfgmgr_kernel_if_move(5, 6, &port); },
                     "failed assertion `(src_vpn_id == 0) || (dest_vpn_id == 0)'");
}

TEST_F(kernel_devices, a_command_that_does_not_fit_is_not_run)
{
    std::string long_name(KERNEL_COMMAND_SIZE, 'x');
    kernel_command_t command = cfgmgr_kernel_format("ip link set %s up", long_name.c_str());
    EXPECT_FALSE(cfgmgr_kernel_try(command));
    EXPECT_FALSE(log_has("ailed"));
    EXPECT_FALSE(cfgmgr_kernel_run(command));
    EXPECT_TRUE(log_has("Command Failed: ip link set xxx"));
    EXPECT_TRUE(device().effects.empty());
    EXPECT_TRUE(cfgmgr_kernel_format("ip link set %s up", "ge0_1").is_whole);
}

// ---- tunnels

class kernel_tunnels : public cfgmgr_kernel_env
{
protected:
    cfgmgr_if_t make_tunnel(const char *local, const char *remote)
    {
        cfgmgr_if_t tunnel = make_if("gre1", IF_GRE);
        tunnel.tunnel_src = prefix_of(local, 0).ip;
        tunnel.tunnel_dst = prefix_of(remote, 0).ip;
        return tunnel;
    }
};

TEST_F(kernel_tunnels, wait_for_both_ends)
{
    for (auto [local, remote] : { std::pair{ "0.0.0.0", "10.0.0.2" }, { "10.0.0.1", "0.0.0.0" } }) {
        cfgmgr_if_t tunnel = make_tunnel(local, remote);
        EXPECT_EQ(cfgmgr_kernel_if_gre_add(5, &tunnel), 0);
        EXPECT_EQ(tunnel.flags & IF_PRESENT, 0u);
        EXPECT_EQ(cfgmgr_kernel_if_gre_delete(5, &tunnel), 0);
        EXPECT_TRUE(device().effects.empty());
    }
}

TEST_F(kernel_tunnels, are_made_and_deleted_in_their_vpn)
{
    cfgmgr_if_t tunnel = make_tunnel("10.0.0.1", "10.0.0.2");
    EXPECT_EQ(cfgmgr_kernel_if_gre_add(5, &tunnel), 0);
    EXPECT_NE(tunnel.flags & IF_PRESENT, 0u);
    EXPECT_EQ(cfgmgr_kernel_if_gre_delete(5, &tunnel), 0);
    EXPECT_EQ(tunnel.flags & IF_PRESENT, 0u);
    EXPECT_EQ(
        device().take_effects(),
        (effects_t{ "enter 5", "ip netns exec 5 ip tunnel add gre1 mode gre remote 10.0.0.2 local 10.0.0.1 ttl 255",
                    "leave 5", "ip netns exec 5 ip tunnel delete gre1" }));
    EXPECT_EQ(cfgmgr_kernel_if_gre_add(0, &tunnel), 0);
    EXPECT_EQ(cfgmgr_kernel_if_gre_delete(0, &tunnel), 0);
    EXPECT_EQ(device().take_effects(),
              (effects_t{ "enter 0", "ip tunnel add gre1 mode gre remote 10.0.0.2 local 10.0.0.1 ttl 255", "leave 0",
                          "ip tunnel delete gre1" }));
}

TEST_F(kernel_tunnels, are_marked_whatever_the_commands_say)
{
    cfgmgr_if_t tunnel = make_tunnel("10.0.0.1", "10.0.0.2");
    device().statuses = { { "ip tunnel add gre1 mode gre remote 10.0.0.2 local 10.0.0.1 ttl 255", EXIT_1 },
                          { "ip tunnel delete gre1", EXIT_1 } };
    EXPECT_EQ(cfgmgr_kernel_if_gre_add(0, &tunnel), 17);
    EXPECT_NE(tunnel.flags & IF_PRESENT, 0u);
    EXPECT_TRUE(log_has("GRE tunnel add failed for gre1 - remote 10.0.0.2 - local 10.0.0.1"));
    EXPECT_EQ(cfgmgr_kernel_if_gre_delete(0, &tunnel), 17);
    EXPECT_EQ(tunnel.flags & IF_PRESENT, 0u);
    EXPECT_TRUE(log_has("GRE tunnel delete failed for gre1"));
}

// ---- loopbacks

using kernel_loopbacks = cfgmgr_kernel_env;

TEST_F(kernel_loopbacks, live_as_long_as_their_descriptor)
{
    cfgmgr_if_t loopback = make_if("loopback1", IF_LOOPBACK);
    EXPECT_EQ(cfgmgr_kernel_loopback_delete(5, &loopback), 0) << "never made";
    EXPECT_EQ(cfgmgr_kernel_loopback_add(5, &loopback), 0);
    EXPECT_EQ(device().take_effects(), (effects_t{ "enter 5", "tun loopback1 0x8001", "leave 5" }));
    int tun = loopback.tun_sock;
    EXPECT_NE(fcntl(tun, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_NE(loopback.flags & IF_PRESENT, 0u);
    EXPECT_EQ(cfgmgr_kernel_loopback_delete(5, &loopback), 0);
    EXPECT_EQ(fcntl(tun, F_GETFD), -1);
    EXPECT_EQ(loopback.flags, uint32_t{ IF_LOOPBACK });
    EXPECT_TRUE(device().effects.empty());
}

TEST_F(kernel_loopbacks, that_cannot_be_made_are_not_marked)
{
    cfgmgr_if_t loopback = make_if("loopback1", IF_LOOPBACK);
    device().kernel.errors["tun"] = EBUSY;
    EXPECT_EQ(cfgmgr_kernel_loopback_add(5, &loopback), 17);
    EXPECT_EQ(loopback.flags, uint32_t{ IF_LOOPBACK });
    EXPECT_TRUE(log_has("Failed to allocate tun interface loopback1; errno: 16 [Device or resource busy]"));
    EXPECT_TRUE(log_has("Failed to add loopback interface loopback1"));
    EXPECT_EQ(device().take_effects(), (effects_t{ "enter 5", "leave 5" }));
    device().kernel.errors["open tun"] = ENOENT;
    expect_assertion(
        [&] {
            log_echo(true);
            (void)cfgmgr_kernel_loopback_add(5, &loopback);
        },
        "Failed to open /dev/net/tun; errno: 2 [No such file or directory]");
}

TEST_F(kernel_loopbacks, a_descriptor_that_is_lost_is_told)
{
    cfgmgr_if_t loopback = make_if("loopback1", IF_LOOPBACK | IF_PRESENT);
    expect_assertion([&] { (void)cfgmgr_kernel_loopback_delete(5, &loopback); },
                     "failed assertion `if_p->tun_sock > 0'");
    loopback.tun_sock = 9999;
    EXPECT_EQ(cfgmgr_kernel_loopback_delete(5, &loopback), 17);
    EXPECT_TRUE(log_has("failed closing tun loopback1 sock 9999: Bad file descriptor"));
}

} // namespace
