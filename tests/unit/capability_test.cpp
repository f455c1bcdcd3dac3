// The capability follower: the first reads at start, the subscriptions, and
// the changes the capability service sends at run time.
#include "frame/wiring/wiring_private.h"
#include "module_fixture.h"
#include "vxlan_ef_frame.h"

namespace {

using vxtest::log_file_line;
using vxtest::ModuleTest;
using vxtest::read_file;
using vxtest::ScratchTmpdir;

constexpr const char *kOrNoIcmp = "g_feature_spec/dcn/CAP_VXLAN_OR_NO_ICMP";
constexpr const char *kBase = "g_feature_spec/dcn/CAP_VXLAN_BASE";
constexpr const char *kSoft = "g_feature_spec/product_platform_spec/CAP_FWDMODE_SOFT";
constexpr const char *kOutside = "g_feature_spec/dcn/CAP_VXLAN_OUTSIDECENTER";
constexpr const char *kL2vni = "g_feature_spec/dcn/CAP_VXLAN_L2VNIMAPPING";
constexpr const char *kAll[] = {kOrNoIcmp, kBase, kSoft, kOutside, kL2vni};

const std::vector<lsm_msg_handler_fn> kSubscribed{vxlan_ef_lsm_event_handle};
const std::vector<lsm_msg_handler_fn> kNone{};

class CapabilityTest : public ModuleTest {
protected:
    static void expect_caps(uint8_t base, uint8_t soft, uint8_t outside, uint8_t l2vni,
                            uint8_t no_icmp)
    {
        EXPECT_EQ(g_vxlan_ef_master.vxlan_base, base);
        EXPECT_EQ(g_vxlan_ef_master.fwdmode_soft, soft);
        EXPECT_EQ(g_vxlan_ef_master.outside_center, outside);
        EXPECT_EQ(g_vxlan_ef_master.l2vni_mapping, l2vni);
        EXPECT_EQ(g_vxlan_ef_master.or_no_icmp, no_icmp);
    }

