// Route policies and their lists: who is sent a change, what the messages hold where real commits hardly get (the rest is looked at through commits), and how a
// VPN that comes late gets the policies that are there.
#include "cfgmgr/daemon/cfgmgr_confd.h"
#include "cfgmgr/network/cfgmgr_config_vpn.h"
#include "cfgmgr/routing/cfgmgr_config_policy.h"
#include "common/timer.h"
#include "tests/harness/death.h"
#include "tests/unit/cfgmgr_env.h"
#include "yang/corvane-policy.h"

#include <arpa/inet.h>
#include <chrono>
#include <thread>

namespace
{

using names_t = std::vector<std::string>;
using changes_t = std::vector<confd_tag_value_t>;

confd_value_t u8(uint8_t number)
{
    confd_value_t v{};
    CONFD_SET_UINT8(&v, number);
    return v;
}

confd_value_t u16(uint16_t number)
{
    confd_value_t v{};
    CONFD_SET_UINT16(&v, number);
    return v;
}

confd_value_t choice(int32_t number)
{
    confd_value_t v{};
    CONFD_SET_ENUM_VALUE(&v, number);
    return v;
}

confd_value_t network(const char *address, uint8_t length)
{
    confd_value_t v{};
    v.type = C_IPV4PREFIX;
    inet_pton(AF_INET, address, &v.val.ipv4prefix.ip);
    v.val.ipv4prefix.len = length;
    return v;
}

confd_value_t address(const char *text)
{
    confd_value_t v{};
    v.type = strchr(text, ':') != nullptr ? C_IPV6 : C_IPV4;
    inet_pton(v.type == C_IPV4 ? AF_INET : AF_INET6, text, &v.val);
    return v;
}

confd_tag_value_t leaf(uint32_t tag, const confd_value_t &value)
{
    return { { tag, policy__ns }, value };
}

confd_tag_value_t bracket(uint32_t tag, confd_vtype type)
{
    confd_value_t v{};
    v.type = type;
    return leaf(tag, v);
}

// Handlers at work on a device with VPNs 0 and 5, which have all policies.
class policy_env : public cfgmgr_env
{
protected:
    policy_env()
    {
        EXPECT_EQ(cfgmgr_vpn_init(&daemon), 0);
        EXPECT_EQ(cfgmgr_vpn_find_or_create(&daemon, 5, 0), 0);
        daemon.tconfd_ctx_p = &ctx;
        ctx.reg.app_ctx = &daemon;
        ctx.initial_read_done = 1;
        row.ctx = &ctx;
        cfgmgr_policies_replayed(&daemon);
        log_clear();
    }

    // What the daemons are told of a change: "DAEMON TYPE VPN {FIELDS}".
    names_t change(tconfd_handler_t handler, int op, std::vector<confd_value_t> keys, changes_t changes = {})
    {
        device().messages.clear();
        EXPECT_EQ(handler(&row, op, static_cast<uint8_t>(keys.size()), keys.data(),
                          static_cast<uint16_t>(changes.size()), op == MOP_DELETED ? nullptr : changes.data()),
                  0);
        return device().messages;
    }
    // The fields that the first of them is told.
    std::string fields(tconfd_handler_t handler, int op, std::vector<confd_value_t> keys, changes_t changes = {})
    {
        names_t told = change(handler, op, std::move(keys), std::move(changes));
        return told.empty() ? "nothing" : told[0].substr(told[0].find('{'));
    }
    bool is_synced(uint64_t vpn_id) { return cfgmgr_vpn_find(&daemon, vpn_id, nullptr)->policy_synced != 0; }

