// Encapsulation inputs that the forward fuzz target found problems with,
// replayed with the bytes the target delivered, each asserting what the
// module must do with them.
#include "efrt_l3.h"
#include "encap_fixture.h"
#include "vxlan_ef_encap.h"

namespace {

using namespace vxtest;

class FuzzRegressionEncapTest : public EncapTest {
protected:
    // The target's frame: towards a host behind the tunnel, from a local
    // host, of an EtherType that is neither IP nor ARP (so never
    // fragmented), zero-filled to len bytes.
    static std::vector<uint8_t> non_ip_frame(size_t len)
    {
        std::vector<uint8_t> f = bytes({0x00, 0x11, 0x22, 0x33, 0x44, 0x01, 0x00, 0x11, 0x22, 0x33,
                                        0x44, 0x0b, 0x88, 0xb5});
        f.resize(len);
        return f;
    }

    // Encapsulates the frame towards the tunnel; returns the result, and the
    // outer packets in *out. A dropped buffer is checked to be untouched.
    uint32_t encap_non_ip(size_t len, std::vector<efmp_buff_t *> *out)
    {
        FrameSpec spec;
        spec.arp = true;
        efmp_buff_t *b = make_buff(non_ip_frame(len), spec, tunnel_cb());
        b->pkt_type = 0;
        const uint16_t data_off = b->data_off;
        const uint32_t r = vxlan_ef_encap_frame(b, VXLAN_EF_ENCAP_MODE_TUNNEL);
        if (r != EF_Lost) {
            EXPECT_EQ(b->data_off, data_off);
            EXPECT_EQ(b->len, len);
            efmp_buff_free_sw_user(0, b);
        }
        *out = efrt::l3_take();
        owned_.insert(owned_.end(), out->begin(), out->end());
        return r;
    }
};

// A 65500-byte frame made an outer IPv4 packet of 65536 bytes whose total
// length read 0 (and a UDP length of 65516 read 65516 - 65536).
TEST_F(FuzzRegressionEncapTest, FrameTooLongForAnOuterIpv4PacketIsDroppedNotSentWithAWrappedLength)
{
    start_encap(false);
    std::vector<efmp_buff_t *> out;
    EXPECT_EQ(encap_non_ip(65500, &out), static_cast<uint32_t>(EF_Drop));
    EXPECT_TRUE(out.empty());
    // The longest frame that fits makes a packet of exactly 65535 bytes.
    ASSERT_EQ(encap_non_ip(65499, &out), static_cast<uint32_t>(EF_Lost));
    ASSERT_EQ(out.size(), 1u);
    const std::vector<uint8_t> pkt = buff_bytes(out[0]);
    ASSERT_EQ(pkt.size(), 65535u);
    EXPECT_EQ(be16_at(pkt, 2), 65535u);
    EXPECT_EQ(be16_at(pkt, 24), 65515u);
}

TEST_F(FuzzRegressionEncapTest, FrameTooLongForAnOuterIpv6PayloadIsDroppedNotSentWithAWrappedLength)
{
    start_encap(true);
    std::vector<efmp_buff_t *> out;
    EXPECT_EQ(encap_non_ip(65520, &out), static_cast<uint32_t>(EF_Drop));
    EXPECT_TRUE(out.empty());
    ASSERT_EQ(encap_non_ip(65519, &out), static_cast<uint32_t>(EF_Lost));
    ASSERT_EQ(out.size(), 1u);
    const std::vector<uint8_t> pkt = buff_bytes(out[0]);
    ASSERT_EQ(pkt.size(), 40u + 65535u);
    EXPECT_EQ(be16_at(pkt, 4), 65535u);
    EXPECT_EQ(be16_at(pkt, 44), 65535u);
}

}  // namespace
