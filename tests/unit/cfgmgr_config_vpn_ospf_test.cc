// OSPF, where commits do not reach well: marks of interfaces and what becomes of their addresses, defaults by name, what
// must not be told, and numbers that the model does not have.
#include "cfgmgr/network/cfgmgr_config_ovc.h"
#include "cfgmgr/network/cfgmgr_config_value.h"
#include "cfgmgr/network/cfgmgr_config_vpn.h"
#include "cfgmgr/network/cfgmgr_validate.h"
#include "cfgmgr/routing/cfgmgr_config_vpn_ospf.h"
#include "tests/harness/death.h"
#include "tests/unit/cfgmgr_config_if_env.h"

namespace
{

using messages_t = std::vector<std::string>;

std::string interface_message(const char *name, const std::string &fields, int area = 1)
{
    return R"(30 5 5 {"area":)" + std::to_string(area) + R"(,"interface":")" + name + "\"" + fields + "}";
}

std::string address_message(const char *name, const char *prefix, bool is_deleted = false, int area = 1)
{
    return R"(30 6 5 {"area":)" + std::to_string(area) + R"(,"interface":")" + name +
           R"(","prefix":{"is_ipv4":true,"prefix":")" + prefix + "\"}" +
           (is_deleted ? R"(,"entry_is_deleted":true})" : "}");
}

class ospf : public config_if_env
{
protected:
    ospf()
    {
        cfgmgr_events_level = 1;
        device().messages.clear();
    }
    ~ospf() override { cfgmgr_events_level = 0; }

    messages_t told()
    {
        messages_t messages;
        messages.swap(device().messages);
        return messages;
    }
    int32_t handle(tconfd_handler_t handler, int op, const std::vector<confd_value_t> &more_keys,
                   changes_t changes = {})
    {
        std::vector<confd_value_t> keys = { u64(5) };
        keys.insert(keys.end(), more_keys.begin(), more_keys.end());
        return handler(&row, op, static_cast<uint8_t>(keys.size()), keys.data(), static_cast<uint16_t>(changes.size()),
                       op == MOP_DELETED ? nullptr : changes.data());
    }
    messages_t told_of_interface(int op, const char *name, const changes_t &changes = {}, uint32_t area = 1)
    {
        EXPECT_EQ(handle(cfgmgr_config_vpn_ospf_area_interface, op, { u32(area), buf(name) }, changes), 0);
        return told();
    }
    messages_t told_of_address(const char *name, const char *prefix, bool is_delete = false)
    {
        ip_prefix_t address = cfgmgr_config_prefix(buf(prefix));
        EXPECT_EQ(cfgmgr_if_addr_update(&daemon, name, address, is_delete), 0);
        return told();
    }
    // An interface in an area, with the messages of its coming forgotten.
    cfgmgr_if_t *join(const char *cli_name, const char *name, uint32_t area = 1, uint64_t vpn_id = 5)
    {
        cfgmgr_if_t *if_p = make(cli_name, name, {}, vpn_id);
        (void)told_of_interface(MOP_CREATED, cli_name, {}, area);
        forget();
        return if_p;
    }
    static bool is_marked(const cfgmgr_if_t *if_p, uint32_t area)
    {
        return (if_p->flags & IF_OSPF) != 0 && if_p->ospf_area == area;
    }
    static bool is_unmarked(const cfgmgr_if_t *if_p) { return (if_p->flags & IF_OSPF) == 0 && if_p->ospf_area == 0; }
};

// ---- interfaces

