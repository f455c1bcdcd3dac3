// The module-wide switches set by single TLVs: the anycast gateway MAC and
// the five on/off switches with their log lines.
#include "module_fixture.h"

namespace {

class GlobalSwitchesTest : public vxtest::ModuleTest {
protected:
    void start_logging()
    {
        start();
        deliver_tlvs({vxtest::ef_dbg(VXLAN_EF_DBG_EVENT | VXLAN_EF_DBG_ERR)});
        take_logs();
    }
    // The handlers' own lines, without the dispatcher's.
    static std::vector<std::string> handler_logs()
    {
        std::vector<std::string> out;
        for (const auto &l : logs())
            if ((l.find("_deal]") != std::string::npos && l.find("vxlan_ef_msg_deal]") == std::string::npos) ||
                l.find("vxlan_ef_anycast_mac]") != std::string::npos)
                out.push_back(l);
        return out;
    }
};

using Lines = std::vector<std::string>;

struct SwitchCase {
    uint16_t type;
    const char *func;
    const char *words;
    uint8_t vxlan_ef_vsd_t::*field;
    bool stores_only_changes;
};

constexpr SwitchCase kSwitches[] = {
    {28, "vxlan_ef_arp_suppress_deal", "vxlan arp suppress", &vxlan_ef_vsd_t::arp_suppress, false},
    {67, "vxlan_ef_remote_arp_learn_deal", "vxlan remote arp learn", &vxlan_ef_vsd_t::remote_arp_learn, true},
    {87, "vxlan_ef_nd_suppress_deal", "vxlan nd suppress", &vxlan_ef_vsd_t::nd_suppress, false},
    {86, "vxlan_ef_remote_nd_learn_deal", "vxlan remote nd learn", &vxlan_ef_vsd_t::remote_nd_learn, true},
    {29, "vxlan_ef_copy_dscp_deal", "vxlan copy dscp", &vxlan_ef_vsd_t::copy_dscp, false},
};

std::string event(const SwitchCase &c, const std::string &text)
{
    return std::string("VXLAN-EF-EVENT: [vsd 3 ") + c.func + "] " + text + " " + c.words + ".\n";
}

TEST_F(GlobalSwitchesTest, SuppressArpWithByteTwoStoresTwoAndPrintsEnable)
{
    start_logging();
    deliver_tlvs({{28, {2}}});
    EXPECT_EQ(g_vxlan_vsd->arp_suppress, 2);
    EXPECT_EQ(handler_logs(), (Lines{
                                  "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_arp_suppress_deal] enable vxlan arp suppress.\n",
                                  "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_arp_suppress_deal] Success to enable vxlan arp suppress.\n",
                              }));
}

TEST_F(GlobalSwitchesTest, EachSwitchTlvStoresItsByteAndLogsItsWords)
{
    start_logging();
    for (const SwitchCase &c : kSwitches) {
        SCOPED_TRACE(c.func);
        deliver_tlvs({{c.type, {3}}});
        EXPECT_EQ(g_vxlan_vsd->*c.field, 3);
        EXPECT_EQ(handler_logs(), (Lines{event(c, "enable"), event(c, "Success to enable")}));
        take_logs();
        deliver_tlvs({{c.type, {0}}});
        EXPECT_EQ(g_vxlan_vsd->*c.field, 0);
        EXPECT_EQ(handler_logs(), (Lines{event(c, "disable"), event(c, "Success to disable")}));
        take_logs();
    }
}

TEST_F(GlobalSwitchesTest, SwitchesThatAlwaysStoreRepeatTheSuccessLineForAnUnchangedByte)
{
    start_logging();
    for (const SwitchCase &c : kSwitches) {
        if (c.stores_only_changes)
            continue;
        SCOPED_TRACE(c.func);
        deliver_tlvs({{c.type, {0}}});
        EXPECT_EQ(handler_logs(), (Lines{event(c, "disable"), event(c, "Success to disable")}));
        take_logs();
    }
}

TEST_F(GlobalSwitchesTest, RemoteLearnWithTheStoredBytePrintsOnlyTheFirstLineAndLeavesFieldAlone)
{
    start_logging();
    for (const SwitchCase &c : kSwitches) {
        if (!c.stores_only_changes)
            continue;
        SCOPED_TRACE(c.func);
        deliver_tlvs({{c.type, {0}}});
        EXPECT_EQ(handler_logs(), Lines{event(c, "disable")});
        EXPECT_EQ(g_vxlan_vsd->*c.field, 0);
        take_logs();

        deliver_tlvs({{c.type, {4}}});
        EXPECT_EQ(g_vxlan_vsd->*c.field, 4);
        take_logs();
        deliver_tlvs({{c.type, {4}}});
        EXPECT_EQ(handler_logs(), Lines{event(c, "enable")});
        EXPECT_EQ(g_vxlan_vsd->*c.field, 4);
        take_logs();
        // A different non-zero byte is a change and is stored as it is.
        deliver_tlvs({{c.type, {9}}});
        EXPECT_EQ(handler_logs(), (Lines{event(c, "enable"), event(c, "Success to enable")}));
        EXPECT_EQ(g_vxlan_vsd->*c.field, 9);
        take_logs();
    }
}

TEST_F(GlobalSwitchesTest, AnycastMacWithOperSetStoresMacAndValidByte)
{
    start_logging();
    deliver_tlvs({{18, {0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E, 2}}});
    EXPECT_EQ(std::vector<uint8_t>(g_vxlan_vsd->anycast_mac, g_vxlan_vsd->anycast_mac + 6),
              vxtest::bytes({0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E}));
    EXPECT_EQ(g_vxlan_vsd->anycast_mac_valid, 1);
    EXPECT_EQ(handler_logs(),
              Lines{"VXLAN-EF-EVENT: [vsd 3 vxlan_ef_anycast_mac] try to set anycast mac 001a.2b3c.4d5e, oper: 2\n"});
}

TEST_F(GlobalSwitchesTest, AnycastMacWithOperZeroClearsMacAndValidByteWhateverMacItCarries)
{
    start_logging();
    deliver_tlvs({{18, {0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E, 1}}});
    take_logs();
    deliver_tlvs({{18, {0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF, 0}}});
    EXPECT_EQ(std::vector<uint8_t>(g_vxlan_vsd->anycast_mac, g_vxlan_vsd->anycast_mac + 6),
              std::vector<uint8_t>(6, 0));
    EXPECT_EQ(g_vxlan_vsd->anycast_mac_valid, 0);
    EXPECT_EQ(handler_logs(),
              Lines{"VXLAN-EF-EVENT: [vsd 3 vxlan_ef_anycast_mac] try to set anycast mac aabb.ccdd.eeff, oper: 0\n"});
}

TEST_F(GlobalSwitchesTest, EachHandlerWithNullValueLogsArgsNullAndChangesNothing)
{
    using Handler = int (*)(uint32_t, const uint8_t *);
    struct Case {
        Handler handler;
        const char *func;
    };
    const Case cases[] = {
        {vxlan_ef_anycast_mac, "vxlan_ef_anycast_mac"},
        {vxlan_ef_arp_suppress_deal, "vxlan_ef_arp_suppress_deal"},
        {vxlan_ef_remote_arp_learn_deal, "vxlan_ef_remote_arp_learn_deal"},
        {vxlan_ef_nd_suppress_deal, "vxlan_ef_nd_suppress_deal"},
        {vxlan_ef_remote_nd_learn_deal, "vxlan_ef_remote_nd_learn_deal"},
        {vxlan_ef_copy_dscp_deal, "vxlan_ef_copy_dscp_deal"},
    };
    start_logging();
    deliver_tlvs({{18, {1, 2, 3, 4, 5, 6, 1}}, {28, {1}}, {67, {2}}, {87, {3}}, {86, {4}}, {29, {5}}});
    take_logs();
    const vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    const std::vector<uint8_t> before(vsd->anycast_mac, vsd->anycast_mac + 12);
    for (const Case &c : cases) {
        c.handler(3, nullptr);
        EXPECT_EQ(logs(), Lines{std::string("VXLAN-EF-ERR: [vsd 3 ") + c.func + "] args == NULL.\n"});
        take_logs();
    }
    EXPECT_EQ(std::vector<uint8_t>(vsd->anycast_mac, vsd->anycast_mac + 12), before);
    EXPECT_EQ(before, vxtest::bytes({1, 2, 3, 4, 5, 6, 1, 1, 2, 3, 4, 5}));
}

}  // namespace
