// Encapsulation of frames sent to an overlay tunnel: the outer headers and
// buffer metadata of what reaches the L3 queue, the result codes of the
// cases that are not encapsulated, the counters, copy-DSCP and the trace.
#include "encap_fixture.h"
#include "vxlan_ef_encap.h"

namespace vxtest {
namespace {

class EncapFrameTest : public EncapTest {};

const Lines kNone{};

// Checks one encapsulated packet against the frame it carries.
void expect_packet(const efmp_buff_t *b, const std::vector<uint8_t> &frame, bool ipv6_outer,
                   const std::vector<uint8_t> &sip, const std::vector<uint8_t> &dip,
                   uint16_t ident, uint16_t sport)
{
    const std::vector<uint8_t> pkt = buff_bytes(b);
    EXPECT_EQ(pkt.size(), frame.size() + (ipv6_outer ? 56u : 36u));
    const SentOuter o = read_outer(pkt);
    EXPECT_EQ(o.ipv6, ipv6_outer);
    EXPECT_EQ(o.tos, 0);
    if (!ipv6_outer) {
        EXPECT_EQ(o.ident, ident);
    }
    EXPECT_EQ(o.sip, sip);
    EXPECT_EQ(o.dip, dip);
    EXPECT_EQ(o.sport_raw, sport);
    EXPECT_EQ(o.dport, 4789);
    EXPECT_EQ(o.vni, kVni);
    EXPECT_EQ(o.inner, frame);
    EXPECT_NE(be16_at(pkt, (ipv6_outer ? 40 : 20) + 6), 0) << "checksum always computed";
}

TEST_F(EncapFrameTest, Ipv4TunnelCarriesFramesOf60_1450And1451BytesWithEveryOuterField)
{
    start_encap(false, 0);
    uint16_t ident = 0;
    uint16_t sport = 49151;
    for (uint32_t len : {60u, 1450u, 1451u}) {
        std::vector<uint8_t> frame;
        uint32_t rc = 0;
        auto out = encap(FrameSpec{len}, &rc, &frame);
        EXPECT_EQ(rc, static_cast<uint32_t>(EF_Lost));
        ASSERT_EQ(out.size(), 1u) << len;
        expect_packet(out[0], frame, false, v4("10.0.0.1"), v4("10.0.0.2"), ident++, sport++);
    }
    EXPECT_EQ(g_vxlan_vsd->ipv4_id, 3);
    EXPECT_EQ(g_vxlan_vsd->udp_sport, 49153);
}

TEST_F(EncapFrameTest, Ipv6TunnelCarriesFramesOf60_1450And1451BytesWithEveryOuterField)
{
    start_encap(true, 0);
    uint16_t sport = 49151;
    for (uint32_t len : {60u, 1450u, 1451u}) {
        std::vector<uint8_t> frame;
        auto out = encap(FrameSpec{len}, nullptr, &frame);
        ASSERT_EQ(out.size(), 1u) << len;
        expect_packet(out[0], frame, true, v6("2001:db8::10"), v6("2001:db8::20"), 0, sport++);
    }
    EXPECT_EQ(g_vxlan_vsd->ipv4_id, 0) << "IPv6 outers take no identification";
}

TEST_F(EncapFrameTest, InnerIpv6FrameOverIpv4TunnelIsCarriedWhole)
{
    start_encap(false, 0);
    FrameSpec s{1000};
    s.ipv6 = true;
    std::vector<uint8_t> frame;
    auto out = encap(s, nullptr, &frame);
    ASSERT_EQ(out.size(), 1u);
    expect_packet(out[0], frame, false, v4("10.0.0.1"), v4("10.0.0.2"), 0, 49151);
}

TEST_F(EncapFrameTest, EncapsulatedBufferMetadataIsRewrittenForTheL3Engine)
{
    start_encap(false, 0);
    lsm_intfcb_t l3{};
    l3.ifindex = 77;
    l3.type = 32;
    g_vxlan_vsd->intf_slot_other = &l3;
    g_vxlan_vsd->user_pid = 4321;
    const FrameSpec s{200};
    efmp_buff_t *b = make_buff(make_frame(s), s, tunnel_cb());
    b->flags = EFMP_F_DST_SET | EFMP_F_L2_HDR_OWNED | EFMP_F_BRG_NOT_FWD | EFMP_F_BRDG_FLOOD;
    b->vlan_tag = 0xFFFFFFFFu;
    b->module_code = 9;
    b->l3_word1 = 5;
    b->l3_word2 = 6;
    ASSERT_EQ(vxlan_ef_encap_frame(b, VXLAN_EF_ENCAP_MODE_TUNNEL), static_cast<uint32_t>(EF_Lost));
    auto out = efrt::l3_take();
    owned_ = out;
    ASSERT_EQ(out.size(), 1u);
    const efmp_buff_t *e = out[0];
    EXPECT_EQ(e, b) << "an unfragmented frame keeps its buffer";
    EXPECT_EQ(e->flags, EFMP_F_BRG_NOT_FWD | EFMP_F_BRDG_FLOOD | EFMP_F_LOCAL | EFMP_F_VXLAN_ENCAP);
    EXPECT_EQ(efmp_buff_tag_word(e), 0xFFFFFFFFu & ~EFMP_TAG_VID_MASK);
    EXPECT_EQ(e->l2_len, 0);
    EXPECT_EQ(e->l3_off, e->data_off);
    EXPECT_EQ(e->l4_off, 0);
    EXPECT_EQ(e->module_code, 0);
    EXPECT_EQ(e->pkt_type, EFMP_PKT_IPV4);
    EXPECT_EQ(e->outer_family, 2);
    EXPECT_EQ(e->l3_src_intf, &l3);
    EXPECT_EQ(e->l3_word1, 0u);
    EXPECT_EQ(e->l3_word2, 0u);
    EXPECT_EQ(e->pid, 4321u);
    EXPECT_EQ(e->vni_tag[0], 0x08);
    EXPECT_EQ(efmp_buff_vni(e), 0u);
    EXPECT_EQ(e->next, nullptr);
    EXPECT_EQ(e->len, 236u);
    g_vxlan_vsd->intf_slot_other = nullptr;
}

TEST_F(EncapFrameTest, Ipv6TunnelMarksThePacketAsIpv6WithOuterFamily3)
{
    start_encap(true, 0);
    auto out = encap(FrameSpec{60});
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0]->pkt_type, EFMP_PKT_IPV6);
    EXPECT_EQ(out[0]->outer_family, 3);
}

