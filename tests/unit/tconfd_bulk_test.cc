// One walk of a whole modification array: instances of a list, however deep, one at a time.
#include "tests/unit/tconfd_env.h"

namespace
{

using values_t = std::vector<confd_tag_value_t>;
using names_t = std::vector<std::string>;

void append(values_t &to, const values_t &more)
{
    to.insert(to.end(), more.begin(), more.end());
}

// A list and its instance are announced by two entries.
values_t instance(const char *list, const values_t &inside, confd_vtype type = C_XMLBEGIN)
{
    values_t all{ begin(list, type), begin(list, type) };
    append(all, inside);
    all.push_back(end(list));
    return all;
}

values_t all_of(const std::vector<values_t> &parts)
{
    values_t all;
    for (const values_t &part : parts)
        append(all, part);
    return all;
}

values_t one(const char *leaf, uint64_t value)
{
    return { entry(leaf, u64(value)) };
}

class tconfd_bulk : public tconfd_env
{
protected:
    tconfd_bulk()
    {
        fake_schema_set({ { "vpn",
                            {},
                            { { "version", {}, {} },
                              { "vpn-instance",
                                { "id" },
                                { { "id", {}, {} },
                                  { "mtu", {}, {} },
                                  { "interface",
                                    { "name", "unit" },
                                    { { "name", {}, {} },
                                      { "unit", {}, {} },
                                      { "speed", {}, {} },
                                      { "ip", {}, { { "mtu", {}, {} } } },
                                      { "address", { "key" }, { { "key", {}, {} }, { "len", {}, {} } } } } } } } } } });
        lay_out({ { "vpn/vpn-instance", 1, 6 } });
    }

    int walk(const std::vector<const char *> &lists, const values_t &values)
    {
        tables.assign(lists.size(), {});
        for (size_t i = 0; i < lists.size(); i++) {
            snprintf(tables[i].path, sizeof tables[i].path, "%s", lists[i]);
            tables[i].handler = recording_handler;
        }
        rows[0].bulk_lists = tables.data();
        rows[0].flags = static_cast<uint8_t>(TCONFD_SUB_READ_DONE | lists.size());
        agent().changes[2] = { { MOP_MODIFIED, {}, values } };
        tconfd_delivery delivery{ &rows[0], 2 };
        return tconfd_sub_diff_bulk_read(&delivery);
    }

    static handler_call_t call(std::vector<uint64_t> keys, names_t values, int deleted = 0)
    {
        return { "vpn/vpn-instance", deleted, std::move(keys), std::move(values) };
    }

