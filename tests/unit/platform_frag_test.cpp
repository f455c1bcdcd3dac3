// The reference platform's fragmentation of the inner IP packet of a buffer:
// IPv4 fragments (offsets, MF, identification, options, checksums) and IPv6
// fragments (Fragment header after the per-fragment headers), the refusals,
// and the chain that replaces the buffer.
#include "encap_fixture.h"

namespace vxtest {
namespace {

class PlatformFragTest : public ::testing::Test {
protected:
    void SetUp() override { efrt::reset(); }
    void TearDown() override
    {
        for (efmp_buff_t *b : chain_)
            efmp_buff_free_sw_user(0, b);
        efrt::reset();
    }

    // Splits the buffer; the chain's buffers are freed at the end of the test.
    uint32_t split(efmp_buff_t *b, uint32_t size, bool ipv6)
    {
        first_ = last_ = b;
        const uint32_t n = ipv6 ? efmp_frag_ipv6(&first_, &last_, size)
                                : efmp_frag_ipv4(&first_, &last_, size);
        if (n != 0) {
            uint32_t seen = 0;
            for (efmp_buff_t *p = first_; p != nullptr && seen < n + 1; p = p->next, seen++)
                chain_.push_back(p);
        }
        return n;
    }

    std::vector<std::vector<uint8_t>> frames() const
    {
        std::vector<std::vector<uint8_t>> out;
        for (const efmp_buff_t *b : chain_)
            out.push_back(buff_bytes(b));
        return out;
    }

    static efmp_buff_t *buff_of(const std::vector<uint8_t> &frame, bool ipv6)
    {
        FrameSpec s{static_cast<uint32_t>(frame.size())};
        s.ipv6 = ipv6;
        efmp_buff_t *b = make_buff(frame, s, nullptr);
        b->flags = EFMP_F_TRACE | EFMP_F_BRG_NOT_FWD;
        b->vxlan_mtu = 1234;
        return b;
    }

    static void set_header_checksum(std::vector<uint8_t> &f)
    {
        const uint32_t hlen = (f[14] & 0xF) * 4u;
        f[24] = f[25] = 0;
        const uint16_t c = static_cast<uint16_t>(
            ~inet_sum(std::vector<uint8_t>(f.begin() + 14, f.begin() + 14 + hlen)));
        f[24] = static_cast<uint8_t>(c >> 8);
        f[25] = static_cast<uint8_t>(c);
    }

