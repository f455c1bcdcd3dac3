// The unicast branch of the forwarding decision: router and anycast hits, the
// bridge MAC lookup and its second try, split horizon between tunnels, the
// peer-link, protected VNIs, and the destination it sets.
#include "ef_wire.h"
#include "efmp.h"
#include "forward_fixture.h"
#include "vxlan_ef_forward.h"
#include "vxlan_ef_tables.h"

namespace {

using vxtest::ForwardTest;
using namespace vxtest;

constexpr const char *kUcast = "vxlan_ef_ucast";
inline const uint8_t kAnycastMac[6] = {0x00, 0x00, 0x5E, 0x00, 0x01, 0x01};

class UcastTest : public ForwardTest {
protected:
    void SetUp() override
    {
        ForwardTest::SetUp();
        start_segment();
    }

    void add_router(uint8_t anycast = 0)
    {
        lsm_intfcb_t cb{};
        cb.ifindex = kRouter;
        cb.type = LSM_IF_TYPE_OVERLAY_ROUTER;
        cb.link_up = 1;
        std::memcpy(cb.mac, kRouterMac, 6);
        std::snprintf(cb.name, sizeof cb.name, "OR1");
        efrt::lsm_add(cb);
        deliver_tlvs({set_router(kVni, kRouter, 1, anycast, 1)});
        take_logs();
    }

    // Runs the unicast decision for a frame to dst from src under the read lock.
    int ucast(efmp_buff_t *b, const uint8_t *dst, uint32_t vni = kVni)
    {
        pthread_rwlock_rdlock(&vsd()->rwlock);
        const int r = vxlan_ef_ucast(b, dst, vni, vsd());
        pthread_rwlock_unlock(&vsd()->rwlock);
        return r;
    }

    static void learn(uint32_t vni, const uint8_t *mac, uint32_t ifx, uint16_t vid = 10)
    {
        efrt::bridge_add_mac(EF_BRIDGE_KEY_VNI | vni, mac, ifx, vid);
    }

