// The reference platform's event sources: interface events of the interface
// manager, the capability service and the application database.
#include <gtest/gtest.h>

#include <cstring>

#include "efrt.h"
#include "efrt_services.h"
#include "p_intf.pb-c.h"

namespace {

class PlatformEventsTest : public ::testing::Test {
protected:
    void SetUp() override { efrt::reset(); }
    void TearDown() override { efrt::reset(); }
};

struct Seen {
    uint32_t event;
    uint32_t ifindex;
    std::string name;
    bool had_block;
};
std::vector<Seen> g_seen;

int record_event(uint32_t event, void *msg)
{
    auto *m = static_cast<lsm_if_event_msg_t *>(msg);
    g_seen.push_back({event, m->ifindex, m->name, lsm_get_intfcb(m->ifindex) != nullptr});
    return 0;
}

std::vector<uint32_t> g_walked;
int record_walk(lsm_intfcb_t *intf)
{
    g_walked.push_back(intf->ifindex);
    return 0;
}

TEST_F(PlatformEventsTest, InterfaceEventsGoToTheHandlersOfTheInterfacesStack)
{
    g_seen.clear();
    ASSERT_EQ(lsm_reg_msg_handler_ex(LSM_IF_STACK_BRIDGE, record_event), 0);
    ASSERT_EQ(lsm_reg_msg_handler_ex(LSM_IF_STACK_BRIDGE, record_event), 0);  // kept once
    efrt::lsm_create(efrt::make_intf(5, 3, LSM_IF_STACK_BRIDGE, "eth5"));
    efrt::lsm_create(efrt::make_intf(6, 3, LSM_IF_STACK_TCPIP, "eth6"));
    efrt::lsm_destroy(5);
    ASSERT_EQ(g_seen.size(), 2u);
    EXPECT_EQ(g_seen[0].event, LSM_IF_EVENT_CREATE);
    EXPECT_EQ(g_seen[0].ifindex, 5u);
    EXPECT_EQ(g_seen[0].name, "eth5");
    EXPECT_TRUE(g_seen[0].had_block);
    EXPECT_EQ(g_seen[1].event, LSM_IF_EVENT_DESTROY);
    EXPECT_TRUE(g_seen[1].had_block);  // told before it goes
    EXPECT_EQ(lsm_get_intfcb(5), nullptr);

    EXPECT_EQ(lsm_unreg_msg_handler_ex(LSM_IF_STACK_BRIDGE, record_event), 0);
    EXPECT_EQ(lsm_unreg_msg_handler_ex(LSM_IF_STACK_BRIDGE, record_event), -1);
    efrt::lsm_fail_register(LSM_IF_STACK_TCPIP, -5);
    EXPECT_EQ(lsm_reg_msg_handler_ex(LSM_IF_STACK_TCPIP, record_event), -5);
    EXPECT_TRUE(efrt::lsm_handlers(LSM_IF_STACK_TCPIP).empty());
}

TEST_F(PlatformEventsTest, WalkVisitsEveryInterfaceInIndexOrder)
{
    g_walked.clear();
    efrt::lsm_add(efrt::make_intf(30, 3, 5, "c"));
    efrt::lsm_add(efrt::make_intf(10, 3, 5, "a"));
    efrt::lsm_add(efrt::make_intf(20, 3, 5, "b"));
    EXPECT_EQ(lsm_walk_through_ex(record_walk, 0, 1), 0);
    EXPECT_EQ(g_walked, (std::vector<uint32_t>{10, 20, 30}));
}

struct CapSeen {
    uint32_t type;
    int32_t error;
    std::string path;
    uint8_t value;
    void *ctx;
};
std::vector<CapSeen> g_caps;
int record_cap(void *ctx, libtq_cap_msg_t *msg)
{
    g_caps.push_back({msg->type, msg->error, msg->path, msg->value, ctx});
    return 3;
}

TEST_F(PlatformEventsTest, CapabilitiesAreReadSubscribedAndChangedAtRunTime)
{
    g_caps.clear();
    void *client = efmp_get_mom_client();
    ASSERT_NE(client, nullptr);
    bool value = true;
    EXPECT_EQ(libtq_cap_ce_get_g_cap_bool(client, "a/b", &value), 0);
    EXPECT_FALSE(value);
    EXPECT_EQ(libtq_cap_ce_get_g_cap_bool(nullptr, "a/b", &value), -1);
    efrt::cap_define("a/b", true);
    EXPECT_EQ(libtq_cap_ce_get_g_cap_bool(client, "a/b", &value), 0);
    EXPECT_TRUE(value);
    EXPECT_EQ(efrt::cap_reads("a/b"), 2);  // the call without a client is no read

    int ctx = 0;
    ASSERT_EQ(libtq_cap_ce_subscribe_g_cap_bool(client, "a/b", record_cap, &ctx), 0);
    EXPECT_EQ(efrt::cap_change("a/b", false), 1);
    EXPECT_EQ(efrt::cap_notify("a/b", LIBTQ_CAP_MSG_REREAD, 0), 1);
    EXPECT_EQ(efrt::cap_notify("a/b", LIBTQ_CAP_MSG_VALUE_CHANGE, 5), 1);
    EXPECT_EQ(efrt::cap_last_results(), std::vector<int>{3});
    ASSERT_EQ(g_caps.size(), 3u);
    EXPECT_EQ(g_caps[0].type, 4u);
    EXPECT_EQ(g_caps[0].path, "a/b");
    EXPECT_EQ(g_caps[0].value, 0);
    EXPECT_EQ(g_caps[0].ctx, &ctx);
    EXPECT_EQ(g_caps[1].type, 29u);
    EXPECT_EQ(g_caps[2].error, 5);

    libtq_cap_msg_t msg{};
    msg.type = 4;
    std::strcpy(msg.path, "x/yz");
    msg.value = 1;
    char path[8];
    uint32_t length = 0;
    EXPECT_EQ(libtq_cap_ce_get_g_cap_bool_by_pmsg(&msg, sizeof path, path, &value, &length), 0);
    EXPECT_STREQ(path, "x/yz");
    EXPECT_EQ(length, 4u);
    EXPECT_TRUE(value);
}

TEST_F(PlatformEventsTest, CapabilityErrorsCanBeInjected)
{
    void *client = efmp_get_mom_client();
    bool value = false;
    efrt::cap_fail_get("p", -4);
    EXPECT_EQ(libtq_cap_ce_get_g_cap_bool(client, "p", &value), -4);
    EXPECT_EQ(libtq_cap_ce_get_g_cap_bool(client, "p", &value), 0);
    efrt::cap_fail_subscribe("p", -6);
    EXPECT_EQ(libtq_cap_ce_subscribe_g_cap_bool(client, "p", record_cap, nullptr), -6);
    EXPECT_EQ(efrt::cap_subscribers("p"), 0);
    efrt::cap_fail_get_by_pmsg(-2);
    libtq_cap_msg_t msg{};
    char path[4];
    uint32_t length;
    EXPECT_EQ(libtq_cap_ce_get_g_cap_bool_by_pmsg(&msg, 4, path, &value, &length), -2);
}

struct MomSeen {
    uint32_t cmd;
    bool end;
    uint32_t error;
    bool has_res;
    uint32_t peerlink;
};
std::vector<MomSeen> g_mom;
int record_mom(void *, tq_mom_notify_t *msg)
{
    MomSeen s{msg->cmd, msg->end != 0, msg->error, msg->res != nullptr, 0};
    if (msg->res != nullptr && msg->res[0] != nullptr)
        s.peerlink = static_cast<PIntf__DataMlagSystem *>(msg->res[0])->peerlink;
    g_mom.push_back(s);
    return static_cast<int>(msg->cmd);
}

int g_connected = 0;
int connected() { return ++g_connected; }

TEST_F(PlatformEventsTest, AppDbStoresPackedMessagesAndNotifiesUnpackedOnes)
{
    g_mom.clear();
    void *client = efmp_get_mom_client();
    tq_mom_req_t req{};
    req.descriptor = &p_intf__data_mlag_system__descriptor;
    ASSERT_EQ(tq_mom_subscribe(client, 4, &req, 0, record_mom, nullptr), 0);
    EXPECT_EQ(efrt::mom_subscriptions(4, "p_intf.data_mlag_system"), 1);
    efrt::mom_set_mlag_peerlink(21);
    efrt::mom_set_mlag_peerlink(22);
    efrt::mom_remove(4, "p_intf.data_mlag_system", "mlag");
    EXPECT_EQ(efrt::mom_pending(), 4u);
    EXPECT_EQ(efrt::mom_run(), (std::vector<int>{29, 4, 6, 3}));
    ASSERT_EQ(g_mom.size(), 4u);
    EXPECT_EQ(g_mom[1].peerlink, 21u);
    EXPECT_EQ(g_mom[2].peerlink, 22u);
    EXPECT_EQ(g_mom[3].peerlink, 22u);

    g_mom.clear();
    ASSERT_EQ(tq_mom_scan(client, 4, &req, 0, record_mom, nullptr), 0);
    efrt::mom_run();
    ASSERT_EQ(g_mom.size(), 1u);
    EXPECT_TRUE(g_mom[0].end);
    EXPECT_FALSE(g_mom[0].has_res);

    g_mom.clear();
    PIntf__DataMlagSystem other;
    p_intf__data_mlag_system__init(&other);
    other.peerlink = 40;
    efrt::mom_set(4, "a", other.base);
    efrt::mom_set(4, "b", other.base);
    efrt::mom_run();
    g_mom.clear();
    ASSERT_EQ(tq_mom_scan(client, 4, &req, 0, record_mom, nullptr), 0);
    efrt::mom_run();
    ASSERT_EQ(g_mom.size(), 2u);
    EXPECT_FALSE(g_mom[0].end);
    EXPECT_TRUE(g_mom[1].end);
    EXPECT_EQ(g_mom[1].peerlink, 40u);
    EXPECT_EQ(efrt::mom_scans(), 2);
}

TEST_F(PlatformEventsTest, AppDbRegistrationsAndConnectionCallbacks)
{
    g_connected = 0;
    ef_mom_reg_t cbs{connected, nullptr, connected};
    ASSERT_EQ(ef_mom_register(56, &cbs, 4), 0);
    EXPECT_EQ(ef_mom_register(56, &cbs, 4), -1);
    EXPECT_EQ(efrt::mom_connect(), 1);
    EXPECT_EQ(efrt::mom_disconnect(1), 0);
    EXPECT_EQ(efrt::mom_reconnect(), 1);
    EXPECT_EQ(g_connected, 2);
    EXPECT_EQ(ef_mom_unregister(56, 4), 0);
    EXPECT_EQ(ef_mom_unregister(56, 4), -1);
    efrt::mom_fail_register(-9);
    EXPECT_EQ(ef_mom_register(56, &cbs, 4), -9);
    efrt::mom_set_client_available(false);
    EXPECT_EQ(efmp_get_mom_client(), nullptr);
}

TEST_F(PlatformEventsTest, AppDbSubscriptionFailuresRefusalsAndRawNotifications)
{
    g_mom.clear();
    void *client = efmp_get_mom_client();
    tq_mom_req_t req{};
    req.descriptor = &p_intf__data_mlag_system__descriptor;
    efrt::mom_fail_subscribe(-3);
    EXPECT_EQ(tq_mom_subscribe(client, 4, &req, 0, record_mom, nullptr), -3);
    efrt::mom_fail_scan(-4);
    EXPECT_EQ(tq_mom_scan(client, 4, &req, 0, record_mom, nullptr), -4);
    tq_mom_req_t empty{};
    EXPECT_EQ(tq_mom_subscribe(client, 4, &empty, 0, record_mom, nullptr), -1);
    efrt::mom_refuse_next_subscription();
    EXPECT_EQ(tq_mom_subscribe(client, 4, &req, 0, record_mom, nullptr), 0);
    EXPECT_EQ(efrt::mom_subscriptions(4, "p_intf.data_mlag_system"), 0);
    EXPECT_EQ(efrt::mom_run(), std::vector<int>{28});
    ASSERT_EQ(tq_mom_subscribe(client, 4, &req, 0, record_mom, nullptr), 0);
    efrt::mom_notify(4, "p_intf.data_mlag_system", 50, 7, true, true);
    EXPECT_EQ(efrt::mom_run(), (std::vector<int>{29, 50}));
    EXPECT_EQ(g_mom.back().error, 7u);
    EXPECT_TRUE(g_mom.back().end);
    EXPECT_TRUE(g_mom.back().has_res);
    EXPECT_EQ(g_mom.back().peerlink, 0u);
}

}  // namespace