TEST_F(EncapFrameTest, ModeFourAlsoClearsTheBridgeNotForwardMark)
{
    start_encap(false, 0);
    const FrameSpec s{60};
    efmp_buff_t *b = make_buff(make_frame(s), s, tunnel_cb());
    b->flags = EFMP_F_BRG_NOT_FWD;
    ASSERT_EQ(vxlan_ef_encap_frame(b, VXLAN_EF_ENCAP_MODE_CLEAR_NOT_FWD), static_cast<uint32_t>(EF_Lost));
    owned_ = efrt::l3_take();
    ASSERT_EQ(owned_.size(), 1u);
    EXPECT_EQ(owned_[0]->flags & EFMP_F_BRG_NOT_FWD, 0u);
}

TEST_F(EncapFrameTest, EncapServiceAndDriverEncapsulateInModesOneAndTwo)
{
    start_encap(false, 0);
    const FrameSpec s{60};
    efmp_buff_t *b1 = make_buff(make_frame(s), s, tunnel_cb());
    b1->flags = EFMP_F_BRG_NOT_FWD;
    EXPECT_EQ(vxlan_ef_encap_service(b1), EF_Lost);
    efmp_buff_t *b2 = make_buff(make_frame(s), s, tunnel_cb());
    b2->flags = EFMP_F_BRG_NOT_FWD;
    EXPECT_EQ(vxlan_ef_encap_driver(b2, tunnel_cb()), EF_Lost);
    owned_ = efrt::l3_take();
    ASSERT_EQ(owned_.size(), 2u);
    EXPECT_EQ(owned_[0]->flags & EFMP_F_BRG_NOT_FWD, EFMP_F_BRG_NOT_FWD);
    EXPECT_EQ(owned_[1]->flags & EFMP_F_BRG_NOT_FWD, EFMP_F_BRG_NOT_FWD);
}

TEST_F(EncapFrameTest, ConfiguredUdpPortIsTheDestinationPort)
{
    start_encap(false, 0);
    deliver_tlvs({set_udp_port(8472)});
    auto out = encap(FrameSpec{60});
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(read_outer(buff_bytes(out[0])).dport, 8472);
}

