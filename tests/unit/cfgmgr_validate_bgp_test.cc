// Validators of BGP where commits seldom come: a device without bgpd, a bgpd that is gone, an agent that does not answer.
#include "cfgmgr/network/cfgmgr_validate.h"
#include "tests/unit/cfgmgr_config_if_env.h"
#include "tests/unit/cfgmgr_quagga_env.h"

namespace
{

constexpr int REFUSED = -1;
constexpr uint8_t BGP_MODULE = 1;

// A transaction that asks.
struct asking_t {
    explicit asking_t(cfgmgrd_t *cfgmgrd_p)
    {
        ctx.reg.app_ctx = cfgmgrd_p;
        dx.d_opaque = &ctx;
        tctx.dx = &dx;
        cfgmgrd_p->tconfd_ctx_p = &ctx;
    }
    asking_t(const asking_t &) = delete;
    asking_t &operator=(const asking_t &) = delete;

    int ask(cfgmgr_validator_t *validate, const std::vector<fake_step_t> &steps, confd_value_t value)
    {
        confd_hkeypath_t path = keypath(steps);
        agent().calls.clear();
        int result = validate(&tctx, &path, &value);
        EXPECT_EQ(tctx.t_opaque, nullptr) << "the next validator finds the transaction as this one did";
        return result;
    }
    int ask_path(const confd_value_t &value) { return ask(cfgmgr_validate_aspath, { "policy", "lists" }, value); }

    tconfd_ctx ctx{};
    confd_daemon_ctx dx{};
    confd_trans_ctx tctx{};
};

// What the operator is told.
std::vector<std::string> texts()
{
    return agent().calls_of("confd_trans_seterr");
}
std::vector<std::string> told(const std::string &text)
{
    return { "confd_trans_seterr " + text };
}

class validate_as_path : public cfgmgr_quagga_env
{
protected:
    void start_vpns()
    {
        device().has_routing = false;
        ASSERT_EQ(cfgmgr_vpn_init(&daemon), 0);
        device().has_routing = true;
    }
    asking_t asking{ &daemon };
};

TEST_F(validate_as_path, asks_the_bgpd_of_vpn_0)
{
    EXPECT_EQ(asking.ask_path(buf("_1_")), REFUSED);
    EXPECT_EQ(texts(), told("Default bgp context not present"));
    start_vpns();
    EXPECT_EQ(asking.ask_path(buf("[")), 0) << "a device without bgpd has no opinion";

    uint32_t code = 1;
    scripted_daemon_t peer(run_path("bgpd_protobuf_mgmt.api"), [&](const std::string &) {
        return quagga_frame(BGP_MODULE, BGP_VALIDATE_RESPONSE, response(code, "Unmatched ["));
    });
    ASSERT_EQ(cfgmgr_vpn_add_quagga_daemon(DAEMON_ID_BGPD, cfgmgr_vpn_find(&daemon, 0, nullptr)), 0);
    EXPECT_EQ(asking.ask_path(buf("[")), REFUSED);
    EXPECT_EQ(texts(), told("Unmatched ["));
    EXPECT_NE(peer.frames().at(0).find("\x12\x01["), std::string::npos) << "the expression is the second field";
    code = 0;
    EXPECT_EQ(asking.ask_path(buf("_1_")), 0);
    EXPECT_EQ(asking.ask_path(nothing()), 0) << "what goes is not asked about";
    EXPECT_EQ(peer.frames().size(), 2u);

    peer.hang_up();
    for (int round = 0; round < 2; round++) {
        EXPECT_EQ(asking.ask_path(buf("_1_")), REFUSED);
        EXPECT_EQ(texts(), std::vector<std::string>{}) << "nobody knows why";
    }
}

class validate_bgp_neighbor : public config_if_env
{
protected:
    int ask_neighbor(const confd_value_t &address)
    {
        return asking.ask(cfgmgr_validate_bgp_neighbor,
                          { "vpn", "vpn-instance", fake_step_t({ u64(5) }), "router", "bgp",
                            fake_step_t({ buf("1.10") }), "neighbor", fake_step_t({ address }), "address" },
                          address);
    }
    asking_t asking{ &daemon };
};

TEST_F(validate_bgp_neighbor, tells_what_it_cannot_read)
{
    constexpr char LIST[] = "/vpn/vpn-instance{5}/interface";
    const std::string address = std::string(LIST) + "{ge0/1}/ip/address";
    agent().entries[LIST] = { { buf("ge0/0") }, { buf("ge0/1") } };
    EXPECT_EQ(ask_neighbor(ipv4("10.0.0.1")), 0) << "interfaces without an address";
    agent().leaves[address] = buf("10.0.0.1/24");
    EXPECT_EQ(ask_neighbor(ipv4("10.0.0.1")), REFUSED);
    EXPECT_EQ(texts(), told("Interface ge0/1 with address 10.0.0.1/24 & BGP neighbor address 10.0.0.1 cannot be same"));
    EXPECT_EQ(ask_neighbor(ipv4("10.0.0.2")), 0);
    agent().results["get " + address] = CONFD_ERR;
    EXPECT_EQ(ask_neighbor(ipv4("10.0.0.1")), REFUSED);
    EXPECT_EQ(texts(), told("Failed to get address element  confd_str scripted (18) as scripted"));
    agent().results["walk " + std::string(LIST)] = CONFD_ERR;
    EXPECT_EQ(ask_neighbor(ipv4("10.0.0.1")), REFUSED);
    EXPECT_EQ(texts(), told("Failed to initialise maapi cursor  confd_str scripted (18) as scripted"));
}

} // namespace
