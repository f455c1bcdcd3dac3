// Registration of the packet plane with the platform: interface event
// subscriptions, the service table and its registration steps, per-interface
// parser hooks, the interface slots and the bridge service pointers.
#include <array>

#include "frame/wiring/wiring_private.h"
#include "module_fixture.h"
#include "vxlan_ef_frame.h"

namespace {

using vxtest::log_file_line;
using vxtest::ModuleTest;
using vxtest::read_file;
using vxtest::ScratchTmpdir;

constexpr const char *kBase = "g_feature_spec/dcn/CAP_VXLAN_BASE";
constexpr const char *kSoft = "g_feature_spec/product_platform_spec/CAP_FWDMODE_SOFT";
constexpr uint32_t kServiceMask = 0x20 | 0x40 | 0x80 | 0x100 | 0x200 | 0x1000 | 0x2000 | 0x8000;

template <int N>
int test_service(void *, void *)
{
    return N;
}

constexpr std::array<efmp_handler_fn, 8> kTestHandlers{
    test_service<0>, test_service<1>, test_service<2>, test_service<3>,
    test_service<4>, test_service<5>, test_service<6>, test_service<7>};

// The module's service table with a handler in every row.
std::array<vxlan_ef::ServiceRow, 8> filled_services()
{
    auto table = vxlan_ef::kServices;
    for (std::size_t i = 0; i < table.size(); ++i)
        table[i].handler = kTestHandlers[i];
    return table;
}

// The module's services the registry should hold after a start: every row
// of the table that has a handler.
std::vector<std::pair<uint32_t, void *>> table_services()
{
    std::vector<std::pair<uint32_t, void *>> out;
    for (const auto &row : vxlan_ef::kServices)
        if (row.handler != nullptr)
            out.emplace_back(row.number, reinterpret_cast<void *>(row.handler));
    return out;
}

std::vector<std::pair<uint32_t, void *>> registered_services()
{
    std::vector<std::pair<uint32_t, void *>> out;
    for (const auto &s : efrt::services_of(EFMP_MODULE_VXLAN))
        out.emplace_back(s.service, s.handler);
    return out;
}

uint32_t table_mask()
{
    uint32_t mask = 0;
    for (const auto &row : vxlan_ef::kServices)
        if (row.handler != nullptr)
            mask |= row.mask;
    return mask;
}

const std::vector<lsm_msg_handler_fn> kSubscribed{vxlan_ef_lsm_event_handle};
const std::vector<lsm_msg_handler_fn> kNone{};

class PipelineRegTest : public ModuleTest {
protected:
    void expect_pipeline_registered()
    {
        EXPECT_EQ(efrt::lsm_handlers(LSM_IF_STACK_RAW), kSubscribed);
        EXPECT_EQ(efrt::lsm_handlers(LSM_IF_STACK_BRIDGE), kSubscribed);
        EXPECT_EQ(efrt::lsm_handlers(LSM_IF_STACK_TCPIP), kSubscribed);
        EXPECT_EQ(efrt::serv_change_handlers(),
                  std::vector<efmp_serv_chg_fn>{vxlan_ef_frame_serv_chg_func});
        EXPECT_EQ(registered_services(), table_services());
        EXPECT_EQ(g_vxlan_vsd->flags & kServiceMask, table_mask());
    }
};

TEST_F(PipelineRegTest, ServiceTableListsEightServicesWithNumbersMaskBitsAndTexts)
{
    struct Expected {
        uint32_t number, mask;
        const char *failure, *init_failure;
    };
    const Expected expected[8] = {
        {0, 0x20, "register vxlan parser service failed.\n",
         "VXLAN-EF-ERR: vxlan_ef_reg_parser_service failed.\n"},
        {1, 0x40, "register vxlan parser service failed.\n",
         "VXLAN-EF-ERR: vxlan_ef_reg_encap_service failed.\n"},
        {2, 0x80, "register vxlan forward failed.\n",
         "VXLAN-EF-ERR: vxlan_ef_reg_forward_service failed.\n"},
        {3, 0x100, "register vxlan get overlayrouter interface failed.\n",
         "VXLAN-EF-ERR: vxlan_ef_reg_get_vni_intfcb_service failed.\n"},
        {4, 0x200, "register vxlan get overlayrouter interface failed.\n",
         "VXLAN-EF-ERR: vxlan_ef_reg_get_intfcb_vni_service failed.\n"},
        {5, 0x1000, "register vxlan router's mac service failed.\n",
         "VXLAN-EF-ERR: vxlan_ef_reg_router_mac_forward_service failed.\n"},
        {6, 0x2000, "register vxlan broadcast packet encap service failed.\n",
         "VXLAN-EF-ERR: vxlan_ef_reg_bcast_pkt_encap_service failed.\n"},
        {7, 0x8000, "register vxlan overlayrouter no icmp service failed.\n",
         "VXLAN-EF-ERR: vxlan_ef_reg_or_no_icmp_service failed.\n"},
    };
    for (std::size_t i = 0; i < 8; ++i) {
        const auto &row = vxlan_ef::kServices[i];
        EXPECT_EQ(row.number, expected[i].number);
        EXPECT_EQ(row.mask, expected[i].mask);
        EXPECT_STREQ(row.failure, expected[i].failure);
        EXPECT_STREQ(row.init_failure, expected[i].init_failure);
    }
}

TEST_F(PipelineRegTest, WithBaseOffStartAndStopRegisterNothingAndReturnZero)
{
    start();
    EXPECT_EQ(vxlan_ef_frame_init(), 0);
    for (uint32_t stack : {LSM_IF_STACK_RAW, LSM_IF_STACK_BRIDGE, LSM_IF_STACK_TCPIP})
        EXPECT_EQ(efrt::lsm_handlers(stack), kNone);
    EXPECT_TRUE(efrt::services_of(EFMP_MODULE_VXLAN).empty());
    EXPECT_TRUE(efrt::serv_change_handlers().empty());
    EXPECT_EQ(vxlan_ef_bridge_mac_lookup, nullptr);
    EXPECT_EQ(vxlan_ef_bridge_intf_pvid_get, nullptr);
    EXPECT_EQ(vxlan_ef_l2protocol_pkt_check, nullptr);
    EXPECT_EQ(g_vxlan_vsd->flags & kServiceMask, 0u);

    ASSERT_EQ(lsm_reg_msg_handler_ex(LSM_IF_STACK_RAW, vxlan_ef_lsm_event_handle), 0);
    vxlan_ef_frame_exit();
    EXPECT_EQ(efrt::lsm_handlers(LSM_IF_STACK_RAW), kSubscribed);  // untouched by the stop
}

TEST_F(PipelineRegTest, StartWithBaseOnSubscribesThreeStacksAndFetchesAlwaysFollowedServices)
{
    set_cap(kBase);
    start();
    expect_pipeline_registered();
    EXPECT_EQ(vxlan_ef_bridge_mac_lookup, efrt::bridge_handler(8));
    EXPECT_EQ(vxlan_ef_bridge_intf_pvid_get, efrt::bridge_handler(22));
    EXPECT_EQ(vxlan_ef_l2protocol_pkt_check, efrt::bridge_handler(25));
    EXPECT_EQ(vxlan_ef_add_mac_entry, nullptr);
    EXPECT_EQ(vxlan_ef_intf_vlan_check, nullptr);
}

TEST_F(PipelineRegTest, StartWithBaseAndSoftModeOnFetchesAllFiveBridgeServices)
{
    set_cap(kBase);
    set_cap(kSoft);
    start();
    EXPECT_EQ(vxlan_ef_bridge_mac_lookup, efrt::bridge_handler(8));
    EXPECT_EQ(vxlan_ef_add_mac_entry, efrt::bridge_handler(4));
    EXPECT_EQ(vxlan_ef_intf_vlan_check, efrt::bridge_handler(20));
    EXPECT_NE(vxlan_ef_add_mac_entry, nullptr);
}

TEST_F(PipelineRegTest, BridgeServiceNotYetPublishedLeavesItsPointerNull)
{
    efrt::bridge_withdraw(22);
    set_cap(kBase);
    start();
    EXPECT_EQ(vxlan_ef_bridge_intf_pvid_get, nullptr);
    EXPECT_EQ(vxlan_ef_bridge_mac_lookup, efrt::bridge_handler(8));
}

TEST_F(PipelineRegTest, StopUnsubscribesOnlyTheRawStackAndKeepsBridgePointers)
{
    set_cap(kBase);
    start();
    vxlan_ef_exit();
    EXPECT_EQ(efrt::lsm_handlers(LSM_IF_STACK_RAW), kNone);
    EXPECT_EQ(efrt::lsm_handlers(LSM_IF_STACK_BRIDGE), kSubscribed);
    EXPECT_EQ(efrt::lsm_handlers(LSM_IF_STACK_TCPIP), kSubscribed);
    EXPECT_TRUE(efrt::services_of(EFMP_MODULE_VXLAN).empty());
    EXPECT_EQ(vxlan_ef_bridge_mac_lookup, efrt::bridge_handler(8));
}

struct StackFailure {
    uint32_t stack;
    const char *text;
    std::vector<uint32_t> subscribed_before;
};

TEST_F(PipelineRegTest, SubscriptionFailureOnEachStackFailsStartWithItsTextAndUndoesNothingOfIt)
{
    const StackFailure cases[] = {
        {LSM_IF_STACK_RAW, "VXLAN-EF-ERR: lsm_reg_msg_handler_ex failed on LSM_IF_STACK_RAW.\n", {}},
        {LSM_IF_STACK_BRIDGE, "VXLAN-EF-ERR: lsm_reg_msg_handler_ex failed on LSM_IF_STACK_BRIDGE.\n",
         {LSM_IF_STACK_RAW}},
        {LSM_IF_STACK_TCPIP, "VXLAN-EF-ERR: lsm_reg_msg_handler_ex failed on LSM_IF_STACK_TCPIP.\n",
         {LSM_IF_STACK_RAW, LSM_IF_STACK_BRIDGE}},
    };
    for (const StackFailure &c : cases) {
        SCOPED_TRACE(c.text);
        efrt::reset();
        efrt::syslog_set_time_text("2026-11-21 12:00:00");
        reset_followers();
        ScratchTmpdir tmp;
        set_cap(kBase);
        efrt::lsm_fail_register(c.stack, -1);
        setenv("VSDID", "3", 1);
        EXPECT_EQ(vxlan_ef_init(), -1);
        EXPECT_EQ(read_file(tmp.log_path()),
                  log_file_line(c.text) +
                      log_file_line("VXLAN-EF-ERR: vxlan_ef_frame_init failed.\n"));
        EXPECT_EQ(g_vxlan_vsd, nullptr);
        EXPECT_FALSE(efrt::msg_registered(EF_MSG_MODULE_VXLAN));
        // The failed step's own subscriptions are not undone.
        for (uint32_t stack : c.subscribed_before)
            EXPECT_EQ(efrt::lsm_handlers(stack), kSubscribed);
        EXPECT_EQ(efrt::lsm_handlers(c.stack), kNone);
    }
}

TEST_F(PipelineRegTest, ChangeHandlerRefusalFailsStartWithItsText)
{
    ScratchTmpdir tmp;
    set_cap(kBase);
    efrt::serv_fail_change_handler(-2);
    setenv("VSDID", "3", 1);
    EXPECT_EQ(vxlan_ef_init(), -1);
    EXPECT_EQ(read_file(tmp.log_path()),
              log_file_line("VXLAN-EF-ERR: reg serv change handler error.\n") +
                  log_file_line("VXLAN-EF-ERR: vxlan_ef_frame_init failed.\n"));
    EXPECT_EQ(g_vxlan_vsd, nullptr);
    EXPECT_TRUE(efrt::serv_change_handlers().empty());
}

TEST_F(PipelineRegTest, ThirdServiceRegistrationFailureLeavesFirstTwoRegisteredAndReturnsMinusOne)
{
    start();
    ScratchTmpdir tmp;
    efrt::serv_fail_register(EFMP_MODULE_VXLAN, 2);
    EXPECT_EQ(vxlan_ef::register_services(filled_services()), -1);
    EXPECT_EQ(registered_services(),
              (std::vector<std::pair<uint32_t, void *>>{
                  {0, reinterpret_cast<void *>(kTestHandlers[0])},
                  {1, reinterpret_cast<void *>(kTestHandlers[1])}}));
    EXPECT_EQ(g_vxlan_vsd->flags & kServiceMask, 0x60u);
    EXPECT_EQ(read_file(tmp.log_path()),
              log_file_line("register vxlan forward failed.\n") +
                  log_file_line("VXLAN-EF-ERR: vxlan_ef_reg_forward_service failed.\n"));
}

TEST_F(PipelineRegTest, EachServiceRefusalWritesItsOwnTextThenTheStartupText)
{
    start();
    const auto table = filled_services();
    for (const auto &row : table) {
        SCOPED_TRACE(row.number);
        ScratchTmpdir tmp;
        vxlan_ef::deregister_services(table);
        efrt::serv_fail_register(EFMP_MODULE_VXLAN, row.number);
        EXPECT_EQ(vxlan_ef::register_services(table), -1);
        EXPECT_EQ(read_file(tmp.log_path()),
                  log_file_line(row.failure) + log_file_line(row.init_failure));
        EXPECT_EQ(registered_services().size(), row.number);
        EXPECT_EQ(g_vxlan_vsd->flags & row.mask, 0u);
    }
}

TEST_F(PipelineRegTest, RegisteringTheWholeTableSetsEveryMaskBitAndDeregisteringClearsThem)
{
    start();
    const auto table = filled_services();
    ASSERT_EQ(vxlan_ef::register_services(table), 0);
    EXPECT_EQ(registered_services().size(), 8u);
    for (const auto &s : efrt::services_of(EFMP_MODULE_VXLAN))
        EXPECT_EQ(s.handler, reinterpret_cast<void *>(kTestHandlers[s.service]));
    EXPECT_EQ(g_vxlan_vsd->flags & kServiceMask, kServiceMask);
    vxlan_ef::deregister_services(table);
    EXPECT_TRUE(efrt::services_of(EFMP_MODULE_VXLAN).empty());
    EXPECT_EQ(g_vxlan_vsd->flags & kServiceMask, 0u);
}

TEST_F(PipelineRegTest, EachDeregistrationFunctionWithdrawsItsServiceAndClearsItsBit)
{
    start();
    using Dereg = int (*)(void);
    const Dereg deregs[8] = {
        vxlan_ef_dereg_parser_service,          vxlan_ef_dereg_encap_service,
        vxlan_ef_dereg_forward_service,         vxlan_ef_dereg_get_vni_intfcb_service,
        vxlan_ef_dereg_get_intfcb_vni_service,  vxlan_ef_dereg_router_mac_forward_service,
        vxlan_ef_dereg_bcast_pkt_encap_service, vxlan_ef_dereg_or_no_icmp_service,
    };
    const auto table = filled_services();
    ASSERT_EQ(vxlan_ef::register_services(table), 0);
    for (std::size_t i = 0; i < 8; ++i) {
        EXPECT_EQ(deregs[i](), 0);
        EXPECT_EQ(efmp_get_service(EFMP_MODULE_VXLAN, table[i].number), nullptr);
        EXPECT_EQ(g_vxlan_vsd->flags & table[i].mask, 0u);
        EXPECT_EQ(registered_services().size(), 7 - i);
    }
    EXPECT_EQ(vxlan_ef_dereg_forward_service(), 0);  // nothing left to withdraw
}

TEST_F(PipelineRegTest, ParserInterfaceIsType21OrTypes2To10OnBridgeOrTcpipStack)
{
    struct Case {
        uint32_t type;
        uint8_t stack;
        bool parser;
    };
    const Case cases[] = {
        {21, 0, true},  {21, 7, true},  {2, 5, true},   {10, 6, true},  {6, 5, true},
        {2, 0, false},  {10, 7, false}, {1, 5, false},  {11, 6, false}, {45, 0, false},
        {46, 6, false}, {32, 5, false},
    };
    for (const Case &c : cases) {
        const lsm_intfcb_t intf = efrt::make_intf(10, c.type, c.stack, "eth10");
        EXPECT_EQ(vxlan_ef_is_intf_parser(&intf), c.parser) << c.type << "/" << int(c.stack);
    }
    EXPECT_FALSE(vxlan_ef_is_intf_parser(nullptr));
}

TEST_F(PipelineRegTest, EthParserAttachesAtSlotFiveOnParserInterfacesOnly)
{
    start();
    auto parser = reinterpret_cast<ef_eth_parser_fn>(test_service<9>);
    lsm_intfcb_t eth = efrt::make_intf(12, 3, LSM_IF_STACK_BRIDGE, "eth12");
    lsm_intfcb_t raw = efrt::make_intf(13, 3, LSM_IF_STACK_RAW, "eth13");
    EXPECT_EQ(vxlan_ef::attach_eth_parser(&eth, parser), 0);
    EXPECT_EQ(vxlan_ef::attach_eth_parser(&raw, parser), 0);
    EXPECT_EQ(vxlan_ef::attach_eth_parser(nullptr, parser), -1);
    const auto parsers = efrt::eth_parsers();
    ASSERT_EQ(parsers.size(), 1u);
    EXPECT_EQ(parsers[0].ifindex, 12u);
    EXPECT_EQ(parsers[0].slot, 5u);
    EXPECT_EQ(parsers[0].arg, 0u);
    EXPECT_EQ(parsers[0].handler, reinterpret_cast<void *>(parser));

    EXPECT_EQ(vxlan_ef_dereg_intf_parser(&raw), 0);
    EXPECT_EQ(efrt::eth_parsers().size(), 1u);
    EXPECT_EQ(vxlan_ef_dereg_intf_parser(&eth), 0);
    EXPECT_TRUE(efrt::eth_parsers().empty());
    EXPECT_EQ(vxlan_ef_dereg_intf_parser(nullptr), -1);
    EXPECT_EQ(vxlan_ef_reg_intf_parser(nullptr), -1);
}

TEST_F(PipelineRegTest, EthParserRefusalLogsErrorAndReturnsMinusOne)
{
    start();
    set_mask(VXLAN_EF_DBG_ERR);
    lsm_intfcb_t eth = efrt::make_intf(21, 21, LSM_IF_STACK_RAW, "rif21");
    efrt::eth_parser_fail_register(-4);
    EXPECT_EQ(vxlan_ef::attach_eth_parser(&eth, reinterpret_cast<ef_eth_parser_fn>(test_service<9>)),
              -1);
    EXPECT_EQ(logs(), std::vector<std::string>{
                          "VXLAN-EF-ERR: [vsd 3 vxlan_ef_reg_intf_parser] ef_eth_reg_parser error!\n"});
    EXPECT_TRUE(efrt::eth_parsers().empty());
}

int test_tunnel_parser(efmp_buff_t *, uint32_t *) { return EF_Normal; }

TEST_F(PipelineRegTest, TunnelParserAttachesToOverlayTunnelsOnlyWithValueOne)
{
    start();
    lsm_intfcb_t tunnel = efrt::make_intf(45001, 45, LSM_IF_STACK_RAW, "tunnel1");
    lsm_intfcb_t router = efrt::make_intf(46001, 46, LSM_IF_STACK_RAW, "or1");
    EXPECT_EQ(vxlan_ef::attach_tunnel_parser(&tunnel, test_tunnel_parser), 0);
    EXPECT_EQ(vxlan_ef::attach_tunnel_parser(&router, test_tunnel_parser), 0);
    EXPECT_EQ(vxlan_ef::attach_tunnel_parser(nullptr, test_tunnel_parser), -1);
    const auto parsers = efrt::efmp_parsers();
    ASSERT_EQ(parsers.size(), 1u);
    EXPECT_EQ(parsers[0].handler, &test_tunnel_parser);
    EXPECT_EQ(parsers[0].intf, &tunnel);
    EXPECT_EQ(parsers[0].value, 1u);
    EXPECT_EQ(vxlan_ef::detach_tunnel_parser(&router, test_tunnel_parser), 0);
    EXPECT_EQ(vxlan_ef::detach_tunnel_parser(&tunnel, test_tunnel_parser), 0);
    EXPECT_TRUE(efrt::efmp_parsers().empty());
    EXPECT_EQ(vxlan_ef_reg_tunnel_parser(nullptr), -1);
    EXPECT_EQ(vxlan_ef_dereg_tunnel_parser(nullptr), -1);
}

TEST_F(PipelineRegTest, TunnelParserRefusalsLogTheirErrors)
{
    start();
    set_mask(VXLAN_EF_DBG_ERR);
    lsm_intfcb_t tunnel = efrt::make_intf(45001, 45, LSM_IF_STACK_RAW, "tunnel1");
    efrt::efmp_parser_fail_register(-1);
    EXPECT_EQ(vxlan_ef::attach_tunnel_parser(&tunnel, test_tunnel_parser), -1);
    efrt::efmp_parser_fail_deregister(-1);
    EXPECT_EQ(vxlan_ef::detach_tunnel_parser(&tunnel, test_tunnel_parser), -1);
    EXPECT_EQ(logs(),
              (std::vector<std::string>{
                  "VXLAN-EF-ERR: [vsd 3 vxlan_ef_reg_tunnel_parser] efmp reg parser error!\n",
                  "VXLAN-EF-ERR: [vsd 3 vxlan_ef_dereg_tunnel_parser] efmp dereg parser error!\n"}));
}

TEST_F(PipelineRegTest, Type32InterfacesFillTheirSlotsAndDestroyingEitherClearsOnlyItsSlot)
{
    set_cap(kBase);
    start();
    set_mask(VXLAN_EF_DBG_EVENT | VXLAN_EF_DBG_ERR);
    efrt::lsm_create(efrt::make_intf(4094, 32, LSM_IF_STACK_BRIDGE, "vlanif4094"));
    lsm_intfcb_t *b4094 = lsm_get_intfcb(4094);
    EXPECT_EQ(g_vxlan_vsd->intf_slot_4094, b4094);
    EXPECT_EQ(g_vxlan_vsd->intf_slot_other, nullptr);

    efrt::lsm_create(efrt::make_intf(100, 32, LSM_IF_STACK_BRIDGE, "vlanif100"));
    EXPECT_EQ(g_vxlan_vsd->intf_slot_other, lsm_get_intfcb(100));
    efrt::lsm_create(efrt::make_intf(101, 32, LSM_IF_STACK_TCPIP, "vlanif101"));
    EXPECT_EQ(g_vxlan_vsd->intf_slot_other, lsm_get_intfcb(101));
    EXPECT_EQ(g_vxlan_vsd->intf_slot_4094, b4094);

    efrt::lsm_destroy(101);
    EXPECT_EQ(g_vxlan_vsd->intf_slot_other, nullptr);
    EXPECT_EQ(g_vxlan_vsd->intf_slot_4094, b4094);
    efrt::lsm_destroy(4094);
    EXPECT_EQ(g_vxlan_vsd->intf_slot_4094, nullptr);

    EXPECT_EQ(logs(),
              (std::vector<std::string>{
                  "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_lsm_event_handle] INTF_EVENT_CREATE_INDEX vlanif4094 ifx: 4094\n",
                  "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_lsm_event_handle] INTF_EVENT_CREATE_INDEX vlanif100 ifx: 100\n",
                  "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_lsm_event_handle] INTF_EVENT_CREATE_INDEX vlanif101 ifx: 101\n",
                  "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_lsm_event_handle] INTF_EVENT_DESTROY_INDEX ifx: 101\n",
                  "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_lsm_event_handle] INTF_EVENT_DESTROY_INDEX ifx: 4094\n"}));
}

TEST_F(PipelineRegTest, InterfaceOfOtherTypeLeavesSlotsAlone)
{
    set_cap(kBase);
    start();
    efrt::lsm_create(efrt::make_intf(4094, 3, LSM_IF_STACK_BRIDGE, "eth4094"));
    EXPECT_EQ(g_vxlan_vsd->intf_slot_4094, nullptr);
    EXPECT_EQ(g_vxlan_vsd->intf_slot_other, nullptr);
}

TEST_F(PipelineRegTest, EventsWithoutControlBlockLogErrorsAndOtherEventsAreIgnored)
{
    set_cap(kBase);
    start();
    set_mask(VXLAN_EF_DBG_EVENT | VXLAN_EF_DBG_ERR);
    efrt::lsm_event(LSM_IF_STACK_BRIDGE, LSM_IF_EVENT_CREATE, 77, "ghost77");
    efrt::lsm_event(LSM_IF_STACK_BRIDGE, LSM_IF_EVENT_DESTROY, 77, "ghost77");
    efrt::lsm_event(LSM_IF_STACK_BRIDGE, 2, 77, "ghost77");
    EXPECT_EQ(logs(),
              (std::vector<std::string>{
                  "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_lsm_event_handle] INTF_EVENT_CREATE_INDEX ghost77 ifx: 77\n",
                  "VXLAN-EF-ERR: [vsd 3 vxlan_ef_lsm_event_handle] fail to get intfcb, ghost77, ifx: 77\n",
                  "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_lsm_event_handle] INTF_EVENT_DESTROY_INDEX ifx: 77\n",
                  "VXLAN-EF-ERR: [vsd 3 vxlan_ef_lsm_event_handle] fail to get intfcb, ifx: 77\n"}));
}

TEST_F(PipelineRegTest, BridgeAndTcpipStackEventsStillArriveAfterStop)
{
    set_cap(kBase);
    start();
    vxlan_ef_frame_exit();
    set_mask(VXLAN_EF_DBG_EVENT);
    efrt::lsm_create(efrt::make_intf(200, 3, LSM_IF_STACK_RAW, "raw200"));
    efrt::lsm_create(efrt::make_intf(201, 3, LSM_IF_STACK_BRIDGE, "br201"));
    EXPECT_EQ(logs(), std::vector<std::string>{
                          "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_lsm_event_handle] INTF_EVENT_CREATE_INDEX br201 ifx: 201\n"});
}

// ---- bridge service pointers ----

struct FollowedService {
    uint32_t number;
    void **pointer;
    const char *got;
    const char *lost;
};

const FollowedService kAlways[] = {
    {8, &vxlan_ef_bridge_mac_lookup,
     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_frame_serv_chg_func] GET SERV: vxlan ef bridgre mac lookup function\n",
     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_frame_serv_chg_func] LOST SERV: vxlan ef bridgre mac lookup function\n"},
    {22, &vxlan_ef_bridge_intf_pvid_get,
     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_frame_serv_chg_func] GET SERV: vxlan ef bridgre interface pvid get function\n",
     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_frame_serv_chg_func] LOST SERV: vxlan ef bridgre interface pvid get function\n"},
    {25, &vxlan_ef_l2protocol_pkt_check,
     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_frame_serv_chg_func] GET SERV: vxlan ef l2protocol pkt check get function\n",
     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_frame_serv_chg_func] LOST SERV: vxlan ef l2protocol pkt check get function\n"},
};

