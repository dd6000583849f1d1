// From what the agent says has changed to the calls of a row's handler.
#include "tests/harness/death.h"
#include "tests/unit/tconfd_env.h"

namespace
{

using values_t = std::vector<confd_tag_value_t>;
using names_t = std::vector<std::string>;

const confd_tag_value_t set_mtu = entry("mtu", u32(1500));
const confd_tag_value_t gone_mtu = entry("mtu", nothing());

struct filter_case_t {
    const char *name;
    values_t values;
    names_t added, deleted; // what each pass keeps
};

void PrintTo(const filter_case_t &row, std::ostream *out)
{
    *out << row.name;
}

const filter_case_t filter_cases[] = {
    { "nothing", {}, {}, {} },
    { "one_leaf_set", { set_mtu }, { "mtu" }, {} },
    { "one_leaf_gone", { gone_mtu }, {}, { "-mtu" } },
    { "set_and_gone", { set_mtu, entry("vrf", nothing()) }, { "mtu" }, { "-vrf" } },
    { "empty_container_counts_as_added", { begin("ppp"), end("ppp") }, { "<ppp", "ppp>" }, {} },
    { "container_with_a_leaf", { begin("ip"), set_mtu, end("ip") }, { "<ip", "mtu", "ip>" }, {} },
    { "container_with_only_a_deletion", { begin("ip"), gone_mtu, end("ip") }, {}, { "<ip", "-mtu", "ip>" } },
    { "nesting_is_kept_in_both_passes",
      { begin("ip"), begin("dhcp"), set_mtu, end("dhcp"), begin("arp"), gone_mtu, end("arp"), end("ip") },
      { "<ip", "<dhcp", "mtu", "dhcp>", "<arp", "arp>", "ip>" },
      { "<ip", "<dhcp", "dhcp>", "<arp", "-mtu", "arp>", "ip>" } },
    { "empty_container_inside_another",
      { begin("ip"), begin("ppp"), end("ppp"), end("ip") },
      { "<ip", "<ppp", "ppp>", "ip>" },
      {} },
    { "brackets_of_containers_that_are_not_empty_are_no_change",
      { begin("ip"), gone_mtu, end("ip"), end("vpn") },
      {},
      { "<ip", "-mtu", "ip>", "vpn>" } },
    { "a_deleted_entry_is_not_of_the_delete_pass",
      { begin("interface", C_XMLBEGINDEL), end("interface") },
      { "<-interface", "interface>" },
      {} },
};

class filter : public testing::TestWithParam<filter_case_t>
{
protected:
    static names_t kept(const values_t &values, bool delete_pass)
    {
        values_t room(values.size() + 1);
        int n = tconfd_filter_modifications(values.data(), room.data(), static_cast<int>(values.size()), delete_pass);
        names_t names;
        for (int i = 0; i < n; i++)
            names.push_back(value_name(room[i]));
        return names;
    }
};
INSTANTIATE_TEST_SUITE_P(tconfd, filter, testing::ValuesIn(filter_cases),
                         [](const auto &info) { return info.param.name; });

TEST_P(filter, keeps_what_applies_in_the_pass)
{
    EXPECT_EQ(kept(GetParam().values, false), GetParam().added);
    EXPECT_EQ(kept(GetParam().values, true), GetParam().deleted);
}

const confd_hkeypath_t vpn_5 = keypath({ "vpn", "vpn-instance", { { u64(5) } } });

class tconfd_diff : public tconfd_env
{
protected:
    cdb_iter_ret iterate(tconfd_sub &row, uint32_t point, const fake_change_t &change)
    {
        agent().changes[static_cast<int>(point)] = { change };
        tconfd_delivery delivery{ &row, static_cast<int>(point) };
        cdb_iter_ret result = ITER_RECURSE;
        current_delivery = &delivery;
        current_result = &result;
        cdb_diff_iterate(ctx.subscr_fd, static_cast<int>(point), once, 0, nullptr);
        return result;
    }

private:
    // Between the agent and the function under test, to see what it answers.
    static inline tconfd_delivery *current_delivery;
    static inline cdb_iter_ret *current_result;
    static cdb_iter_ret once(confd_hkeypath_t *kp, cdb_iter_op op, confd_value_t *oldv, confd_value_t *newv, void *)
    {
        *current_result = tconfd_sub_diff_iter(kp, op, oldv, newv, current_delivery);
        return ITER_STOP;
    }
};

TEST_F(tconfd_diff, keys_come_outermost_first_and_in_declaration_order)
{
    lay_out({ { "vpn/vpn-instance/interface/address", 4, 6 } });
    fake_change_t change{ MOP_MODIFIED,
                          keypath({ "vpn",
                                    "vpn-instance",
                                    { { u64(1) } },
                                    "interface",
                                    { { u64(2), u64(3) } },
                                    "ip",
                                    "address",
                                    { { u64(4) } } }),
                          { set_mtu } };
    EXPECT_EQ(iterate(rows[0], 2, change), ITER_CONTINUE);
    EXPECT_EQ(handler_calls, (std::vector<handler_call_t>{
                                 { "vpn/vpn-instance/interface/address", MOP_MODIFIED, { 1, 2, 3, 4 }, { "mtu" } } }));
}

TEST_F(tconfd_diff, a_list_may_have_as_many_keys_as_a_path_element_holds)
{
    lay_out({ { "list", 9, 6 } });
    std::vector<confd_value_t> keys;
    for (uint64_t i = 1; i <= MAXKEYLEN; i++)
        keys.push_back(u64(i));
    iterate(rows[0], 2, { MOP_CREATED, keypath({ "list", keys }), { set_mtu } });
    ASSERT_EQ(handler_calls.size(), 1u);
    EXPECT_EQ(handler_calls[0].keys, (std::vector<uint64_t>{ 1, 2, 3, 4, 5, 6, 7, 8, 9 }));
}

TEST_F(tconfd_diff, every_operation_is_handed_on_as_it_is)
{
    lay_out({ { "vpn/vpn-instance", 1, 6 } });
    for (cdb_iter_op op : { MOP_CREATED, MOP_DELETED, MOP_MODIFIED, MOP_VALUE_SET, MOP_MOVED_AFTER, MOP_ATTR_SET }) {
        handler_calls.clear();
        EXPECT_EQ(iterate(rows[0], 2, { op, vpn_5, { set_mtu, gone_mtu } }), ITER_CONTINUE);
        names_t all = op == MOP_DELETED ? names_t{} : names_t{ "mtu", "-mtu" };
        EXPECT_EQ(handler_calls, (std::vector<handler_call_t>{ { "vpn/vpn-instance", op, { 5 }, all } }));
    }
}

TEST_F(tconfd_diff, a_delete_is_handed_over_in_the_delete_pass_only)
{
    lay_out({ { "vpn/vpn-instance", 1, 0x23 } });
    EXPECT_EQ(iterate(rows[0], rows[0].add_subid, { MOP_DELETED, vpn_5, {} }), ITER_CONTINUE);
    EXPECT_TRUE(handler_calls.empty());
    EXPECT_TRUE(log_has("Delete suppressed in add subscription (/vpn/vpn-instance{5})"));
    EXPECT_EQ(iterate(rows[0], rows[0].del_subid, { MOP_DELETED, vpn_5, {} }), ITER_CONTINUE);
    EXPECT_EQ(handler_calls, (std::vector<handler_call_t>{ { "vpn/vpn-instance", MOP_DELETED, { 5 }, {} } }));
    EXPECT_EQ(agent().count("cdb_get_modifications_iter"), 0);
}

TEST_F(tconfd_diff, passes_share_out_what_changed_and_a_row_with_one_priority_gets_all)
{
    lay_out({ { "two", 1, 0x56 }, { "one", 1, 6 } });
    fake_change_t change{ MOP_MODIFIED, vpn_5, { set_mtu, entry("vrf", nothing()) } };
    iterate(rows[0], rows[0].del_subid, change);
    iterate(rows[0], rows[0].add_subid, change);
    iterate(rows[1], rows[1].add_subid, change);
    EXPECT_EQ(handler_calls, (std::vector<handler_call_t>{ { "two", MOP_MODIFIED, { 5 }, { "-vrf" } },
                                                           { "two", MOP_MODIFIED, { 5 }, { "mtu" } },
                                                           { "one", MOP_MODIFIED, { 5 }, { "mtu", "-vrf" } } }));
}

TEST_F(tconfd_diff, a_pass_without_anything_for_it_calls_nobody_and_goes_on)
{
    lay_out({ { "two", 1, 0x56 } });
    EXPECT_EQ(iterate(rows[0], rows[0].del_subid, { MOP_CREATED, vpn_5, { set_mtu } }), ITER_CONTINUE);
    EXPECT_EQ(iterate(rows[0], rows[0].add_subid, { MOP_MODIFIED, vpn_5, { gone_mtu } }), ITER_CONTINUE);
    EXPECT_EQ(log_count("Received zero applicable modifications ("), 2);
    EXPECT_EQ(iterate(rows[0], rows[0].add_subid, { MOP_MODIFIED, vpn_5, {} }), ITER_CONTINUE);
    EXPECT_EQ(log_count("Received zero modifications ("), 1);
    EXPECT_TRUE(handler_calls.empty());
}

TEST_F(tconfd_diff, what_the_agent_cannot_give_stops_the_iteration_without_blame)
{
    lay_out({ { "vpn/vpn-instance", 1, 6 } });
    agent().gives_null_array = true;
    EXPECT_EQ(iterate(rows[0], 2, { MOP_MODIFIED, vpn_5, { set_mtu } }), ITER_STOP);
    agent().results["cdb_get_modifications_iter"] = CONFD_ERR;
    EXPECT_EQ(iterate(rows[0], 2, { MOP_MODIFIED, vpn_5, { set_mtu } }), ITER_STOP);
    EXPECT_TRUE(log_has("Failed to get modifications(cfgmgr - -1) : /vpn/vpn-instance{5} :scripted (18) : as scripted"));
    EXPECT_TRUE(handler_calls.empty());
    EXPECT_EQ(rows[0].flags & TCONFD_SUB_FAILED, 0);
}

TEST_F(tconfd_diff, a_failed_handler_marks_the_row_and_stops_and_the_next_success_clears_it)
{
    lay_out({ { "vpn/vpn-instance", 1, 6 } });
    handler_verdict = [](const handler_call_t &) {
        return 16;
    };
    EXPECT_EQ(iterate(rows[0], 2, { MOP_MODIFIED, vpn_5, { set_mtu } }), ITER_STOP);
    EXPECT_NE(rows[0].flags & TCONFD_SUB_FAILED, 0);
    EXPECT_TRUE(log_has("Config callback failed (cfgmgr - 16) : /vpn/vpn-instance{5}"));
    handler_verdict = nullptr;
    EXPECT_EQ(iterate(rows[0], 2, { MOP_MODIFIED, vpn_5, { set_mtu } }), ITER_CONTINUE);
    EXPECT_EQ(rows[0].flags, TCONFD_SUB_READ_DONE);
}

TEST_F(tconfd_diff, a_path_with_another_number_of_keys_than_the_row_says_is_fatal)
{
    lay_out({ { "fewer", 2, 6 }, { "more", 0, 6 } });
    rows[1].num_keys = 1;
    expect_assertion(
        [&] {
            iterate(rows[0], 2, { MOP_MODIFIED, vpn_5, { set_mtu } });
        },
        "failed assertion `num_keys == num_keys_found'");
    fake_change_t two_keys{ MOP_DELETED, keypath({ "a", { { u64(1), u64(2) } } }), {} };
    expect_assertion([&] { iterate(rows[1], 3, two_keys); }, "failed assertion `num_keys == num_keys_found'");
}

class tconfd_flat : public tconfd_env
{
protected:
    int read(tconfd_sub &row, uint32_t point, const values_t &values)
    {
        agent().changes[static_cast<int>(point)] = { { MOP_MODIFIED, {}, values } };
        tconfd_delivery delivery{ &row, static_cast<int>(point) };
        return tconfd_sub_diff_no_keys(&delivery);
    }
};

TEST_F(tconfd_flat, everything_below_the_point_comes_in_one_call_as_modified)
{
    lay_out({ { "system", 0, 3 } });
    EXPECT_EQ(read(rows[0], 2, { set_mtu, entry("name", buf("box")), gone_mtu }), 0);
    EXPECT_EQ(handler_calls,
              (std::vector<handler_call_t>{ { "system", MOP_MODIFIED, {}, { "mtu", "name", "-mtu" } } }));
    EXPECT_TRUE(agent().has_called("cdb_get_modifications 2 0"));
}

TEST_F(tconfd_flat, passes_filter_and_empty_ones_call_nobody)
{
    lay_out({ { "system/ntp/keys", 0, 0x56 } });
    EXPECT_EQ(read(rows[0], rows[0].del_subid, { set_mtu }), 0);
    EXPECT_EQ(read(rows[0], rows[0].add_subid, { gone_mtu }), 0);
    EXPECT_EQ(read(rows[0], rows[0].add_subid, {}), 0);
    EXPECT_TRUE(handler_calls.empty());
    EXPECT_TRUE(log_has("Received zero modifications (system/ntp/keys)"));
    EXPECT_EQ(log_count("Received zero applicable modifications (system/ntp/keys)"), 2);
    EXPECT_EQ(read(rows[0], rows[0].del_subid, { set_mtu, gone_mtu }), 0);
    EXPECT_EQ(handler_calls, (std::vector<handler_call_t>{ { "system/ntp/keys", MOP_MODIFIED, {}, { "-mtu" } } }));
}

TEST_F(tconfd_flat, a_failed_handler_travels_in_the_flag_and_a_failed_agent_in_the_result)
{
    lay_out({ { "system", 0, 3 } });
    handler_verdict = [](const handler_call_t &) {
        return 1;
    };
    EXPECT_EQ(read(rows[0], 2, { set_mtu }), 0);
    EXPECT_NE(rows[0].flags & TCONFD_SUB_FAILED, 0);
    EXPECT_TRUE(log_has("Config callback failed (cfgmgr - 1) : system"));
    handler_verdict = nullptr;
    EXPECT_EQ(read(rows[0], 2, { set_mtu }), 0);
    EXPECT_EQ(rows[0].flags & TCONFD_SUB_FAILED, 0);
    agent().results["cdb_get_modifications"] = CONFD_EOF;
    EXPECT_EQ(read(rows[0], 2, { set_mtu }), -1);
    EXPECT_TRUE(log_has("Failed to get modifications(cfgmgr - -2) : system :scripted (18) : as scripted"));
}

} // namespace
