// The MLAG peer-link follower: the app-db connection, the subscription to the
// MLAG system table, its scan and the notifications that move the peer-link.
#include <memory>

#include "module_fixture.h"
#include "p_intf.pb-c.h"
#include "vxlan_ef_frame.h"

namespace {

using vxtest::log_file_line;
using vxtest::ModuleTest;
using vxtest::read_file;
using vxtest::ScratchTmpdir;

constexpr uint32_t kDb = 4;
const std::string kTable = "p_intf.data_mlag_system";

class PeerlinkTest : public ModuleTest {
protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        tmp_ = std::make_unique<ScratchTmpdir>();
    }
    void TearDown() override
    {
        ModuleTest::TearDown();
        tmp_.reset();
    }

    // Log-file text written since the last call.
    std::string take_log_file()
    {
        std::string all = read_file(tmp_->log_path());
        std::string fresh = all.substr(seen_);
        seen_ = all.size();
        return fresh;
    }

    static std::string lines(std::initializer_list<const char *> messages)
    {
        std::string out;
        for (const char *m : messages)
            out += log_file_line(std::string(m) + "\n");
        return out;
    }

    // Starts, connects and delivers the subscription's answer and the scan.
    void start_connected()
    {
        start();
        set_mask(VXLAN_EF_DBG_EVENT | VXLAN_EF_DBG_ERR);
        ASSERT_EQ(efrt::mom_connect(), 1);
        efrt::mom_run();
        take_logs();
        take_log_file();
    }

    std::unique_ptr<ScratchTmpdir> tmp_;
    std::size_t seen_ = 0;
};

TEST_F(PeerlinkTest, FailingAppDbStartLeavesNoRegisteredChannelAndNoRecord)
{
    efrt::mom_fail_register(-1);
    setenv("VSDID", "3", 1);
    EXPECT_EQ(vxlan_ef_init(), -1);
    EXPECT_EQ(g_vxlan_vsd, nullptr);
    EXPECT_FALSE(efrt::msg_registered(EF_MSG_MODULE_VXLAN));
    EXPECT_TRUE(efrt::mom_registrations().empty());
    EXPECT_EQ(g_vxlan_ef_kmem_count[VXLAN_EF_MEM_VSD], 0u);
    EXPECT_EQ(take_log_file(), lines({"ef_mom_register app db failed.",
                                      "VXLAN-EF-ERR: vxlan_ef_mom_init failed."}));
}

TEST_F(PeerlinkTest, FailingAppDbStartWithPipelineUndoesThePipelineToo)
{
    set_cap("g_feature_spec/dcn/CAP_VXLAN_BASE");
    efrt::mom_fail_register(-1);
    setenv("VSDID", "3", 1);
    EXPECT_EQ(vxlan_ef_init(), -1);
    EXPECT_EQ(g_vxlan_vsd, nullptr);
    EXPECT_TRUE(efrt::lsm_handlers(LSM_IF_STACK_RAW).empty());
    EXPECT_FALSE(efrt::msg_registered(EF_MSG_MODULE_VXLAN));
}

TEST_F(PeerlinkTest, StartRegistersModule56OnDb4DisconnectedAndExitUnregisters)
{
    start();
    const auto regs = efrt::mom_registrations();
    ASSERT_EQ(regs.size(), 1u);
    EXPECT_EQ(regs[0].module, 56u);
    EXPECT_EQ(regs[0].db, 4u);
    EXPECT_EQ(regs[0].callbacks.connected, g_vxlan_ef_mom_reg.connected);
    EXPECT_EQ(regs[0].callbacks.disconnected, g_vxlan_ef_mom_reg.disconnected);
    EXPECT_EQ(regs[0].callbacks.reconnected, g_vxlan_ef_mom_reg.reconnected);
    EXPECT_NE(g_vxlan_ef_mom_reg.connected, nullptr);
    EXPECT_EQ(g_vxlan_ef_master.appdb_connected, 0);
    EXPECT_EQ(take_log_file(), lines({"vxlan_ef_mom_init success."}));
    EXPECT_EQ(vxlan_ef_mom_exit(), 0);
    EXPECT_TRUE(efrt::mom_registrations().empty());
    EXPECT_EQ(vxlan_ef_mom_exit(), -1);
}

