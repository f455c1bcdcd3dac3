// The reference platform's bridge module: its MAC table, port VLANs, VLAN
// membership and layer-2 protocol test, reached through its published
// services.
#include <gtest/gtest.h>

#include <cstring>

#include "efrt.h"
#include "efrt_services.h"

namespace {

class PlatformBridgeTest : public ::testing::Test {
protected:
    void SetUp() override { efrt::reset(); }
    void TearDown() override { efrt::reset(); }

    template <typename Fn>
    static Fn service(uint32_t number)
    {
        return reinterpret_cast<Fn>(efmp_get_service(EFMP_MODULE_BRIDGE, number));
    }
};

constexpr uint8_t kMac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};

TEST_F(PlatformBridgeTest, LearnedMacIsFoundInItsDomainOnly)
{
    auto add = service<ef_bridge_add_mac_fn>(EF_BRIDGE_SERV_ADD_MAC);
    auto lookup = service<ef_bridge_mac_lookup_fn>(EF_BRIDGE_SERV_MAC_LOOKUP);
    ASSERT_NE(add, nullptr);
    ASSERT_NE(lookup, nullptr);
    ef_bridge_mac_req_t req{};
    std::memcpy(req.mac, kMac, 6);
    req.key = EF_BRIDGE_KEY_VNI | 5000;
    req.vid = 10;
    req.ifindex = 45001;
    req.kind[0] = 47;
    req.kind[1] = 2;
    EXPECT_EQ(add(&req), 0);

    ef_bridge_mac_out_t out{};
    EXPECT_EQ(lookup(3, EF_BRIDGE_KEY_VNI | 5000, kMac, &out), EF_BRIDGE_MAC_FOUND);
    EXPECT_EQ(out.ifindex, 45001u);
    EXPECT_EQ(out.vid, 10);
    EXPECT_EQ(lookup(3, 5000, kMac, &out), EF_BRIDGE_MAC_NOT_FOUND);
    EXPECT_EQ(lookup(3, EF_BRIDGE_KEY_VNI | 5001, kMac, &out), EF_BRIDGE_MAC_NOT_FOUND);

    req.ifindex = 7;  // the MAC moves
    EXPECT_EQ(add(&req), 0);
    EXPECT_EQ(lookup(3, EF_BRIDGE_KEY_VNI | 5000, kMac, &out), EF_BRIDGE_MAC_FOUND);
    EXPECT_EQ(out.ifindex, 7u);
    const auto macs = efrt::bridge_macs();
    ASSERT_EQ(macs.size(), 1u);
    EXPECT_EQ(std::memcmp(macs[0].mac, kMac, 6), 0);
}

TEST_F(PlatformBridgeTest, FilteringMacAnswersFilterAndRefusesLearning)
{
    auto add = service<ef_bridge_add_mac_fn>(EF_BRIDGE_SERV_ADD_MAC);
    auto lookup = service<ef_bridge_mac_lookup_fn>(EF_BRIDGE_SERV_MAC_LOOKUP);
    efrt::bridge_add_filter(20, kMac);
    ef_bridge_mac_req_t req{};
    std::memcpy(req.mac, kMac, 6);
    req.key = 20;
    EXPECT_EQ(add(&req), -1);
    ef_bridge_mac_out_t out{};
    EXPECT_EQ(lookup(3, 20, kMac, &out), EF_BRIDGE_MAC_FILTER);
}

TEST_F(PlatformBridgeTest, PortVlanAndMembershipFollowTheirConfiguration)
{
    auto pvid = service<ef_bridge_intf_pvid_get_fn>(EF_BRIDGE_SERV_INTF_PVID_GET);
    auto member = service<ef_bridge_intf_vlan_check_fn>(EF_BRIDGE_SERV_INTF_VLAN_CHECK);
    uint16_t vid = 0;
    EXPECT_EQ(pvid(3, &vid), -1);
    efrt::bridge_set_pvid(3, 100);
    EXPECT_EQ(pvid(3, &vid), 0);
    EXPECT_EQ(vid, 100);
    EXPECT_EQ(member(3, 200), 0);
    efrt::bridge_add_vlan(3, 200);
    EXPECT_EQ(member(3, 200), 1);
    EXPECT_EQ(member(4, 200), 0);
    efrt::bridge_remove_vlan(3, 200);
    EXPECT_EQ(member(3, 200), 0);
}