const FollowedService kSoftOnly[] = {
    {4, &vxlan_ef_add_mac_entry,
     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_frame_serv_chg_func] GET SERV: vxlan ef bridgre mac add function\n",
     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_frame_serv_chg_func] LOST SERV: vxlan ef bridgre mac add function\n"},
    {20, &vxlan_ef_intf_vlan_check,
     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_frame_serv_chg_func] GET SERV: vxlan ef bridgre intf vlan check function\n",
     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_frame_serv_chg_func] LOST SERV: vxlan ef bridgre intf vlan check function\n"},
};

std::vector<std::string> drain_logs()
{
    std::vector<std::string> out;
    for (auto &r : efrt::syslog_take())
        out.push_back(r.text);
    return out;
}

// Withdraws and re-publishes one service, checking the pointer and the log.
void cycle(const FollowedService &s)
{
    SCOPED_TRACE(s.number);
    ASSERT_TRUE(efrt::bridge_withdraw(s.number));
    EXPECT_EQ(*s.pointer, nullptr);
    EXPECT_EQ(drain_logs(), std::vector<std::string>{s.lost});
    ASSERT_TRUE(efrt::bridge_publish(s.number));
    EXPECT_EQ(*s.pointer, efrt::bridge_handler(s.number));
    EXPECT_EQ(drain_logs(), std::vector<std::string>{s.got});
}