TEST_F(EncapFrameTest, SourcePortCounterAt65535YieldsTheFloorNext)
{
    start_encap(false, 0);
    g_vxlan_vsd->udp_sport = 65534;
    auto a = encap(FrameSpec{60});
    auto b = encap(FrameSpec{60});
    auto c = encap(FrameSpec{60});
    ASSERT_EQ(a.size() + b.size() + c.size(), 3u);
    EXPECT_EQ(read_outer(buff_bytes(a[0])).sport_raw, 65535);
    EXPECT_EQ(read_outer(buff_bytes(b[0])).sport_raw, 49151);
    EXPECT_EQ(read_outer(buff_bytes(c[0])).sport_raw, 49152);
    // The counter goes out in host byte order: 49151 = 0xBFFF is FF BF.
    const auto pkt = buff_bytes(b[0]);
    EXPECT_EQ(pkt[20], 0xFF);
    EXPECT_EQ(pkt[21], 0xBF);
}

TEST_F(EncapFrameTest, FirstPacketOfAnInstanceGetsSourcePort49151)
{
    start_encap(false, 0);
    ASSERT_EQ(g_vxlan_vsd->udp_sport, 0);
    auto out = encap(FrameSpec{60});
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(read_outer(buff_bytes(out[0])).sport_raw, 49151);
}

TEST_F(EncapFrameTest, IdentificationCounterWrapsAt16Bits)
{
    start_encap(false, 0);
    g_vxlan_vsd->ipv4_id = 65535;
    auto a = encap(FrameSpec{60});
    auto b = encap(FrameSpec{60});
    ASSERT_EQ(a.size() + b.size(), 2u);
    EXPECT_EQ(read_outer(buff_bytes(a[0])).ident, 65535);
    EXPECT_EQ(read_outer(buff_bytes(b[0])).ident, 0);
}

TEST_F(EncapFrameTest, CopyDscpCopiesInnerTosB9WithEcnIntoIpv4Outer)
{
    start_encap(false, 0);
    g_vxlan_vsd->copy_dscp = 1;
    FrameSpec s{100};
    s.tos = 0xB9;
    auto out = encap(s);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(read_outer(buff_bytes(out[0])).tos, 0xB9);
}

TEST_F(EncapFrameTest, CopyDscpCopiesInnerTrafficClassB9IntoIpv6Outer)
{
    start_encap(true, 0);
    g_vxlan_vsd->copy_dscp = 1;
    FrameSpec s{100};
    s.ipv6 = true;
    s.tos = 0xB9;
    auto out = encap(s);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(read_outer(buff_bytes(out[0])).tos, 0xB9);
}

TEST_F(EncapFrameTest, WithoutCopyDscpTheOuterTosIsZero)
{
    start_encap(true, 0);
    FrameSpec s{100};
    s.tos = 0xB9;
    auto out = encap(s);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(read_outer(buff_bytes(out[0])).tos, 0);
}

TEST_F(EncapFrameTest, CopyDscpGivesZeroForANonIpInnerFrame)
{
    start_encap(false, 0);
    g_vxlan_vsd->copy_dscp = 1;
    FrameSpec s{100};
    s.arp = true;
    auto out = encap(s);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(read_outer(buff_bytes(out[0])).tos, 0);
}

TEST_F(EncapFrameTest, NonIpFrameIsEncapsulatedWithoutSizeCheck)
{
    start_encap(false, 0);
    FrameSpec s{9000};
    s.arp = true;
    std::vector<uint8_t> frame;
    auto out = encap(s, nullptr, &frame);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(read_outer(buff_bytes(out[0])).inner, frame);
}

TEST_F(EncapFrameTest, BufferWithoutDestinationIsLeftAloneWithResultZero)
{
    start_encap();
    const FrameSpec s{60};
    efmp_buff_t *b = make_buff(make_frame(s), s, nullptr);
    EXPECT_EQ(vxlan_ef_encap_frame(b, VXLAN_EF_ENCAP_MODE_TUNNEL), 0u);
    EXPECT_EQ(b->data_off, EFMP_BUFF_START);
    efmp_buff_free_sw_user(0, b);
    EXPECT_EQ(vxlan_ef_encap_frame(nullptr, VXLAN_EF_ENCAP_MODE_TUNNEL), 1u);
    EXPECT_EQ(take_logs(), kNone);
}