    std::vector<tconfd_bulk_list> tables;
};

constexpr char VPN[] = "vpn/vpn-instance";
constexpr char INTERFACE[] = "vpn/vpn-instance/interface";
constexpr char ADDRESS[] = "vpn/vpn-instance/interface/address";

TEST_F(tconfd_bulk, each_instance_of_the_target_comes_with_its_values)
{
    EXPECT_EQ(walk({ VPN }, all_of({ instance("vpn-instance", all_of({ one("id", 1), one("mtu", 9) })),
                                     instance("vpn-instance", all_of({ one("id", 2), one("mtu", 9) })) })),
              0);
    EXPECT_EQ(handler_calls, (std::vector<handler_call_t>{ call({ 1 }, { "mtu" }), call({ 2 }, { "mtu" }) }));
    EXPECT_TRUE(agent().has_called("cdb_get_modifications 2 1"));
}

TEST_F(tconfd_bulk, keys_of_all_levels_come_outermost_first_and_in_declaration_order)
{
    values_t addresses = all_of({ instance("address", all_of({ one("key", 31), one("len", 24) })),
                                  instance("address", all_of({ one("key", 32), one("len", 25) })) });
    values_t ports = all_of({ instance("interface", all_of({ one("name", 21), one("unit", 22), addresses })),
                              instance("interface", all_of({ one("name", 23), one("unit", 24), addresses })) });
    values_t both =
        all_of({ instance("vpn-instance", all_of({ one("id", 1), ports })),
                 instance("vpn-instance", all_of({ one("id", 2), addresses.empty() ? values_t{} : ports })) });
    EXPECT_EQ(walk({ ADDRESS }, both), 0);
    std::vector<handler_call_t> expected;
    for (uint64_t vpn : { 1, 2 })
        for (auto [name, unit] : { std::pair<uint64_t, uint64_t>{ 21, 22 }, { 23, 24 } })
            for (uint64_t key : { 31, 32 })
                expected.push_back(call({ vpn, name, unit, key }, { "len" }));
    EXPECT_EQ(handler_calls, expected);
}

TEST_F(tconfd_bulk, containers_belong_to_the_instance_and_nested_lists_do_not)
{
    values_t ip = all_of({ { begin("ip") }, one("mtu", 1400), { end("ip") } });
    values_t address = instance("address", all_of({ one("key", 31), one("len", 24) }));
    values_t port = instance("interface", all_of({ one("name", 21), one("unit", 22), ip, address, one("speed", 10) }));
    EXPECT_EQ(
        walk({ INTERFACE }, instance("vpn-instance", all_of({ one("id", 1), one("mtu", 5), port, one("mtu", 6) }))), 0);
    EXPECT_EQ(handler_calls, (std::vector<handler_call_t>{ call({ 1, 21, 22 }, { "<ip", "mtu", "ip>", "speed" }) }));
}

TEST_F(tconfd_bulk, a_deleted_instance_is_told_as_such_without_values)
{
    values_t gone = instance("interface", all_of({ one("name", 21), one("unit", 22) }), C_XMLBEGINDEL);
    values_t kept = instance("interface", all_of({ one("name", 23), one("unit", 24), one("speed", 1) }));
    EXPECT_EQ(walk({ INTERFACE }, instance("vpn-instance", all_of({ one("id", 1), gone, kept }))), 0);
    EXPECT_EQ(handler_calls,
              (std::vector<handler_call_t>{ call({ 1, 21, 22 }, {}, 1), call({ 1, 23, 24 }, { "speed" }) }));
}

TEST_F(tconfd_bulk, an_instance_with_keys_alone_is_no_change_of_its_own)
{
    values_t address = instance("address", all_of({ one("key", 31), one("len", 24) }));
    values_t port = instance("interface", all_of({ one("name", 21), one("unit", 22), address }));
    values_t all = instance("vpn-instance", all_of({ one("id", 1), port }));
    EXPECT_EQ(walk({ VPN, INTERFACE, ADDRESS }, all), 0);
    EXPECT_EQ(handler_calls, (std::vector<handler_call_t>{ call({ 1, 21, 22, 31 }, { "len" }) }));
}

TEST_F(tconfd_bulk, an_array_may_start_at_the_top_or_below_the_list)
{
    values_t vpn_1 = instance("vpn-instance", all_of({ one("id", 1), one("mtu", 9) }));
    EXPECT_EQ(walk({ VPN }, all_of({ { begin("vpn") }, vpn_1, { end("vpn") } })), 0);
    EXPECT_EQ(handler_calls, (std::vector<handler_call_t>{ call({ 1 }, { "mtu" }) }));
}

TEST_F(tconfd_bulk, entries_beside_the_first_are_found_by_their_own_tag)
{
    snprintf(rows[0].path, sizeof rows[0].path, "vpn");
    EXPECT_EQ(
        walk({ VPN }, all_of({ one("version", 9), instance("vpn-instance", all_of({ one("id", 1), one("mtu", 9) })),
                               one("version", 9) })),
        0);
    EXPECT_EQ(handler_calls, (std::vector<handler_call_t>{ { "vpn", 0, { 1 }, { "mtu" } } }));
}

TEST_F(tconfd_bulk, a_failed_handler_marks_the_row_and_ends_the_walk)
{
    handler_verdict = [](const handler_call_t &seen) {
        return seen.keys[0] == 2 ? 5 : 0;
    };
    values_t all;
    for (uint64_t id = 1; id <= 3; id++)
        append(all, instance("vpn-instance", all_of({ one("id", id), one("mtu", 9) })));
    EXPECT_EQ(walk({ VPN }, all), -1);
    EXPECT_EQ(handler_calls.size(), 2u);
    EXPECT_NE(rows[0].flags & TCONFD_SUB_FAILED, 0);
    EXPECT_TRUE(log_has("Config callback failed (cfgmgr - 5) : vpn/vpn-instance"));
}

TEST_F(tconfd_bulk, what_the_model_does_not_have_is_told_before_anything_is_handed_over)
{
    values_t vpn_1 = instance("vpn-instance", all_of({ one("id", 1), one("mtu", 9) }));
    EXPECT_EQ(walk({ VPN, "vpn/elsewhere" }, vpn_1), -1);
    EXPECT_TRUE(log_has("List vpn/elsewhere not found"));
    EXPECT_TRUE(handler_calls.empty());
    EXPECT_EQ(walk({ VPN }, one("stranger", 1)), 0);
    EXPECT_TRUE(log_has("List stranger not found"));
    snprintf(rows[0].path, sizeof rows[0].path, "nowhere");
    EXPECT_EQ(walk({ VPN }, vpn_1), -1);
    EXPECT_TRUE(log_has("Top list node not found (nowhere)"));
}

TEST_F(tconfd_bulk, nothing_changed_and_a_failed_agent)
{
    EXPECT_EQ(walk({ VPN }, {}), 0);
    EXPECT_TRUE(log_has("Received zero bulk read modifications (vpn/vpn-instance)"));
    agent().results["cdb_get_modifications"] = CONFD_ERR;
    EXPECT_EQ(walk({ VPN }, one("mtu", 1)), -1);
    EXPECT_TRUE(
        log_has("Failed to get bulk modifications(cfgmgr - -1) : vpn/vpn-instance :scripted (18) : as scripted"));
    EXPECT_TRUE(handler_calls.empty());
}

TEST_F(tconfd_bulk, an_array_with_too_many_ends_ends_the_walk)
{
    EXPECT_EQ(walk({ VPN }, { end("vpn-instance"), end("vpn-instance") }), 0);
    EXPECT_TRUE(handler_calls.empty());
}

} // namespace
