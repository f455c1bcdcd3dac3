// Receive fix-ups of the AF_PACKET port: tags put back, pending checksums
// completed and TCP super-frames segmented. Frames are built here byte by
// byte and every checksum is checked by this file's own arithmetic.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "ef_wire.h"
#include "frame_fixup.h"

namespace {

using Bytes = std::vector<uint8_t>;

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
        p.insert(p.end(), f.begin() + static_cast<long>(at.l3 + offsetof(ef_ipv6_hdr, src)),
                 f.begin() + static_cast<long>(at.l3 + EF_IPV6_HLEN));
        put32(p, static_cast<uint32_t>(l4_len));
        put32(p, at.proto);
    } else {
        p.insert(p.end(), f.begin() + static_cast<long>(at.l3 + offsetof(ef_ipv4_hdr, src)),
                 f.begin() + static_cast<long>(at.l3 + EF_IPV4_HLEN));
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

size_t checksum_offset(uint8_t proto)
{
    return proto == EF_IPPROTO_TCP ? EF_TCP_CSUM_OFFSET : proto == EF_IPPROTO_UDP ? EF_UDP_CSUM_OFFSET : 2;
}

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
    if (c == 0 && at.proto == EF_IPPROTO_UDP) c = 0xFFFF;
    set16(f, field, c);
}

Bytes ethernet(const std::vector<uint16_t> &tags, uint16_t type)
{
    Bytes f = {0x02, 0, 0, 0, 0, 0x0B, 0x02, 0, 0, 0, 0, 0x0A};
    for (uint16_t tci : tags) {
        put16(f, EF_ETHERTYPE_VLAN);
        put16(f, tci);
    }
    put16(f, type);
    return f;
}

void append_ipv4(Bytes &f, uint8_t proto, size_t l4_len, uint16_t id)
{
    const size_t start = f.size();
    f.insert(f.end(), {0x45, 0x00});
    put16(f, static_cast<uint16_t>(EF_IPV4_HLEN + l4_len));
    put16(f, id);
    f.insert(f.end(), {0x40, 0x00, 64, proto, 0, 0, 192, 0, 2, 1, 198, 51, 100, 7});
    set16(f, start + EF_IPV4_CSUM_OFFSET, static_cast<uint16_t>(0xFFFF - ones_sum(Bytes(f.begin() + static_cast<long>(start), f.end()))));
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
    uint8_t proto = EF_IPPROTO_TCP;
    std::vector<uint16_t> tags;
    size_t payload = 0;
    uint8_t tcp_flags = EF_TCP_ACK;
    Bytes tcp_options;
};