TEST_F(PeerlinkTest, ConnectionSubscribesAndAcceptedSubscriptionScansThePeerlink)
{
    efrt::mom_set_mlag_peerlink(7);
    start();
    take_log_file();
    set_mask(VXLAN_EF_DBG_EVENT | VXLAN_EF_DBG_ERR);
    ASSERT_EQ(efrt::mom_connect(), 1);
    EXPECT_EQ(g_vxlan_ef_master.appdb_connected, 1);
    EXPECT_EQ(efrt::mom_subscriptions(kDb, kTable), 1);
    EXPECT_EQ(g_vxlan_vsd->peerlink_ifx, 0u);
    EXPECT_EQ(efrt::mom_run(), (std::vector<int>{0, 0}));
    EXPECT_EQ(efrt::mom_scans(), 1);
    EXPECT_EQ(g_vxlan_vsd->peerlink_ifx, 7u);
    EXPECT_EQ(take_logs(),
              (std::vector<std::string>{
                  "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_mom_peerlink_sub] vxlan-ef subscribe mlag table success.\n",
                  "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_mom_peerlink_callback] success to subscribe mlag table.\n",
                  "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_mom_peerlink_scan] scan peerlink success.\n",
                  "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_mom_peerlink_scan_cb] vxlan-ef peerlink msg scan over.\n",
                  "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_mom_peerlink_scan_cb] vxlan-ef peerlink msg scan success.\n"}));
    EXPECT_EQ(take_log_file(), lines({"vxlan-ef subscribe mlag table success.",
                                      "vxlan app-db connected.",
                                      "success to subscribe mlag table.",
                                      "vxlan-ef peerlink msg scan over."}));
}

TEST_F(PeerlinkTest, SetAndUpdateNotificationsMoveThePeerlink)
{
    start_connected();
    efrt::mom_set_mlag_peerlink(12);
    efrt::mom_set_mlag_peerlink(13);
    EXPECT_EQ(efrt::mom_run(), (std::vector<int>{0, 0}));
    EXPECT_EQ(g_vxlan_vsd->peerlink_ifx, 13u);
    EXPECT_EQ(take_logs(),
              (std::vector<std::string>{
                  "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_mom_peerlink_callback] vxlan-ef get peerlink msg success.\n",
                  "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_mom_peerlink_callback] vxlan-ef get peerlink msg success.\n"}));
}

TEST_F(PeerlinkTest, RemovalNotificationSetsPeerlinkToZero)
{
    start_connected();
    efrt::mom_set_mlag_peerlink(12);
    efrt::mom_run();
    ASSERT_EQ(g_vxlan_vsd->peerlink_ifx, 12u);
    efrt::mom_remove(kDb, kTable, "mlag");
    EXPECT_EQ(efrt::mom_run(), std::vector<int>{0});
    EXPECT_EQ(g_vxlan_vsd->peerlink_ifx, 0u);

    efrt::mom_set_mlag_peerlink(14);
    efrt::mom_run();
    ASSERT_EQ(g_vxlan_vsd->peerlink_ifx, 14u);
    take_logs();
    efrt::mom_remove_all(kDb, kTable);
    EXPECT_EQ(efrt::mom_run(), std::vector<int>{0});
    EXPECT_EQ(g_vxlan_vsd->peerlink_ifx, 0u);
    EXPECT_EQ(take_logs(), std::vector<std::string>{
                               "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_mom_peerlink_callback] vxlan-ef get peerlink msg success.\n"});
}

