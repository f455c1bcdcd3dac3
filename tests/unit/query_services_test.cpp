// The answers given to other forwarding modules: overlay router interface,
// VNI, VRF and entry kind lookups, their not-found values and messages, and
// the services published under the VXLAN module number.
#include "encap_fixture.h"
#include "vxlan_ef_encap.h"
#include "vxlan_ef_frame.h"
#include "vxlan_ef_tables.h"

namespace vxtest {
namespace {

constexpr const char *kBase = "g_feature_spec/dcn/CAP_VXLAN_BASE";

class QueryServicesTest : public TableTest {
protected:
    // VNI 10 bound to router interface 400 in VRF 7; VNI 11 a Suber of a
    // Super VNI 12 bound to router interface 402; VRF 7 with L3 VNI 9000.
    void start_queries()
    {
        start_tables(VXLAN_EF_DBG_ERR);
        deliver_tlvs({set_entry(10), set_router(10, 400, 7, 0, 1), set_entry(11), set_entry(12),
                      set_router(12, 402, 8, 0, 1), set_vrf(7, 9000, 401)});
        entry(12)->type = VXLAN_EF_ENTRY_SUPER;
        entry(11)->type = VXLAN_EF_ENTRY_SUBER;
        entry(11)->super_entry = entry(12);
        add_intf(400, LSM_IF_TYPE_OVERLAY_ROUTER, "OR400");
        add_intf(402, LSM_IF_TYPE_OVERLAY_ROUTER, "OR402");
        add_intf(300, LSM_IF_TYPE_OVERLAY_TUNNEL, "Tunnel300");
        deliver_tlvs({set_vtep(300, ip4("10.0.0.1"), ip4("10.0.0.2"))});
        take_logs();
    }

    void TearDown() override
    {
        if (entry(11) != nullptr)
            entry(11)->super_entry = nullptr;
        TableTest::TearDown();
    }

