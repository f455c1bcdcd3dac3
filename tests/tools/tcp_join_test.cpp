// Joining the TCP segments of one batch into super-frames: which runs are
// joined, and that the kernel's segmentation of a joined frame (here
// segment_tcp at its segment size, after completing the checksum the way a
// device does) gives back every segment byte for byte.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "ef_wire.h"
#include "frame_fixup.h"
#include "tcp_frames.h"
#include "tcp_join.h"

namespace {

using namespace tcp_frames;

// What the receiving host gets from a joined unit: the kernel cuts it at
// its segment size with the checksums completed.
std::vector<Bytes> cut_again(const efhost::TxUnit &unit)
{
    Bytes whole = unit.joined;
    EXPECT_TRUE(efhost::complete_checksum_at(whole, unit.header.csum_start, unit.header.csum_offset));
    return efhost::segment_tcp(whole, 65535, unit.header.gso_size);
}

TEST(TcpJoinTest, InOrderSegmentsOfOneFlowBecomeOneSuperFrameTheKernelCutsBackExactly)
{
    for (bool v6 : {false, true}) {
        SCOPED_TRACE(v6 ? "IPv6" : "IPv4");
        const std::vector<Bytes> segs = segments_of(v6, 10000, EF_TCP_ACK | EF_TCP_PSH);
        ASSERT_EQ(segs.size(), 8u);
        const std::vector<efhost::TxUnit> units = efhost::join_tcp_segments(segs.data(), segs.size());
        ASSERT_EQ(units.size(), 1u);
        EXPECT_EQ(units[0].count, 8u);
        EXPECT_EQ(units[0].header.gso_type, v6 ? efhost::kVnetGsoTcpv6 : efhost::kVnetGsoTcpv4);
        EXPECT_EQ(units[0].header.flags, efhost::kVnetNeedsChecksum);
        const size_t headers = 14 + (v6 ? 40 : 20) + 32;
        EXPECT_EQ(units[0].header.hdr_len, headers);
        EXPECT_EQ(units[0].header.gso_size, 1450 - (v6 ? 40 : 20) - 32);
        EXPECT_EQ(units[0].header.csum_start, 14 + (v6 ? 40 : 20));
        EXPECT_EQ(units[0].header.csum_offset, 16);
        EXPECT_EQ(units[0].joined.size(), headers + 10000);
        EXPECT_EQ(cut_again(units[0]), segs);
    }
}

TEST(TcpJoinTest, ASegmentWithABadChecksumIsSentAloneAndSplitsTheRun)
{
    std::vector<Bytes> segs = segments_of(false, 6000, EF_TCP_ACK);
    ASSERT_EQ(segs.size(), 5u);
    segs[2][14 + 20 + 16] ^= 0x01;
    const std::vector<efhost::TxUnit> units = efhost::join_tcp_segments(segs.data(), segs.size());
    ASSERT_EQ(units.size(), 3u);
    EXPECT_EQ(units[0].first, 0u);
    EXPECT_EQ(units[0].count, 2u);
    EXPECT_EQ(units[1].first, 2u);
    EXPECT_EQ(units[1].count, 1u);
    EXPECT_TRUE(units[1].joined.empty());
    EXPECT_EQ(units[2].first, 3u);
    EXPECT_EQ(units[2].count, 2u);
    EXPECT_EQ(cut_again(units[0]), std::vector<Bytes>(segs.begin(), segs.begin() + 2));
    EXPECT_EQ(cut_again(units[2]), std::vector<Bytes>(segs.begin() + 3, segs.end()));
}

TEST(TcpJoinTest, SegmentsOfAnotherFlowOutOfOrderOrAfterAPushAreNotJoined)
{
    const std::vector<Bytes> a = segments_of(false, 4000, EF_TCP_ACK);
    const std::vector<Bytes> b = segments_of(false, 4000, EF_TCP_ACK, 40001);
    // interleaved flows: no two neighbours of one flow
    const std::vector<Bytes> mixed = {a[0], b[0], a[1], b[1]};
    EXPECT_EQ(efhost::join_tcp_segments(mixed.data(), mixed.size()).size(), 4u);
    // a gap in the sequence numbers
    const std::vector<Bytes> gap = {a[0], a[2]};
    EXPECT_EQ(efhost::join_tcp_segments(gap.data(), gap.size()).size(), 2u);
    // a segment shorter than the first may only end a run
    const std::vector<Bytes> short_first = {a[2], a[0]};
    EXPECT_EQ(efhost::join_tcp_segments(short_first.data(), short_first.size()).size(), 2u);
    // PSH ends a run
    const std::vector<Bytes> pushed = segments_of(false, 4000, EF_TCP_ACK | EF_TCP_PSH);
    const std::vector<Bytes> after_push = {pushed[2], a[0]};
    EXPECT_EQ(efhost::join_tcp_segments(after_push.data(), after_push.size()).size(), 2u);
    // FIN is never joined
    const std::vector<Bytes> fin = segments_of(false, 4000, EF_TCP_ACK | EF_TCP_FIN);
    const std::vector<efhost::TxUnit> units = efhost::join_tcp_segments(fin.data(), fin.size());
    ASSERT_EQ(units.size(), 2u);
    EXPECT_EQ(units[0].count, 2u);
    EXPECT_EQ(units[1].count, 1u);
}

TEST(TcpJoinTest, FramesThatAreNotTcpDataPassAsTheyAre)
{
    Bytes arp = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x02, 0, 0, 0, 0, 0x0A, 0x08, 0x06};
    arp.resize(60);
    const std::vector<Bytes> ack_only = segments_of(false, 0, EF_TCP_ACK);
    const std::vector<Bytes> frames = {arp, ack_only[0], ack_only[0], Bytes(10, 0)};
    const std::vector<efhost::TxUnit> units = efhost::join_tcp_segments(frames.data(), frames.size());
    ASSERT_EQ(units.size(), 4u);
    for (size_t i = 0; i < units.size(); ++i) {
        EXPECT_EQ(units[i].first, i);
        EXPECT_EQ(units[i].count, 1u);
        EXPECT_EQ(units[i].header.gso_type, efhost::kVnetGsoNone);
        EXPECT_EQ(units[i].header.flags, 0);
    }
}

}  // namespace
