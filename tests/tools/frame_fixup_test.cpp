// Receive fix-ups of the AF_PACKET port: tags put back, pending checksums
// completed and TCP super-frames segmented. Frames are built here byte by
// byte and every checksum is checked by this file's own arithmetic.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "frame_fixup.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint8_t kTcp = 6;
constexpr uint8_t kUdp = 17;
constexpr uint8_t kIcmpv6 = 58;
constexpr uint8_t kFin = 0x01, kPsh = 0x08, kAck = 0x10, kCwr = 0x80;

void put16(Bytes &b, uint16_t v)
{
    b.push_back(static_cast<uint8_t>(v >> 8));
    b.push_back(static_cast<uint8_t>(v & 0xFF));
}

void put32(Bytes &b, uint32_t v)
{
    put16(b, static_cast<uint16_t>(v >> 16));
    put16(b, static_cast<uint16_t>(v & 0xFFFF));
}

uint16_t get16(const Bytes &b, size_t at) { return static_cast<uint16_t>(b[at] * 256 + b[at + 1]); }

uint32_t get32(const Bytes &b, size_t at) { return uint32_t{get16(b, at)} * 65536 + get16(b, at + 2); }

void set16(Bytes &b, size_t at, uint16_t v)
{
    b[at] = static_cast<uint8_t>(v >> 8);
    b[at + 1] = static_cast<uint8_t>(v & 0xFF);
}

// Internet checksum arithmetic, carried on every addition.
uint16_t ones_sum(const Bytes &data)
{
    uint32_t s = 0;
    for (size_t i = 0; i < data.size(); i += 2) {
        const uint32_t hi = data[i];
        const uint32_t lo = i + 1 < data.size() ? data[i + 1] : 0;
        s += hi * 256 + lo;
        if (s > 0xFFFF) s -= 0xFFFF;
    }
    return static_cast<uint16_t>(s);
}

// Where a test frame's headers are.
struct Layout {
    size_t l3 = 0;
    size_t l4 = 0;
    bool v6 = false;
    uint8_t proto = 0;
};

Bytes pseudo_header(const Bytes &f, const Layout &at, size_t l4_len)
{
    Bytes p;
    if (at.v6) {
        p.insert(p.end(), f.begin() + static_cast<long>(at.l3 + 8), f.begin() + static_cast<long>(at.l3 + 40));
        put32(p, static_cast<uint32_t>(l4_len));
        put32(p, at.proto);
    } else {
        p.insert(p.end(), f.begin() + static_cast<long>(at.l3 + 12), f.begin() + static_cast<long>(at.l3 + 20));
        p.push_back(0);
        p.push_back(at.proto);
        put16(p, static_cast<uint16_t>(l4_len));
    }
    return p;
}

Bytes l4_with_pseudo_header(const Bytes &f, const Layout &at)
{
    Bytes all = pseudo_header(f, at, f.size() - at.l4);
    all.insert(all.end(), f.begin() + static_cast<long>(at.l4), f.end());
    return all;
}

size_t checksum_offset(uint8_t proto) { return proto == kTcp ? 16 : proto == kUdp ? 6 : 2; }

bool l4_checksum_valid(const Bytes &f, const Layout &at)
{
    return ones_sum(l4_with_pseudo_header(f, at)) == 0xFFFF;
}

bool ipv4_header_valid(const Bytes &f, const Layout &at)
{
    return ones_sum(Bytes(f.begin() + static_cast<long>(at.l3), f.begin() + static_cast<long>(at.l4))) == 0xFFFF;
}

void write_reference_l4_checksum(Bytes &f, const Layout &at)
{
    const size_t field = at.l4 + checksum_offset(at.proto);
    set16(f, field, 0);
    uint16_t c = static_cast<uint16_t>(0xFFFF - ones_sum(l4_with_pseudo_header(f, at)));
    if (c == 0 && at.proto == kUdp) c = 0xFFFF;
    set16(f, field, c);
}

Bytes ethernet(const std::vector<uint16_t> &tags, uint16_t type)
{
    Bytes f = {0x02, 0, 0, 0, 0, 0x0B, 0x02, 0, 0, 0, 0, 0x0A};
    for (uint16_t tci : tags) {
        put16(f, 0x8100);
        put16(f, tci);
    }
    put16(f, type);
    return f;
}