// Withdraws and re-publishes one service that must not be followed.
void cycle_unfollowed(const FollowedService &s)
{
    SCOPED_TRACE(s.number);
    ASSERT_TRUE(efrt::bridge_withdraw(s.number));
    ASSERT_TRUE(efrt::bridge_publish(s.number));
    EXPECT_EQ(*s.pointer, nullptr);
    EXPECT_TRUE(drain_logs().empty());
}

TEST_F(PipelineRegTest, BridgeWithdrawingAndRepublishingEachServiceWhileSoftModeChanges)
{
    set_cap(kBase);
    start();
    set_mask(VXLAN_EF_DBG_EVENT | VXLAN_EF_DBG_ERR);
    for (const auto &s : kAlways)
        cycle(s);
    for (const auto &s : kSoftOnly)
        cycle_unfollowed(s);

    ASSERT_EQ(efrt::cap_change(kSoft, true), 1);
    take_logs();
    EXPECT_EQ(vxlan_ef_add_mac_entry, efrt::bridge_handler(4));
    EXPECT_EQ(vxlan_ef_intf_vlan_check, efrt::bridge_handler(20));
    for (const auto &s : kAlways)
        cycle(s);
    for (const auto &s : kSoftOnly)
        cycle(s);

    ASSERT_EQ(efrt::cap_change(kSoft, false), 1);
    take_logs();
    EXPECT_EQ(vxlan_ef_add_mac_entry, nullptr);
    EXPECT_EQ(vxlan_ef_intf_vlan_check, nullptr);
    for (const auto &s : kAlways)
        cycle(s);
    for (const auto &s : kSoftOnly)
        cycle_unfollowed(s);
}