TEST_F(PeerlinkTest, SetNotificationWithPeerlinkZeroClearsTheIndex)
{
    start_connected();
    efrt::mom_set_mlag_peerlink(12);
    efrt::mom_run();
    ASSERT_EQ(g_vxlan_vsd->peerlink_ifx, 12u);
    efrt::mom_set_mlag_peerlink(0);
    EXPECT_EQ(efrt::mom_run(), std::vector<int>{0});
    EXPECT_EQ(g_vxlan_vsd->peerlink_ifx, 0u);
}

TEST_F(PeerlinkTest, AcceptedSubscriptionWhileDisconnectedStartsNoScan)
{
    start();
    set_mask(VXLAN_EF_DBG_EVENT | VXLAN_EF_DBG_ERR);
    ASSERT_EQ(efrt::mom_connect(), 1);
    ASSERT_EQ(efrt::mom_disconnect(3), 1);
    take_logs();
    take_log_file();
    EXPECT_EQ(efrt::mom_run(), std::vector<int>{0});
    EXPECT_EQ(efrt::mom_scans(), 0);
    EXPECT_EQ(take_logs(),
              (std::vector<std::string>{
                  "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_mom_peerlink_callback] success to subscribe mlag table.\n",
                  "VXLAN-EF-ERR: [vsd 3 vxlan_ef_mom_peerlink_callback] mom_app_db_con is false, stop scan peerlink.\n"}));
    EXPECT_EQ(take_log_file(), lines({"success to subscribe mlag table."}));
}

TEST_F(PeerlinkTest, LastScanNotificationWithoutObjectsLogsScanOverAndKeepsTheIndex)
{
    start();
    g_vxlan_vsd->peerlink_ifx = 9;
    set_mask(VXLAN_EF_DBG_EVENT | VXLAN_EF_DBG_ERR);
    ASSERT_EQ(efrt::mom_connect(), 1);
    take_logs();
    take_log_file();
    EXPECT_EQ(efrt::mom_run(), (std::vector<int>{0, 0}));
    EXPECT_EQ(g_vxlan_vsd->peerlink_ifx, 9u);
    EXPECT_EQ(take_logs(),
              (std::vector<std::string>{
                  "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_mom_peerlink_callback] success to subscribe mlag table.\n",
                  "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_mom_peerlink_scan] scan peerlink success.\n",
                  "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_mom_peerlink_scan_cb] vxlan-ef peerlink msg scan over.\n",
                  "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_mom_peerlink_scan_cb] vxlan-ef peerlink msg scan success.\n"}));
    EXPECT_EQ(take_log_file(),
              lines({"success to subscribe mlag table.", "vxlan-ef peerlink msg scan over."}));
}

TEST_F(PeerlinkTest, DisconnectionKeepsThePeerlinkAndReconnectionSubscribesAndScansAgain)
{
    efrt::mom_set_mlag_peerlink(7);
    start_connected();
    ASSERT_EQ(g_vxlan_vsd->peerlink_ifx, 7u);
    ASSERT_EQ(efrt::mom_disconnect(104), 1);
    EXPECT_EQ(g_vxlan_ef_master.appdb_connected, 0);
    EXPECT_EQ(g_vxlan_vsd->peerlink_ifx, 7u);
    EXPECT_EQ(take_log_file(), lines({"vxlan app-db is disconnected [104]."}));

    efrt::mom_set_mlag_peerlink(8);
    ASSERT_EQ(efrt::mom_reconnect(), 1);
    EXPECT_EQ(g_vxlan_ef_master.appdb_connected, 1);
    EXPECT_EQ(take_log_file(), lines({"vxlan-ef subscribe mlag table success.",
                                      "vxlan app-db reconnected."}));
    efrt::mom_run();
    EXPECT_EQ(efrt::mom_scans(), 2);
    EXPECT_EQ(g_vxlan_vsd->peerlink_ifx, 8u);
}