TEST_F(EncapFrameTest, DestinationThatIsNotAnOverlayTunnelIsNotHandled)
{
    start_encap();
    add_intf(20, 6, "eth20");
    const FrameSpec s{60};
    efmp_buff_t *b = make_buff(make_frame(s), s, lsm_get_intfcb(20));
    EXPECT_EQ(vxlan_ef_encap_frame(b, VXLAN_EF_ENCAP_MODE_TUNNEL), 1u);
    EXPECT_EQ(b->data_off, EFMP_BUFF_START);
    efmp_buff_free_sw_user(0, b);
    EXPECT_EQ(take_logs(), kNone);
    EXPECT_EQ(efrt::l3_queued(), 0u);
}

TEST_F(EncapFrameTest, WithoutInstanceNothingIsHandled)
{
    add_intf(kTunnelIfx, LSM_IF_TYPE_OVERLAY_TUNNEL, "Tunnel300");
    const FrameSpec s{60};
    efmp_buff_t *b = make_buff(make_frame(s), s, tunnel_cb());
    EXPECT_EQ(vxlan_ef_encap_frame(b, VXLAN_EF_ENCAP_MODE_TUNNEL), 1u);
    efmp_buff_free_sw_user(0, b);
}

TEST_F(EncapFrameTest, TunnelLinkDownIsNotHandledWithItsTrace)
{
    start_encap();
    add_intf(301, LSM_IF_TYPE_OVERLAY_TUNNEL, "Tunnel301", "", false);
    const FrameSpec s{60};
    efmp_buff_t *b = make_buff(make_frame(s), s, lsm_get_intfcb(301));
    EXPECT_EQ(vxlan_ef_encap_frame(b, VXLAN_EF_ENCAP_MODE_TUNNEL), 1u);
    char line[256];
    std::snprintf(line, sizeof line,
                  "VXLAN-EF-ENCAP: [vsd 3 vxlan_ef_encap_frame] pkt %p: dst_intf Tunnel301 link "
                  "down, so needn't to encap on this port (drop)\n",
                  static_cast<void *>(b));
    EXPECT_EQ(take_logs(), Lines{line});
    efmp_buff_free_sw_user(0, b);
}

TEST_F(EncapFrameTest, InstanceWithoutVxlanEntriesIsNotHandledWithItsTrace)
{
    start_tables(VXLAN_EF_DBG_ENCAP);
    g_vxlan_vsd->trace_budget = 5;
    add_intf(kTunnelIfx, LSM_IF_TYPE_OVERLAY_TUNNEL, "Tunnel300");
    const FrameSpec s{60};
    efmp_buff_t *b = make_buff(make_frame(s), s, tunnel_cb());
    EXPECT_EQ(vxlan_ef_encap_frame(b, VXLAN_EF_ENCAP_MODE_TUNNEL), 1u);
    EXPECT_EQ(take_logs(),
              Lines{"VXLAN-EF-ENCAP: [vsd 3 vxlan_ef_encap_frame] no vxlan create in this vsd\n"});
    efmp_buff_free_sw_user(0, b);
}

TEST_F(EncapFrameTest, UnknownVniOrTunnelWithoutAdjacencyIsNotHandledSilently)
{
    start_encap();
    deliver_tlvs({set_entry(6000)});
    take_logs();
    const FrameSpec s{60};
    efmp_buff_t *b = make_buff(make_frame(s), s, tunnel_cb(), 7000);
    EXPECT_EQ(vxlan_ef_encap_frame(b, VXLAN_EF_ENCAP_MODE_TUNNEL), 1u) << "no entry";
    efmp_buff_free_sw_user(0, b);
    b = make_buff(make_frame(s), s, tunnel_cb(), 6000);
    EXPECT_EQ(vxlan_ef_encap_frame(b, VXLAN_EF_ENCAP_MODE_TUNNEL), 1u)
        << "entry without adjacency on this tunnel";
    EXPECT_EQ(b->data_off, EFMP_BUFF_START);
    efmp_buff_free_sw_user(0, b);
    EXPECT_EQ(take_logs(), kNone);
    EXPECT_EQ(efrt::l3_queued(), 0u);
}