    tconfd_ctx ctx{};
    tconfd_sub row{};
};

// ---- who is told

struct audience_case_t {
    const char *name;
    uint32_t is_read;
    uint8_t in_progress;
    const char *vpns; // of 0, which is in step, and 5, which is not
};
const audience_case_t audience_cases[] = {
    { "initial read", 0, TCONFD_SUB_IN_PROGRESS, "0 5 " },
    { "commit during the initial read", 0, 0, "0 5 " },
    { "commit", 1, 0, "0 " },
    { "replay", 1, TCONFD_SUB_IN_PROGRESS, "5 " },
};

TEST_F(policy_env, commits_reach_the_vpns_in_step_and_replays_the_others)
{
    cfgmgr_vpn_find(&daemon, 5, nullptr)->policy_synced = 0;
    for (const audience_case_t &c : audience_cases) {
        ctx.initial_read_done = c.is_read;
        row.state = c.in_progress;
        std::string told;
        for (const std::string &message : change(cfgmgr_config_as_path_list, MOP_DELETED, { buf("a") }))
            told += message.substr(5, 2);
        EXPECT_EQ(told, c.vpns) << c.name;
    }
}

TEST_F(policy_env, members_are_logged)
{
    change(cfgmgr_config_as_path_list_exp, MOP_CREATED, { buf("a"), buf("^1_") }, { leaf(policy_as_path, buf("^1_")) });
    EXPECT_TRUE(log_has("AS Path list exp Config - Name:a, Regex:^1_, Oper:1, num:1"));
}

// ---- bounds of a network

struct bounds_case_t {
    const char *name;
    changes_t changes;
    const char *fields; // behind the keys
};
const bounds_case_t bounds_cases[] = {
    { "ge for le", { leaf(policy_ge, u8(0)), leaf(policy_le, nothing()) }, R"(,"le_is_deleted":true,"ge":0)" },
    { "eq before a bound", { leaf(policy_eq, u8(24)), leaf(policy_ge, u8(20)) }, R"(,"le":24,"ge":24)" },
    { "eq behind both",
      { leaf(policy_le, u8(30)), leaf(policy_ge, u8(20)), leaf(policy_eq, u8(0)) },
      R"(,"le":0,"ge":0)" },
    { "eq for a bound", { leaf(policy_ge, nothing()), leaf(policy_eq, u8(24)) }, R"(,"le":24,"ge":24)" },
    { "le for eq", { leaf(policy_le, u8(30)), leaf(policy_eq, nothing()) }, R"(,"le":30,"ge_is_deleted":true)" },
    { "both for eq",
      { leaf(policy_le, u8(30)), leaf(policy_ge, u8(20)), leaf(policy_eq, nothing()) },
      R"(,"le":30,"ge":20)" },
};

TEST_F(policy_env, one_length_is_a_range_of_it_and_stands_above_bounds)
{
    for (const bounds_case_t &c : bounds_cases)
        EXPECT_EQ(
            fields(cfgmgr_config_prefix_list_prefix, MOP_MODIFIED, { buf("a"), network("10.0.0.0", 8) }, c.changes),
            R"({"name":"a","prefix":{"is_ipv4":true,"prefix":"10.0.0.0/8"})" + std::string(c.fields) + "}")
            << c.name;
}

TEST_F(policy_env, an_unknown_default_action_accepts)
{
    EXPECT_EQ(fields(cfgmgr_config_route_map, MOP_MODIFIED, { buf("a") }, { leaf(policy_default_action, choice(7)) }),
              R"({"name":"a","sequence":65535,"action_type":0})");
}

// ---- clauses

class policy_clause : public policy_env
{
protected:
    std::string fields_of(changes_t changes)
    {
        std::string told = fields(cfgmgr_config_route_map_seq, MOP_MODIFIED, { buf("a"), u16(10) }, std::move(changes));
        std::string keys = R"({"name":"a","sequence":10)";
        EXPECT_EQ(told.substr(0, keys.size()), keys);
        return told.substr(keys.size());
    }
};

TEST_F(policy_clause, leaves_go_by_the_brackets_and_those_of_one_meaning_are_read_wherever_they_stand)
{
    const confd_tag_value_t set = bracket(policy_set, C_XMLBEGIN), set_end = bracket(policy_set, C_XMLEND);
    EXPECT_EQ(fields_of({ leaf(policy_metric, u32(1)), set, leaf(policy_metric, u32(2)), set_end,
                          leaf(policy_origin, choice(1)), set, leaf(policy_origin, choice(2)), set_end }),
              R"(,"metric":1,"origin":1,"set_metric":2,"set_origin":2})");
    EXPECT_EQ(fields_of({ set, leaf(policy_peer, address("10.0.0.1")), leaf(policy_address, buf("list")),
                          leaf(policy_base_action, choice(1)), set_end, leaf(policy_weight, nothing()) }),
              R"(,"action_type":1,"address":"list","peer":{"is_ipv4":true,"address":"10.0.0.1"})"
              R"(,"set_weight_is_deleted":true})");
    EXPECT_EQ(fields_of({ set, leaf(policy_as_path, buf("list")), set_end }), "}");
}

TEST_F(policy_clause, either_half_of_an_aggregator_takes_it_away_though_the_other_comes)
{
    EXPECT_EQ(fields_of({ leaf(policy_aggregator_address, nothing()), leaf(policy_aggregator_as, u32(65000)) }),
              R"(,"set_aggr_as_num":65000,"set_aggregator_is_deleted":true})");
}

TEST_F(policy_clause, texts_are_cut_or_left_out_at_127_bytes)
{
    std::vector<confd_value_t> texts(16, buf("65535:65535"));
    confd_value_t list{};
    list.type = C_LIST;
    list.val.list = { texts.data(), static_cast<unsigned>(texts.size()) };
    std::string joined;
    for (size_t i = 0; i < texts.size(); i++)
        joined += (i == 0 ? "" : " ") + std::string("65535:65535");
    const confd_tag_value_t set = bracket(policy_set, C_XMLBEGIN);
    EXPECT_EQ(fields_of({ set, leaf(policy_community, list) }),
              R"(,"set_community":")" + joined.substr(0, 127) + "\"}");
    EXPECT_EQ(
        fields_of({ set, leaf(policy_as_path_prepend, buf("65000.1")), leaf(policy_as_path_exclude, buf("1 2")) }),
        R"(,"set_as_path_exclude":"1 2 ","set_as_path_prepend":"4259840001 "})");
    std::string paths;
    for (int i = 0; i < 12; i++)
        paths += "65000.1 "; // 132 bytes as plain numbers
    EXPECT_EQ(fields_of({ set, leaf(policy_as_path_prepend, buf(paths.c_str())), leaf(policy_weight, u32(1)),
                          leaf(policy_as_path_exclude, buf(paths.c_str())) }),
              R"(,"set_weight":1})");
    EXPECT_TRUE(log_has("invalid as-path prepend string"));
    EXPECT_TRUE(log_has("invalid as-path exclude string"));
}

