// The outer checksums, recomputed by the test's own code: the IPv4 header
// checksum and the UDP checksum over the pseudo-header and the whole
// payload, for IPv4 and IPv6 outers and odd and even lengths.
#include "encap_fixture.h"
#include "vxlan_ef_encap.h"

namespace vxtest {
namespace {

class EncapChecksumTest : public EncapTest {
protected:
    // Every packet that left for one frame, with both checksums compared
    // with the values the test computes.
    void check_all(const std::vector<efmp_buff_t *> &out, bool ipv6)
    {
        ASSERT_FALSE(out.empty());
        for (const efmp_buff_t *b : out) {
            const std::vector<uint8_t> pkt = buff_bytes(b);
            const size_t udp = ipv6 ? 40 : 20;
            EXPECT_EQ(be16_at(pkt, udp + 6), expected_udp_checksum(pkt)) << "length " << pkt.size();
            if (!ipv6) {
                std::vector<uint8_t> hdr(pkt.begin(), pkt.begin() + 20);
                const uint16_t stored = be16_at(hdr, 10);
                hdr[10] = hdr[11] = 0;
                EXPECT_EQ(stored, static_cast<uint16_t>(~inet_sum(hdr)));
            }
            read_outer(pkt);
        }
    }
};

TEST_F(EncapChecksumTest, Ipv4OuterChecksumsForFramesOf60_1450_1451And9000Bytes)
{
    start_encap(false, 0);
    for (uint32_t len : {60u, 1450u, 1451u, 9000u}) {
        SCOPED_TRACE(len);
        check_all(encap(FrameSpec{len}), false);
    }
}

TEST_F(EncapChecksumTest, Ipv6OuterChecksumsForFramesOf60_1450_1451And9000Bytes)
{
    start_encap(true, 0);
    for (uint32_t len : {60u, 1450u, 1451u, 9000u}) {
        SCOPED_TRACE(len);
        check_all(encap(FrameSpec{len}), true);
    }
}

TEST_F(EncapChecksumTest, OddAndEvenLengthsOfInnerIpv6FramesOverBothOuters)
{
    for (bool ipv6_outer : {false, true}) {
        start_encap(ipv6_outer, 0);
        for (uint32_t len : {61u, 62u, 1001u, 1002u, 9001u}) {
            SCOPED_TRACE(len);
            FrameSpec s{len};
            s.ipv6 = true;
            check_all(encap(s), ipv6_outer);
        }
        free_owned();
        vxlan_ef_exit();
    }
}

TEST_F(EncapChecksumTest, OddLastByteCountsAsTheHighByteOfAZeroPaddedWord)
{
    start_encap(false, 0);
    std::vector<uint8_t> frame;
    auto out = encap(FrameSpec{61}, nullptr, &frame);
    ASSERT_EQ(out.size(), 1u);
    const std::vector<uint8_t> pkt = buff_bytes(out[0]);
    ASSERT_EQ(pkt.size() % 2, 1u);
    ASSERT_NE(pkt.back(), 0) << "the last byte must weigh in the sum";
    // The same bytes with the last one moved to the low half would give
    // another sum: the stored value matches only the zero-padded reading.
    EXPECT_EQ(be16_at(pkt, 26), expected_udp_checksum(pkt));
    std::vector<uint8_t> shifted = pkt;
    shifted.back() = 0;
    shifted.push_back(pkt.back());
    shifted[24] = static_cast<uint8_t>((shifted.size() - 20) >> 8);
    shifted[25] = static_cast<uint8_t>(shifted.size() - 20);
    std::vector<uint8_t> as_padded = pkt;
    as_padded.push_back(0);
    as_padded[24] = shifted[24];
    as_padded[25] = shifted[25];
    EXPECT_NE(expected_udp_checksum(shifted), expected_udp_checksum(as_padded));
}

TEST_F(EncapChecksumTest, ChecksumThatComputesToZeroIsStoredAsZero)
{
    start_encap(false, 0);
    // First pass: the sum of everything with two payload bytes at 0.
    FrameSpec s{100};
    std::vector<uint8_t> frame = make_frame(s);
    frame[40] = frame[41] = 0;
    efmp_buff_t *b = make_buff(frame, s, tunnel_cb());
    ASSERT_EQ(vxlan_ef_encap_frame(b, VXLAN_EF_ENCAP_MODE_TUNNEL), static_cast<uint32_t>(EF_Lost));
    owned_ = efrt::l3_take();
    ASSERT_EQ(owned_.size(), 1u);
    const uint16_t partial = static_cast<uint16_t>(~expected_udp_checksum(buff_bytes(owned_[0])));
    free_owned();
    // Second pass: the two bytes complete the sum to 0xFFFF, whose
    // complement 0 is stored as it is. Same source port as the first pass.
    const uint16_t w = static_cast<uint16_t>(0xFFFF - partial);
    frame[40] = static_cast<uint8_t>(w >> 8);
    frame[41] = static_cast<uint8_t>(w);
    g_vxlan_vsd->udp_sport = 0;
    b = make_buff(frame, s, tunnel_cb());
    ASSERT_EQ(vxlan_ef_encap_frame(b, VXLAN_EF_ENCAP_MODE_TUNNEL), static_cast<uint32_t>(EF_Lost));
    owned_ = efrt::l3_take();
    ASSERT_EQ(owned_.size(), 1u);
    const std::vector<uint8_t> pkt = buff_bytes(owned_[0]);
    EXPECT_EQ(pkt[26], 0);
    EXPECT_EQ(pkt[27], 0);
    EXPECT_EQ(read_outer(pkt).inner, frame);
}

}  // namespace
}  // namespace vxtest