TEST_F(ospf, an_interface_has_defaults_by_its_name)
{
    struct row_t {
        const char *cli_name, *name;
        changes_t changes;
        int op;
        const char *fields;
    };
    const changes_t own = { set(vpn_cost, number16(7)), mark(vpn_passive_interface, C_XMLTAG) };
    const row_t rows[] = {
        { "loopback1", "loopback1", {}, MOP_CREATED, R"(,"cost":1,"passive":true)" },
        { "ge0/1", "ge0_1", {}, MOP_CREATED, R"(,"passive":false)" },
        { "loopback1", "loopback1", own, MOP_CREATED, R"(,"cost":7,"passive":true)" },
        { "ge0/1", "ge0_1", own, MOP_CREATED, R"(,"cost":7,"passive":true)" },
        { "loopback1", "loopback1", { gone(vpn_cost) }, MOP_MODIFIED, R"(,"cost":1)" },
        { "ge0/1", "ge0_1", { gone(vpn_cost) }, MOP_MODIFIED, R"(,"cost":0)" },
        { "loopback1", "loopback1", { gone(vpn_passive_interface) }, MOP_MODIFIED, R"(,"passive":true)" },
        { "ge0/1", "ge0_1", { gone(vpn_passive_interface) }, MOP_MODIFIED, R"(,"passive":false)" },
        { "ge0/1", "ge0_1", { gone(vpn_key_id) }, MOP_MODIFIED, "" },
    };
    for (const row_t &r : rows)
        EXPECT_EQ(told_of_interface(r.op, r.cli_name, r.changes), messages_t{ interface_message(r.name, r.fields) })
            << r.name << " " << r.fields;
}

TEST_F(ospf, an_address_follows_its_interface_and_goes_before_it)
{
    cfgmgr_if_t *if_p = make("ge0/1", "ge0_1");
    (void)told_of_address("ge0_1", "10.0.0.1/24");
    EXPECT_EQ(told_of_interface(MOP_CREATED, "ge0/1"), (messages_t{ interface_message("ge0_1", R"(,"passive":false)"),
                                                                    address_message("ge0_1", "10.0.0.1/24") }));
    EXPECT_TRUE(is_marked(if_p, 1));
    EXPECT_EQ(told_of_interface(MOP_MODIFIED, "ge0/1", { set(vpn_cost, number16(7)) }),
              messages_t{ interface_message("ge0_1", R"(,"cost":7)") });
    EXPECT_EQ(told_of_interface(MOP_DELETED, "ge0/1"),
              (messages_t{ address_message("ge0_1", "10.0.0.1/24", true),
                           interface_message("ge0_1", R"(,"entry_is_deleted":true)") }));
    EXPECT_TRUE(is_unmarked(if_p));
}

TEST_F(ospf, a_change_of_an_address_is_told_before_the_kernel_has_it)
{
    (void)join("ge0/1", "ge0_1");
    EXPECT_EQ(told_of_address("ge0_1", "10.0.0.1/24"), messages_t{ address_message("ge0_1", "10.0.0.1/24") });
    EXPECT_TRUE(log_has("Interface ge0_1 address not set")) << "there was none to withdraw";
    EXPECT_EQ(effects().front(), "message 30 6 5");
    EXPECT_EQ(told_of_address("ge0_1", "10.0.0.2/30"),
              (messages_t{ address_message("ge0_1", "10.0.0.1/24", true), address_message("ge0_1", "10.0.0.2/30") }));
    EXPECT_EQ(told_of_address("ge0_1", "2001:db8::1/64"), messages_t{});
    EXPECT_EQ(told_of_address("ge0_1", "10.9.9.9/8", true),
              messages_t{ address_message("ge0_1", "10.0.0.2/30", true) });
    make("ge0/3", "ge0_3");
    EXPECT_EQ(told_of_address("ge0_3", "10.0.0.1/24"), messages_t{}) << "it is in no area";
}

