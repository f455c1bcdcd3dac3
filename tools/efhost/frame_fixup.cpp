// The receive fix-ups of frame_fixup.h: locating the IP and L4 headers behind
// any number of VLAN tags, Internet checksums, tag reinsertion and TCP
// segmentation.
#include "frame_fixup.h"

#include <algorithm>
#include <array>
#include <optional>

#include "ef_byteorder.h"
#include "ef_csum.h"

namespace efhost {

namespace {

constexpr size_t kMacsLength = 12;
constexpr size_t kTagLength = 4;
constexpr uint16_t kEtherIpv4 = 0x0800;
constexpr uint16_t kEtherIpv6 = 0x86DD;
constexpr std::array<uint16_t, 3> kTagTpids = {0x8100, 0x88A8, 0x9100};

constexpr uint8_t kProtoTcp = 6;
constexpr uint8_t kProtoUdp = 17;
constexpr uint8_t kProtoIcmpv6 = 58;

constexpr uint8_t kTcpFin = 0x01;
constexpr uint8_t kTcpPsh = 0x08;
constexpr uint8_t kTcpCwr = 0x80;

// Where each L4 protocol keeps its checksum and the least it must hold.
struct ChecksumPlace {
    uint8_t proto;
    size_t offset;
    size_t min_length;
    bool zero_means_absent;  // UDP sends a computed 0 as 0xFFFF
};
constexpr std::array<ChecksumPlace, 3> kChecksumPlaces = {{
    {kProtoTcp, 16, 20, false},
    {kProtoUdp, 6, 8, true},
    {kProtoIcmpv6, 2, 4, false},
}};

// IPv6 extension headers walked to reach the L4 header, with how their
// length byte counts (units of 8 bytes beyond the first 8, or of 4 bytes
// beyond the first 8 for AH). The fragment header is not here: a fragment
// has no complete L4 payload to fix up.
struct ExtensionHeader {
    uint8_t type;
    size_t unit;
    size_t base_units;
};
constexpr std::array<ExtensionHeader, 4> kIpv6Extensions = {{
    {0, 8, 1},   // hop-by-hop options
    {43, 8, 1},  // routing
    {60, 8, 1},  // destination options
    {51, 4, 2},  // authentication
}};

// Where the IP packet of a frame lies.
struct IpLayout {
    size_t l3 = 0;   // IP header
    size_t l4 = 0;   // L4 header, after any IPv6 extension headers
    size_t end = 0;  // one past the IP packet; Ethernet padding excluded
    bool v6 = false;
    uint8_t proto = 0;
};

bool is_tag_tpid(uint16_t type)
{
    return std::find(kTagTpids.begin(), kTagTpids.end(), type) != kTagTpids.end();
}

const ExtensionHeader *find_extension(uint8_t type)
{
    for (const ExtensionHeader &e : kIpv6Extensions)
        if (e.type == type) return &e;
    return nullptr;
}

const ChecksumPlace *find_checksum_place(uint8_t proto)
{
    for (const ChecksumPlace &c : kChecksumPlaces)
        if (c.proto == proto) return &c;
    return nullptr;
}

// A length field of 0 stands for a packet longer than the field can say
// (large GSO frames); the frame's own end bounds it then.
std::optional<size_t> packet_end(size_t start, size_t field, size_t header, size_t len)
{
    if (field == 0) return len;
    if (field < header || start + field > len) return std::nullopt;
    return start + field;
}

std::optional<IpLayout> locate_ipv4(const uint8_t *f, size_t len, size_t l3)
{
    if (len < l3 + 20 || f[l3] >> 4 != 4) return std::nullopt;
    const size_t ihl = size_t{f[l3] & 0x0Fu} * 4;
    if (ihl < 20 || len < l3 + ihl) return std::nullopt;
    if ((ef_get_be16(f + l3 + 6) & 0x3FFF) != 0) return std::nullopt;  // a fragment
    const std::optional<size_t> end = packet_end(l3, ef_get_be16(f + l3 + 2), ihl, len);
    if (!end) return std::nullopt;
    return IpLayout{l3, l3 + ihl, *end, false, f[l3 + 9]};
}

std::optional<IpLayout> locate_ipv6(const uint8_t *f, size_t len, size_t l3)
{
    if (len < l3 + 40 || f[l3] >> 4 != 6) return std::nullopt;
    const size_t payload = ef_get_be16(f + l3 + 4);
    const std::optional<size_t> end =
        payload == 0 ? std::optional<size_t>(len) : packet_end(l3 + 40, payload, 0, len);
    if (!end) return std::nullopt;
    uint8_t next = f[l3 + 6];
    size_t at = l3 + 40;
    while (const ExtensionHeader *ext = find_extension(next)) {
        if (*end < at + 8) return std::nullopt;
        next = f[at];
        at += (f[at + 1] + ext->base_units) * ext->unit;
    }
    if (at > *end) return std::nullopt;
    return IpLayout{l3, at, *end, true, next};
}

std::optional<IpLayout> locate_ip(const uint8_t *f, size_t len)
{
    const size_t l3 = ethernet_header_length(f, len);
    if (l3 == 0) return std::nullopt;
    const uint16_t type = ef_get_be16(f + l3 - 2);
    if (type == kEtherIpv4) return locate_ipv4(f, len, l3);
    if (type == kEtherIpv6) return locate_ipv6(f, len, l3);
    return std::nullopt;
}

// The folded sum of the pseudo-header: addresses, protocol and L4 length (a
// large GSO frame's length may not fit in 16 bits, so both halves count).
uint16_t pseudo_header_sum(const uint8_t *f, const IpLayout &ip, size_t l4_length)
{
    // The IPv6 pseudo-header takes the destination field as it stands; a
    // routing header's final destination is not looked up.
    const uint16_t addresses =
        ip.v6 ? ef_csum_sum(f + ip.l3 + 8, 32) : ef_csum_sum(f + ip.l3 + 12, 8);
    const uint64_t fields = uint64_t{ip.proto} + (l4_length & 0xFFFF) + (l4_length >> 16);
    return ef_csum_fold(addresses + fields);
}

void write_ipv4_header_checksum(uint8_t *f, const IpLayout &ip)
{
    ef_put_be16(f + ip.l3 + 10, 0);
    const auto header_length = static_cast<uint32_t>(ip.l4 - ip.l3);
    ef_put_be16(f + ip.l3 + 10, static_cast<uint16_t>(~ef_csum_sum(f + ip.l3, header_length)));
}

bool write_l4_checksum(uint8_t *f, const IpLayout &ip)
{
    const ChecksumPlace *place = find_checksum_place(ip.proto);
    const size_t l4_length = ip.end - ip.l4;
    if (place == nullptr || l4_length < place->min_length) return false;
    if (ip.proto == kProtoIcmpv6 && !ip.v6) return false;
    uint8_t *field = f + ip.l4 + place->offset;
    ef_put_be16(field, 0);
    const uint16_t payload = ef_csum_sum(f + ip.l4, static_cast<uint32_t>(l4_length));
    uint16_t sum = static_cast<uint16_t>(~ef_csum_add(payload, pseudo_header_sum(f, ip, l4_length)));
    if (sum == 0 && place->zero_means_absent) sum = 0xFFFF;
    ef_put_be16(field, sum);
    return true;
}

// One segment: the headers of the super-frame with the given slice of its
// payload, every length, sequence number, flag, id and checksum set for it.
Frame make_segment(const Frame &frame, const IpLayout &ip, size_t headers_end, size_t offset,
                   size_t length, size_t index, bool last)
{
    Frame seg(frame.begin(), frame.begin() + static_cast<std::ptrdiff_t>(headers_end));
    const auto from = frame.begin() + static_cast<std::ptrdiff_t>(headers_end + offset);
    seg.insert(seg.end(), from, from + static_cast<std::ptrdiff_t>(length));
    uint8_t *s = seg.data();
    const size_t ip_length = headers_end - ip.l3 + length;
    if (ip.v6) {
        ef_put_be16(s + ip.l3 + 4, static_cast<uint16_t>(ip_length - 40));
    } else {
        ef_put_be16(s + ip.l3 + 2, static_cast<uint16_t>(ip_length));
        ef_put_be16(s + ip.l3 + 4, static_cast<uint16_t>(ef_get_be16(s + ip.l3 + 4) + index));
        write_ipv4_header_checksum(s, ip);
    }
    uint8_t *tcp = s + ip.l4;
    ef_put_be32(tcp + 4, ef_get_be32(tcp + 4) + static_cast<uint32_t>(offset));
    if (!last) tcp[13] &= static_cast<uint8_t>(~(kTcpFin | kTcpPsh));
    if (index != 0) tcp[13] &= static_cast<uint8_t>(~kTcpCwr);
    IpLayout seg_ip = ip;
    seg_ip.end = seg.size();
    write_l4_checksum(s, seg_ip);
    return seg;
}

// A VXLAN packet's inner frame starts behind the UDP and VXLAN headers;
// 0 when the frame is not VXLAN to the standard port. A kernel VTEP next to
// us leaves the inner L4 checksum, and segmentation of the inner TCP, to
// offload, with the outer headers already final.
size_t vxlan_inner_start(const uint8_t *f, const IpLayout &ip)
{
    constexpr uint16_t kVxlanPort = 4789;
    constexpr size_t kUdpAndVxlan = 16;
    if (ip.proto != kProtoUdp || ip.end < ip.l4 + kUdpAndVxlan + 14)
        return 0;
    return ef_get_be16(f + ip.l4 + 2) == kVxlanPort ? ip.l4 + kUdpAndVxlan : 0;
}

// After the inner frame changed: the outer lengths, IPv4 id and header
// checksum, and a UDP checksum the sender used (always over IPv6).
void refresh_outer_headers(Frame &f, IpLayout ip, size_t index)
{
    uint8_t *s = f.data();
    ip.end = f.size();
    if (ip.v6) {
        ef_put_be16(s + ip.l3 + 4, static_cast<uint16_t>(ip.end - ip.l3 - 40));
    } else {
        ef_put_be16(s + ip.l3 + 2, static_cast<uint16_t>(ip.end - ip.l3));
        ef_put_be16(s + ip.l3 + 4, static_cast<uint16_t>(ef_get_be16(s + ip.l3 + 4) + index));
        write_ipv4_header_checksum(s, ip);
    }
    ef_put_be16(s + ip.l4 + 4, static_cast<uint16_t>(ip.end - ip.l4));
    if (ip.v6 || ef_get_be16(s + ip.l4 + 6) != 0)
        write_l4_checksum(s, ip);
}

Frame inner_frame(const Frame &f, const IpLayout &ip, size_t inner)
{
    return Frame(f.begin() + static_cast<std::ptrdiff_t>(inner),
                 f.begin() + static_cast<std::ptrdiff_t>(ip.end));
}

// Outer headers of f (up to inner) followed by an inner frame.
Frame encapsulated(const Frame &f, size_t inner, const Frame &inner_bytes)
{
    Frame out(f.begin(), f.begin() + static_cast<std::ptrdiff_t>(inner));
    out.insert(out.end(), inner_bytes.begin(), inner_bytes.end());
    return out;
}

}  // namespace

bool complete_vxlan_inner_checksum(Frame &frame)
{
    const std::optional<IpLayout> ip = locate_ip(frame.data(), frame.size());
    const size_t inner = ip ? vxlan_inner_start(frame.data(), *ip) : 0;
    if (inner == 0)
        return false;
    Frame in = inner_frame(frame, *ip, inner);
    if (!complete_l4_checksum(in))
        return false;
    frame = encapsulated(frame, inner, in);
    refresh_outer_headers(frame, *ip, 0);
    return true;
}

std::vector<Frame> segment_vxlan_tcp(const Frame &frame, uint32_t mtu)
{
    const std::optional<IpLayout> ip = locate_ip(frame.data(), frame.size());
    const size_t inner = ip ? vxlan_inner_start(frame.data(), *ip) : 0;
    if (inner == 0)
        return {};
    const Frame in = inner_frame(frame, *ip, inner);
    const size_t overhead = inner - ip->l3 + ethernet_header_length(in.data(), in.size());
    if (mtu <= overhead)
        return {};
    std::vector<Frame> segments;
    size_t index = 0;
    for (const Frame &seg : segment_tcp(in, static_cast<uint32_t>(mtu - overhead))) {
        segments.push_back(encapsulated(frame, inner, seg));
        refresh_outer_headers(segments.back(), *ip, index++);
    }
    return segments;
}

void insert_vlan_tag(Frame &frame, uint16_t tpid, uint16_t tci)
{
    if (frame.size() < kMacsLength) return;
    const std::array<uint8_t, kTagLength> tag = {
        static_cast<uint8_t>(tpid >> 8), static_cast<uint8_t>(tpid),
        static_cast<uint8_t>(tci >> 8), static_cast<uint8_t>(tci)};
    frame.insert(frame.begin() + kMacsLength, tag.begin(), tag.end());
}

size_t ethernet_header_length(const uint8_t *frame, size_t len)
{
    size_t at = kMacsLength;
    while (len >= at + 2 && is_tag_tpid(ef_get_be16(frame + at))) at += kTagLength;
    return len >= at + 2 ? at + 2 : 0;
}

bool exceeds_mtu(const uint8_t *frame, size_t len, uint32_t mtu)
{
    const size_t header = ethernet_header_length(frame, len);
    return header != 0 && len - header > mtu;
}

bool complete_l4_checksum(Frame &frame)
{
    const std::optional<IpLayout> ip = locate_ip(frame.data(), frame.size());
    return ip && write_l4_checksum(frame.data(), *ip);
}

std::vector<Frame> segment_tcp(const Frame &frame, uint32_t mtu)
{
    const std::optional<IpLayout> ip = locate_ip(frame.data(), frame.size());
    if (!ip || ip->proto != kProtoTcp || ip->end < ip->l4 + 20) return {};
    const size_t tcp_header = (size_t{frame[ip->l4 + 12]} >> 4) * 4;
    const size_t headers_end = ip->l4 + tcp_header;
    if (tcp_header < 20 || headers_end > ip->end || mtu <= headers_end - ip->l3) return {};
    const size_t mss = mtu - (headers_end - ip->l3);
    const size_t payload = ip->end - headers_end;
    std::vector<Frame> segments;
    for (size_t offset = 0, index = 0; offset < payload || index == 0; offset += mss, ++index) {
        const size_t length = std::min(mss, payload - offset);
        const bool last = offset + length >= payload;
        segments.push_back(make_segment(frame, *ip, headers_end, offset, length, index, last));
    }
    return segments;
}

FixupResult fix_up_received_frame(const uint8_t *frame, size_t len, const RxOffloadInfo &info,
                                  uint32_t mtu)
{
    FixupResult result;
    Frame f(frame, frame + len);
    if (info.vlan_stripped) insert_vlan_tag(f, info.vlan_tpid, info.vlan_tci);
    if (exceeds_mtu(f.data(), f.size(), mtu)) {
        result.frames = segment_tcp(f, mtu);
        if (result.frames.empty())
            result.frames = segment_vxlan_tcp(f, mtu);
        result.dropped = result.frames.empty();
        return result;
    }
    if (info.checksum_pending && !complete_vxlan_inner_checksum(f))
        complete_l4_checksum(f);
    result.frames.push_back(std::move(f));
    return result;
}

}  // namespace efhost
