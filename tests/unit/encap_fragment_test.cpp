// Size check and fragmentation on the encapsulation path: the payload limit
// of each tunnel family and MTU, the fragmenter chosen by the inner family,
// reassembly of what left, the headroom floor and the failure paths.
#include "encap_fixture.h"
#include "vxlan_ef_encap.h"

namespace vxtest {
namespace {

class EncapFragmentTest : public EncapTest {
protected:
    // The inner frames of what left, outer headers checked and removed.
    static std::vector<std::vector<uint8_t>> inner_frames(const std::vector<efmp_buff_t *> &out)
    {
        std::vector<std::vector<uint8_t>> frames;
        for (const efmp_buff_t *b : out)
            frames.push_back(read_outer(buff_bytes(b)).inner);
        return frames;
    }

    std::vector<efmp_buff_t *> encap_mtu(const FrameSpec &s, uint16_t mtu,
                                         std::vector<uint8_t> *frame_out = nullptr)
    {
        const std::vector<uint8_t> frame = make_frame(s);
        if (frame_out != nullptr)
            *frame_out = frame;
        efmp_buff_t *b = make_buff(frame, s, tunnel_cb());
        b->vxlan_mtu = mtu;
        EXPECT_EQ(vxlan_ef_encap_frame(b, VXLAN_EF_ENCAP_MODE_TUNNEL), static_cast<uint32_t>(EF_Lost));
        auto out = efrt::l3_take();
        owned_.insert(owned_.end(), out.begin(), out.end());
        return out;
    }

    // A buffer holding the frame with its data start at data_off.
    static efmp_buff_t *buff_at(const FrameSpec &s, uint16_t data_off)
    {
        const std::vector<uint8_t> frame = make_frame(s);
        efmp_buff_t *b = make_buff(frame, s, tunnel_cb());
        std::memmove(b->head + data_off, b->head + b->data_off, frame.size());
        b->data_off = data_off;
        b->l3_off = static_cast<uint16_t>(data_off + 14);
        return b;
    }

