// Writers of operational data: what they log, and the order of those that nobody waits for.
#include "tconfd/tconfd_util.h"
#include "tests/unit/tconfd_env.h"

namespace
{

using names_t = std::vector<std::string>;

class tconfd_writer : public tconfd_env
{
protected:
    ~tconfd_writer() override { wait_for_writes(); }

    // Until the last thread has ended; it is joinable as long as no other write follows.
    void wait_for_writes()
    {
        if (ctx.oper_thread != 0)
            pthread_join(ctx.oper_thread, nullptr);
        ctx.oper_thread = 0;
    }
};

TEST_F(tconfd_writer, each_operation_reaches_the_datastore_under_its_formatted_path)
{
    confd_value_t value = u32(9);
    EXPECT_EQ(tconfd_vset_cdb_oper_value(&ctx, &value, TCONFD_OPER_SET, 1, "/a{%d}/%s", 4, "b"), 0);
    EXPECT_EQ(CONFD_GET_UINT32(&agent().leaves["/a{4}/b"]), 9u);
    EXPECT_TRUE(agent().has_called("cdb_start_session2 3 5"));
    EXPECT_EQ(tconfd_vset_cdb_oper_value(&ctx, nullptr, TCONFD_OPER_CREATE, 0, "/c"), 0);
    EXPECT_TRUE(agent().has_called("cdb_start_session2 3 0"));
    EXPECT_EQ(tconfd_vset_cdb_oper_value(&ctx, nullptr, TCONFD_OPER_DELETE, 0, "/c"), 0);
    EXPECT_EQ(agent().leaves.count("/c"), 0u);
    EXPECT_EQ(tconfd_vset_cdb_oper_value(&ctx, &value, 4, 0, "/d"), 0) << "an unknown operation writes nothing";
    EXPECT_EQ(agent().leaves.count("/d"), 0u);
    EXPECT_EQ(agent().count("cdb_end_session"), 4);
    EXPECT_EQ(agent().open_connections(), 0);
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(tconfd_writer, what_is_there_already_or_not_there_is_told_but_not_logged)
{
    EXPECT_EQ(tconfd_vset_cdb_oper_value(&ctx, nullptr, TCONFD_OPER_CREATE, 0, "/a"), 0);
    EXPECT_EQ(tconfd_vset_cdb_oper_value(&ctx, nullptr, TCONFD_OPER_CREATE, 0, "/a"), CONFD_ERR_ALREADY_EXISTS);
    EXPECT_EQ(tconfd_vset_cdb_oper_value(&ctx, nullptr, TCONFD_OPER_DELETE, 0, "/b"), CONFD_ERR_NOEXISTS);
    EXPECT_TRUE(log_lines().empty());
}

struct failure_case_t {
    int op;
    const char *function;
    int error;
    const char *text;
};
constexpr failure_case_t failures[] = {
    { TCONFD_OPER_CREATE, "cdb_create", CONFD_ERR_NOEXISTS, "Failed to create elem scripted (1) : as scripted" },
    { TCONFD_OPER_SET, "cdb_set_elem", CONFD_ERR_BADPATH, "Failed to set elem scripted (8) : as scripted" },
    { TCONFD_OPER_DELETE, "cdb_delete", CONFD_ERR_ALREADY_EXISTS, "Failed to delete elem scripted (2) : as scripted" },
    { TCONFD_OPER_SET, "cdb_connect", CONFD_ERR_OS, "Cannot connect to CDB (-1)scripted (15) : as scripted" },
};

TEST_F(tconfd_writer, other_failures_are_logged_once_and_their_number_given)
{
    for (const failure_case_t &row : failures) {
        log_clear();
        agent().results = { { row.function, CONFD_ERR } };
        agent().error = row.error;
        confd_value_t value = u32(1);
        EXPECT_EQ(tconfd_vset_cdb_oper_value(&ctx, &value, row.op, 0, "/x"), row.error);
        EXPECT_EQ(log_lines().size(), 1u);
        EXPECT_TRUE(log_has(row.text)) << row.text;
    }
}

TEST_F(tconfd_writer, later_writes_keep_the_order_of_the_calls_when_early_ones_are_slow)
{
    agent().on_write = [](const std::string &path) {
        int number = atoi(path.c_str() + 2);
        std::this_thread::sleep_for(std::chrono::milliseconds(number < 5 ? 20 - 4 * number : 0));
    };
    names_t expected;
    for (int i = 0; i < 20; i++) {
        std::string path = "/w" + std::to_string(i);
        EXPECT_EQ(tconfd_set_cdb_oper_value(&ctx, nullptr, path.c_str(), TCONFD_OPER_CREATE, 0), 0);
        expected.push_back("cdb_create " + path);
    }
    wait_for_writes();
    EXPECT_EQ(agent().calls_of("cdb_create"), expected);
}

TEST_F(tconfd_writer, a_thousand_writes_may_be_under_way)
{
    tconfd_debug_disable();
    std::mutex gate;
    gate.lock();
    agent().on_write = [&](const std::string &) {
        std::lock_guard through(gate);
    };
    constexpr uint32_t COUNT = 1000;
    for (uint32_t i = 1; i <= COUNT; i++) {
        confd_value_t value = u32(i);
        ASSERT_EQ(tconfd_set_cdb_oper_value(&ctx, &value, "/counter", TCONFD_OPER_SET, 0), 0) << i;
    }
    gate.unlock();
    wait_for_writes();
    EXPECT_EQ(agent().count("cdb_set_elem"), static_cast<int>(COUNT));
    EXPECT_EQ(CONFD_GET_UINT32(&agent().leaves["/counter"]), COUNT);
}

TEST_F(tconfd_writer, a_later_write_keeps_a_text_of_its_own)
{
    std::mutex gate;
    gate.lock();
    agent().on_write = [&](const std::string &) {
        std::lock_guard through(gate);
    };
    {
        std::string text = "of the caller";
        confd_value_t value = buf(text.c_str());
        EXPECT_EQ(tconfd_set_cdb_oper_value(&ctx, &value, "/text", TCONFD_OPER_SET, 0), 0);
        text.assign(text.size(), 'x');
    }
    gate.unlock();
    wait_for_writes();
    EXPECT_EQ(agent().calls_of("cdb_set_elem"), names_t{ "cdb_set_elem /text of the caller" });
}

TEST_F(tconfd_writer, a_later_write_that_fails_says_so_with_its_path_and_normal_cases_stay_silent)
{
    agent().results["cdb_set_elem"] = CONFD_ERR;
    agent().error = CONFD_ERR_BADPATH;
    confd_value_t value = u32(1);
    EXPECT_EQ(tconfd_set_cdb_oper_value(&ctx, &value, "/bad", TCONFD_OPER_SET, 1), 0);
    wait_for_writes();
    EXPECT_TRUE(log_has("Failed to do operation 2 for /bad with type 8"));
    log_clear();
    EXPECT_EQ(tconfd_set_cdb_oper_value(&ctx, nullptr, "/not-there", TCONFD_OPER_DELETE, 0), 0);
    wait_for_writes();
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(tconfd_writer, numbers_are_read_through_the_context_in_a_session_that_always_ends)
{
    confd_value_t value{};
    CONFD_SET_INT32(&value, -5);
    agent().leaves["/n"] = value;
    int32_t number = 0;
    EXPECT_EQ(tconfd_get_cdb_int32_value(&ctx, &number, "/n", 1), 0);
    EXPECT_EQ(number, -5);
    EXPECT_TRUE(agent().has_called("cdb_start_session2 3 5"));
    EXPECT_EQ(tconfd_get_cdb_int32_value(&ctx, &number, "/missing", 0), 1);
    EXPECT_TRUE(log_has("Failed to get operational value for element /missing : scripted (1) : as scripted"));
    EXPECT_EQ(agent().count("cdb_end_session"), 2);
}

TEST_F(tconfd_writer, labels_have_their_leaves)
{
    EXPECT_EQ(tconfd_get_vpn_label(&ctx, 7), -1);
    EXPECT_EQ(tconfd_set_vpn_label(&ctx, 7, 100), 0);
    EXPECT_EQ(tconfd_get_vpn_label(&ctx, 7), 100);
    EXPECT_EQ(agent().leaves["/vpn/vpn-instance{7}/label"].type, C_UINT32);
    EXPECT_EQ(tconfd_set_service_label(&ctx, UINT64_MAX, "FW", 32767), 0);
    EXPECT_EQ(tconfd_get_service_label(&ctx, UINT64_MAX, "FW"), 32767);
    EXPECT_EQ(agent().leaves.count("/vpn/vpn-instance{18446744073709551615}/service{FW}/label"), 1u);
    agent().results["cdb_set_elem"] = CONFD_ERR;
    EXPECT_EQ(tconfd_set_vpn_label(&ctx, 7, 1), -1);
    EXPECT_TRUE(log_has("Failed to set VPN label value in CDB"));
}

} // namespace