TEST_F(ospf, an_interface_that_leaves_its_vpn_takes_its_address_along)
{
    cfgmgr_if_t *moved_p = join("ge0/1", "ge0_1");
    (void)told_of_address("ge0_1", "10.0.0.1/24");
    cfgmgr_vpn_if_del(&daemon, moved_p, true);
    EXPECT_EQ(told(), messages_t{ address_message("ge0_1", "10.0.0.1/24", true) });
    EXPECT_TRUE(is_unmarked(moved_p));
    cfgmgr_vpn_if_add(&daemon, 5, moved_p);
    (void)told_of_interface(MOP_CREATED, "ge0/1");
    cfgmgr_if_delete(&daemon, moved_p);
    EXPECT_EQ(told(), messages_t{ address_message("ge0_1", "10.0.0.1/24", true) });
    EXPECT_TRUE(is_unmarked(moved_p)) << "its record stays, in VPN 0";
    EXPECT_EQ(told_of_address("ge0_1", "10.0.0.1/24"), messages_t{});
}

TEST_F(ospf, an_interface_that_the_device_or_the_vpn_does_not_have_gets_no_mark)
{
    EXPECT_EQ(told_of_interface(MOP_CREATED, "ge7/7"), messages_t{});
    EXPECT_TRUE(log_has("OSPF interface not present - "));
    EXPECT_EQ(told_of_interface(MOP_CREATED, "loopback9"),
              messages_t{ interface_message("loopback9", R"(,"cost":1,"passive":true)") });
    EXPECT_TRUE(log_has("Interface loopback9 not found"));
    cfgmgr_if_t *other_p = join("ge0/1", "ge0_1", 1, 0);
    EXPECT_TRUE(is_unmarked(other_p));
    EXPECT_EQ(told_of_interface(MOP_DELETED, "ge0/1"),
              messages_t{ interface_message("ge0_1", R"(,"entry_is_deleted":true)") });
    EXPECT_TRUE(log_has("Interface ge0_1 not found")) << "it is in VPN 0";
}

TEST_F(ospf, a_row_of_another_area_leaves_the_mark)
{
    cfgmgr_if_t *if_p = join("ge0/1", "ge0_1", 2);
    (void)told_of_interface(MOP_DELETED, "ge0/1", {}, 1);
    EXPECT_TRUE(is_marked(if_p, 2));
}

TEST_F(ospf, with_an_area_or_the_instance_all_marks_of_the_vpn_go)
{
    struct row_t {
        tconfd_handler_t handler;
        int op;
        std::vector<confd_value_t> keys;
        changes_t changes;
        const char *message;
    };
    const row_t rows[] = {
        { cfgmgr_config_vpn_ospf_area, MOP_DELETED, { u32(1) }, {}, R"(30 4 5 {"area":1,"entry_is_deleted":true})" },
        { cfgmgr_config_vpn_ospf, MOP_DELETED, {}, {}, R"(30 0 5 {"entry_is_deleted":true})" },
        { cfgmgr_config_vpn,
          MOP_MODIFIED,
          {},
          inside(vpn_router, { gone(vpn_ospf) }),
          R"(30 0 5 {"entry_is_deleted":true})" },
    };
    cfgmgr_if_t *kept_p = make("ge0/5", "ge0_5", {}, 0);
    kept_p->flags |= IF_OSPF;
    for (const row_t &r : rows) {
        cfgmgr_if_t *one_p = join("ge0/1", "ge0_1", 1);
        cfgmgr_if_t *other_p = join("ge0/3", "ge0_3", 2);
        EXPECT_TRUE(is_marked(one_p, 1) && is_marked(other_p, 2));
        cfgmgr_vpn_find(&daemon, 5, nullptr)->ospf_configured = 1;
        EXPECT_EQ(handle(r.handler, r.op, r.keys, r.changes), 0);
        EXPECT_EQ(told(), messages_t{ r.message });
        EXPECT_TRUE(is_unmarked(one_p) && is_unmarked(other_p)) << r.message;
        EXPECT_EQ(cfgmgr_vpn_find(&daemon, 5, nullptr)->ospf_configured, r.keys.empty() ? 0 : 1);
        EXPECT_EQ(told_of_address("ge0_3", "10.0.0.1/24"), messages_t{});
        EXPECT_TRUE((kept_p->flags & IF_OSPF) != 0) << "it is of another VPN";
    }
}