    efmp_buff_t *first_ = nullptr;
    efmp_buff_t *last_ = nullptr;
    std::vector<efmp_buff_t *> chain_;
};

TEST_F(PlatformFragTest, Ipv4SplitKeepsIdentificationSetsOffsetsAndMf)
{
    FrameSpec s{14 + 20 + 1000};
    s.tos = 0x2E;
    const std::vector<uint8_t> frame = make_frame(s);
    efmp_buff_t *orig = buff_of(frame, false);
    const long live = efrt::buff_live_total();
    ASSERT_EQ(split(orig, 400, false), 3u);
    ASSERT_EQ(chain_.size(), 3u) << "the chain ends after the last buffer";
    EXPECT_EQ(first_, chain_[0]);
    EXPECT_EQ(last_, chain_[2]);
    EXPECT_EQ(efrt::buff_live_total(), live + 2) << "the original buffer was freed";
    const uint32_t sizes[] = {400, 400, 200};
    const uint16_t words[] = {0x2000 | 0, 0x2000 | 50, 100};
    for (size_t i = 0; i < 3; i++) {
        const std::vector<uint8_t> f = buff_bytes(chain_[i]);
        EXPECT_EQ(std::vector<uint8_t>(f.begin(), f.begin() + 14),
                  std::vector<uint8_t>(frame.begin(), frame.begin() + 14));
        EXPECT_EQ(f.size(), 34 + sizes[i]);
        EXPECT_EQ(be16_at(f, 16), 20 + sizes[i]);
        EXPECT_EQ(be16_at(f, 18), 0x1234);
        EXPECT_EQ(be16_at(f, 20), words[i]);
        EXPECT_EQ(f[15], 0x2E);
        EXPECT_EQ(f[22], 64);
        EXPECT_EQ(f[23], 17);
        EXPECT_EQ(inet_sum(std::vector<uint8_t>(f.begin() + 14, f.begin() + 34)), 0xFFFF);
        EXPECT_EQ(chain_[i]->l2_len, 14);
        EXPECT_EQ(chain_[i]->l3_off, chain_[i]->data_off + 14);
        EXPECT_EQ(chain_[i]->pkt_type, EFMP_PKT_IPV4);
        EXPECT_EQ(chain_[i]->flags, EFMP_F_TRACE | EFMP_F_BRG_NOT_FWD);
        EXPECT_EQ(chain_[i]->vxlan_mtu, 1234);
        EXPECT_EQ(efmp_buff_vni(chain_[i]), kVni);
    }
    EXPECT_EQ(reassemble_ipv4(frames(), 400), frame);
}

TEST_F(PlatformFragTest, Ipv4PieceSizeIsRoundedDownToEightByteUnits)
{
    const std::vector<uint8_t> frame = make_frame(FrameSpec{9000});
    ASSERT_EQ(split(buff_of(frame, false), 1450, false), 7u);
    for (size_t i = 0; i + 1 < chain_.size(); i++)
        EXPECT_EQ(chain_[i]->len, 34u + 1448u);
    EXPECT_EQ(reassemble_ipv4(frames(), 1450), frame);
}

TEST_F(PlatformFragTest, Ipv4DontFragmentIsSplitAndTheFragmentsNoLongerCarryIt)
{
    std::vector<uint8_t> frame = make_frame(FrameSpec{2000});
    frame[20] = 0x40;
    set_header_checksum(frame);
    ASSERT_EQ(split(buff_of(frame, false), 1000, false), 2u);
    EXPECT_EQ(be16_at(buff_bytes(chain_[0]), 20), 0x2000);
    EXPECT_EQ(be16_at(buff_bytes(chain_[1]), 20), 125);
    frame[20] = 0;
    set_header_checksum(frame);
    EXPECT_EQ(reassemble_ipv4(frames(), 1000), frame);
}

TEST_F(PlatformFragTest, Ipv4HeaderShorterThanTwentyBytesIsRefusedAndTheBufferKept)
{
    std::vector<uint8_t> frame = make_frame(FrameSpec{2000});
    frame[14] = 0x44;
    efmp_buff_t *b = buff_of(frame, false);
    EXPECT_EQ(split(b, 1000, false), 0u);
    EXPECT_EQ(first_, b);
    EXPECT_EQ(buff_bytes(b), frame);
    efmp_buff_free_sw_user(0, b);
}

TEST_F(PlatformFragTest, Ipv4FragmentOfAFragmentKeepsItsOffsetAndMf)
{
    std::vector<uint8_t> frame = make_frame(FrameSpec{14 + 20 + 800});
    frame[20] = 0x20;  // MF, offset 100 units
    frame[21] = 100;
    set_header_checksum(frame);
    ASSERT_EQ(split(buff_of(frame, false), 400, false), 2u);
    EXPECT_EQ(be16_at(buff_bytes(chain_[0]), 20), 0x2000 | 100);
    EXPECT_EQ(be16_at(buff_bytes(chain_[1]), 20), 0x2000 | 150);
}

TEST_F(PlatformFragTest, Ipv4OptionsGoWholeIntoTheFirstFragmentCopiedOnesIntoTheOthers)
{
    // 20-byte header + 16 bytes of options: record route (not copied), loose
    // source route (copied), end of list.
    const uint8_t opts[16] = {0x07, 7, 4, 0, 0, 0, 0, 0x83, 7, 4, 1, 2, 3, 4, 0, 0};
    std::vector<uint8_t> frame = make_frame(FrameSpec{14 + 20 + 600});
    frame.insert(frame.begin() + 34, opts, opts + 16);
    frame[14] = 0x49;
    frame[16] = static_cast<uint8_t>((36 + 600) >> 8);
    frame[17] = static_cast<uint8_t>(36 + 600);
    set_header_checksum(frame);
    efmp_buff_t *b = buff_of(frame, false);
    ASSERT_EQ(split(b, 300, false), 3u);
    const std::vector<uint8_t> f0 = buff_bytes(chain_[0]);
    EXPECT_EQ(f0[14], 0x49);
    EXPECT_EQ(std::vector<uint8_t>(f0.begin() + 34, f0.begin() + 50),
              std::vector<uint8_t>(opts, opts + 16));
    EXPECT_EQ(f0.size(), 14u + 36u + 280u) << "300 less 16 bytes of options, in 8-byte units";
    for (size_t i = 1; i < 3; i++) {
        const std::vector<uint8_t> f = buff_bytes(chain_[i]);
        EXPECT_EQ(f[14], 0x47) << "28-byte header";
        EXPECT_EQ(std::vector<uint8_t>(f.begin() + 34, f.begin() + 42),
                  bytes({0x83, 7, 4, 1, 2, 3, 4, 0}));
        EXPECT_EQ(inet_sum(std::vector<uint8_t>(f.begin() + 14, f.begin() + 42)), 0xFFFF);
        EXPECT_EQ(chain_[i]->l4_off, chain_[i]->l3_off + 28);
    }
    // The data reassembles in order behind the first fragment's header.
    std::vector<uint8_t> data;
    for (size_t i = 0; i < 3; i++) {
        const std::vector<uint8_t> f = buff_bytes(chain_[i]);
        const size_t h = 14 + (f[14] & 0xF) * 4u;
        data.insert(data.end(), f.begin() + static_cast<long>(h), f.end());
    }
    EXPECT_EQ(data, std::vector<uint8_t>(frame.begin() + 50, frame.end()));
}

TEST_F(PlatformFragTest, Ipv4SizeWithoutRoomForEightBytesIsRefused)
{
    const std::vector<uint8_t> frame = make_frame(FrameSpec{200});
    efmp_buff_t *b = buff_of(frame, false);
    const long live = efrt::buff_live_total();
    EXPECT_EQ(split(b, 7, false), 0u);
    EXPECT_EQ(efrt::buff_live_total(), live);
    EXPECT_EQ(buff_bytes(b), frame);
    efmp_buff_free_sw_user(0, b);
}

TEST_F(PlatformFragTest, Ipv6SplitAddsAFragmentHeaderWithOneIdentificationPerPacket)
{
    FrameSpec s{14 + 40 + 1000};
    s.ipv6 = true;
    const std::vector<uint8_t> frame = make_frame(s);
    ASSERT_EQ(split(buff_of(frame, true), 500, true), 3u);
    const uint32_t sizes[] = {488, 488, 24};
    for (size_t i = 0; i < 3; i++) {
        const std::vector<uint8_t> f = buff_bytes(chain_[i]);
        EXPECT_EQ(f.size(), 14u + 48u + sizes[i]);
        EXPECT_EQ(f[20], 44);
        EXPECT_EQ(f[54], 17) << "the Fragment header names the original next header";
        EXPECT_EQ(be16_at(f, 56), (i * 488) | (i < 2 ? 1u : 0u));
        EXPECT_EQ(chain_[i]->l4_off, chain_[i]->l3_off + 48);
    }
    const uint32_t ident = be32_at(buff_bytes(chain_[0]), 58);
    EXPECT_EQ(reassemble_ipv6(frames(), 500), frame);
    for (efmp_buff_t *b : chain_)
        efmp_buff_free_sw_user(0, b);
    chain_.clear();
    ASSERT_EQ(split(buff_of(frame, true), 500, true), 3u);
    EXPECT_NE(be32_at(buff_bytes(chain_[0]), 58), ident) << "a new packet, a new identification";
}

TEST_F(PlatformFragTest, Ipv6HopByHopHeaderIsRepeatedInEveryFragment)
{
    FrameSpec s{14 + 40 + 8 + 600};
    s.ipv6 = true;
    s.proto = 0;  // Hop-by-Hop options follow the fixed header
    std::vector<uint8_t> frame = make_frame(s);
    const uint8_t hbh[8] = {17, 0, 1, 4, 0, 0, 0, 0};  // next header UDP, PadN
    std::copy(hbh, hbh + 8, frame.begin() + 54);
    ASSERT_EQ(split(buff_of(frame, true), 300, true), 3u);
    std::vector<uint8_t> data;
    for (size_t i = 0; i < 3; i++) {
        const std::vector<uint8_t> f = buff_bytes(chain_[i]);
        EXPECT_EQ(f[20], 0) << "the fixed header still names Hop-by-Hop";
        EXPECT_EQ(f[54], 44) << "Hop-by-Hop now names the Fragment header";
        EXPECT_EQ(std::vector<uint8_t>(f.begin() + 55, f.begin() + 62),
                  std::vector<uint8_t>(hbh + 1, hbh + 8));
        EXPECT_EQ(f[62], 17);
        EXPECT_EQ(be16_at(f, 18), f.size() - 54);
        EXPECT_LE(f.size() - 54, 300u);
        data.insert(data.end(), f.begin() + 70, f.end());
    }
    EXPECT_EQ(data, std::vector<uint8_t>(frame.begin() + 62, frame.end()));
}

TEST_F(PlatformFragTest, Ipv6PacketThatIsAlreadyAFragmentIsRefused)
{
    FrameSpec s{2000};
    s.ipv6 = true;
    s.proto = 44;
    const std::vector<uint8_t> frame = make_frame(s);
    efmp_buff_t *b = buff_of(frame, true);
    EXPECT_EQ(split(b, 1000, true), 0u);
    EXPECT_EQ(buff_bytes(b), frame);
    efmp_buff_free_sw_user(0, b);
}

TEST_F(PlatformFragTest, WrongIpVersionIsRefusedByEitherFragmenter)
{
    FrameSpec s6{2000};
    s6.ipv6 = true;
    efmp_buff_t *b6 = buff_of(make_frame(s6), true);
    EXPECT_EQ(split(b6, 1000, false), 0u);
    efmp_buff_t *b4 = buff_of(make_frame(FrameSpec{2000}), false);
    EXPECT_EQ(split(b4, 1000, true), 0u);
    efmp_buff_free_sw_user(0, b6);
    efmp_buff_free_sw_user(0, b4);
    efmp_buff_t *none = nullptr;
    EXPECT_EQ(efmp_frag_ipv4(&none, &none, 1000), 0u);
    EXPECT_EQ(efmp_frag_ipv6(&none, &none, 1000), 0u);
}

TEST_F(PlatformFragTest, AllocationFailureRefusesTheSplitWithoutLeaks)
{
    const std::vector<uint8_t> frame = make_frame(FrameSpec{3000});
    efmp_buff_t *b = buff_of(frame, false);
    const long live = efrt::buff_live_total();
    efrt::buff_fail_alloc(1);
    EXPECT_EQ(split(b, 1000, false), 0u);
    EXPECT_EQ(efrt::buff_live_total(), live);
    EXPECT_EQ(first_, b);
    EXPECT_EQ(buff_bytes(b), frame);
    efmp_buff_free_sw_user(0, b);
}

TEST_F(PlatformFragTest, ChainFreeReleasesCountBuffersFromTheFirst)
{
    const long live = efrt::buff_live_total();
    efmp_buff_t *a = efmp_buff_alloc_sw_user(0, 10);
    efmp_buff_t *b = efmp_buff_alloc_sw_user(0, 10);
    efmp_buff_t *c = efmp_buff_alloc_sw_user(0, 10);
    a->next = b;
    b->next = c;
    efmp_buff_chain_free_sw_user(0, a, 0, 2);
    EXPECT_EQ(efrt::buff_live_total(), live + 1);
    efmp_buff_chain_free_sw_user(0, c, 0, 1);
    EXPECT_EQ(efrt::buff_live_total(), live);
}

}  // namespace
}  // namespace vxtest