void append_ipv4(Bytes &f, uint8_t proto, size_t l4_len, uint16_t id)
{
    const size_t start = f.size();
    f.insert(f.end(), {0x45, 0x00});
    put16(f, static_cast<uint16_t>(20 + l4_len));
    put16(f, id);
    f.insert(f.end(), {0x40, 0x00, 64, proto, 0, 0, 192, 0, 2, 1, 198, 51, 100, 7});
    set16(f, start + 10, static_cast<uint16_t>(0xFFFF - ones_sum(Bytes(f.begin() + static_cast<long>(start), f.end()))));
}

void append_ipv6(Bytes &f, uint8_t next, size_t l4_len)
{
    f.insert(f.end(), {0x60, 0x01, 0x23, 0x45});
    put16(f, static_cast<uint16_t>(l4_len));
    f.insert(f.end(), {next, 64});
    const Bytes src = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    const Bytes dst = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0xab, 0xcd, 0, 2};
    f.insert(f.end(), src.begin(), src.end());
    f.insert(f.end(), dst.begin(), dst.end());
}

Bytes payload_of(size_t n)
{
    Bytes p(n);
    for (size_t i = 0; i < n; ++i) p[i] = static_cast<uint8_t>(i * 7 + i / 251);
    return p;
}

struct FrameShape {
    bool v6 = false;
    uint8_t proto = kTcp;
    std::vector<uint16_t> tags;
    size_t payload = 0;
    uint8_t tcp_flags = kAck;
    Bytes tcp_options;
};

// A frame with correct lengths and checksums, and where its headers are.
std::pair<Bytes, Layout> build(const FrameShape &s)
{
    Bytes f = ethernet(s.tags, s.v6 ? 0x86DD : 0x0800);
    Layout at{f.size(), 0, s.v6, s.proto};
    const size_t l4_header = s.proto == kTcp ? 20 + s.tcp_options.size() : 8;  // UDP, ICMPv6 echo
    const size_t l4_len = l4_header + s.payload;
    if (s.v6)
        append_ipv6(f, s.proto, l4_len);
    else
        append_ipv4(f, s.proto, l4_len, 0xFFFE);
    at.l4 = f.size();
    if (s.proto == kTcp) {
        put16(f, 40000);
        put16(f, 443);
        put32(f, 0xFFFFF000u);  // wraps during segmentation
        put32(f, 0x01020304u);
        f.push_back(static_cast<uint8_t>((l4_header / 4) << 4));
        f.push_back(s.tcp_flags);
        put16(f, 512);
        put32(f, 0);
        f.insert(f.end(), s.tcp_options.begin(), s.tcp_options.end());
    } else if (s.proto == kUdp) {
        put16(f, 5353);
        put16(f, 4789);
        put16(f, static_cast<uint16_t>(l4_len));
        put16(f, 0);
    } else {
        f.insert(f.end(), {128, 0, 0, 0, 0x12, 0x34, 0x00, 0x01});  // echo request
    }
    const Bytes p = payload_of(s.payload);
    f.insert(f.end(), p.begin(), p.end());
    write_reference_l4_checksum(f, at);
    return {f, at};
}

efhost::FixupResult fix_up(const Bytes &f, const efhost::RxOffloadInfo &info, uint32_t mtu = 1500)
{
    return efhost::fix_up_received_frame(f.data(), f.size(), info, mtu);
}

TEST(FrameFixupTest, StrippedTagIsPutBackAfterTheSourceMac)
{
    const Bytes untagged = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 0x08, 0x06, 0xAA, 0xBB};
    efhost::RxOffloadInfo info;
    info.vlan_stripped = true;
    info.vlan_tci = 0x2064;
    const efhost::FixupResult r = fix_up(untagged, info);
    ASSERT_EQ(r.frames.size(), 1u);
    EXPECT_FALSE(r.dropped);
    EXPECT_EQ(r.frames[0], (Bytes{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 0x81, 0x00, 0x20, 0x64,
                                  0x08, 0x06, 0xAA, 0xBB}));
}

TEST(FrameFixupTest, StrippedTagKeepsTheTpidTheDeviceReported)
{
    const Bytes inner_tagged = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 0x81, 0x00, 0x00, 0x05, 0x88, 0xB5};
    efhost::RxOffloadInfo info;
    info.vlan_stripped = true;
    info.vlan_tpid = 0x88A8;
    info.vlan_tci = 0x0FFF;
    const efhost::FixupResult r = fix_up(inner_tagged, info);
    ASSERT_EQ(r.frames.size(), 1u);
    EXPECT_EQ(r.frames[0], (Bytes{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 0x88, 0xA8, 0x0F, 0xFF,
                                  0x81, 0x00, 0x00, 0x05, 0x88, 0xB5}));
}