TEST_F(policy_clause, enumerations_that_the_daemons_lack_are_logged)
{
    struct map_case_t {
        uint32_t (*map)(uint32_t);
        uint32_t last;
        const char *line;
    };
    const map_case_t maps[] = { { cfgmgr_config_pol_action_to_quagga_pb, 1, "Unknown action 2" },
                                { cfgmgr_config_pol_bgp_origin_to_quagga_pb, 2, "Unknown origin 3" },
                                { cfgmgr_config_pol_metric_to_quagga_pb, 1, "Unknown metric type 2" } };
    for (const map_case_t &c : maps) {
        for (uint32_t value = 0; value <= c.last; value++)
            EXPECT_EQ(c.map(value), value);
        EXPECT_FALSE(log_has("Unknown"));
        EXPECT_EQ(c.map(c.last + 1), 0u);
        EXPECT_TRUE(log_has(c.line));
        log_clear();
    }
}

TEST_F(policy_clause, types_that_the_model_does_not_allow_end_the_process)
{
    expect_assertion([&] { fields_of({ leaf(policy_metric, u8(1)) }); }, "(&cur_val_p->v)->type == C_UINT32");
    expect_assertion([&] { fields_of({ leaf(policy_next_hop, address("10.0.0.1")) }); }, "failed assertion");
    expect_assertion(
        [&] {
            change(cfgmgr_config_route_map_seq, MOP_DELETED, { buf("a"), u32(10) });
        },
        "failed assertion");
    expect_assertion(
        [&] {
            change(cfgmgr_config_prefix_list_prefix, MOP_DELETED, { buf("a"), buf("10.0.0.0/8") });
        },
        "failed assertion");
}

// ---- a VPN that comes late

const char *const paths[] = { "system",
                              "policy/route-policy",
                              "policy/route-policy/sequence",
                              "policy/lists/prefix-list",
                              "policy/lists/prefix-list/ip-prefix",
                              "policy/lists/as-path-list/as-path",
                              "policy/lists/community-list",
                              "policy/lists/community-list/community",
                              "policy/lists/ext-community-list/community" };