TEST_F(PeerlinkTest, RefusedSubscriptionReturnsMinusOne)
{
    start();
    set_mask(VXLAN_EF_DBG_EVENT | VXLAN_EF_DBG_ERR);
    efrt::mom_refuse_next_subscription();
    ASSERT_EQ(efrt::mom_connect(), 1);
    take_logs();
    take_log_file();
    EXPECT_EQ(efrt::mom_run(), std::vector<int>{-1});
    EXPECT_EQ(efrt::mom_scans(), 0);
    EXPECT_EQ(take_logs(), std::vector<std::string>{
                               "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_mom_peerlink_callback] fail to subscribe mlag table.\n"});
    EXPECT_EQ(take_log_file(), lines({"fail to subscribe mlag table."}));
}

TEST_F(PeerlinkTest, SubscriptionAndScanFailuresAreLogged)
{
    start();
    set_mask(VXLAN_EF_DBG_EVENT | VXLAN_EF_DBG_ERR);
    take_log_file();
    efrt::mom_fail_subscribe(-5);
    ASSERT_EQ(efrt::mom_connect(), 1);
    EXPECT_EQ(efrt::mom_subscriptions(kDb, kTable), 0);
    EXPECT_EQ(take_log_file(), lines({"vxlan-ef subscribe mlag table failed![ret:-5]",
                                      "vxlan app-db connected."}));
    EXPECT_EQ(take_logs(), std::vector<std::string>{
                               "VXLAN-EF-ERR: [vsd 3 vxlan_ef_mom_peerlink_sub] vxlan-ef subscribe mlag table failed![ret:-5]\n"});

    ASSERT_EQ(efrt::mom_reconnect(), 1);
    efrt::mom_fail_scan(-6);
    take_logs();
    EXPECT_EQ(efrt::mom_run(), std::vector<int>{0});
    EXPECT_EQ(take_logs(),
              (std::vector<std::string>{
                  "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_mom_peerlink_callback] success to subscribe mlag table.\n",
                  "VXLAN-EF-ERR: [vsd 3 vxlan_ef_mom_peerlink_scan] scan peerlink failed, ret = -6.\n"}));
}

TEST_F(PeerlinkTest, SubscriptionNotificationErrorsAndOddCommands)
{
    start_connected();
    efrt::mom_notify(kDb, kTable, TQ_MOM_CMD_SET, 0, false, false);
    efrt::mom_notify(kDb, kTable, 50, 0, false, false);
    efrt::mom_notify(kDb, kTable, TQ_MOM_CMD_SET, 11, false, false);
    EXPECT_EQ(efrt::mom_run(), (std::vector<int>{-1, 0, -1}));
    EXPECT_EQ(take_logs(),
              (std::vector<std::string>{
                  "VXLAN-EF-ERR: [vsd 3 vxlan_ef_mom_peerlink_callback] mlag peerlink msg(res) is null.\n",
                  "VXLAN-EF-ERR: [vsd 3 vxlan_ef_mom_peerlink_callback] mlag peerlink msg cmd: 50.\n",
                  "VXLAN-EF-ERR: [vsd 3 vxlan_ef_mom_peerlink_callback] Fail to subscribe mlag table for error(11).\n"}));
    EXPECT_EQ(take_log_file(), lines({"MOM peerlink callback failed due to msg->error is 11."}));
    EXPECT_EQ(vxlan_ef_mom_peerlink_callback(nullptr, nullptr), -1);
    EXPECT_EQ(take_logs(), std::vector<std::string>{
                               "VXLAN-EF-ERR: [vsd 3 vxlan_ef_mom_peerlink_callback] mlag peer-link msg is NULL.\n"});
    EXPECT_EQ(take_log_file(), lines({"MOM peerlink callback failed due to msg is NULL."}));
}