TEST(FrameFixupTest, PendingChecksumsAreCompletedForTcpUdpAndIcmpv6OverBothIpVersions)
{
    const std::vector<FrameShape> cases = {
        {false, kTcp, {}, 101, kAck, {}},
        {false, kTcp, {0x0064}, 100, kAck | kPsh, {1, 1, 8, 10, 0, 0, 0, 1, 0, 0, 0, 2}},
        {false, kUdp, {}, 33, kAck, {}},
        {false, kUdp, {0x0FFE}, 1200, kAck, {}},
        {true, kTcp, {}, 1001, kAck, {}},
        {true, kTcp, {0x0007, 0x0008}, 64, kAck, {}},
        {true, kUdp, {}, 7, kAck, {}},
        {true, kUdp, {0x0123}, 1400, kAck, {}},
        {true, kIcmpv6, {}, 57, kAck, {}},
        {true, kIcmpv6, {0x0010}, 0, kAck, {}},
    };
    for (size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE("case " + std::to_string(i));
        const auto [good, at] = build(cases[i]);
        ASSERT_TRUE(l4_checksum_valid(good, at));
        Bytes pending = good;
        // What a sender leaves for the device: the pseudo-header sum only.
        set16(pending, at.l4 + checksum_offset(at.proto), 0x1D2C);
        efhost::RxOffloadInfo info;
        info.checksum_pending = true;
        const efhost::FixupResult r = fix_up(pending, info);
        ASSERT_EQ(r.frames.size(), 1u);
        EXPECT_EQ(r.frames[0], good);
    }
}

TEST(FrameFixupTest, CompletedChecksumIgnoresEthernetPadding)
{
    auto [good, at] = build({false, kUdp, {}, 3, kAck, {}});
    Bytes padded = good;
    padded.resize(60, 0xEE);
    Bytes expected = padded;
    set16(padded, at.l4 + 6, 0);
    efhost::RxOffloadInfo info;
    info.checksum_pending = true;
    const efhost::FixupResult r = fix_up(padded, info);
    ASSERT_EQ(r.frames.size(), 1u);
    EXPECT_EQ(r.frames[0], expected);
}

TEST(FrameFixupTest, UdpChecksumComputingToZeroIsWrittenAsAllOnes)
{
    auto [f, at] = build({false, kUdp, {}, 10, kAck, {}});
    // Choose the last payload word so that the sum with a zero checksum is 0xFFFF.
    set16(f, at.l4 + 6, 0);
    set16(f, f.size() - 2, 0);
    set16(f, f.size() - 2, static_cast<uint16_t>(0xFFFF - ones_sum(l4_with_pseudo_header(f, at))));
    ASSERT_EQ(ones_sum(l4_with_pseudo_header(f, at)), 0xFFFF);
    efhost::RxOffloadInfo info;
    info.checksum_pending = true;
    const efhost::FixupResult r = fix_up(f, info);
    ASSERT_EQ(r.frames.size(), 1u);
    EXPECT_EQ(get16(r.frames[0], at.l4 + 6), 0xFFFF);
}

TEST(FrameFixupTest, FrameOfExactlyTheMtuIsUntouched)
{
    // A wrong checksum shows that nothing was recomputed either.
    auto [f, at] = build({false, kTcp, {}, 1460, kAck | kFin, {}});
    ASSERT_EQ(f.size(), 1514u);
    set16(f, at.l4 + 16, 0xBEEF);
    const efhost::FixupResult r = fix_up(f, {});
    ASSERT_EQ(r.frames.size(), 1u);
    EXPECT_FALSE(r.dropped);
    EXPECT_EQ(r.frames[0], f);

    auto [tagged, tat] = build({true, kTcp, {0x0005, 0x0006}, 1440, kAck, {}});
    ASSERT_EQ(tagged.size(), 1522u);
    const efhost::FixupResult rt = fix_up(tagged, {});
    ASSERT_EQ(rt.frames.size(), 1u);
    EXPECT_EQ(rt.frames[0], tagged);
}

TEST(FrameFixupTest, OversizeUdpFrameIsDropped)
{
    const auto [f, at] = build({false, kUdp, {}, 1473, kAck, {}});
    ASSERT_EQ(f.size(), 1515u);
    const efhost::FixupResult r = fix_up(f, {});
    EXPECT_TRUE(r.dropped);
    EXPECT_TRUE(r.frames.empty());
}

void zero(Bytes &b, size_t at, size_t n)
{
    for (size_t i = at; i < at + n; ++i) b[i] = 0;
}