// ---- areas and ranges

TEST_F(ospf, no_summary_belongs_to_the_container_that_it_stands_in)
{
    const confd_tag_value_t no_summary = mark(vpn_no_summary, C_XMLTAG);
    const std::pair<changes_t, const char *> rows[] = {
        { { no_summary }, "" },
        { inside(vpn_stub, {}) + changes_t{ no_summary }, R"(,"stub":true)" },
        { inside(vpn_stub, { no_summary }), R"(,"stub":true,"stub_no_summary":true)" },
        { inside(vpn_nssa, { no_summary }), R"(,"nssa":true,"nssa_no_summary":true)" },
        { inside(vpn_nssa, { gone(vpn_no_summary) }), R"(,"nssa":true,"nssa_no_summary":false)" },
        { { gone(vpn_stub), gone(vpn_nssa) }, R"(,"stub":false,"nssa":false)" },
    };
    for (const auto &[changes, fields] : rows) {
        EXPECT_EQ(handle(cfgmgr_config_vpn_ospf_area, MOP_MODIFIED, { u32(1) }, changes), 0);
        EXPECT_EQ(told(), messages_t{ std::string(R"(30 4 5 {"area":1)") + fields + "}" });
    }
}

TEST_F(ospf, a_range_of_another_family_fails_the_delivery)
{
    for (const char *range : { "2001:db8::/32", "network", "" }) {
        for (int op : { MOP_CREATED, MOP_DELETED })
            EXPECT_EQ(handle(cfgmgr_config_vpn_ospf_area_range, op, { u32(3), buf(range) }), 1) << range;
        EXPECT_TRUE(
            log_has(std::string("OSPF area range config - vpn:5, Area:3, range:") + range + " Invalid IP address"));
    }
    EXPECT_EQ(told(), messages_t{});
    EXPECT_EQ(handle(cfgmgr_config_vpn_ospf_area_range, MOP_CREATED, { u32(3), buf("10.1.2.3/16") }), 0);
    EXPECT_EQ(told(), messages_t{ R"(30 7 5 {"area":3,"prefix":{"is_ipv4":true,"prefix":"10.1.2.3/16"}})" });
}

// ---- the instance

TEST_F(ospf, changes_of_a_vpn_without_a_setting_of_ospf_tell_nothing)
{
    const changes_t cases[] = {
        {},
        { gone(vpn_router_id) },
        inside(vpn_router, inside(vpn_bgp, { gone(vpn_router_id), set(vpn_external, u32(1)) })),
        inside(vpn_router, inside(vpn_ospf, {})),
        inside(vpn_router, inside(vpn_ospf, inside(vpn_max_metric, {}))),
    };
    for (const changes_t &changes : cases)
        EXPECT_EQ(handle(cfgmgr_config_vpn, MOP_MODIFIED, {}, changes), 0);
    EXPECT_EQ(told(), messages_t{});
}

TEST_F(ospf, an_instance_that_comes_with_its_vpn_is_told_behind_it)
{
    row.state = TCONFD_SUB_IN_PROGRESS; // as in the initial read
    cfgmgr_vpn_delete_by_id(&daemon, 5);
    EXPECT_EQ(handle(cfgmgr_config_vpn, MOP_CREATED, {},
                     inside(vpn_router, inside(vpn_ospf, { set(vpn_compatible_rfc1583, boolean(true)) }))),
              0);
    EXPECT_EQ(told(), (messages_t{ R"(30 0 5 {"ignore_down_bit":true})", R"(30 0 5 {"compatible_rfc1583":true})" }));
    EXPECT_EQ(cfgmgr_vpn_find(&daemon, 5, nullptr)->ospf_configured, 1);
}

