// Lists of addresses and routes below an interface.
#include "tests/unit/cfgmgr_config_if_env.h"

namespace
{

class config_if_lists : public config_if_env
{
protected:
    cfgmgr_if_t *make_port(bool is_up) { return make("ge0/1", "ge0_1", { set(vpn_shutdown, boolean(!is_up)) }); }
    effects_t list(int op, const char *address, const char *name = "ge0/1")
    {
        EXPECT_EQ(configure(cfgmgr_config_if_addr_list, op, 5, name, { buf(address) }), 0);
        return effects();
    }
    effects_t next_hop(int op, const char *network, uint8_t len, const char *address)
    {
        EXPECT_EQ(configure(cfgmgr_config_if_route_addr, op, 5, "ge0/1", { ipv4_network(network, len), ipv4(address) }),
                  0);
        return effects();
    }
    static std::string address(const char *what, const char *prefix, const char *broadcast)
    {
        return std::string("in 5: ip addr ") + what + " " + prefix + " dev ge0_1 broadcast " + broadcast;
    }
    static std::string connected(const char *what, const char *network)
    {
        return std::string("in 5: ip route ") + what + " " + network + " dev ge0_1 table ge0_1";
    }
    static std::string via(const char *what, const char *network, const char *next_hop)
    {
        return std::string("in 5: ip route ") + what + " " + network + " via " + next_hop + " dev ge0_1 table ge0_1";
    }
};

// ---- the address list

TEST_F(config_if_lists, the_first_address_brings_the_table_its_network_and_the_routes)
{
    cfgmgr_if_t *if_p = make_port(false);
    next_hop(MOP_CREATED, "172.16.0.0", 12, "10.3.0.254");
    next_hop(MOP_CREATED, "192.168.0.0", 16, "10.3.0.253");
    make_port(true);
    if_p->shutdown = 0;
    EXPECT_EQ(list(MOP_CREATED, "10.3.0.1/24"),
              (effects_t{ address("add", "10.3.0.1/24", "10.3.0.255"), connected("add", "10.3.0.0/24"),
                          via("add", "172.16.0.0/12", "10.3.0.254"), via("add", "192.168.0.0/16", "10.3.0.253") }));
    EXPECT_EQ(list(MOP_CREATED, "10.3.0.2/24"), effects_t{ address("add", "10.3.0.2/24", "10.3.0.255") })
        << "another of the same network";
    EXPECT_EQ(if_p->addr_list_count, 2u);
}

TEST_F(config_if_lists, an_address_of_another_network_moves_the_table)
{
    make_port(true);
    list(MOP_CREATED, "10.3.0.1/24");
    EXPECT_EQ(list(MOP_CREATED, "10.4.0.1/24"),
              (effects_t{ address("add", "10.4.0.1/24", "10.4.0.255"), connected("delete", "10.3.0.0/24"),
                          connected("add", "10.4.0.0/24") }));
    EXPECT_EQ(list(MOP_CREATED, "10.4.0.2/25"),
              (effects_t{ address("add", "10.4.0.2/25", "10.4.0.127"), connected("delete", "10.4.0.0/24"),
                          connected("add", "10.4.0.0/25") }))
        << "the length counts too";
}

TEST_F(config_if_lists, while_shut_down_no_table_is_touched_and_all_comes_with_the_enable)
{
    cfgmgr_if_t *if_p = make_port(false);
    EXPECT_EQ(list(MOP_CREATED, "10.3.0.1/24"), effects_t{ address("add", "10.3.0.1/24", "10.3.0.255") });
    EXPECT_EQ(next_hop(MOP_CREATED, "172.16.0.0", 12, "10.3.0.254"), effects_t{});
    EXPECT_EQ(if_p->addr_list_count, 1u);
    EXPECT_EQ(change("ge0/1", { set(vpn_shutdown, boolean(false)) }),
              (effects_t{ connected("add", "10.3.0.0/24"), via("add", "172.16.0.0/12", "10.3.0.254") }));
}

TEST_F(config_if_lists, with_the_last_address_the_network_is_forgotten)
{
    cfgmgr_if_t *if_p = make_port(true);
    list(MOP_CREATED, "10.3.0.1/24");
    list(MOP_CREATED, "10.3.0.2/24");
    EXPECT_EQ(list(MOP_DELETED, "10.3.0.1/24"), effects_t{ address("del", "10.3.0.1/24", "10.3.0.255") });
    EXPECT_FALSE(ip_addr_is_zero(if_p->route_prefix.ip));
    list(MOP_DELETED, "10.3.0.2/24");
    EXPECT_TRUE(ip_addr_is_zero(if_p->route_prefix.ip));
    EXPECT_EQ(if_p->route_prefix.ip.family, uint32_t{ AF_INET });
    list(MOP_DELETED, "10.3.0.2/24");
    EXPECT_EQ(if_p->addr_list_count, 0u) << "never below";
}

TEST_F(config_if_lists, a_change_of_an_address_of_the_list_does_nothing)
{
    make_port(true);
    EXPECT_EQ(list(MOP_MODIFIED, "10.3.0.1/24"), effects_t{});
}

// ---- static routes

TEST_F(config_if_lists, a_next_hop_comes_and_goes_while_the_port_is_up)
{
    make_port(true);
    EXPECT_EQ(next_hop(MOP_CREATED, "172.16.0.0", 12, "10.3.0.254"),
              effects_t{ via("add", "172.16.0.0/12", "10.3.0.254") });
    EXPECT_EQ(next_hop(MOP_MODIFIED, "172.16.0.0", 12, "10.3.0.253"), effects_t{});
    EXPECT_EQ(next_hop(MOP_DELETED, "172.16.0.0", 12, "10.3.0.254"),
              effects_t{ via("delete", "172.16.0.0/12", "10.3.0.254") });
}

TEST_F(config_if_lists, a_deleted_route_takes_all_its_next_hops)
{
    cfgmgr_if_t *if_p = make_port(true);
    next_hop(MOP_CREATED, "172.16.0.0", 12, "10.3.0.254");
    next_hop(MOP_CREATED, "172.16.0.0", 12, "10.3.0.253");
    next_hop(MOP_CREATED, "192.168.0.0", 16, "10.3.0.253");
    for (int op : { MOP_CREATED, MOP_MODIFIED })
        EXPECT_EQ(configure(cfgmgr_config_if_route, op, 5, "ge0/1", { ipv4_network("172.16.0.0", 12) }), 0);
    EXPECT_EQ(effects(), effects_t{});
    EXPECT_EQ(configure(cfgmgr_config_if_route, MOP_DELETED, 5, "ge0/1", { ipv4_network("172.16.0.0", 12) }), 0);
    EXPECT_EQ(effects(), (effects_t{ via("delete", "172.16.0.0/12", "10.3.0.253"),
                                     via("delete", "172.16.0.0/12", "10.3.0.254") }));
    EXPECT_EQ(avl_numnodes(&if_p->routes), 1u);
}

// ---- secondary addresses

TEST_F(config_if_lists, a_secondary_address_is_set_and_removed)
{
    make_port(false);
    tconfd_handler_t handler = cfgmgr_config_if_sec_address;
    std::vector<confd_value_t> key = { buf("10.6.0.1/24") };
    EXPECT_EQ(configure(handler, MOP_CREATED, 5, "ge0/1", key), 0);
    EXPECT_EQ(effects(), effects_t{ address("add", "10.6.0.1/24", "10.6.0.255") });
    EXPECT_EQ(configure(handler, MOP_MODIFIED, 5, "ge0/1", key), 0);
    EXPECT_EQ(effects(), effects_t{});
    EXPECT_EQ(configure(handler, MOP_DELETED, 5, "ge0/1", key), 0);
    EXPECT_EQ(effects(), effects_t{ address("del", "10.6.0.1/24", "10.6.0.255") });
}

TEST_F(config_if_lists, a_secondary_address_without_a_record_fails_unless_the_device_lacks_the_interface)
{
    tconfd_handler_t handler = cfgmgr_config_if_sec_address;
    EXPECT_EQ(configure(handler, MOP_CREATED, 5, "loopback9", { buf("10.6.0.1/24") }), 1);
    EXPECT_TRUE(log_has("Cannot find interface loopback9"));
    EXPECT_EQ(configure(handler, MOP_CREATED, 5, "ge0/8", { buf("10.6.0.1/24") }), 0);
    EXPECT_TRUE(log_has("Interface ge0/8 not provisioned"));
    EXPECT_EQ(effects(), effects_t{});
}

TEST_F(config_if_lists, pools_and_interfaces_without_a_record_have_no_lists)
{
    make("natpool1", "natpool1", { set(vpn_shutdown, boolean(false)) });
    for (const char *name : { "natpool1", "loopback9", "ge0/8" }) {
        std::vector<confd_value_t> hop = { ipv4_network("172.16.0.0", 12), ipv4("10.3.0.254") };
        EXPECT_EQ(list(MOP_CREATED, "10.3.0.1/24", name), effects_t{});
        EXPECT_EQ(configure(cfgmgr_config_if_route_addr, MOP_CREATED, 5, name, hop), 0);
        EXPECT_EQ(configure(cfgmgr_config_if_route, MOP_DELETED, 5, name, { hop[0] }), 0);
        EXPECT_EQ(effects(), effects_t{}) << name;
    }
}

} // namespace