// Checks every segment against the super-frame it came from.
void expect_segments(const Bytes &super, const Layout &at, const std::vector<Bytes> &segs,
                     size_t header_len, size_t mss, size_t expected_count)
{
    const size_t payload = super.size() - header_len;
    ASSERT_EQ(segs.size(), expected_count);
    Bytes joined;
    const uint8_t flags = super[at.l4 + 13];
    for (size_t k = 0; k < segs.size(); ++k) {
        SCOPED_TRACE("segment " + std::to_string(k));
        const Bytes &s = segs[k];
        const bool last = k + 1 == segs.size();
        const size_t chunk = last ? payload - mss * k : mss;
        ASSERT_EQ(s.size(), header_len + chunk);
        EXPECT_LE(s.size() - at.l3, 1500u);
        const size_t ip_len = s.size() - at.l3;
        if (at.v6) {
            EXPECT_EQ(get16(s, at.l3 + 4), ip_len - 40);
        } else {
            EXPECT_EQ(get16(s, at.l3 + 2), ip_len);
            EXPECT_EQ(get16(s, at.l3 + 4), static_cast<uint16_t>(get16(super, at.l3 + 4) + k));
            EXPECT_TRUE(ipv4_header_valid(s, at));
        }
        EXPECT_EQ(get32(s, at.l4 + 4), static_cast<uint32_t>(get32(super, at.l4 + 4) + mss * k));
        uint8_t want = flags;
        if (!last) want &= static_cast<uint8_t>(~(kFin | kPsh));
        if (k != 0) want &= static_cast<uint8_t>(~kCwr);
        EXPECT_EQ(s[at.l4 + 13], want);
        EXPECT_TRUE(l4_checksum_valid(s, at));
        // Everything else in the headers is the super-frame's.
        Bytes hs(s.begin(), s.begin() + static_cast<long>(header_len));
        Bytes hsuper(super.begin(), super.begin() + static_cast<long>(header_len));
        for (Bytes *h : {&hs, &hsuper}) {
            zero(*h, at.l4 + 4, 4);   // sequence number
            zero(*h, at.l4 + 13, 1);  // flags
            zero(*h, at.l4 + 16, 2);  // checksum
            zero(*h, at.l3 + (at.v6 ? 4 : 2), at.v6 ? 2 : 4);  // lengths, IPv4 id
            if (!at.v6) zero(*h, at.l3 + 10, 2);
        }
        EXPECT_EQ(hs, hsuper);
        joined.insert(joined.end(), s.begin() + static_cast<long>(header_len), s.end());
    }
    EXPECT_EQ(joined, Bytes(super.begin() + static_cast<long>(header_len), super.end()));
}

TEST(FrameFixupTest, TcpIpv4SuperFrameIsSegmentedToTheMtu)
{
    const Bytes timestamps = {1, 1, 8, 10, 0, 0, 0x12, 0x34, 0, 0, 0x56, 0x78};
    const size_t header_len = 14 + 20 + 32;
    auto [f, at] = build({false, kTcp, {}, 20000 - header_len, kAck | kPsh | kFin | kCwr, timestamps});
    ASSERT_EQ(f.size(), 20000u);
    efhost::RxOffloadInfo info;
    info.checksum_pending = true;
    set16(f, at.l4 + 16, 0x4321);
    const efhost::FixupResult r = fix_up(f, info);
    EXPECT_FALSE(r.dropped);
    // 1500 - 20 - 32 = 1448 bytes a segment; 19934 bytes of payload.
    expect_segments(f, at, r.frames, header_len, 1448, 14);
}

TEST(FrameFixupTest, TaggedTcpIpv6SuperFrameIsSegmentedToTheMtu)
{
    const size_t header_len = 18 + 40 + 20;
    const auto [f, at] = build({true, kTcp, {0x0064}, 5000, kAck | kPsh, {}});
    efhost::RxOffloadInfo info;
    const efhost::FixupResult r = fix_up(f, info);
    EXPECT_FALSE(r.dropped);
    // 1500 - 40 - 20 = 1440 bytes a segment.
    expect_segments(f, at, r.frames, header_len, 1440, 4);
}

TEST(FrameFixupTest, SuperFrameWithStrippedTagIsTaggedAndSegmented)
{
    const size_t header_len = 18 + 20 + 20;
    const auto [tagged, at] = build({false, kTcp, {0x0ABC}, 3000, kAck, {}});
    Bytes stripped = tagged;
    stripped.erase(stripped.begin() + 12, stripped.begin() + 16);
    efhost::RxOffloadInfo info;
    info.vlan_stripped = true;
    info.vlan_tci = 0x0ABC;
    const efhost::FixupResult r = fix_up(stripped, info);
    expect_segments(tagged, at, r.frames, header_len, 1460, 3);
}