TEST_F(EncapFrameTest, TracedPacketLogsEachStepAndIsDumpedAfterTheHeaders)
{
    start_encap();
    const FrameSpec s{60};
    efmp_buff_t *b = make_buff(make_frame(s), s, tunnel_cb());
    ASSERT_EQ(vxlan_ef_encap_frame(b, VXLAN_EF_ENCAP_MODE_TUNNEL), static_cast<uint32_t>(EF_Lost));
    owned_ = efrt::l3_take();
    const Lines lines = take_logs();
    char first[128];
    std::snprintf(first, sizeof first,
                  "VXLAN-EF-ENCAP: [vsd 3 vxlan_ef_encap_frame] pkt: %p will "
                  "vxlan_ef_encap_header.\n",
                  static_cast<void *>(b));
    ASSERT_GE(lines.size(), 4u);
    EXPECT_EQ(lines.front(), first);
    EXPECT_EQ(lines[2], "Packet position: patch-enc(vxlan)\n");
    EXPECT_EQ(lines.back(),
              "VXLAN-EF-ENCAP: [vsd 3 vxlan_ef_encap_frame] efmp_vxlan_skip_fw success: skip to "
              "l3-engin.\n");
    EXPECT_EQ(g_vxlan_vsd->trace_budget, 99u) << "one packet, one unit of budget";
    EXPECT_NE(owned_.at(0)->flags & EFMP_F_TRACE, 0u);
}

TEST_F(EncapFrameTest, SpentTraceBudgetSwitchesForwardAndEncapTracingOff)
{
    start_encap(false, VXLAN_EF_DBG_ENCAP | VXLAN_EF_DBG_FORWARD | VXLAN_EF_DBG_ERR, 0);
    auto out = encap(FrameSpec{60});
    EXPECT_EQ(out.size(), 1u);
    EXPECT_EQ(take_logs(), kNone);
    EXPECT_EQ(g_vxlan_vsd->debug_mask, VXLAN_EF_DBG_ERR);
}

TEST_F(EncapFrameTest, FullL3QueueStillWakesTheWorkerAndFreesTheChain)
{
    start_encap();
    efrt::l3_set_capacity(0);
    const long live = efrt::buff_live(EFMP_REASON_SW_USER);
    const uint64_t wakes = efrt::l3_wakes();
    const FrameSpec s{60};
    efmp_buff_t *b = make_buff(make_frame(s), s, tunnel_cb(), kVni, EFMP_REASON_SW_USER);
    ASSERT_EQ(efrt::buff_live(EFMP_REASON_SW_USER), live + 1);
    EXPECT_EQ(vxlan_ef_encap_frame(b, VXLAN_EF_ENCAP_MODE_TUNNEL), static_cast<uint32_t>(EF_Lost));
    EXPECT_EQ(efrt::l3_queued(), 0u);
    EXPECT_EQ(efrt::buff_live(EFMP_REASON_SW_USER), live) << "the module freed the buffer";
    EXPECT_EQ(efrt::l3_wakes(), wakes + 1);
    EXPECT_EQ(take_logs().back(),
              "VXLAN-EF-ENCAP: [vsd 3 vxlan_ef_encap_frame] efmp_vxlan_skip_fw failed.(Drop it!)\n");
}

TEST_F(EncapFrameTest, HeaderFamilyOtherThanIpv4OrIpv6IsRefusedWithBufferIntact)
{
    start_encap(false, 0);
    const FrameSpec s{60};
    efmp_buff_t *b = make_buff(make_frame(s), s, tunnel_cb());
    vxlan_ef_tnl_addr_t tnl{};
    tnl.vni = kVni;
    tnl.family = 7;
    efmp_buff_t *first = nullptr;
    efmp_buff_t *last = nullptr;
    uint32_t count = 9;
    EXPECT_EQ(vxlan_ef_encap_header(b, g_vxlan_vsd, &tnl, 2, &first, &last, &count), 1);
    EXPECT_EQ(b->data_off, EFMP_BUFF_START);
    EXPECT_EQ(b->len, 60u);
    efmp_buff_free_sw_user(0, b);
}

TEST_F(EncapFrameTest, HeaderBuilderReportsAOneBufferChainWhenNotFragmenting)
{
    start_encap(false, 0);
    const FrameSpec s{60};
    efmp_buff_t *b = make_buff(make_frame(s), s, tunnel_cb());
    vxlan_ef_tnl_addr_t tnl{};
    tnl.vni = kVni;
    tnl.family = 2;
    efmp_buff_t *first = nullptr;
    efmp_buff_t *last = nullptr;
    uint32_t count = 0;
    EXPECT_EQ(vxlan_ef_encap_header(b, g_vxlan_vsd, &tnl, 2, &first, &last, &count), 0);
    EXPECT_EQ(first, b);
    EXPECT_EQ(last, b);
    EXPECT_EQ(count, 1u);
    efmp_buff_free_sw_user(0, b);
}

}  // namespace
}  // namespace vxtest
