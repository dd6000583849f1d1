// OSPF, where commits do not reach well: marks of interfaces, what happens before the kernel has an address, values that
// stand against a default, and numbers that the model does not have. What is told, and in which order, is looked at through
// commits.
#include "cfgmgr/network/cfgmgr_config_value.h"
#include "cfgmgr/network/cfgmgr_config_vpn.h"
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

TEST_F(ospf, an_interface_comes_with_its_own_settings_rather_than_defaults)
{
    for (const char *name : { "loopback1", "irb5" }) {
        messages_t messages =
            told_of_interface(MOP_CREATED, name, { set(vpn_cost, number16(7)), mark(vpn_passive_interface, C_XMLTAG) });
        std::string told_name = name == std::string("irb5") ? "irb.5" : name;
        EXPECT_EQ(messages, messages_t{ interface_message(told_name.c_str(), R"(,"cost":7,"passive":true)") });
    }
}

TEST_F(ospf, a_change_of_an_address_is_told_before_the_kernel_has_it)
{
    (void)join("ge0/1", "ge0_1");
    EXPECT_EQ(told_of_address("ge0_1", "10.0.0.1/24"), messages_t{ address_message("ge0_1", "10.0.0.1/24") });
    EXPECT_TRUE(log_has("Interface ge0_1 address not set")) << "there was none to withdraw";
    EXPECT_EQ(effects().front(), "message 30 6 5");
    EXPECT_EQ(told_of_address("ge0_1", "2001:db8::1/64"), messages_t{});
    EXPECT_EQ(told_of_address("ge0_1", "10.9.9.9/8", true),
              messages_t{ address_message("ge0_1", "10.0.0.1/24", true) });
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

TEST_F(ospf, no_summary_outside_of_stub_and_nssa_changes_nothing)
{
    const confd_tag_value_t no_summary = mark(vpn_no_summary, C_XMLTAG);
    for (const changes_t &changes : { changes_t{ no_summary }, inside(vpn_stub, {}) + changes_t{ no_summary } })
        EXPECT_EQ(handle(cfgmgr_config_vpn_ospf_area, MOP_MODIFIED, { u32(1) }, changes), 0);
    EXPECT_EQ(told(), (messages_t{ R"(30 4 5 {"area":1})", R"(30 4 5 {"area":1,"stub":true})" }));
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
}

// ---- the instance

TEST_F(ospf, a_handler_of_a_vpn_that_is_not_there_ends_the_process)
{
    cfgmgr_vpn_delete_by_id(&daemon, 5);
    auto configure_area = [&] {
        log_echo(true);
        (void)handle(cfgmgr_config_vpn_ospf_area, MOP_CREATED, { u32(1) });
    };
    expect_assertion(configure_area, "Cannot find VPN 5");
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