const char REPLAY[] = "cdb_trigger_subscriptions 102 103 105 106 108 109";

class late_vpn : public policy_env
{
protected:
    late_vpn()
    {
        for (const char *path : paths) {
            tconfd_sub &sub = rows.emplace_back();
            (void)snprintf(sub.path, sizeof sub.path, "%s", path);
            sub.add_subid = 100 + static_cast<uint32_t>(rows.size());
        }
        rows.emplace_back();
        ctx.reg.subs = rows.data();
        daemon.timer_mgr_p = timer_mgr_create(TIMER_RES_1SEC, nullptr, nullptr, nullptr, TIMER_MASK_ALL);
        daemon.policy_timer_p =
            timer_util_create(daemon.timer_mgr_p, TIMER_PRIO_NORMAL, TIMER_CYCLIC, POLICY_RETRY_MS,
                              cfgmgr_policy_timer_cb, &daemon, nullptr, nullptr, nullptr, "cfgmgr-policy");
    }
    ~late_vpn() override
    {
        cfgmgr_vpn_deinit(&daemon);
        timer_util_delete(daemon.policy_timer_p);
        timer_mgr_delete(daemon.timer_mgr_p);
        daemon.timer_mgr_p = nullptr;
    }

    void set_counts(const std::vector<int> &counts)
    {
        const char *const lists[] = { "lists/prefix-list", "lists/as-path-list", "lists/community-list",
                                      "lists/ext-community-list", "route-policy" };
        for (size_t i = 0; i < counts.size(); i++)
            agent().instances[std::string("/policy/") + lists[i]] = counts[i];
    }
    // What was read again since the last call.
    names_t replays()
    {
        for (int tries = 0; __atomic_load_n(&ctx.live_threads, __ATOMIC_ACQUIRE) != 0 && tries < 5000; tries++)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        EXPECT_EQ(agent().open_connections(), 0);
        names_t seen = agent().calls_of("cdb_trigger_subscriptions");
        agent().calls.clear();
        return seen;
    }
    names_t create(uint64_t vpn_id = 9)
    {
        confd_value_t key = u64(vpn_id);
        EXPECT_EQ(cfgmgr_config_vpn(&row, MOP_CREATED, 1, &key, 0, nullptr), 0);
        return replays();
    }
    names_t wait()
    {
        cfgmgr_policy_timer_cb(daemon.policy_timer_p, &daemon, nullptr, nullptr, nullptr);
        return replays();
    }
    bool is_waiting() { return timer_is_running(daemon.policy_timer_p); }

    std::vector<tconfd_sub> rows;
};

TEST_F(late_vpn, in_the_initial_read_gets_what_that_brings)
{
    set_counts({ 1, 1, 1, 1, 1 });
    ctx.initial_read_done = 0;
    row.state = TCONFD_SUB_IN_PROGRESS;
    EXPECT_EQ(create(), names_t{});
    EXPECT_TRUE(is_synced(9));
    EXPECT_FALSE(agent().has_called("cdb_cd"));
}

TEST_F(late_vpn, without_policies_has_nothing_to_wait_for)
{
    set_counts({ 0, 0, 0, 0, 0 });
    confd_value_t key = u64(9);
    EXPECT_EQ(cfgmgr_config_vpn(&row, MOP_CREATED, 1, &key, 0, nullptr), 0);
    EXPECT_TRUE(agent().has_called("cdb_start_session2 " + std::to_string(CDB_RUNNING)));
    EXPECT_EQ(replays(), names_t{});
    EXPECT_TRUE(is_synced(9));
    EXPECT_FALSE(is_waiting());
}

TEST_F(late_vpn, waits_for_a_replay_of_all_kinds_when_there_is_one)
{
    for (size_t kind = 0; kind < 5; kind++) {
        std::vector<int> counts(5, 0);
        counts[kind] = 2;
        set_counts(counts);
        EXPECT_EQ(create(9 + kind), names_t{ REPLAY }) << kind;
        EXPECT_FALSE(is_synced(9 + kind));
        EXPECT_TRUE(is_waiting());
    }
    cfgmgr_sync_cb(&ctx, 0);
    EXPECT_FALSE(is_synced(9)) << "an ordinary commit";
    cfgmgr_sync_cb(&ctx, CDB_SUB_FLAG_TRIGGER);
    EXPECT_TRUE(is_synced(9) && is_synced(13)) << "one replay is for all";
    EXPECT_FALSE(is_waiting());
}

