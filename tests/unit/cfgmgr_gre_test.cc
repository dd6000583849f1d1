// Tunnels and the interfaces that give them their source address.
#include "cfgmgr/network/cfgmgr_gre.h"
#include "tests/unit/cfgmgr_if_env.h"

namespace
{

class gre_binding : public if_env
{
protected:
    gre_binding() { start_with_vpns(); }

    // A tunnel to 198.51.100.9 with an address, from the named interface.
    cfgmgr_if_t *make_tunnel(const char *name, const char *underlay)
    {
        cfgmgr_if_t *gre_p = make(name);
        gre_p->tunnel_dst = address_of("198.51.100.9");
        gre_p->ipv4_addr = prefix_of("10.9.0.1", 30);
        gre_p->tunnel_src_kind = TUNNEL_SRC_INTERFACE;
        strlcpy(gre_p->tunnel_src_if, underlay, sizeof gre_p->tunnel_src_if);
        return gre_p;
    }
    int bind(cfgmgr_if_t *gre_p)
    {
        int result = cfgmgr_find_and_bind_gre_if(&daemon, 5, gre_p);
        forget();
        return result;
    }
    void give_address(const char *name, const char *address)
    {
        EXPECT_EQ(cfgmgr_if_addr_update(&daemon, name, prefix_of(address, 24), false), 0);
        forget();
    }
    static if_effects_t programmed(const std::string &name, const std::string &source)
    {
        return { "5# ip netns exec 5 ip tunnel add " + name + " mode gre remote 198.51.100.9 local " + source +
                     " ttl 255",
                 "5# ip addr del 10.9.0.1/30 dev " + name, "5# ip addr add 10.9.0.1/30 dev " + name };
    }
    bool is_waiting(const cfgmgr_if_t *gre_p)
    {
        bool is_in_table = avl_find(&daemon.gre_table, gre_p, nullptr) == gre_p;
        EXPECT_EQ(gre_p->gre_unbound != 0, is_in_table);
        return is_in_table;
    }
};

TEST_F(gre_binding, takes_the_address_of_an_interface_that_is_there)
{
    make("loopback1");
    give_address("loopback1", "192.0.2.1");
    cfgmgr_if_t *gre_p = make_tunnel("gre1", "loopback1");
    EXPECT_EQ(cfgmgr_find_and_bind_gre_if(&daemon, 5, gre_p), 1);
    EXPECT_TRUE(log_has("Bound IP 192.0.2.1 of underlay interface loopback1 to interface gre1 "));
    EXPECT_EQ(ip_addr_compare(gre_p->tunnel_src, address_of("192.0.2.1")), 0);
    EXPECT_EQ(avl_first(&find("loopback1")->gre_bound), gre_p);
    EXPECT_FALSE(is_waiting(gre_p));
    EXPECT_EQ(bind(gre_p), 1) << "again";
    EXPECT_EQ(avl_numnodes(&find("loopback1")->gre_bound), 1u);
}

TEST_F(gre_binding, takes_the_address_that_dhcp_gave_when_there_is_no_other)
{
    make("ge0_1")->dhcp_addr = prefix_of("192.0.2.7", 24);
    cfgmgr_if_t *gre_p = make_tunnel("gre1", "ge0_1");
    EXPECT_EQ(bind(gre_p), 1);
    EXPECT_EQ(ip_addr_compare(gre_p->tunnel_src, address_of("192.0.2.7")), 0);
}

TEST_F(gre_binding, waits_for_an_interface_and_comes_up_with_it)
{
    cfgmgr_if_t *gre_p = make_tunnel("gre1", "loopback1");
    cfgmgr_if_t *other_p = make_tunnel("gre2", "loopback2");
    EXPECT_EQ(cfgmgr_find_and_bind_gre_if(&daemon, 5, gre_p), 0);
    EXPECT_TRUE(log_has("Appending interface gre1 to unbound interface db "));
    EXPECT_TRUE(is_waiting(gre_p));
    EXPECT_EQ(bind(other_p), 0);
    EXPECT_EQ(bind(gre_p), 0) << "again";
    create("loopback1");
    EXPECT_TRUE(log_has("Delayed bind of interface gre1 to interface loopback1 "));
    EXPECT_TRUE(log_has("Attempting to reprogram gre1 with source"));
    EXPECT_FALSE(is_waiting(gre_p));
    EXPECT_TRUE(is_waiting(other_p));
    EXPECT_EQ(avl_first(&find("loopback1")->gre_bound), gre_p);
    give_address("loopback1", "192.0.2.1");
    cfgmgr_if_gre_update_bound(&daemon, find("loopback1"));
    EXPECT_EQ(effects(), programmed("gre1", "192.0.2.1"));
    EXPECT_NE(gre_p->flags & IF_PRESENT, 0u);
}

TEST_F(gre_binding, has_its_configured_size_again_when_it_is_made_anew)
{
    make("loopback1");
    give_address("loopback1", "192.0.2.1");
    cfgmgr_if_t *gre_p = make_tunnel("gre1", "loopback1");
    bind(gre_p);
    auto sizes = [&] {
        if_effects_t seen = effects();
        return std::count(seen.begin(), seen.end(), "mtu gre1 1400");
    };
    cfgmgr_if_gre_reprogram(&daemon, 5, gre_p);
    EXPECT_EQ(sizes(), 0) << "none is configured";
    gre_p->mtu = 1400;
    cfgmgr_if_gre_reprogram(&daemon, 5, gre_p);
    EXPECT_EQ(sizes(), 1);
}

TEST_F(gre_binding, follows_the_address_of_its_source_interface)
{
    make("loopback1");
    give_address("loopback1", "192.0.2.1");
    cfgmgr_if_t *gre_p = make_tunnel("gre1", "loopback1");
    cfgmgr_if_t *other_p = make_tunnel("gre2", "loopback1");
    EXPECT_EQ(bind(gre_p) + bind(other_p), 2);
    cfgmgr_if_gre_reprogram(&daemon, 5, gre_p);
    EXPECT_TRUE(log_has("Attempting to reprogram gre1 with source 192.0.2.1 destination 198.51.100.9 "));
    EXPECT_EQ(effects(), programmed("gre1", "192.0.2.1"));
    give_address("loopback1", "192.0.2.2");
    cfgmgr_if_gre_update_bound(&daemon, find("loopback1"));
    if_effects_t expected = { "ip netns exec 5 ip tunnel delete gre1" };
    for (const char *name : { "gre1", "gre2" }) {
        if_effects_t part = programmed(name, "192.0.2.2");
        expected.insert(expected.end(), part.begin(), part.end());
    }
    EXPECT_EQ(effects(), expected) << "gre2 had no device before";
    EXPECT_EQ(cfgmgr_if_addr_update(&daemon, "loopback1", find("loopback1")->ipv4_addr, true), 0);
    forget();
    cfgmgr_if_gre_update_bound(&daemon, find("loopback1"));
    EXPECT_EQ(effects(),
              (if_effects_t{ "ip netns exec 5 ip tunnel delete gre1", "ip netns exec 5 ip tunnel delete gre2" }))
        << "no source, no tunnel";
}

TEST_F(gre_binding, ends_when_the_tunnel_gets_another_source)
{
    make("loopback1");
    cfgmgr_if_t *gre_p = make_tunnel("gre1", "loopback1");
    EXPECT_EQ(cfgmgr_find_and_unbind_gre_if(&daemon, gre_p, false), 1) << "never bound: nothing to take out";
    EXPECT_EQ(bind(gre_p), 1);
    EXPECT_EQ(cfgmgr_find_and_unbind_gre_if(&daemon, gre_p, false), 1);
    EXPECT_TRUE(avl_is_empty(&find("loopback1")->gre_bound));
    EXPECT_FALSE(is_waiting(gre_p));
    EXPECT_EQ(bind(gre_p), 1);
    EXPECT_EQ(cfgmgr_find_and_unbind_gre_if(&daemon, gre_p, true), 1);
    EXPECT_TRUE(is_waiting(gre_p));
    EXPECT_EQ(cfgmgr_find_and_unbind_gre_if(&daemon, gre_p, true), 0) << "it waits already";
    EXPECT_EQ(bind(gre_p), 1);
    strlcpy(gre_p->tunnel_src_if, "loopback7", sizeof gre_p->tunnel_src_if);
    EXPECT_EQ(cfgmgr_find_and_unbind_gre_if(&daemon, gre_p, false), 0);
    EXPECT_TRUE(log_has("Can't find underlay transport interface loopback7 of interface gre1 "));
    strlcpy(gre_p->tunnel_src_if, "loopback1", sizeof gre_p->tunnel_src_if);
    gre_p->tunnel_src_kind = TUNNEL_SRC_ADDRESS;
    EXPECT_EQ(cfgmgr_find_and_unbind_gre_if(&daemon, gre_p, false), 0) << "others are never bound";
    gre_p->tunnel_src_kind = TUNNEL_SRC_INTERFACE;
}

TEST_F(gre_binding, of_a_deleted_source_interface_waits_for_the_next)
{
    make("loopback1");
    cfgmgr_if_t *gre_p = make_tunnel("gre1", "loopback1");
    EXPECT_EQ(bind(gre_p), 1);
    cfgmgr_if_delete(&daemon, find("loopback1"));
    EXPECT_TRUE(is_waiting(gre_p));
    create("loopback1");
    EXPECT_FALSE(is_waiting(gre_p));
    EXPECT_EQ(avl_first(&find("loopback1")->gre_bound), gre_p);
}

TEST_F(gre_binding, of_a_port_that_is_not_configured_any_more_waits_until_it_is)
{
    cfgmgr_if_t *port_p = make("ge0_1");
    cfgmgr_if_t *gre_p = make_tunnel("gre1", "ge0_1");
    EXPECT_EQ(bind(gre_p), 1);
    cfgmgr_if_delete(&daemon, port_p);
    EXPECT_TRUE(is_waiting(gre_p));
    create("ge0_1");
    EXPECT_FALSE(is_waiting(gre_p));
    EXPECT_EQ(avl_first(&port_p->gre_bound), gre_p);
}

TEST_F(gre_binding, ends_with_the_tunnel)
{
    make("loopback1");
    cfgmgr_if_t *bound_p = make_tunnel("gre1", "loopback1");
    cfgmgr_if_t *waiting_p = make_tunnel("gre2", "loopback2");
    EXPECT_EQ(bind(bound_p), 1);
    EXPECT_EQ(bind(waiting_p), 0);
    cfgmgr_if_delete(&daemon, bound_p);
    cfgmgr_if_delete(&daemon, waiting_p);
    EXPECT_TRUE(avl_is_empty(&find("loopback1")->gre_bound));
    EXPECT_TRUE(avl_is_empty(&daemon.gre_table));
    EXPECT_EQ(find("gre1"), nullptr);
    EXPECT_EQ(find("gre2"), nullptr);
}

TEST_F(gre_binding, survives_the_vpn_in_which_both_are)
{
    make("ge0_1");
    cfgmgr_if_t *gre_p = make_tunnel("gre1", "ge0_1");
    EXPECT_EQ(bind(gre_p), 1);
    cfgmgr_vpn_delete_by_id(&daemon, 5);
    EXPECT_TRUE(avl_is_empty(&daemon.gre_table));
    EXPECT_TRUE(avl_is_empty(&find("ge0_1")->gre_bound));
}

} // namespace