TEST_F(PipelineRegTest, PublishedNotificationForService4WithSoftModeOffChangesNothing)
{
    set_cap(kBase);
    start();
    set_mask(VXLAN_EF_DBG_EVENT | VXLAN_EF_DBG_ERR);
    efrt::serv_notify(EFMP_SERV_PUBLISHED,
                      efmp_service_t{reinterpret_cast<void *>(test_service<4>), 14, 4});
    EXPECT_EQ(vxlan_ef_add_mac_entry, nullptr);
    EXPECT_TRUE(logs().empty());
}

TEST_F(PipelineRegTest, SecondPublishedNotificationStoresNewHandlerWithoutLogging)
{
    set_cap(kBase);
    start();
    set_mask(VXLAN_EF_DBG_EVENT | VXLAN_EF_DBG_ERR);
    void *fresh = reinterpret_cast<void *>(test_service<8>);
    efrt::serv_notify(EFMP_SERV_PUBLISHED, efmp_service_t{fresh, 14, 8});
    EXPECT_EQ(vxlan_ef_bridge_mac_lookup, fresh);
    EXPECT_TRUE(logs().empty());
}

TEST_F(PipelineRegTest, SoftModeServicesAreLookedUpAfreshNotTakenFromTheNotification)
{
    set_cap(kBase);
    set_cap(kSoft);
    start();
    set_mask(VXLAN_EF_DBG_EVENT);
    efrt::serv_notify(EFMP_SERV_PUBLISHED,
                      efmp_service_t{reinterpret_cast<void *>(test_service<4>), 14, 4});
    EXPECT_EQ(vxlan_ef_add_mac_entry, efrt::bridge_handler(4));
    EXPECT_TRUE(logs().empty());
}