TEST_F(late_vpn, waits_when_the_agent_cannot_tell_whether_there_are_policies)
{
    set_counts({ 0, -1, 0, 0, 0 });
    EXPECT_EQ(create(9), names_t{ REPLAY });
    agent().instances.clear();
    EXPECT_EQ(create(10), names_t{ REPLAY });
    EXPECT_EQ(log_count("Failed to count the policies"), 2);
    EXPECT_FALSE(is_synced(9) || is_synced(10));
}

TEST_F(late_vpn, is_not_forgotten_when_a_replay_fails)
{
    set_counts({ 1, 0, 0, 0, 0 });
    agent().results["cdb_trigger_subscriptions"] = CONFD_ERR;
    EXPECT_EQ(create(), names_t{ REPLAY });
    agent().results.clear();
    ctx.live_threads = 1;
    cfgmgr_policy_timer_cb(daemon.policy_timer_p, &daemon, nullptr, nullptr, nullptr);
    ctx.live_threads = 0;
    EXPECT_EQ(replays(), names_t{}) << "one is under way";
    EXPECT_EQ(wait(), names_t{ REPLAY });
    EXPECT_TRUE(log_has("VPN 9 still waits for policies, reading them again"));
    EXPECT_TRUE(is_waiting());
}

TEST_F(late_vpn, that_is_deleted_is_not_waited_for)
{
    set_counts({ 1, 0, 0, 0, 0 });
    create();
    cfgmgr_vpn_delete_by_id(&daemon, 9);
    EXPECT_EQ(wait(), names_t{});
    EXPECT_FALSE(is_waiting());
}

TEST_F(late_vpn, that_comes_between_the_policies_and_the_end_of_the_initial_read_waits_for_a_replay)
{
    set_counts({ 0, 0, 0, 0, 1 });
    ctx.initial_read_done = 0;
    EXPECT_EQ(create(), names_t{});
    EXPECT_EQ(wait(), names_t{});
    // What it were told now, the replay would not take back.
    EXPECT_EQ(change(cfgmgr_config_as_path_list, MOP_DELETED, { buf("a") }).size(), 2U); // VPNs 0 and 5
    cfgmgr_sync_cb(&ctx, CDB_SUB_FLAG_TRIGGER); // operational data of the initial read
    EXPECT_FALSE(is_synced(9));
    ctx.initial_read_done = 1;
    EXPECT_EQ(wait(), names_t{ REPLAY });
    cfgmgr_sync_cb(&ctx, CDB_SUB_FLAG_TRIGGER);
    EXPECT_TRUE(is_synced(9));
}

TEST_F(late_vpn, that_the_initial_read_has_left_without_policies_gets_them)
{
    ctx.initial_read_done = 0;
    create();
    cfgmgr_vpn_find(&daemon, 0, nullptr)->policy_synced = 0;
    timer_disable(daemon.policy_timer_p);
    cfgmgr_sync_cb(&ctx, 0);
    EXPECT_FALSE(is_waiting()) << "it still goes on";
    ctx.initial_read_done = 1;
    cfgmgr_sync_cb(&ctx, 0);
    EXPECT_TRUE(is_waiting());
    EXPECT_EQ(wait(), names_t{ REPLAY });
}

TEST_F(late_vpn, that_is_taken_back_is_not_asked_for)
{
    set_counts({ 1, 1, 1, 1, 1 });
    agent().on_write = [](const std::string &path) {
        if (path == "/vpn/vpn-instance{9}/vrf-id")
            agent().results["cdb_set_elem"] = CONFD_ERR;
    };
    confd_value_t key = u64(9);
    EXPECT_EQ(cfgmgr_config_vpn(&row, MOP_CREATED, 1, &key, 0, nullptr), 16);
    EXPECT_EQ(vpns(), (std::vector<uint64_t>{ 0, 5 }));
    EXPECT_FALSE(agent().has_called("cdb_cd"));
}

} // namespace