TEST_F(PeerlinkTest, ScanNotificationsThatAreNotTheLastNeedAnObject)
{
    start();
    set_mask(VXLAN_EF_DBG_EVENT | VXLAN_EF_DBG_ERR);
    g_vxlan_vsd->peerlink_ifx = 5;
    take_log_file();
    void *no_object[1] = {nullptr};
    tq_mom_notify_t no_res{TQ_MOM_CMD_SET, nullptr, 0, 0, 0};
    tq_mom_notify_t no_first{TQ_MOM_CMD_UPDATE, no_object, 0, 0, 0};
    tq_mom_notify_t other{9, nullptr, 0, 0, 0};
    tq_mom_notify_t failed{TQ_MOM_CMD_SET, nullptr, 0, 1, 2};
    EXPECT_EQ(vxlan_ef_mom_peerlink_scan_cb(nullptr, &no_res), -1);
    EXPECT_EQ(vxlan_ef_mom_peerlink_scan_cb(nullptr, &no_first), -1);
    EXPECT_EQ(vxlan_ef_mom_peerlink_scan_cb(nullptr, &other), 0);
    EXPECT_EQ(vxlan_ef_mom_peerlink_scan_cb(nullptr, &failed), -1);
    EXPECT_EQ(vxlan_ef_mom_peerlink_scan_cb(nullptr, nullptr), -1);
    EXPECT_EQ(g_vxlan_vsd->peerlink_ifx, 5u);
    EXPECT_EQ(take_logs(),
              (std::vector<std::string>{
                  "VXLAN-EF-ERR: [vsd 3 vxlan_ef_mom_peerlink_scan_cb] mlag peerlink msg(res) is NULL.\n",
                  "VXLAN-EF-ERR: [vsd 3 vxlan_ef_mom_peerlink_scan_cb] mlag peerlink msg(args) is NULL.\n",
                  "VXLAN-EF-ERR: [vsd 3 vxlan_ef_mom_peerlink_scan_cb] mlag peerlink msg cmd: 9.\n",
                  "VXLAN-EF-ERR: [vsd 3 vxlan_ef_mom_peerlink_scan_cb] Fail to scan mlag table for error(2).\n",
                  "VXLAN-EF-ERR: [vsd 3 vxlan_ef_mom_peerlink_scan_cb] mlag peer-link msg is NULL.\n"}));
    EXPECT_EQ(take_log_file(), lines({"MOM peerlink scan callback failed due to msg->error is 2.",
                                      "MOM peerlink scan callback failed due to msg is NULL."}));
}

TEST_F(PeerlinkTest, ScanObjectThatIsNotTheLastSetsPeerlinkWithoutScanOver)
{
    start();
    set_mask(VXLAN_EF_DBG_EVENT);
    PIntf__DataMlagSystem system;
    p_intf__data_mlag_system__init(&system);
    system.peerlink = 31;
    void *res[1] = {&system};
    tq_mom_notify_t msg{TQ_MOM_CMD_SET, res, 1, 0, 0};
    EXPECT_EQ(vxlan_ef_mom_peerlink_scan_cb(nullptr, &msg), 0);
    EXPECT_EQ(g_vxlan_vsd->peerlink_ifx, 31u);
    EXPECT_EQ(logs(), std::vector<std::string>{
                          "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_mom_peerlink_scan_cb] vxlan-ef peerlink msg scan success.\n"});
}

TEST_F(PeerlinkTest, CallbacksWithoutInstanceWriteToTheLogFile)
{
    tq_mom_notify_t msg{TQ_MOM_CMD_SET, nullptr, 0, 1, 0};
    EXPECT_EQ(vxlan_ef_mom_peerlink_callback(nullptr, &msg), -1);
    EXPECT_EQ(vxlan_ef_mom_peerlink_scan_cb(nullptr, &msg), -1);
    EXPECT_EQ(take_log_file(), lines({"MOM peerlink callback failed due to vsd 0 is NULL.",
                                      "MOM peerlink scan callback failed due to vsd 0 is NULL."}));
}

}  // namespace