    std::vector<std::string> ucast_lines() { return lines_of(take_logs(), kUcast); }
};

TEST_F(UcastTest, AnycastMacIsRoutedOnlyWhenTheEntryAndTheDeviceBothEnableIt)
{
    std::memcpy(vsd()->anycast_mac, kAnycastMac, 6);
    for (uint8_t entry_flag : {0, 1}) {
        for (uint8_t device_flag : {0, 1}) {
            add_router(entry_flag);
            vsd()->anycast_mac_valid = device_flag;
            efmp_buff_t *b = buff(frame(kAnycastMac, kHostA, EF_ETHERTYPE_IPV4), kP1);
            const bool routed = entry_flag && device_flag;
            EXPECT_EQ(ucast(b, kAnycastMac), routed ? EF_Normal : EF_Broadcast)
                << int(entry_flag) << int(device_flag);
            EXPECT_EQ(b->dst_intf, routed ? intf(kL2Local) : nullptr);
            EXPECT_EQ(b->flags & EFMP_F_SWITCH_ENGINE, routed ? EFMP_F_SWITCH_ENGINE : 0u);
            drop(b);
        }
    }
}

TEST_F(UcastTest, RouterMacIsRoutedThroughTheSwitchEngine)
{
    add_router();
    efmp_buff_t *b = buff(frame(kRouterMac, kHostA, EF_ETHERTYPE_IPV4), kP1);
    b->src_ifx = 0;
    trace_on();
    EXPECT_EQ(ucast(b, kRouterMac), EF_Normal);
    EXPECT_EQ(b->src_intf, intf(kRouter));
    EXPECT_EQ(b->src_ifx, kP1);
    EXPECT_EQ(b->dst_intf, intf(kL2Local));
    EXPECT_EQ(b->flags & EFMP_F_SWITCH_ENGINE, EFMP_F_SWITCH_ENGINE);
    EXPECT_EQ(ucast_lines(), (std::vector<std::string>{fwd_line(
                                 kUcast, "pkt " + ptr(b) + " hit(1) OR, SWITCH-ENGINE.\n")}));
    drop(b);
}

TEST_F(UcastTest, MacLearntOnlyUnderTheFramesOwnVniIsFoundByTheSecondLookup)
{
    // VNI 100 managed by VNI 500: MACs are looked up under 500 first.
    deliver_tlvs({set_entry(500)});
    entry(kVni)->type = VXLAN_EF_ENTRY_SUBER;
    entry(kVni)->super_entry = entry(500);
    learn(kVni, kHostB, kP2, 20);
    efmp_buff_t *b = buff(frame(kHostB, kHostA, EF_ETHERTYPE_IPV4), kP1);
    trace_on();
    EXPECT_EQ(ucast(b, kHostB), EF_Normal);
    EXPECT_EQ(b->dst_intf, intf(kP2));
    EXPECT_EQ(vid_of(b), 20u);
    EXPECT_EQ(ucast_lines(),
              (std::vector<std::string>{
                  fwd_line(kUcast, "pkt: " + ptr(b) + " update pkt vid 20\n"),
                  fwd_line(kUcast, "pkt " + ptr(b) + " find dst intf: P2 by dst-mac.\n")}));
    drop(b);
    // Learnt under neither VNI: a flood.
    b = buff(frame(kHostA, kHostB, EF_ETHERTYPE_IPV4), kP2);
    EXPECT_EQ(ucast(b, kHostA), EF_Broadcast);
    EXPECT_EQ(ucast_lines(), (std::vector<std::string>{fwd_line(
                                 kUcast, "pkt: " + ptr(b) +
                                             " search l2 dst-port by dest-mac failed, broadcast.\n")}));
    drop(b);
    entry(kVni)->type = VXLAN_EF_ENTRY_NORMAL;
    entry(kVni)->super_entry = nullptr;
}

TEST_F(UcastTest, DeviceFramesAreLookedUpUnderTheirOwnVniOnly)
{
    deliver_tlvs({set_entry(500)});
    entry(kVni)->type = VXLAN_EF_ENTRY_SUBER;
    entry(kVni)->super_entry = entry(500);
    learn(500, kHostA, kP3);
    efmp_buff_t *b = buff(frame(kHostA, kHostB, EF_ETHERTYPE_IPV4), kL2Local);
    EXPECT_EQ(ucast(b, kHostA), EF_Broadcast);
    drop(b);
    b = buff(frame(kHostA, kHostB, EF_ETHERTYPE_IPV4), kP2);
    EXPECT_EQ(ucast(b, kHostA), EF_Normal);
    EXPECT_EQ(b->dst_intf, intf(kP3));
    drop(b);
    entry(kVni)->type = VXLAN_EF_ENTRY_NORMAL;
    entry(kVni)->super_entry = nullptr;
}

TEST_F(UcastTest, CentreTunnelToCentreTunnelIsDropped)
{
    learn(kVni, kHostB, kT2);
    efmp_buff_t *b = buff(frame(kHostB, kHostA, EF_ETHERTYPE_IPV4), kT1);
    trace_on();
    EXPECT_EQ(ucast(b, kHostB), EF_Drop);
    EXPECT_EQ(ucast_lines(), (std::vector<std::string>{fwd_line(
                                 kUcast, "pkt: " + ptr(b) +
                                             " src and dest eql to overlaytunnel and not set outside "
                                             "center, drop pkt\n")}));
    EXPECT_EQ(b->dst_intf, nullptr);
    drop(b);
}

TEST_F(UcastTest, CentreTunnelToOutsideTunnelIsBridged)
{
    learn(kVni, kHostB, kT3);
    efmp_buff_t *b = buff(frame(kHostB, kHostA, EF_ETHERTYPE_IPV4), kT1);
    b->src_ifx = 0;
    trace_on();
    EXPECT_EQ(ucast(b, kHostB), EF_Normal);
    EXPECT_EQ(b->dst_intf, intf(kT3));
    EXPECT_EQ(b->src_ifx, kT1);
    EXPECT_EQ(ucast_lines(), (std::vector<std::string>{fwd_line(
                                 kUcast, "pkt " + ptr(b) + " find dst intf: T3 by dst-mac.\n")}));
    drop(b);
}

TEST_F(UcastTest, ProtectedVniDropsLocalToLocalButNotLocalToTunnel)
{
    deliver_tlvs({switch_protected(kVni, 1)});
    learn(kVni, kHostB, kP2);
    learn(kVni, kRouterMac, kT1);
    efmp_buff_t *b = buff(frame(kHostB, kHostA, EF_ETHERTYPE_IPV4), kP1);
    trace_on();
    EXPECT_EQ(ucast(b, kHostB), EF_Drop);
    EXPECT_EQ(ucast_lines(),
              (std::vector<std::string>{fwd_line(
                  kUcast, "pkt " + ptr(b) + " vni 100 entry set the switch protected (drop).\n")}));
    EXPECT_EQ(ucast(b, kRouterMac), EF_Normal);
    EXPECT_EQ(b->dst_intf, intf(kT1));
    drop(b);
    // A frame of the device itself is not held back.
    b = buff(frame(kHostB, kHostA, EF_ETHERTYPE_IPV4), kP1);
    b->flags |= EFMP_F_LOCAL;
    EXPECT_EQ(ucast(b, kHostB), EF_Normal);
    EXPECT_EQ(b->dst_intf, intf(kP2));
    drop(b);
}

TEST_F(UcastTest, ProtectedVniDropsAFrameWithoutSourceInterfaceBoundForALocalPort)
{
    deliver_tlvs({switch_protected(kVni, 1)});
    learn(kVni, kHostB, kP2);
    learn(kVni, kRouterMac, kT1);
    // No source interface is no tunnel: the frame is held back as one from a
    // local port would be.
    efmp_buff_t *b = buff(frame(kHostB, kHostA, EF_ETHERTYPE_IPV4), 0);
    ASSERT_EQ(b->src_intf, nullptr);
    trace_on();
    EXPECT_EQ(ucast(b, kHostB), EF_Drop);
    EXPECT_EQ(b->dst_intf, nullptr);
    EXPECT_EQ(b->flags & EFMP_F_SWITCH_ENGINE, 0u);
    EXPECT_EQ(ucast_lines(),
              (std::vector<std::string>{fwd_line(
                  kUcast, "pkt " + ptr(b) + " vni 100 entry set the switch protected (drop).\n")}));
    // Towards a tunnel it still goes.
    EXPECT_EQ(ucast(b, kRouterMac), EF_Normal);
    EXPECT_EQ(b->dst_intf, intf(kT1));
    EXPECT_EQ(b->src_ifx, 0u);
    drop(b);
}

TEST_F(UcastTest, PeerLinkFramesNeverGoToATunnel)
{
    learn(kVni, kHostB, kT3);
    learn(kVni, kRouterMac, kP2);
    efmp_buff_t *b = buff(frame(kHostB, kHostA, EF_ETHERTYPE_IPV4), kPL);
    trace_on();
    EXPECT_EQ(ucast(b, kHostB), EF_Drop);
    EXPECT_EQ(ucast_lines(),
              (std::vector<std::string>{fwd_line(
                  kUcast, "pkt: " + ptr(b) +
                              " src-intf (ifx=14) is peer-link and dst-intf  (ifx=103) is "
                              "overlaytunnel, so pkt should NOT be forward, drop pkt\n")}));
    EXPECT_EQ(ucast(b, kRouterMac), EF_Normal);
    EXPECT_EQ(b->dst_intf, intf(kP2));
    drop(b);
}

TEST_F(UcastTest, FilteringMacAndDestinationEqualToSourceAreDropped)
{
    efrt::bridge_add_filter(EF_BRIDGE_KEY_VNI | kVni, kHostB);
    learn(kVni, kRouterMac, kP1);
    efmp_buff_t *b = buff(frame(kHostB, kHostA, EF_ETHERTYPE_IPV4), kP1);
    trace_on();
    EXPECT_EQ(ucast(b, kHostB), EF_Drop);
    EXPECT_EQ(ucast(b, kRouterMac), EF_Drop);
    const std::string p = ptr(b);
    EXPECT_EQ(ucast_lines(),
              (std::vector<std::string>{
                  fwd_line(kUcast, "pkt: " + p + " dst-mac matches filtering-mac, drop.\n"),
                  fwd_line(kUcast, "pkt: " + p + " Dest eql src, drop pkt\n")}));
    drop(b);
}

TEST_F(UcastTest, TunnelDestinationThatIsDownIsDropped)
{
    learn(kVni, kHostB, kT2);
    intf(kT2)->link_up = 0;
    efmp_buff_t *b = buff(frame(kHostB, kHostA, EF_ETHERTYPE_IPV4), kP1);
    trace_on();
    EXPECT_EQ(ucast(b, kHostB), EF_Drop);
    EXPECT_EQ(ucast_lines(), (std::vector<std::string>{fwd_line(
                                 kUcast, "pkt " + ptr(b) +
                                             ": dst_intf T2 link down, so needn't to forward on this "
                                             "port (drop)\n")}));
    drop(b);
}

TEST_F(UcastTest, RouterDestinationLearntOnAPortIsHandedToTheSwitchEngine)
{
    add_router();
    learn(kVni, kHostB, kRouter, 10);
    efmp_buff_t *b = buff(frame(kHostB, kHostA, EF_ETHERTYPE_IPV4), kP1);
    trace_on();
    EXPECT_EQ(ucast(b, kHostB), EF_Normal);
    EXPECT_EQ(b->src_intf, intf(kRouter));
    EXPECT_EQ(b->dst_intf, intf(kL2Local));
    EXPECT_EQ(b->flags & EFMP_F_SWITCH_ENGINE, EFMP_F_SWITCH_ENGINE);
    EXPECT_EQ(ucast_lines(),
              (std::vector<std::string>{
                  fwd_line(kUcast, "pkt: " + ptr(b) + " update pkt vid 10\n"),
                  fwd_line(kUcast, "pkt " + ptr(b) + " hit(2) OR, SWITCH-ENGINE.\n")}));
    drop(b);
}

TEST_F(UcastTest, WithoutLookupOrDestinationBlockTheFrameIsFlooded)
{
    learn(kVni, kHostB, 999);
    efmp_buff_t *b = buff(frame(kHostB, kHostA, EF_ETHERTYPE_IPV4), kP1);
    EXPECT_EQ(ucast(b, kHostB), EF_Broadcast);
    vxlan_ef_bridge_mac_lookup = nullptr;
    trace_on();
    EXPECT_EQ(ucast(b, kHostB), EF_Broadcast);
    EXPECT_TRUE(ucast_lines().empty());
    drop(b);
}

TEST_F(UcastTest, UnknownVniAndSuppressedArpOrNdAreDropped)
{
    efmp_buff_t *b = buff(frame(kHostB, kHostA, EF_ETHERTYPE_ARP), kP1, 999, EFMP_PKT_ARP);
    trace_on();
    EXPECT_EQ(ucast(b, kHostB, 999), EF_Drop);
    EXPECT_EQ(ucast_lines(), (std::vector<std::string>{fwd_line(
                                 kUcast, "pkt " + ptr(b) + ": vxlan entry is not exist, vni: 999\n")}));
    deliver_tlvs({vni_arp_suppress(kVni, 1), vni_nd_suppress(kVni, 1)});
    take_logs();
    EXPECT_EQ(ucast(b, kHostB), EF_Drop);
    efmp_buff_t *nd = buff(icmpv6_frame(kHostB, EF_ND_NEIGHBOUR_ADVERT), kP1, kVni, EFMP_PKT_IPV6);
    EXPECT_EQ(ucast(nd, kHostB), EF_Drop);
    EXPECT_EQ(ucast_lines(),
              (std::vector<std::string>{
                  fwd_line(kUcast, "pkt: " + ptr(b) +
                                       ", is arp pkt and arp_suppress enable so return Drop\n"),
                  fwd_line(kUcast, "pkt: " + ptr(nd) +
                                       ", is nd pkt and nd_suppress enable so return Drop\n")}));
    drop(b);
    drop(nd);
}

}  // namespace
