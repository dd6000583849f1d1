// Validators of BGP where commits do not come: a device without VPNs yet, an agent that does not answer.
#include "cfgmgr/network/cfgmgr_validate.h"
#include "tests/unit/cfgmgr_config_if_env.h"

namespace
{

constexpr int REFUSED = -1;

class validate_bgp : public config_if_env
{
protected:
    validate_bgp()
    {
        dx.d_opaque = &ctx;
        tctx.dx = &dx;
        daemon.tconfd_ctx_p = &ctx;
    }
    int ask(cfgmgr_validator_t *validate, const std::vector<fake_step_t> &steps, confd_value_t value)
    {
        confd_hkeypath_t path = keypath(steps);
        agent().calls.clear();
        int result = validate(&tctx, &path, &value);
        EXPECT_EQ(tctx.t_opaque, nullptr) << "the next validator finds the transaction as this one did";
        return result;
    }
    int ask_neighbor(const confd_value_t &address)
    {
        return ask(cfgmgr_validate_bgp_neighbor,
                   { "vpn", "vpn-instance", fake_step_t({ u64(5) }), "router", "bgp", fake_step_t({ buf("1.10") }),
                     "neighbor", fake_step_t({ address }), "address" },
                   address);
    }
    // What the operator is told.
    static std::vector<std::string> texts() { return agent().calls_of("confd_trans_seterr"); }
    static std::vector<std::string> told(const std::string &text) { return { "confd_trans_seterr " + text }; }

    confd_daemon_ctx dx{};
    confd_trans_ctx tctx{};
};

TEST_F(validate_bgp, needs_vpn_0_for_an_expression)
{
    cfgmgr_vpn_deinit(&daemon);
    EXPECT_EQ(ask(cfgmgr_validate_aspath, { "policy", "lists" }, buf("_1_")), REFUSED);
    EXPECT_EQ(texts(), told("Default bgp context not present"));
    EXPECT_EQ(ask(cfgmgr_validate_aspath, { "policy", "lists" }, nothing()), 0) << "what goes is not asked about";
}

TEST_F(validate_bgp, tells_what_it_cannot_read)
{
    constexpr char LIST[] = "/vpn/vpn-instance{5}/interface";
    const std::string address = std::string(LIST) + "{ge0/1}/ip/address";
    agent().entries[LIST] = { { buf("ge0/0") }, { buf("ge0/1") } };
    EXPECT_EQ(ask_neighbor(ipv4("10.0.0.1")), 0) << "interfaces without an address";
    agent().leaves[address] = buf("10.0.0.1/24");
    EXPECT_EQ(ask_neighbor(ipv4("10.0.0.2")), 0);
    agent().results["get " + address] = CONFD_ERR;
    EXPECT_EQ(ask_neighbor(ipv4("10.0.0.1")), REFUSED);
    EXPECT_EQ(texts(), told("Failed to get address element  confd_str scripted (18) as scripted"));
    agent().results["walk " + std::string(LIST)] = CONFD_ERR;
    EXPECT_EQ(ask_neighbor(ipv4("10.0.0.1")), REFUSED);
    EXPECT_EQ(texts(), told("Failed to initialise maapi cursor  confd_str scripted (18) as scripted"));
}

} // namespace