TEST_F(PlatformBridgeTest, L2ProtocolTestRecognisesReservedGroupAddresses)
{
    auto check = service<ef_bridge_l2protocol_check_fn>(EF_BRIDGE_SERV_L2PROTOCOL_CHECK);
    efmp_buff_t *b = efmp_buff_alloc_sw_user(0, 60);
    const uint8_t stp[6] = {0x01, 0x80, 0xC2, 0x00, 0x00, 0x00};
    const uint8_t lacp[6] = {0x01, 0x80, 0xC2, 0x00, 0x00, 0x02};
    const uint8_t cdp[6] = {0x01, 0x00, 0x0C, 0xCC, 0xCC, 0xCC};
    const uint8_t other[6] = {0x01, 0x80, 0xC2, 0x00, 0x00, 0x10};
    for (const uint8_t *dst : {stp, lacp, cdp}) {
        std::memcpy(b->head + b->data_off, dst, 6);
        EXPECT_EQ(check(b), 1);
    }
    std::memcpy(b->head + b->data_off, other, 6);
    EXPECT_EQ(check(b), 0);
    std::memcpy(b->head + b->data_off, kMac, 6);
    EXPECT_EQ(check(b), 0);
    efmp_buff_free_sw_user(0, b);
}

TEST_F(PlatformBridgeTest, LearnedMacsAgeOutAndConfiguredOnesStay)
{
    auto add = service<ef_bridge_add_mac_fn>(EF_BRIDGE_SERV_ADD_MAC);
    auto lookup = service<ef_bridge_mac_lookup_fn>(EF_BRIDGE_SERV_MAC_LOOKUP);
    const uint8_t fixed[6] = {0x00, 0x00, 0x00, 0x00, 0x00, 0x01};
    efrt::bridge_add_mac(10, fixed, 3, 10);
    efrt::bridge_set_age_time(1000);
    ef_bridge_mac_req_t req{};
    std::memcpy(req.mac, kMac, 6);
    req.key = 10;
    req.ifindex = 4;
    ASSERT_EQ(add(&req), 0);
    efrt::clock_advance(999);
    EXPECT_EQ(efrt::bridge_age_run(), 0u);
    ASSERT_EQ(add(&req), 0);  // seen again: its age starts over
    efrt::clock_advance(999);
    EXPECT_EQ(efrt::bridge_age_run(), 0u);
    efrt::clock_advance(1);
    EXPECT_EQ(efrt::bridge_age_run(), 1u);
    ef_bridge_mac_out_t out{};
    EXPECT_EQ(lookup(3, 10, kMac, &out), EF_BRIDGE_MAC_NOT_FOUND);
    EXPECT_EQ(lookup(3, 10, fixed, &out), EF_BRIDGE_MAC_FOUND);
    EXPECT_EQ(out.ifindex, 3u);
}

TEST_F(PlatformBridgeTest, RemoteEntryStaysRemoteUnderTrafficFromItsTunnelAndMovesWithTheHost)
{
    auto add = service<ef_bridge_add_mac_fn>(EF_BRIDGE_SERV_ADD_MAC);
    auto lookup = service<ef_bridge_mac_lookup_fn>(EF_BRIDGE_SERV_MAC_LOOKUP);
    constexpr uint64_t kKey = EF_BRIDGE_KEY_VNI | 100;
    efrt::bridge_add_remote(kKey, kMac, 1001);
    ef_bridge_mac_req_t req{};
    std::memcpy(req.mac, kMac, 6);
    req.key = kKey;
    req.ifindex = 1001;  // the tunnel the route names
    ASSERT_EQ(add(&req), 0);
    auto macs = efrt::bridge_macs();
    ASSERT_EQ(macs.size(), 1u);
    EXPECT_EQ(macs[0].kind, efrt::MacKind::Remote);
    EXPECT_EQ(macs[0].ifindex, 1001u);

    req.ifindex = 3;  // the host now sends from an access port
    req.vid = 10;
    ASSERT_EQ(add(&req), 0);
    macs = efrt::bridge_macs();
    ASSERT_EQ(macs.size(), 1u);
    EXPECT_EQ(macs[0].kind, efrt::MacKind::Learned);
    ef_bridge_mac_out_t out{};
    EXPECT_EQ(lookup(3, kKey, kMac, &out), EF_BRIDGE_MAC_FOUND);
    EXPECT_EQ(out.ifindex, 3u);
    EXPECT_EQ(out.vid, 10);

    // The withdrawal of the old route comes after the move: the host stays.
    EXPECT_FALSE(efrt::bridge_remove_remote(kKey, kMac, 1001));
    EXPECT_EQ(lookup(3, kKey, kMac, &out), EF_BRIDGE_MAC_FOUND);
    EXPECT_EQ(out.ifindex, 3u);
}