// A VXLAN/UDP packet around an inner frame, as a kernel VTEP sends it: the
// outer UDP checksum over IPv6 (or 0 over IPv4) computed for the final inner
// bytes.
std::pair<Bytes, Layout> vxlan_around(const Bytes &inner, bool outer_v6)
{
    Bytes f = ethernet({}, outer_v6 ? 0x86DD : 0x0800);
    Layout at{f.size(), 0, outer_v6, kUdp};
    const size_t l4_len = 16 + inner.size();
    if (outer_v6)
        append_ipv6(f, kUdp, l4_len);
    else
        append_ipv4(f, kUdp, l4_len, 0x1000);
    at.l4 = f.size();
    put16(f, 51000);
    put16(f, 4789);
    put16(f, static_cast<uint16_t>(l4_len));
    put16(f, 0);
    f.insert(f.end(), {0x08, 0, 0, 0, 0, 0x03, 0xE8, 0});
    f.insert(f.end(), inner.begin(), inner.end());
    if (outer_v6)
        write_reference_l4_checksum(f, at);
    return {f, at};
}

TEST(FrameFixupTest, PendingChecksumOfAVxlanPacketIsTheInnerFramesAndTheOuterStaysValid)
{
    for (bool outer_v6 : {false, true}) {
        SCOPED_TRACE(outer_v6 ? "IPv6 outer" : "IPv4 outer");
        const auto [inner, inner_at] = build({false, kTcp, {}, 301, kAck, {}});
        const auto [good, at] = vxlan_around(inner, outer_v6);
        Bytes pending = good;
        const size_t inner_start = at.l4 + 16;
        set16(pending, inner_start + inner_at.l4 + 16, 0x1234);  // left to offload
        efhost::RxOffloadInfo info;
        info.checksum_pending = true;
        const efhost::FixupResult r = fix_up(pending, info);
        ASSERT_EQ(r.frames.size(), 1u);
        EXPECT_EQ(r.frames[0], good);
    }
}

TEST(FrameFixupTest, VxlanPacketCarryingATcpSuperFrameIsCutIntoVxlanPacketsWithinTheMtu)
{
    for (bool outer_v6 : {false, true}) {
        SCOPED_TRACE(outer_v6 ? "IPv6 outer" : "IPv4 outer");
        const size_t inner_headers = 14 + 20 + 20;
        const auto [inner, inner_at] = build({false, kTcp, {}, 9000, kAck | kPsh, {}});
        const auto [super, at] = vxlan_around(inner, outer_v6);
        const size_t outer_headers = at.l4 + 16;
        const size_t mss = 1500 - (outer_headers - at.l3) - inner_headers;
        const efhost::FixupResult r = fix_up(super, {});
        ASSERT_FALSE(r.dropped);
        std::vector<Bytes> inner_segments;
        for (size_t k = 0; k < r.frames.size(); ++k) {
            SCOPED_TRACE("packet " + std::to_string(k));
            const Bytes &p = r.frames[k];
            EXPECT_LE(p.size() - at.l3, 1500u);
            if (outer_v6) {
                EXPECT_EQ(get16(p, at.l3 + 4), p.size() - at.l3 - 40);
            } else {
                EXPECT_EQ(get16(p, at.l3 + 2), p.size() - at.l3);
                EXPECT_EQ(get16(p, at.l3 + 4), 0x1000 + k);
                EXPECT_TRUE(ipv4_header_valid(p, at));
                EXPECT_EQ(get16(p, at.l4 + 6), 0) << "an unused UDP checksum stays unused";
            }
            EXPECT_EQ(get16(p, at.l4 + 4), p.size() - at.l4);
            if (outer_v6) {
                EXPECT_TRUE(l4_checksum_valid(p, at));
            }
            EXPECT_EQ(Bytes(p.begin() + static_cast<long>(at.l4 + 8), p.begin() + static_cast<long>(outer_headers)),
                      Bytes(super.begin() + static_cast<long>(at.l4 + 8), super.begin() + static_cast<long>(outer_headers)));
            inner_segments.emplace_back(p.begin() + static_cast<long>(outer_headers), p.end());
        }
        expect_segments(inner, inner_at, inner_segments, inner_headers, mss,
                        (9000 + mss - 1) / mss);
    }
}

}  // namespace