// A frame with correct lengths and checksums, and where its headers are.
std::pair<Bytes, Layout> build(const FrameShape &s)
{
    Bytes f = ethernet(s.tags, s.v6 ? EF_ETHERTYPE_IPV6 : EF_ETHERTYPE_IPV4);
    Layout at{f.size(), 0, s.v6, s.proto};
    // UDP's header, or an ICMPv6 echo's of the same length
    const size_t l4_header = s.proto == EF_IPPROTO_TCP ? EF_TCP_HLEN + s.tcp_options.size() : EF_UDP_HLEN;
    const size_t l4_len = l4_header + s.payload;
    if (s.v6)
        append_ipv6(f, s.proto, l4_len);
    else
        append_ipv4(f, s.proto, l4_len, 0xFFFE);
    at.l4 = f.size();
    if (s.proto == EF_IPPROTO_TCP) {
        put16(f, 40000);
        put16(f, 443);
        put32(f, 0xFFFFF000u);  // wraps during segmentation
        put32(f, 0x01020304u);
        f.push_back(static_cast<uint8_t>((l4_header / 4) << 4));
        f.push_back(s.tcp_flags);
        put16(f, 512);
        put32(f, 0);
        f.insert(f.end(), s.tcp_options.begin(), s.tcp_options.end());
    } else if (s.proto == EF_IPPROTO_UDP) {
        put16(f, 5353);
        put16(f, EF_VXLAN_PORT);
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
        {false, EF_IPPROTO_TCP, {}, 101, EF_TCP_ACK, {}},
        {false, EF_IPPROTO_TCP, {0x0064}, 100, EF_TCP_ACK | EF_TCP_PSH, {1, 1, 8, 10, 0, 0, 0, 1, 0, 0, 0, 2}},
        {false, EF_IPPROTO_UDP, {}, 33, EF_TCP_ACK, {}},
        {false, EF_IPPROTO_UDP, {0x0FFE}, 1200, EF_TCP_ACK, {}},
        {true, EF_IPPROTO_TCP, {}, 1001, EF_TCP_ACK, {}},
        {true, EF_IPPROTO_TCP, {0x0007, 0x0008}, 64, EF_TCP_ACK, {}},
        {true, EF_IPPROTO_UDP, {}, 7, EF_TCP_ACK, {}},
        {true, EF_IPPROTO_UDP, {0x0123}, 1400, EF_TCP_ACK, {}},
        {true, EF_IPPROTO_ICMPV6, {}, 57, EF_TCP_ACK, {}},
        {true, EF_IPPROTO_ICMPV6, {0x0010}, 0, EF_TCP_ACK, {}},
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
    auto [good, at] = build({false, EF_IPPROTO_UDP, {}, 3, EF_TCP_ACK, {}});
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
    auto [f, at] = build({false, EF_IPPROTO_UDP, {}, 10, EF_TCP_ACK, {}});
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
    auto [f, at] = build({false, EF_IPPROTO_TCP, {}, 1460, EF_TCP_ACK | EF_TCP_FIN, {}});
    ASSERT_EQ(f.size(), 1514u);
    set16(f, at.l4 + 16, 0xBEEF);
    const efhost::FixupResult r = fix_up(f, {});
    ASSERT_EQ(r.frames.size(), 1u);
    EXPECT_FALSE(r.dropped);
    EXPECT_EQ(r.frames[0], f);

    auto [tagged, tat] = build({true, EF_IPPROTO_TCP, {0x0005, 0x0006}, 1440, EF_TCP_ACK, {}});
    ASSERT_EQ(tagged.size(), 1522u);
    const efhost::FixupResult rt = fix_up(tagged, {});
    ASSERT_EQ(rt.frames.size(), 1u);
    EXPECT_EQ(rt.frames[0], tagged);
}

TEST(FrameFixupTest, OversizeUdpFrameIsDropped)
{
    const auto [f, at] = build({false, EF_IPPROTO_UDP, {}, 1473, EF_TCP_ACK, {}});
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
        if (!last) want &= static_cast<uint8_t>(~(EF_TCP_FIN | EF_TCP_PSH));
        if (k != 0) want &= static_cast<uint8_t>(~EF_TCP_CWR);
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
    const size_t header_len = EF_ETH_HLEN + EF_IPV4_HLEN + 32;
    auto [f, at] = build({false, EF_IPPROTO_TCP, {}, 20000 - header_len, EF_TCP_ACK | EF_TCP_PSH | EF_TCP_FIN | EF_TCP_CWR, timestamps});
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
    const size_t header_len = EF_ETH_HLEN + EF_VLAN_TAG_LEN + EF_IPV6_HLEN + EF_TCP_HLEN;
    const auto [f, at] = build({true, EF_IPPROTO_TCP, {0x0064}, 5000, EF_TCP_ACK | EF_TCP_PSH, {}});
    efhost::RxOffloadInfo info;
    const efhost::FixupResult r = fix_up(f, info);
    EXPECT_FALSE(r.dropped);
    // 1500 - 40 - 20 = 1440 bytes a segment.
    expect_segments(f, at, r.frames, header_len, 1440, 4);
}

TEST(FrameFixupTest, SuperFrameWithStrippedTagIsTaggedAndSegmented)
{
    const size_t header_len = EF_ETH_HLEN + EF_VLAN_TAG_LEN + EF_IPV4_HLEN + EF_TCP_HLEN;
    const auto [tagged, at] = build({false, EF_IPPROTO_TCP, {0x0ABC}, 3000, EF_TCP_ACK, {}});
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
    Bytes f = ethernet({}, outer_v6 ? EF_ETHERTYPE_IPV6 : EF_ETHERTYPE_IPV4);
    Layout at{f.size(), 0, outer_v6, EF_IPPROTO_UDP};
    const size_t l4_len = EF_UDP_HLEN + EF_VXLAN_HLEN + inner.size();
    if (outer_v6)
        append_ipv6(f, EF_IPPROTO_UDP, l4_len);
    else
        append_ipv4(f, EF_IPPROTO_UDP, l4_len, 0x1000);
    at.l4 = f.size();
    put16(f, 51000);
    put16(f, EF_VXLAN_PORT);
    put16(f, static_cast<uint16_t>(l4_len));
    put16(f, 0);
    f.insert(f.end(), {EF_VXLAN_FLAG_I, 0, 0, 0, 0, 0x03, 0xE8, 0});  // VNI 1000
    f.insert(f.end(), inner.begin(), inner.end());
    if (outer_v6)
        write_reference_l4_checksum(f, at);
    return {f, at};
}

TEST(FrameFixupTest, PendingChecksumOfAVxlanPacketIsTheInnerFramesAndTheOuterStaysValid)
{
    for (bool outer_v6 : {false, true}) {
        SCOPED_TRACE(outer_v6 ? "IPv6 outer" : "IPv4 outer");
        const auto [inner, inner_at] = build({false, EF_IPPROTO_TCP, {}, 301, EF_TCP_ACK, {}});
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
        const size_t inner_headers = EF_ETH_HLEN + EF_IPV4_HLEN + EF_TCP_HLEN;
        const auto [inner, inner_at] = build({false, EF_IPPROTO_TCP, {}, 9000, EF_TCP_ACK | EF_TCP_PSH, {}});
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