TEST_F(PlatformBridgeTest, RemoteEntryNeverAgesAndGoesWhenWithdrawnTowardItsTunnel)
{
    auto lookup = service<ef_bridge_mac_lookup_fn>(EF_BRIDGE_SERV_MAC_LOOKUP);
    constexpr uint64_t kKey = EF_BRIDGE_KEY_VNI | 100;
    efrt::bridge_set_age_time(1000);
    efrt::bridge_add_remote(kKey, kMac, 1001);
    efrt::clock_advance(5000);
    EXPECT_EQ(efrt::bridge_age_run(), 0u);
    ef_bridge_mac_out_t out{};
    ASSERT_EQ(lookup(3, kKey, kMac, &out), EF_BRIDGE_MAC_FOUND);
    EXPECT_EQ(out.ifindex, 1001u);
    EXPECT_EQ(out.vid, 0);
    EXPECT_FALSE(efrt::bridge_remove_remote(kKey, kMac, 1002));  // another tunnel's withdrawal
    EXPECT_FALSE(efrt::bridge_remove_remote(EF_BRIDGE_KEY_VNI | 200, kMac, 1001));
    EXPECT_EQ(efrt::bridge_mac_count(), 1u);
    EXPECT_TRUE(efrt::bridge_remove_remote(kKey, kMac, 1001));
    EXPECT_EQ(lookup(3, kKey, kMac, &out), EF_BRIDGE_MAC_NOT_FOUND);
    EXPECT_EQ(efrt::bridge_mac_count(), 0u);
}

TEST_F(PlatformBridgeTest, ConfiguredEntryStaysConfiguredUnderTrafficWhereItPoints)
{
    auto add = service<ef_bridge_add_mac_fn>(EF_BRIDGE_SERV_ADD_MAC);
    efrt::bridge_add_mac(10, kMac, 3, 10);
    efrt::bridge_set_age_time(1000);
    ef_bridge_mac_req_t req{};
    std::memcpy(req.mac, kMac, 6);
    req.key = 10;
    req.ifindex = 3;
    ASSERT_EQ(add(&req), 0);
    efrt::clock_advance(2000);
    EXPECT_EQ(efrt::bridge_age_run(), 0u);
    const auto macs = efrt::bridge_macs();
    ASSERT_EQ(macs.size(), 1u);
    EXPECT_EQ(macs[0].kind, efrt::MacKind::Configured);
}

TEST_F(PlatformBridgeTest, GenerationCountsNewMovedRemovedAndAgedEntriesButNotRefreshes)
{
    auto add = service<ef_bridge_add_mac_fn>(EF_BRIDGE_SERV_ADD_MAC);
    efrt::bridge_set_age_time(1000);
    ef_bridge_mac_req_t req{};
    std::memcpy(req.mac, kMac, 6);
    req.key = EF_BRIDGE_KEY_VNI | 100;
    req.ifindex = 3;
    uint64_t g = efrt::bridge_mac_generation();
    ASSERT_EQ(add(&req), 0);
    EXPECT_EQ(efrt::bridge_mac_generation(), g + 1);  // new
    ASSERT_EQ(add(&req), 0);
    EXPECT_EQ(efrt::bridge_mac_generation(), g + 1);  // seen again where it was
    req.ifindex = 4;
    ASSERT_EQ(add(&req), 0);
    EXPECT_EQ(efrt::bridge_mac_generation(), g + 2);  // moved
    efrt::bridge_add_remote(req.key, kMac, 1001);
    EXPECT_EQ(efrt::bridge_mac_generation(), g + 3);  // became remote
    efrt::bridge_add_remote(req.key, kMac, 1001);
    EXPECT_EQ(efrt::bridge_mac_generation(), g + 3);  // the same route again
    EXPECT_TRUE(efrt::bridge_remove_remote(req.key, kMac, 1001));
    EXPECT_EQ(efrt::bridge_mac_generation(), g + 4);
    ASSERT_EQ(add(&req), 0);
    efrt::clock_advance(1000);
    ASSERT_EQ(efrt::bridge_age_run(), 1u);
    EXPECT_EQ(efrt::bridge_mac_generation(), g + 6);  // learned, then aged out
}

TEST_F(PlatformBridgeTest, ServicesCanBeWithdrawnAndPublishedAgain)
{
    for (uint32_t n : {4u, 8u, 20u, 22u, 25u}) {
        EXPECT_TRUE(efrt::bridge_withdraw(n));
        EXPECT_EQ(efmp_get_service(EFMP_MODULE_BRIDGE, n), nullptr);
        EXPECT_FALSE(efrt::bridge_withdraw(n));
        EXPECT_TRUE(efrt::bridge_publish(n));
        EXPECT_EQ(efmp_get_service(EFMP_MODULE_BRIDGE, n), efrt::bridge_handler(n));
    }
    EXPECT_FALSE(efrt::bridge_publish(9));
    efrt::bridge_withdraw_all();
    EXPECT_TRUE(efrt::services_of(EFMP_MODULE_BRIDGE).empty());
    efrt::bridge_publish_all();
    EXPECT_EQ(efrt::services_of(EFMP_MODULE_BRIDGE).size(), 5u);
}

}  // namespace