    static vxlan_ef_entry_t *entry(uint32_t vni)
    {
        return g_vxlan_vsd == nullptr ? nullptr : vxlan_ef_entry_get(g_vxlan_vsd, vni);
    }
};

TEST_F(QueryServicesTest, OverlayRouterOfAVniIsTheControlBlockOfItsManagingEntrysInterface)
{
    start_queries();
    EXPECT_EQ(vxlan_ef_overlayrouter_get(nullptr, 10), lsm_get_intfcb(400));
    EXPECT_EQ(vxlan_ef_overlayrouter_get(nullptr, 11), lsm_get_intfcb(402)) << "the Super's";
    EXPECT_EQ(take_logs(), Lines{});
    EXPECT_EQ(vxlan_ef_overlayrouter_get(nullptr, 99), nullptr);
    EXPECT_EQ(take_logs(), Lines{"VXLAN-EF-ERR: [vsd 3 vxlan_ef_overlayrouter_get] vxlan manage "
                                 "entry is not exist, vni: 99\n"});
}

TEST_F(QueryServicesTest, VniAndVrfOfAnOverlayRouterInterface)
{
    start_queries();
    EXPECT_EQ(vxlan_ef_vni_get(nullptr, 400), 10u);
    EXPECT_EQ(vxlan_ef_or_vrf_get(nullptr, 400), 7u);
    EXPECT_EQ(vxlan_ef_vni_get(nullptr, 402), 12u);
    EXPECT_EQ(vxlan_ef_or_vrf_get(nullptr, 402), 8u);
    EXPECT_EQ(take_logs(), Lines{});
    EXPECT_EQ(vxlan_ef_or_vrf_get(nullptr, 499), 0u);
    EXPECT_EQ(take_logs(), Lines{"VXLAN-EF-ERR: [vsd 3 vxlan_ef_or_vrf_get] vxlan overlayrouter "
                                 "intf is not exist, ifx: 499\n"});
}

TEST_F(QueryServicesTest, TunnelInterfaceIndexIsNotAnOverlayRouterForTheVniQuery)
{
    start_queries();
    ASSERT_NE(tunnel(300), nullptr);
    EXPECT_EQ(vxlan_ef_vni_get(nullptr, 300), 0u);
    EXPECT_EQ(take_logs(), Lines{"VXLAN-EF-ERR: [vsd 3 vxlan_ef_vni_get] vxlan overlayrouter intf "
                                 "is not exist, ifx: 300\n"});
}

TEST_F(QueryServicesTest, ManagingEntrysRouterInterfaceIndex)
{
    start_queries();
    EXPECT_EQ(vxlan_ef_mng_or_ifx_get(nullptr, 10), 400u);
    EXPECT_EQ(vxlan_ef_mng_or_ifx_get(nullptr, 11), 402u);
    EXPECT_EQ(vxlan_ef_mng_or_ifx_get(nullptr, 98), 0u);
    EXPECT_EQ(take_logs(), Lines{"VXLAN-EF-ERR: [vsd 3 vxlan_ef_mng_or_ifx_get] vxlan manage "
                                 "entry is not exist, vni: 98\n"});
}

TEST_F(QueryServicesTest, EntryRouterInterfaceTypeAndVrf)
{
    start_queries();
    EXPECT_EQ(vxlan_ef_or_ifx_get(nullptr, 10), 400u);
    EXPECT_EQ(vxlan_ef_or_ifx_get(nullptr, 11), 0u) << "the entry's own, not its Super's";
    EXPECT_EQ(vxlan_ef_entry_type_get(nullptr, 10), VXLAN_EF_ENTRY_NORMAL);
    EXPECT_EQ(vxlan_ef_entry_type_get(nullptr, 11), VXLAN_EF_ENTRY_SUBER);
    EXPECT_EQ(vxlan_ef_entry_type_get(nullptr, 12), VXLAN_EF_ENTRY_SUPER);
    EXPECT_EQ(vxlan_ef_entry_vrfid_get(nullptr, 10), 7u);
    EXPECT_EQ(take_logs(), Lines{});
}

TEST_F(QueryServicesTest, VniWithoutEntryGivesZeroRouterInterfaceAndMinusOneVrf)
{
    start_queries();
    EXPECT_EQ(vxlan_ef_or_ifx_get(nullptr, 77), 0u);
    EXPECT_EQ(vxlan_ef_entry_vrfid_get(nullptr, 77), 0xFFFFFFFFu);
    EXPECT_EQ(vxlan_ef_entry_type_get(nullptr, 77), 0u);
    EXPECT_EQ(take_logs(),
              (Lines{"VXLAN-EF-ERR: [vsd 3 vxlan_ef_or_ifx_get] vxlan entry is not exist, vni: 77\n",
                     "VXLAN-EF-ERR: [vsd 3 vxlan_ef_entry_vrfid_get] vxlan entry is not exist, "
                     "vni: 77\n",
                     "VXLAN-EF-ERR: [vsd 3 vxlan_ef_entry_type_get] vxlan entry is not exist, "
                     "vni: 77\n"}));
}

TEST_F(QueryServicesTest, L3VniOfAVrf)
{
    start_queries();
    EXPECT_EQ(vxlan_ef_vrf_get_l3vni(nullptr, 7), 9000u);
    EXPECT_EQ(vxlan_ef_vrf_get_l3vni(nullptr, static_cast<uint32_t>(-5)), 0u);
    EXPECT_EQ(take_logs(), Lines{"VXLAN-EF-ERR: [vsd 3 vxlan_ef_vrf_get_l3vni] vxlan vrf is not "
                                 "exist, vrf id: -5\n"});
}

TEST_F(QueryServicesTest, NotFoundMessagesNeedTheErrorFlag)
{
    start_queries();
    g_vxlan_vsd->debug_mask = VXLAN_EF_DBG_EVENT;
    EXPECT_EQ(vxlan_ef_or_ifx_get(nullptr, 77), 0u);
    EXPECT_EQ(vxlan_ef_vni_get(nullptr, 77), 0u);
    EXPECT_EQ(take_logs(), Lines{});
}

TEST_F(QueryServicesTest, BeforeTheInstanceExistsEveryGetterGivesItsNotFoundValueSilently)
{
    EXPECT_EQ(vxlan_ef_overlayrouter_get(nullptr, 10), nullptr);
    EXPECT_EQ(vxlan_ef_vni_get(nullptr, 400), 0u);
    EXPECT_EQ(vxlan_ef_mng_or_ifx_get(nullptr, 10), 0u);
    EXPECT_EQ(vxlan_ef_or_ifx_get(nullptr, 10), 0u);
    EXPECT_EQ(vxlan_ef_entry_type_get(nullptr, 10), 0u);
    EXPECT_EQ(vxlan_ef_entry_vrfid_get(nullptr, 10), 0xFFFFFFFFu);
    EXPECT_EQ(vxlan_ef_or_vrf_get(nullptr, 400), 0u);
    EXPECT_EQ(vxlan_ef_vrf_get_l3vni(nullptr, 7), 0u);
    EXPECT_EQ(take_logs(), Lines{});
}

TEST_F(QueryServicesTest, StartPublishesTheEncapQueryRouterMacAndNoIcmpServices)
{
    set_cap(kBase);
    start("3");
    std::map<uint32_t, void *> published;
    for (const auto &s : efrt::services_of(EFMP_MODULE_VXLAN))
        published[s.service] = s.handler;
    EXPECT_EQ(published[1], reinterpret_cast<void *>(vxlan_ef_encap_service));
    EXPECT_EQ(published[3], reinterpret_cast<void *>(vxlan_ef_overlayrouter_get));
    EXPECT_EQ(published[4], reinterpret_cast<void *>(vxlan_ef_vni_get));
    EXPECT_EQ(published[5], reinterpret_cast<void *>(vxlan_ef_router_mac_forward));
    EXPECT_EQ(published[7], reinterpret_cast<void *>(vxlan_ef_or_no_icmp_service));
    const uint32_t bits = VXLAN_EF_F_SERV_ENCAP | VXLAN_EF_F_SERV_GET_OR | VXLAN_EF_F_SERV_GET_VNI |
                          VXLAN_EF_F_ROUTER_MAC_FWD | VXLAN_EF_F_SERV_OR_NO_ICMP;
    EXPECT_EQ(g_vxlan_vsd->flags & bits, bits);
    vxlan_ef_frame_exit();
    EXPECT_TRUE(efrt::services_of(EFMP_MODULE_VXLAN).empty());
    EXPECT_EQ(g_vxlan_vsd->flags & bits, 0u);
}

TEST_F(QueryServicesTest, PublishedVniServiceAnswersThroughItsDescriptor)
{
    set_cap(kBase);
    start_queries();
    using VniGet = uint32_t (*)(void *, uint32_t);
    auto fn = reinterpret_cast<VniGet>(
        efmp_get_service(EFMP_MODULE_VXLAN, EFMP_VXLAN_SERV_GET_INTFCB_VNI));
    ASSERT_NE(fn, nullptr);
    EXPECT_EQ(fn(nullptr, 400), 10u);
}

}  // namespace
}  // namespace vxtest
