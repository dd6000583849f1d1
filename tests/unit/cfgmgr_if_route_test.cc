// Static routes of an interface.
#include "cfgmgr/network/cfgmgr_kernel.h"
#include "tests/unit/cfgmgr_if_env.h"

namespace
{

class if_routes : public if_env
{
protected:
    if_routes()
    {
        start_with_vpns();
        if_p = make("ge0_1");
        if_p->shutdown = 0;
    }
    void add(const char *network, uint8_t len, const char *next_hop)
    {
        cfgmgr_if_route_add(if_p, prefix_of(network, len), address_of(next_hop));
    }
    static std::string command(const char *verb, const char *route)
    {
        return "5# ip route " + std::string(verb) + " " + route + " dev ge0_1 table ge0_1";
    }

    cfgmgr_if_t *if_p;
};

TEST_F(if_routes, are_installed_at_once_and_once)
{
    add("10.7.0.0", 16, "10.1.5.254");
    EXPECT_EQ(effects(), if_effects_t{ command("add", "10.7.0.0/16 via 10.1.5.254") });
    add("10.7.0.0", 16, "10.1.5.254");
    EXPECT_EQ(effects(), if_effects_t{});
    add("10.7.0.0", 24, "10.1.5.254");
    add("10.7.0.0", 16, "10.1.5.253");
    EXPECT_EQ(effects().size(), 2u) << "length and next hop count";
}

TEST_F(if_routes, of_an_interface_that_is_shut_down_are_kept_for_later)
{
    if_p->shutdown = 1;
    add("10.7.0.0", 16, "10.1.5.254");
    add("10.6.0.0", 16, "10.1.5.254");
    cfgmgr_if_route_del(if_p, prefix_of("10.6.0.0", 16), address_of("10.1.5.254"));
    EXPECT_EQ(effects(), if_effects_t{});
    cfgmgr_if_routes_install(if_p);
    EXPECT_EQ(effects(), if_effects_t{ command("add", "10.7.0.0/16 via 10.1.5.254") });
}

TEST_F(if_routes, are_taken_away_by_next_hop_by_prefix_and_all)
{
    for (const char *next_hop : { "10.1.5.3", "10.1.5.1", "10.1.5.2" }) {
        add("10.7.0.0", 16, next_hop);
        add("10.8.0.0", 16, next_hop);
    }
    add("10.7.0.0", 24, "10.1.5.1");
    add("2001:db8::", 32, "2001:db8:5::1");
    forget();
    cfgmgr_if_route_del(if_p, prefix_of("10.7.0.0", 16), address_of("10.1.5.2"));
    cfgmgr_if_route_del(if_p, prefix_of("10.7.0.0", 16), address_of("10.1.5.9"));
    EXPECT_EQ(effects(), if_effects_t{ command("delete", "10.7.0.0/16 via 10.1.5.2") });
    cfgmgr_if_route_del_prefix(if_p, prefix_of("10.7.0.0", 16));
    EXPECT_EQ(effects(), (if_effects_t{ command("delete", "10.7.0.0/16 via 10.1.5.1"),
                                        command("delete", "10.7.0.0/16 via 10.1.5.3") }));
    cfgmgr_if_routes_flush(if_p);
    EXPECT_EQ(
        effects(),
        (if_effects_t{ command("delete", "10.7.0.0/24 via 10.1.5.1"), command("delete", "10.8.0.0/16 via 10.1.5.1"),
                       command("delete", "10.8.0.0/16 via 10.1.5.2"), command("delete", "10.8.0.0/16 via 10.1.5.3"),
                       command("delete", "2001:db8::/32 via 2001:db8:5::1") }));
    EXPECT_TRUE(avl_is_empty(&if_p->routes));
}

TEST_F(if_routes, leave_the_thread_in_the_namespace_where_it_was)
{
    for (uint64_t ns : { 0, 5, 6 }) {
        if (ns != 0)
            cfgmgr_set_ns(&daemon, ns);
        add("10.7.0.0", 16, "10.1.5.254");
        cfgmgr_if_routes_flush(if_p);
        EXPECT_EQ(daemon.last_ns, ns);
        EXPECT_EQ(device().kernel.current_ns, ns);
        if (ns != 0)
            cfgmgr_reset_ns(&daemon, ns);
        EXPECT_EQ(effects(), (if_effects_t{ command("add", "10.7.0.0/16 via 10.1.5.254"),
                                            command("delete", "10.7.0.0/16 via 10.1.5.254") }));
    }
}

} // namespace
