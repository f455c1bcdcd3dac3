// The debug gate: which log lines the debug mask lets through, how EF_DBG
// sets the mask, and silence while no instance exists.
#include "module_fixture.h"

namespace {

class DebugGateTest : public vxtest::ModuleTest {};

using Lines = std::vector<std::string>;
using vxtest::bytes;

TEST_F(DebugGateTest, MaskStartsAtZeroAndNothingIsLoggedBeforeFirstEfDbg)
{
    start();
    EXPECT_EQ(g_vxlan_vsd->debug_mask, 0);
    deliver_tlvs({{28, {1}}, {500, {}}});
    deliver(bytes({1, 7, 0, 1, 0, 0, 0}));
    vxlan_ef_arp_suppress_deal(3, nullptr);
    ASSERT_EQ(efrt::msg_connect(EF_MSG_MODULE_VXLAN, true), 0);
    EXPECT_EQ(logs(), Lines{});
    EXPECT_EQ(g_vxlan_vsd->arp_suppress, 1);
}

TEST_F(DebugGateTest, ErrorMaskShowsOnlyErrorLinesArgsNullLoggedSuccessNot)
{
    start();
    deliver_tlvs({vxtest::ef_dbg(VXLAN_EF_DBG_ERR)});
    EXPECT_EQ(g_vxlan_vsd->debug_mask, VXLAN_EF_DBG_ERR);
    EXPECT_EQ(take_logs(), Lines{});

    deliver_tlvs({{28, {1}}, {500, {}}});
    vxlan_ef_arp_suppress_deal(3, nullptr);
    EXPECT_EQ(logs(), (Lines{
                          "VXLAN-EF-ERR: [vsd 3 vxlan_ef_tlv_parse] Unknown or not care tlv, t: 500, l: 0\n",
                          "VXLAN-EF-ERR: [vsd 3 vxlan_ef_arp_suppress_deal] args == NULL.\n",
                      }));
    // The switch was applied; only its event lines were held back.
    EXPECT_EQ(g_vxlan_vsd->arp_suppress, 1);
}

TEST_F(DebugGateTest, EfDbgMask0x1BTurnsOnEventErrorForwardEncapAndStatusShowsTheirNames)
{
    start();
    deliver_tlvs({vxtest::ef_dbg(0x1B, 77, 5)});
    EXPECT_EQ(g_vxlan_vsd->debug_mask, 0x1B);
    EXPECT_EQ(g_vxlan_vsd->trace_ifx, 77u);
    EXPECT_EQ(g_vxlan_vsd->trace_budget, 5u);
    take_logs();

    std::vector<uint8_t> show(8);
    vxtest::put<uint16_t>(show, 0, 3);
    deliver_tlvs({{65, show}});
    const Lines all = logs();
    // Event lines are on now.
    EXPECT_EQ(all.at(0), "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_msg_read] Recv data module_id 31, len 16.\n");
    const Lines shows = vxtest::lines_starting(all, "VXLAN-EF-SHOW:");
    ASSERT_FALSE(shows.empty());
    EXPECT_EQ(shows[0], "VXLAN-EF-SHOW: [vsd 3] Debug Status         : event error forward encap \n");
}

TEST_F(DebugGateTest, EfDbgSetsMaskTraceInterfaceAndBudgetTogether)
{
    start();
    deliver_tlvs({vxtest::ef_dbg(0x20, 0x01020304, 0xA0B0C0D0)});
    EXPECT_EQ(g_vxlan_vsd->debug_mask, 0x20);
    EXPECT_EQ(g_vxlan_vsd->trace_ifx, 0x01020304u);
    EXPECT_EQ(g_vxlan_vsd->trace_budget, 0xA0B0C0D0u);
    deliver_tlvs({vxtest::ef_dbg(0)});
    EXPECT_EQ(g_vxlan_vsd->debug_mask, 0);
    EXPECT_EQ(g_vxlan_vsd->trace_ifx, 0u);
    EXPECT_EQ(g_vxlan_vsd->trace_budget, 0u);
}

TEST_F(DebugGateTest, EventMaskShowsEventLinesButNotErrorLines)
{
    start();
    deliver_tlvs({vxtest::ef_dbg(VXLAN_EF_DBG_EVENT)});
    take_logs();
    vxlan_ef_copy_dscp_deal(3, nullptr);
    ASSERT_EQ(efrt::msg_connect(EF_MSG_MODULE_VXLAN, false), 0);
    EXPECT_EQ(logs(), Lines{"VXLAN-EF-EVENT: [vsd 3 vxlan_ef_com_connect] Connect to VXLAN EF failed.\n"});
}

TEST_F(DebugGateTest, ClientDbgIsNotActedOn)
{
    start();
    deliver_tlvs({vxtest::ef_dbg(VXLAN_EF_DBG_ERR)});
    take_logs();
    vxtest::Tlv client_dbg = vxtest::ef_dbg(0x3F, 9, 9);
    client_dbg.type = 61;
    deliver_tlvs({client_dbg});
    EXPECT_EQ(g_vxlan_vsd->debug_mask, VXLAN_EF_DBG_ERR);
    EXPECT_EQ(g_vxlan_vsd->trace_ifx, 0u);
    EXPECT_EQ(logs(), Lines{"VXLAN-EF-ERR: [vsd 3 vxlan_ef_tlv_parse] Unknown or not care tlv, t: 61, l: 12\n"});
}

TEST_F(DebugGateTest, NothingIsLoggedThroughTheGateWithoutAnInstance)
{
    // An instance existed with every category on, then went away.
    start();
    set_mask(0xFFFF);
    vxlan_ef_exit();
    take_logs();

    EXPECT_EQ(vxlan_ef_arp_suppress_deal(3, nullptr), -1);
    EXPECT_EQ(vxlan_ef_remote_arp_learn_deal(3, nullptr), -1);
    EXPECT_EQ(vxlan_ef_nd_suppress_deal(3, nullptr), -1);
    EXPECT_EQ(vxlan_ef_remote_nd_learn_deal(3, nullptr), -1);
    EXPECT_EQ(vxlan_ef_copy_dscp_deal(3, nullptr), -1);
    EXPECT_EQ(vxlan_ef_anycast_mac(3, nullptr), -1);
    const uint8_t on = 1;
    EXPECT_EQ(vxlan_ef_arp_suppress_deal(3, &on), -1);
    EXPECT_EQ(vxlan_ef_com_connect(nullptr, 1), -1);
    EXPECT_EQ(vxlan_ef_msg_task(), 0);
    vxlan_ef_show_status(3);
    vxlan_ef_show_line("text\n");
    // With the channel registered but no record, a message is dropped
    // without a word.
    ASSERT_EQ(vxlan_ef_com_init(), 0);
    EXPECT_EQ(efrt::msg_deliver(EF_MSG_MODULE_VXLAN, vxtest::make_msg({{500, {}}})), 0);
    efrt::clock_advance(100);
    vxlan_ef_com_exit();
    EXPECT_EQ(logs(), Lines{});
}

}  // namespace