    // Builds the headers on one buffer; the trace line logged, if any.
    static bool one_frag(efmp_buff_t *b, uint8_t family)
    {
        vxlan_ef_tnl_addr_t tnl{};
        tnl.vni = kVni;
        tnl.family = family;
        return vxlan_ef_encap_one_frag(b, g_vxlan_vsd, &tnl, 2);
    }
};

TEST_F(EncapFragmentTest, InnerSizeEqualToTheIpv4TunnelLimitIsNotFragmentedOneMoreIs)
{
    start_encap(false, 0);
    // Inner size = frame - 14 (L2) - 20: 1484 gives exactly 1450.
    EXPECT_EQ(encap(FrameSpec{1484}).size(), 1u);
    std::vector<uint8_t> frame;
    auto out = encap(FrameSpec{1485}, nullptr, &frame);
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(reassemble_ipv4(inner_frames(out), 1450), frame);
}

TEST_F(EncapFragmentTest, InnerSizeEqualToTheIpv6TunnelLimitIsNotFragmentedOneMoreIs)
{
    start_encap(true, 0);
    EXPECT_EQ(encap(FrameSpec{1464}).size(), 1u);
    std::vector<uint8_t> frame;
    auto out = encap(FrameSpec{1465}, nullptr, &frame);
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(reassemble_ipv4(inner_frames(out), 1430), frame);
}

TEST_F(EncapFragmentTest, MtuZeroAndMtu1500GiveTheSameIpv4Limit)
{
    start_encap(false, 0);
    for (uint16_t mtu : {uint16_t{0}, uint16_t{1500}}) {
        SCOPED_TRACE(mtu);
        EXPECT_EQ(encap_mtu(FrameSpec{1484}, mtu).size(), 1u);
        EXPECT_EQ(encap_mtu(FrameSpec{1485}, mtu).size(), 2u);
    }
}

TEST_F(EncapFragmentTest, MtuZeroAndMtu1500GiveTheSameIpv6Limit)
{
    start_encap(true, 0);
    for (uint16_t mtu : {uint16_t{0}, uint16_t{1500}}) {
        SCOPED_TRACE(mtu);
        EXPECT_EQ(encap_mtu(FrameSpec{1464}, mtu).size(), 1u);
        EXPECT_EQ(encap_mtu(FrameSpec{1465}, mtu).size(), 2u);
    }
}

TEST_F(EncapFragmentTest, TunnelMtuLessTheOuterHeadersIsTheLimit)
{
    start_encap(false, 0);
    // MTU 1000: limit 950, inner size 950 at a frame of 984.
    EXPECT_EQ(encap_mtu(FrameSpec{984}, 1000).size(), 1u);
    std::vector<uint8_t> frame;
    auto out = encap_mtu(FrameSpec{985}, 1000, &frame);
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(reassemble_ipv4(inner_frames(out), 950), frame);
}

TEST_F(EncapFragmentTest, Ipv4InnerOf9000BytesIsReassembledFromItsFragments)
{
    start_encap(false, 0);
    std::vector<uint8_t> frame;
    auto out = encap(FrameSpec{9000}, nullptr, &frame);
    ASSERT_EQ(out.size(), 7u);
    EXPECT_EQ(reassemble_ipv4(inner_frames(out), 1450), frame);
    uint16_t ident = 0;
    for (const efmp_buff_t *b : out) {
        const SentOuter o = read_outer(buff_bytes(b));
        EXPECT_EQ(o.ident, ident++) << "every fragment takes an identification";
        EXPECT_EQ(o.vni, kVni);
    }
}

TEST_F(EncapFragmentTest, Ipv6InnerOf9000BytesIsReassembledFromItsFragments)
{
    start_encap(true, 0);
    FrameSpec s{9000};
    s.ipv6 = true;
    std::vector<uint8_t> frame;
    auto out = encap(s, nullptr, &frame);
    ASSERT_GT(out.size(), 1u);
    EXPECT_EQ(reassemble_ipv6(inner_frames(out), 1430), frame);
}

TEST_F(EncapFragmentTest, Ipv6TunnelOverInnerIpv4UsesTheIpv4FragmenterAtTheIpv6Limit)
{
    start_encap(true, 0);
    std::vector<uint8_t> frame;
    auto out = encap(FrameSpec{3000}, nullptr, &frame);
    ASSERT_EQ(out.size(), 3u);
    const auto inner = inner_frames(out);
    for (const auto &f : inner) {
        EXPECT_EQ(be16_at(f, 12), 0x0800) << "IPv4 fragments, no IPv6 Fragment header";
        EXPECT_LE(f.size() - 34, 1430u);
    }
    EXPECT_EQ(inner[0].size() - 34, 1424u) << "1430 rounded down to 8-byte units";
    EXPECT_EQ(reassemble_ipv4(inner, 1430), frame);
    EXPECT_TRUE(read_outer(buff_bytes(out[0])).ipv6);
}

TEST_F(EncapFragmentTest, Ipv4TunnelOverInnerIpv6UsesTheIpv6Fragmenter)
{
    start_encap(false, 0);
    FrameSpec s{3000};
    s.ipv6 = true;
    std::vector<uint8_t> frame;
    auto out = encap(s, nullptr, &frame);
    ASSERT_EQ(out.size(), 3u);
    EXPECT_EQ(reassemble_ipv6(inner_frames(out), 1450), frame);
    EXPECT_FALSE(read_outer(buff_bytes(out[0])).ipv6);
}

TEST_F(EncapFragmentTest, FragmentationIsTracedWithSizesAndCount)
{
    start_encap();
    auto out = encap(FrameSpec{3000});
    ASSERT_EQ(out.size(), 3u);
    const Lines lines = lines_starting(take_logs(), "VXLAN-EF-ENCAP:");
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(lines[1],
              "VXLAN-EF-ENCAP: [vsd 3 vxlan_ef_encap_header] pkt_len 2966 > vxlan_mtu 1450, need "
              "to fragment.\n");
    EXPECT_EQ(lines[2], "VXLAN-EF-ENCAP: [vsd 3 vxlan_ef_encap_header] frag_cnt 3\n");
    EXPECT_EQ(lines.back(),
              "VXLAN-EF-ENCAP: [vsd 3 vxlan_ef_encap_frame] efmp_vxlan_skip_fw success: skip to "
              "l3-engin.\n");
    for (const efmp_buff_t *b : out)
        EXPECT_NE(b->flags & EFMP_F_TRACE, 0u) << "every fragment stays traced";
}

TEST_F(EncapFragmentTest, FragmenterRefusalDropsTheFrameIntact)
{
    start_encap();
    const FrameSpec s{3000};
    std::vector<uint8_t> frame = make_frame(s);
    frame[14] = 0x44;  // an IPv4 header length below 20 bytes cannot be split
    efmp_buff_t *b = make_buff(frame, s, tunnel_cb());
    EXPECT_EQ(vxlan_ef_encap_frame(b, VXLAN_EF_ENCAP_MODE_TUNNEL), 1u);
    EXPECT_EQ(buff_bytes(b), frame);
    efmp_buff_free_sw_user(0, b);
    const Lines lines = lines_starting(take_logs(), "VXLAN-EF-ENCAP:");
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[2], "VXLAN-EF-ENCAP: [vsd 3 vxlan_ef_encap_header] efmp_frag fail\n");
    EXPECT_EQ(lines[3],
              "VXLAN-EF-ENCAP: [vsd 3 vxlan_ef_encap_frame] vxlan_ef_encap_header failed.(Drop "
              "it!)\n");
    EXPECT_EQ(efrt::l3_queued(), 0u);
}

TEST_F(EncapFragmentTest, FragmentAllocationFailureDropsTheFrameIntact)
{
    start_encap(false, 0);
    const FrameSpec s{3000};
    const std::vector<uint8_t> frame = make_frame(s);
    efmp_buff_t *b = make_buff(frame, s, tunnel_cb());
    const long live = efrt::buff_live_total();
    efrt::buff_fail_alloc(1);
    EXPECT_EQ(vxlan_ef_encap_frame(b, VXLAN_EF_ENCAP_MODE_TUNNEL), 1u);
    EXPECT_EQ(buff_bytes(b), frame);
    EXPECT_EQ(efrt::buff_live_total(), live) << "the fragments that were made are freed";
    efmp_buff_free_sw_user(0, b);
}

TEST_F(EncapFragmentTest, PushLeavingDataOffsetAt512SucceedsAt511Fails)
{
    start_encap();
    const FrameSpec s{60};
    efmp_buff_t *ok = buff_at(s, 512 + 36);
    EXPECT_TRUE(one_frag(ok, 2));
    EXPECT_EQ(ok->data_off, 512);
    efmp_buff_free_sw_user(0, ok);
    take_logs();
    efmp_buff_t *bad = buff_at(s, 511 + 36);
    EXPECT_FALSE(one_frag(bad, 2));
    EXPECT_EQ(take_logs(), Lines{"VXLAN-EF-ENCAP: [vsd 3 vxlan_ef_encap_one_frag] efmp_buff_pull "
                                 "for ip header failed\n"});
    EXPECT_EQ(bad->data_off, 511 + 20) << "the VXLAN and UDP headers stay pushed";
    efmp_buff_free_sw_user(0, bad);
}

TEST_F(EncapFragmentTest, EachOuterHeaderPushFailureHasItsOwnTrace)
{
    start_encap();
    struct Case {
        uint16_t data_off;
        uint8_t family;
        const char *line;
    };
    const Case cases[] = {
        {519, 2, "VXLAN-EF-ENCAP: [vsd 3 vxlan_ef_encap_one_frag] efmp_buff_pull for vxlan header "
                 "failed\n"},
        {527, 2, "VXLAN-EF-ENCAP: [vsd 3 vxlan_ef_encap_one_frag] efmp_buff_pull for udp header "
                 "failed\n"},
        {567, 10, "VXLAN-EF-ENCAP: [vsd 3 vxlan_ef_encap_one_frag] efmp_buff_pull for ipv6 header "
                  "failed\n"},
    };
    for (const Case &c : cases) {
        efmp_buff_t *b = buff_at(FrameSpec{60}, c.data_off);
        EXPECT_FALSE(one_frag(b, c.family));
        EXPECT_EQ(take_logs(), Lines{c.line});
        efmp_buff_free_sw_user(0, b);
    }
    efmp_buff_t *b = buff_at(FrameSpec{60}, 568);
    EXPECT_TRUE(one_frag(b, 10));
    EXPECT_EQ(b->data_off, 512);
    efmp_buff_free_sw_user(0, b);
}

TEST_F(EncapFragmentTest, HeaderFailureThroughTheEncapPathDropsWithItsTrace)
{
    start_encap();
    efmp_buff_t *b = buff_at(FrameSpec{60}, 519);
    EXPECT_EQ(vxlan_ef_encap_frame(b, VXLAN_EF_ENCAP_MODE_TUNNEL), 1u);
    const Lines lines = take_logs();
    EXPECT_EQ(lines.back(),
              "VXLAN-EF-ENCAP: [vsd 3 vxlan_ef_encap_frame] vxlan_ef_encap_header failed.(Drop "
              "it!)\n");
    efmp_buff_free_sw_user(0, b);
}

}  // namespace
}  // namespace vxtest
