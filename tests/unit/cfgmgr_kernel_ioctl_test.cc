// The kernel layer's ioctls: what they change on which socket, and what they say when they fail.
#include "tests/harness/death.h"
#include "tests/unit/cfgmgr_kernel_env.h"

#include <net/if.h>
#include <sys/ioctl.h>

namespace
{

class kernel_ioctls : public cfgmgr_kernel_env
{
protected:
    fake_if_t &kernel(const char *name, uint64_t vpn_id = 5) { return device().kernel.interface(vpn_id, name); }

    cfgmgr_if_t port = make_if("ge0_1");
};

TEST_F(kernel_ioctls, up_asks_for_all_multicast_frames_and_down_keeps_them)
{
    kernel("ge0_1").flags = 0x1002;
    EXPECT_EQ(cfgmgr_kernel_ifflags_set(&port, true), 0);
    EXPECT_EQ(kernel("ge0_1").flags, 0x1243u);
    EXPECT_EQ(cfgmgr_kernel_ifflags_set(&port, false), 0);
    EXPECT_EQ(kernel("ge0_1").flags, 0x1202u);
    EXPECT_EQ(device().take_effects(), (effects_t{ "flags ge0_1 +0x241", "flags ge0_1 -0x41" }))
        << "on the socket inside, without a switch";
}

TEST_F(kernel_ioctls, flags_that_cannot_be_changed_are_told)
{
    device().kernel.errors = { { "flags", EPERM } };
    EXPECT_EQ(cfgmgr_kernel_ifflags_set(&port, true), 15);
    EXPECT_TRUE(log_has("Failed to set ifflags to 241 for ge0_1 err 1"));
    device().kernel.errors = { { "get flags", ENODEV } };
    EXPECT_EQ(cfgmgr_kernel_ifflags_set(&port, true), 15);
    EXPECT_TRUE(log_has("Failed to get ifflags for ge0_1 err 19"));
    cfgmgr_if_t nowhere{};
    strlcpy(nowhere.name, "ge0_1", sizeof nowhere.name);
    EXPECT_EQ(cfgmgr_kernel_ifflags_set(&nowhere, true), 15) << "in no VPN";
    cfgmgr_if_t long_name = make_if("a_name_too_long_for_the_kernel");
    EXPECT_EQ(cfgmgr_kernel_ifflags_set(&long_name, true), 15) << "not cut to another interface's name";
    EXPECT_TRUE(device().effects.empty());
}

TEST_F(kernel_ioctls, a_loopback_is_one_in_its_flags)
{
    kernel("ge0_1").flags = IFF_BROADCAST | IFF_MULTICAST | IFF_POINTOPOINT;
    EXPECT_EQ(cfgmgr_kernel_loopback_set(&port, false), 0);
    EXPECT_EQ(kernel("ge0_1").flags, uint32_t{ IFF_LOOPBACK | IFF_POINTOPOINT });
    EXPECT_EQ(cfgmgr_kernel_loopback_set(&port, true), 0);
    EXPECT_EQ(kernel("ge0_1").flags, uint32_t{ IFF_LOOPBACK | IFF_POINTOPOINT | IFF_UP });
    EXPECT_EQ(device().take_effects(), (effects_t{ "enter 5", "flags ge0_1 +0x8 -0x1002", "leave 5", "enter 5",
                                                   "flags ge0_1 +0x1", "leave 5" }));
    device().kernel.errors = { { "flags", EPERM } };
    EXPECT_EQ(cfgmgr_kernel_loopback_set(&port, true), 17);
    EXPECT_TRUE(log_has("5:ge0_1 ifflags_set failed errno: 1"));
    device().kernel.errors = { { "get flags", ENODEV } };
    EXPECT_EQ(cfgmgr_kernel_loopback_set(&port, true), 17);
    EXPECT_TRUE(log_has("5:ge0_1 ifflags_get failed errno: 19"));
    EXPECT_EQ(device().take_effects(), (effects_t{ "enter 5", "leave 5", "enter 5", "leave 5" }));
}

TEST_F(kernel_ioctls, mac_addresses_are_numbers_with_the_first_byte_highest)
{
    int sock = vpn(5)->kernel_sock;
    EXPECT_EQ(cfgmgr_kernel_if_set_mac(sock, 5, "ge0_1", 0xf20304050607), 0);
    EXPECT_EQ(device().take_effects(), effects_t{ "mac ge0_1 f2:03:04:05:06:07" });
    EXPECT_EQ(cfgmgr_kernel_if_get_mac(sock, 5, "ge0_1"), 0xf20304050607u);
    EXPECT_EQ(kernel("ge0_1", 0).mac, 0x020000000001u) << "the same name in another VPN";
    device().kernel.errors = { { "get mac", ENODEV }, { "mac", EBUSY } };
    EXPECT_EQ(cfgmgr_kernel_if_get_mac(sock, 5, "ge0_1"), 0u);
    EXPECT_TRUE(log_has("5:ge0_1 get mac failed errno:19"));
    EXPECT_EQ(cfgmgr_kernel_if_set_mac(sock, 5, "ge0_1", 1), 17);
    EXPECT_TRUE(log_has("5:ge0_1 set mac failed errno:16"));
}

TEST_F(kernel_ioctls, a_port_is_asked_for_its_mac_where_the_thread_is)
{
    kernel("loop0", 0).mac = 0x020000000007;
    kernel("loop0", 5).mac = 0x020000000008;
    EXPECT_EQ(cfgmgr_get_port_macaddr("loop0"), 0x020000000007u);
    cfgmgr_set_ns(&daemon, 5);
    EXPECT_EQ(daemon.last_ns, 5u);
    EXPECT_EQ(cfgmgr_get_port_macaddr("loop0"), 0x020000000008u);
    cfgmgr_reset_ns(&daemon, 5);
    EXPECT_EQ(daemon.last_ns, 0u);
    EXPECT_TRUE(log_has("Setting ns to 5"));
    EXPECT_TRUE(log_has("resetting ns to default from 5"));
    device().kernel.errors = { { "get mac", ENODEV } };
    EXPECT_EQ(cfgmgr_get_port_macaddr("loop0"), IF_MAC_UNREADABLE);
    EXPECT_TRUE(log_has("SIOCGIFHWADDR failed for loop0, err: No such device"));
}

TEST_F(kernel_ioctls, mtu)
{
    int sock = vpn(5)->kernel_sock;
    EXPECT_EQ(cfgmgr_kernel_if_set_mtu(sock, 5, "ge0_1", 1400), 0);
    EXPECT_EQ(device().take_effects(), effects_t{ "mtu ge0_1 1400" });
    device().kernel.errors = { { "mtu ge0_1", EINVAL } };
    EXPECT_EQ(cfgmgr_kernel_if_set_mtu(sock, 5, "ge0_1", 9999), 17);
    EXPECT_TRUE(log_has("set mtu to 9999 for ge0_1 failed 22"));
}

TEST_F(kernel_ioctls, an_interface_exists_in_its_own_vpn)
{
    device().kernel.add(5, "ge0_1");
    EXPECT_TRUE(cfgmgr_kernel_if_exists(&daemon, 5, "ge0_1"));
    EXPECT_FALSE(cfgmgr_kernel_if_exists(&daemon, 0, "ge0_1"));
    EXPECT_FALSE(cfgmgr_kernel_if_exists(&daemon, 5, "ge0_2"));
    EXPECT_FALSE(cfgmgr_kernel_if_exists(&daemon, 6, "ge0_1")) << "no such VPN";
}

TEST_F(kernel_ioctls, neighbours_are_permanent)
{
    int sock = vpn(5)->kernel_sock;
    EXPECT_EQ(cfgmgr_kernel_arp_oper(sock, "ge0_1", 0x0a000001, 0x020000000001, SIOCSARP), 0);
    EXPECT_EQ(cfgmgr_kernel_arp_oper(sock, "ge0_1", 0x0a000001, 0x020000000001, SIOCDARP), 0);
    EXPECT_EQ(device().take_effects(),
              (effects_t{ "arp ge0_1 set 10.0.0.1 02:00:00:00:00:01", "arp ge0_1 delete 10.0.0.1 02:00:00:00:00:01" }));
    device().kernel.errors = { { "arp", ENXIO } };
    EXPECT_EQ(cfgmgr_kernel_arp_oper(sock, "ge0_1", 0x0a000001, 10, SIOCSARP), 11);
    EXPECT_TRUE(log_has("arp-add 10.0.0.1 -> 10 failed. errno: 6"));
}

} // namespace