TEST_F(PipelineRegTest, UnknownChangeValueLogsErrorAndChangesNothing)
{
    set_cap(kBase);
    start();
    set_mask(VXLAN_EF_DBG_EVENT | VXLAN_EF_DBG_ERR);
    efrt::serv_notify(2, efmp_service_t{nullptr, 14, 8});
    EXPECT_EQ(vxlan_ef_bridge_mac_lookup, efrt::bridge_handler(8));
    EXPECT_EQ(logs(), std::vector<std::string>{
                          "VXLAN-EF-ERR: [vsd 3 vxlan_ef_frame_serv_chg_func] serv-chg-type error\n"});
}

TEST_F(PipelineRegTest, NotificationsOfOtherModulesAreIgnored)
{
    set_cap(kBase);
    start();
    set_mask(VXLAN_EF_DBG_EVENT | VXLAN_EF_DBG_ERR);
    efrt::serv_notify(EFMP_SERV_WITHDRAWN, efmp_service_t{nullptr, 15, 8});
    efrt::serv_notify(EFMP_SERV_WITHDRAWN, efmp_service_t{nullptr, 14, 9});
    EXPECT_EQ(vxlan_ef_bridge_mac_lookup, efrt::bridge_handler(8));
    EXPECT_TRUE(logs().empty());
}

}  // namespace