TEST_F(ospf, what_depends_on_the_overlay_is_told_to_every_vpn_when_its_state_changes)
{
    cfgmgr_vpn_find(&daemon, 5, nullptr)->bgp_as = 64512;
    for (bool is_up : { true, true, false }) {
        agent().leaves["/ovc/lodest-peers"] = boolean(is_up);
        bool is_change = daemon.ovc_up != is_up;
        EXPECT_EQ(handle(cfgmgr_config_ovc_lodest_peers, MOP_MODIFIED, {}), 0);
        std::string ignored = is_up ? "false}" : "true}";
        messages_t expected = { "30 0 0 {\"ignore_down_bit\":" + ignored, "30 0 5 {\"ignore_down_bit\":" + ignored,
                                "31 0 5 {\"as_num\":64512,\"ignore_soo\":" + ignored,
                                "30 0 65530 {\"ignore_down_bit\":" + ignored };
        EXPECT_EQ(told(), is_change ? expected : messages_t{});
    }
}

TEST_F(ospf, a_handler_of_a_vpn_that_is_not_there_ends_the_process)
{
    cfgmgr_vpn_delete_by_id(&daemon, 5);
    auto configure_area = [&] {
        log_echo(true);
        (void)handle(cfgmgr_config_vpn_ospf_area, MOP_CREATED, { u32(1) });
    };
    expect_assertion(configure_area, "Cannot find VPN 5");
}

TEST_F(ospf, only_an_instance_that_stays_in_a_vpn_that_is_there_is_judged)
{
    confd_trans_ctx tctx{};
    confd_daemon_ctx dx{};
    dx.d_opaque = &ctx;
    tctx.dx = &dx;
    struct row_t {
        uint64_t vpn_id;
        confd_vtype value;
        bool is_asked;
    };
    for (const row_t &r : { row_t{ 7, C_XMLTAG, false }, { 5, C_NOEXISTS, false }, { 5, C_XMLTAG, true } }) {
        confd_hkeypath_t path = keypath({ "vpn", "vpn-instance", fake_step_t({ u64(r.vpn_id) }), "router", "ospf" });
        confd_value_t value{};
        value.type = r.value;
        log_clear();
        EXPECT_EQ(cfgmgr_validate_vpn_ospf(&tctx, &path, &value), 0) << "nobody is there to refuse it";
        EXPECT_EQ(log_has("Quagga daemon does not exist: ospf (vpn:5)"), r.is_asked);
        EXPECT_EQ(tctx.t_opaque, nullptr);
    }
}

// ---- enumerations

TEST(ospf_numbers, are_those_of_the_daemon_and_0_for_what_the_model_does_not_have)
{
    struct row_t {
        uint32_t (*map)(uint32_t number);
        std::vector<uint32_t> numbers;
        const char *unknown;
    };
    const row_t rows[] = {
        { cfgmgr_config_ospf_metric_type_to_quagga_pb, { 0, 1 }, "Unknown metric type 2" },
        { cfgmgr_config_ospf_protocol_to_quagga_pb, { 4, 3, 10, 14, 16, 21 }, "Unknown protocol type 6" },
        { cfgmgr_config_ospf_advertise_to_quagga_pb, { 0, 2 }, "Unknown advertise value 2" },
        { cfgmgr_config_ospf_translate_to_quagga_pb, { 1, 2, 1 }, "Unknown translate value 3" },
        { cfgmgr_config_ospf_network_to_quagga_pb, { 0, 1 }, "Unknown network type 2" },
        { cfgmgr_config_ospf_authtype_to_quagga_pb, { 1, 2 }, "Unknown authtype 2" },
    };
    for (const row_t &row : rows) {
        log_clear();
        for (uint32_t i = 0; i < row.numbers.size(); i++)
            EXPECT_EQ(row.map(i), row.numbers[i]) << row.unknown;
        EXPECT_FALSE(log_has("Unknown"));
        EXPECT_EQ(row.map(static_cast<uint32_t>(row.numbers.size())), 0u);
        EXPECT_TRUE(log_has(row.unknown));
    }
}

} // namespace