    // The registry as a registered packet plane leaves it (or an unregistered
    // one, which keeps only its bridge and TCP/IP stack subscriptions).
    static void expect_registry(bool registered)
    {
        EXPECT_EQ(efrt::lsm_handlers(LSM_IF_STACK_RAW), registered ? kSubscribed : kNone);
        EXPECT_EQ(efrt::lsm_handlers(LSM_IF_STACK_BRIDGE), kSubscribed);
        EXPECT_EQ(efrt::lsm_handlers(LSM_IF_STACK_TCPIP), kSubscribed);
        EXPECT_EQ(efrt::serv_change_handlers(),
                  std::vector<efmp_serv_chg_fn>{vxlan_ef_frame_serv_chg_func});
        std::vector<std::pair<uint32_t, void *>> expected, actual;
        uint32_t mask = 0;
        if (registered) {
            for (const auto &row : vxlan_ef::kServices) {
                if (row.handler != nullptr) {
                    expected.emplace_back(row.number, reinterpret_cast<void *>(row.handler));
                    mask |= row.mask;
                }
            }
        }
        for (const auto &s : efrt::services_of(EFMP_MODULE_VXLAN))
            actual.emplace_back(s.service, s.handler);
        EXPECT_EQ(actual, expected);
        EXPECT_EQ(g_vxlan_vsd->flags & 0xB3E0u, mask);
    }
};

TEST_F(CapabilityTest, NoAppDbClientAtStartLeavesEveryCapabilityOffAndSubscribesNothing)
{
    ScratchTmpdir tmp;
    for (const char *path : kAll)
        set_cap(path);
    efrt::mom_set_client_available(false);
    setenv("VSDID", "3", 1);
    EXPECT_EQ(vxlan_ef_init(), -1);
    expect_caps(0, 0, 0, 0, 0);
    for (const char *path : kAll) {
        EXPECT_EQ(efrt::cap_subscribers(path), 0) << path;
        EXPECT_EQ(efrt::cap_reads(path), 0) << path;
    }
    EXPECT_EQ(g_vxlan_ef_master.global_mom, nullptr);
    EXPECT_EQ(read_file(tmp.log_path()),
              log_file_line("Failed to get global_mom in vxlan_ef_cap_init.\n") +
                  log_file_line("Failed to get global_mom in vxlan_ef_mom_init.\n") +
                  log_file_line("VXLAN-EF-ERR: vxlan_ef_mom_init failed.\n"));
    EXPECT_TRUE(efrt::lsm_handlers(LSM_IF_STACK_RAW).empty());
}

TEST_F(CapabilityTest, StartReadsFiveCapabilitiesOnceAndSubscribesFour)
{
    for (const char *path : kAll)
        set_cap(path);
    start();
    expect_caps(1, 1, 1, 1, 1);
    EXPECT_EQ(g_vxlan_ef_master.global_mom, efrt::mom_client());
    for (const char *path : kAll)
        EXPECT_EQ(efrt::cap_reads(path), 1) << path;
    EXPECT_EQ(efrt::cap_subscribers(kOrNoIcmp), 0);
    for (const char *path : {kBase, kSoft, kOutside, kL2vni})
        EXPECT_EQ(efrt::cap_subscribers(path), 1) << path;
    EXPECT_EQ(g_vxlan_vsd->flags & VXLAN_EF_F_CAP_INIT, 0u);
}

TEST_F(CapabilityTest, UnsetCapabilitiesReadAsOff)
{
    start();
    expect_caps(0, 0, 0, 0, 0);
    EXPECT_EQ(efrt::cap_subscribers(kBase), 1);
}

TEST_F(CapabilityTest, BaseOnAtStartIsRegisteredByStartupAloneNotBySetter)
{
    // A refusal armed for one registration: had the setter registered the
    // pipeline during the first reads, it would have taken the refusal and
    // start-up's own registration would have succeeded.
    ScratchTmpdir tmp;
    set_cap(kBase);
    efrt::serv_fail_change_handler(-1);
    setenv("VSDID", "3", 1);
    EXPECT_EQ(vxlan_ef_init(), -1);
    EXPECT_EQ(read_file(tmp.log_path()),
              log_file_line("VXLAN-EF-ERR: reg serv change handler error.\n") +
                  log_file_line("VXLAN-EF-ERR: vxlan_ef_frame_init failed.\n"));
}

TEST_F(CapabilityTest, BaseSwitchedOffAtRunTimeDeregistersPipelineAndRepeatedOffDoesNothing)
{
    set_cap(kBase);
    start();
    expect_registry(true);
    set_mask(VXLAN_EF_DBG_EVENT | VXLAN_EF_DBG_ERR);
    ASSERT_EQ(efrt::cap_change(kBase, false), 1);
    EXPECT_EQ(efrt::cap_last_results(), std::vector<int>{0});
    EXPECT_EQ(g_vxlan_ef_master.vxlan_base, 0);
    expect_registry(false);
    EXPECT_EQ(take_logs(),
              (std::vector<std::string>{
                  "VXLAN-EF-EVENT: [vsd 0 vxlan_ef_cap_vxlan_base_sub_cb] libtq_cap_ce_get_g_cap_bool_by_pmsg: url:g_feature_spec/dcn/CAP_VXLAN_BASE, value:0, length:33, ret:0",
                  "VXLAN-EF-EVENT: [vsd 0 vxlan_ef_cap_vxlan_base_set] vxlan_ef_cap_vxlan_base set enable : false\n"}));

    // A second off must not run the stop again: it would drop this subscription.
    ASSERT_EQ(lsm_reg_msg_handler_ex(LSM_IF_STACK_RAW, vxlan_ef_lsm_event_handle), 0);
    ASSERT_EQ(efrt::cap_change(kBase, false), 1);
    EXPECT_EQ(efrt::lsm_handlers(LSM_IF_STACK_RAW), kSubscribed);
    EXPECT_EQ(g_vxlan_ef_master.vxlan_base, 0);
    EXPECT_EQ(take_logs(),
              (std::vector<std::string>{
                  "VXLAN-EF-EVENT: [vsd 0 vxlan_ef_cap_vxlan_base_sub_cb] libtq_cap_ce_get_g_cap_bool_by_pmsg: url:g_feature_spec/dcn/CAP_VXLAN_BASE, value:0, length:33, ret:0",
                  "VXLAN-EF-EVENT: [vsd 0 vxlan_ef_cap_vxlan_base_set] vxlan_ef_cap_vxlan_base set enable : false\n"}));
}

TEST_F(CapabilityTest, BaseSwitchedOffAndOnAtRunTimeDeregistersAndReregistersEverything)
{
    set_cap(kBase);
    set_cap(kSoft);
    start();
    expect_registry(true);
    for (int round = 0; round < 2; ++round) {
        SCOPED_TRACE(round);
        ASSERT_EQ(efrt::cap_change(kBase, false), 1);
        EXPECT_EQ(g_vxlan_ef_master.vxlan_base, 0);
        expect_registry(false);
        // The stop leaves the bridge pointers as they were.
        EXPECT_EQ(vxlan_ef_bridge_mac_lookup, efrt::bridge_handler(8));
        EXPECT_EQ(vxlan_ef_add_mac_entry, efrt::bridge_handler(4));

        vxlan_ef_bridge_mac_lookup = nullptr;
        vxlan_ef_add_mac_entry = nullptr;
        ASSERT_EQ(efrt::cap_change(kBase, true), 1);
        EXPECT_EQ(g_vxlan_ef_master.vxlan_base, 1);
        expect_registry(true);
        EXPECT_EQ(vxlan_ef_bridge_mac_lookup, efrt::bridge_handler(8));
        EXPECT_EQ(vxlan_ef_bridge_intf_pvid_get, efrt::bridge_handler(22));
        EXPECT_EQ(vxlan_ef_l2protocol_pkt_check, efrt::bridge_handler(25));
        EXPECT_EQ(vxlan_ef_add_mac_entry, efrt::bridge_handler(4));
        EXPECT_EQ(vxlan_ef_intf_vlan_check, efrt::bridge_handler(20));
    }
}

TEST_F(CapabilityTest, ChangeMessageWithErrorCodeFiveReturnsMinusOneAndChangesNothing)
{
    set_cap(kBase);
    start();
    set_mask(VXLAN_EF_DBG_EVENT | VXLAN_EF_DBG_ERR);
    efrt::cap_define(kL2vni, true);
    ASSERT_EQ(efrt::cap_notify(kL2vni, LIBTQ_CAP_MSG_VALUE_CHANGE, 5), 1);
    EXPECT_EQ(efrt::cap_last_results(), std::vector<int>{-1});
    efrt::cap_define(kBase, false);
    ASSERT_EQ(efrt::cap_notify(kBase, LIBTQ_CAP_MSG_REREAD, 5), 1);
    EXPECT_EQ(efrt::cap_last_results(), std::vector<int>{-1});
    expect_caps(1, 0, 0, 0, 0);
    expect_registry(true);
    EXPECT_EQ(logs(),
              (std::vector<std::string>{
                  "VXLAN-EF-ERR: [vsd 0 vxlan_ef_cap_l2vni_mapping_sub_cb] Failed to subscribe g_feature_spec/dcn/CAP_VXLAN_L2VNIMAPPING for error(5).\n",
                  "VXLAN-EF-ERR: [vsd 0 vxlan_ef_cap_vxlan_base_sub_cb] Failed to subscribe g_feature_spec/dcn/CAP_VXLAN_BASE for error(5).\n"}));
}

TEST_F(CapabilityTest, OrNoIcmpIsReadOnceAndLaterChangesAreNotSeen)
{
    set_cap(kOrNoIcmp);
    start();
    EXPECT_EQ(g_vxlan_ef_master.or_no_icmp, 1);
    EXPECT_EQ(efrt::cap_change(kOrNoIcmp, false), 0);
    EXPECT_EQ(g_vxlan_ef_master.or_no_icmp, 1);
    EXPECT_EQ(efrt::cap_reads(kOrNoIcmp), 1);
}

TEST_F(CapabilityTest, StoredCapabilitiesFollowValueChanges)
{
    start();
    set_mask(VXLAN_EF_DBG_EVENT);
    ASSERT_EQ(efrt::cap_change(kOutside, true), 1);
    ASSERT_EQ(efrt::cap_change(kL2vni, true), 1);
    expect_caps(0, 0, 1, 1, 0);
    ASSERT_EQ(efrt::cap_change(kL2vni, false), 1);
    expect_caps(0, 0, 1, 0, 0);
    EXPECT_EQ(logs(),
              (std::vector<std::string>{
                  "VXLAN-EF-EVENT: [vsd 0 vxlan_ef_cap_outside_center_sub_cb] libtq_cap_ce_get_g_cap_bool_by_pmsg: url:g_feature_spec/dcn/CAP_VXLAN_OUTSIDECENTER, value:1, length:42, ret:0",
                  "VXLAN-EF-EVENT: [vsd 0 vxlan_ef_cap_l2vni_mapping_sub_cb] libtq_cap_ce_get_g_cap_bool_by_pmsg: url:g_feature_spec/dcn/CAP_VXLAN_L2VNIMAPPING, value:1, length:41, ret:0",
                  "VXLAN-EF-EVENT: [vsd 0 vxlan_ef_cap_l2vni_mapping_sub_cb] libtq_cap_ce_get_g_cap_bool_by_pmsg: url:g_feature_spec/dcn/CAP_VXLAN_L2VNIMAPPING, value:0, length:41, ret:0"}));
}

TEST_F(CapabilityTest, RereadMessageReadsTheValueAfresh)
{
    start();
    set_mask(VXLAN_EF_DBG_EVENT);
    efrt::cap_define(kOutside, true);
    ASSERT_EQ(efrt::cap_notify(kOutside, LIBTQ_CAP_MSG_REREAD, 0), 1);
    EXPECT_EQ(efrt::cap_last_results(), std::vector<int>{0});
    EXPECT_EQ(g_vxlan_ef_master.outside_center, 1);
    EXPECT_EQ(logs(), std::vector<std::string>{
                          "VXLAN-EF-EVENT: [vsd 0 vxlan_ef_cap_outside_center_sub_cb] libtq_cap_ce_get_g_cap_bool: url:g_feature_spec/dcn/CAP_VXLAN_OUTSIDECENTER, value:1, ret:0"});
}

TEST_F(CapabilityTest, OtherMessageTypesAreIgnored)
{
    start();
    set_mask(VXLAN_EF_DBG_EVENT | VXLAN_EF_DBG_ERR);
    efrt::cap_define(kL2vni, true);
    ASSERT_EQ(efrt::cap_notify(kL2vni, 7, 0), 1);
    EXPECT_EQ(efrt::cap_last_results(), std::vector<int>{0});
    EXPECT_EQ(g_vxlan_ef_master.l2vni_mapping, 0);
    EXPECT_TRUE(logs().empty());
}

TEST_F(CapabilityTest, FailedReadOfAChangeLeavesTheValue)
{
    start();
    set_mask(VXLAN_EF_DBG_EVENT);
    efrt::cap_fail_get_by_pmsg(-3);
    ASSERT_EQ(efrt::cap_change(kL2vni, true), 1);
    EXPECT_EQ(efrt::cap_last_results(), std::vector<int>{0});
    EXPECT_EQ(g_vxlan_ef_master.l2vni_mapping, 0);
    efrt::cap_fail_get(kSoft, -6);
    efrt::cap_define(kSoft, true);
    ASSERT_EQ(efrt::cap_notify(kSoft, LIBTQ_CAP_MSG_REREAD, 0), 1);
    EXPECT_EQ(g_vxlan_ef_master.fwdmode_soft, 0);
    EXPECT_EQ(logs(),
              (std::vector<std::string>{
                  "VXLAN-EF-EVENT: [vsd 0 vxlan_ef_cap_l2vni_mapping_sub_cb] libtq_cap_ce_get_g_cap_bool_by_pmsg: url:, value:0, length:0, ret:-3",
                  "VXLAN-EF-EVENT: [vsd 0 vxlan_ef_cap_xmac_learn_sub_cb] libtq_cap_ce_get_g_cap_bool: url:g_feature_spec/product_platform_spec/CAP_FWDMODE_SOFT, value:0, ret:-6"}));
}

TEST_F(CapabilityTest, NullChangeMessageLogsTheCallbackAndReturnsMinusOne)
{
    start();
    set_mask(VXLAN_EF_DBG_ERR);
    for (const char *path : {kBase, kSoft, kOutside, kL2vni})
        EXPECT_EQ(efrt::cap_notify_null(path), std::vector<int>{-1}) << path;
    EXPECT_EQ(logs(),
              (std::vector<std::string>{
                  "VXLAN-EF-ERR: [vsd 0 vxlan_ef_cap_vxlan_base_sub_cb] Failed to vxlan_ef_cap_vxlan_base_sub_cb for pmsg=NULL.\n",
                  "VXLAN-EF-ERR: [vsd 0 vxlan_ef_cap_xmac_learn_sub_cb] Failed to vxlan_ef_cap_xmac_learn_sub_cb for pmsg=NULL.\n",
                  "VXLAN-EF-ERR: [vsd 0 vxlan_ef_cap_outside_center_sub_cb] Failed to vxlan_ef_cap_outside_center_sub_cb for pmsg=NULL.\n",
                  "VXLAN-EF-ERR: [vsd 0 vxlan_ef_cap_l2vni_mapping_sub_cb] Failed to vxlan_ef_cap_l2vni_mapping_sub_cb for pmsg=NULL.\n"}));
}

TEST_F(CapabilityTest, FailedReadAndSubscriptionAreLoggedAndLeaveTheValue)
{
    start();
    set_mask(VXLAN_EF_DBG_ERR);
    efrt::cap_define(kL2vni, true);
    efrt::cap_fail_get(kL2vni, -2);
    vxlan_ef_cap_g_bool_get(kL2vni, vxlan_ef_cap_l2vni_mapping_set);
    EXPECT_EQ(g_vxlan_ef_master.l2vni_mapping, 0);
    efrt::cap_fail_subscribe(kL2vni, -9);
    vxlan_ef_cap_g_bool_subscribe(kL2vni, vxlan_ef_cap_l2vni_mapping_sub_cb);
    EXPECT_EQ(efrt::cap_subscribers(kL2vni), 1);
    EXPECT_EQ(logs(),
              (std::vector<std::string>{
                  "VXLAN-EF-ERR: [vsd 0 vxlan_ef_cap_g_bool_get] Failed to get g_feature_spec/dcn/CAP_VXLAN_L2VNIMAPPING![ret: -2]\n",
                  "VXLAN-EF-ERR: [vsd 0 vxlan_ef_cap_g_bool_subscribe] Failed to libtq_cap_ce_subscribe_g_cap_bool g_feature_spec/dcn/CAP_VXLAN_L2VNIMAPPING, ret=-9.\n"}));
}

TEST_F(CapabilityTest, SoftModeSetterFetchesAndDropsTheTwoBridgeServices)
{
    start();
    set_mask(VXLAN_EF_DBG_EVENT);
    vxlan_ef_cap_xmac_learn_get(true);
    EXPECT_EQ(g_vxlan_ef_master.fwdmode_soft, 1);
    EXPECT_EQ(vxlan_ef_add_mac_entry, efrt::bridge_handler(4));
    EXPECT_EQ(vxlan_ef_intf_vlan_check, efrt::bridge_handler(20));
    vxlan_ef_cap_xmac_learn_get(true);
    vxlan_ef_cap_xmac_learn_get(false);
    EXPECT_EQ(g_vxlan_ef_master.fwdmode_soft, 0);
    EXPECT_EQ(vxlan_ef_add_mac_entry, nullptr);
    EXPECT_EQ(vxlan_ef_intf_vlan_check, nullptr);
    EXPECT_EQ(logs(),
              (std::vector<std::string>{
                  "VXLAN-EF-EVENT: [vsd 0 vxlan_ef_cap_xmac_learn_get] vxlan_ef_cap_xmac_learn set enable : true\n",
                  "VXLAN-EF-EVENT: [vsd 0 vxlan_ef_cap_xmac_learn_get] vxlan_ef_cap_xmac_learn set enable : true\n",
                  "VXLAN-EF-EVENT: [vsd 0 vxlan_ef_cap_xmac_learn_get] vxlan_ef_cap_xmac_learn set enable : false\n"}));
}

TEST_F(CapabilityTest, SoftModeSetterDuringFirstReadsOnlyRecordsTheValue)
{
    start();
    g_vxlan_vsd->flags |= VXLAN_EF_F_CAP_INIT;
    vxlan_ef_cap_xmac_learn_get(true);
    EXPECT_EQ(g_vxlan_ef_master.fwdmode_soft, 1);
    EXPECT_EQ(vxlan_ef_add_mac_entry, nullptr);
    vxlan_ef_cap_vxlan_base_set(true);
    EXPECT_EQ(g_vxlan_ef_master.vxlan_base, 1);
    EXPECT_TRUE(efrt::lsm_handlers(LSM_IF_STACK_RAW).empty());
    g_vxlan_vsd->flags &= ~VXLAN_EF_F_CAP_INIT;
}

}  // namespace
