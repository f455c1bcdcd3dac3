// The receive fix-ups of frame_fixup.h: Internet checksums, tag
// reinsertion and TCP segmentation.
#include "frame_fixup.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <optional>

#include "ef_byteorder.h"
#include "ef_csum.h"
#include "ef_wire.h"

namespace efhost {

namespace {

// Every ICMPv6 message begins as a neighbour-discovery one does: type,
// code, checksum; those four bytes are the least it holds.

// Where each L4 protocol keeps its checksum and the least it must hold.
struct ChecksumPlace {
    uint8_t proto;
    size_t offset;
    size_t min_length;
    bool zero_means_absent;  // UDP sends a computed 0 as 0xFFFF
};
constexpr std::array<ChecksumPlace, 3> kChecksumPlaces = {{
    {EF_IPPROTO_TCP, EF_TCP_CSUM_OFFSET, EF_TCP_HLEN, false},
    {EF_IPPROTO_UDP, EF_UDP_CSUM_OFFSET, EF_UDP_HLEN, true},
    {EF_IPPROTO_ICMPV6, EF_ICMPV6_CSUM_OFFSET, EF_ICMPV6_HLEN, false},
}};

const ChecksumPlace *find_checksum_place(uint8_t proto)
{
    for (const ChecksumPlace &c : kChecksumPlaces)
        if (c.proto == proto) return &c;
    return nullptr;
}

bool write_l4_checksum(uint8_t *f, const IpLayout &ip)
{
    const ChecksumPlace *place = find_checksum_place(ip.proto);
    const size_t l4_length = ip.end - ip.l4;
    if (place == nullptr || l4_length < place->min_length) return false;
    if (ip.proto == EF_IPPROTO_ICMPV6 && !ip.v6) return false;
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
        auto *h = reinterpret_cast<ef_ipv6_hdr *>(s + ip.l3);
        ef_put_be16(h->payload_len, static_cast<uint16_t>(ip_length - EF_IPV6_HLEN));
    } else {
        auto *h = reinterpret_cast<ef_ipv4_hdr *>(s + ip.l3);
        ef_put_be16(h->total_len, static_cast<uint16_t>(ip_length));
        ef_put_be16(h->id, static_cast<uint16_t>(ef_get_be16(h->id) + index));
        write_ipv4_header_checksum(s, ip);
    }
    auto *tcp = reinterpret_cast<ef_tcp_hdr *>(s + ip.l4);
    ef_put_be32(tcp->seq, ef_get_be32(tcp->seq) + static_cast<uint32_t>(offset));
    if (!last) tcp->flags &= static_cast<uint8_t>(~(EF_TCP_FIN | EF_TCP_PSH));
    if (index != 0) tcp->flags &= static_cast<uint8_t>(~EF_TCP_CWR);
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
    constexpr size_t kUdpAndVxlan = EF_UDP_HLEN + EF_VXLAN_HLEN;
    if (ip.proto != EF_IPPROTO_UDP || ip.end < ip.l4 + kUdpAndVxlan + EF_ETH_HLEN)
        return 0;
    const auto *udp = reinterpret_cast<const ef_udp_hdr *>(f + ip.l4);
    return ef_get_be16(udp->dport) == EF_VXLAN_PORT ? ip.l4 + kUdpAndVxlan : 0;
}

// After the inner frame changed: the outer lengths, IPv4 id and header
// checksum, and a UDP checksum the sender used (always over IPv6).
void refresh_outer_headers(Frame &f, IpLayout ip, size_t index)
{
    uint8_t *s = f.data();
    ip.end = f.size();
    if (ip.v6) {
        auto *h = reinterpret_cast<ef_ipv6_hdr *>(s + ip.l3);
        ef_put_be16(h->payload_len, static_cast<uint16_t>(ip.end - ip.l3 - EF_IPV6_HLEN));
    } else {
        auto *h = reinterpret_cast<ef_ipv4_hdr *>(s + ip.l3);
        ef_put_be16(h->total_len, static_cast<uint16_t>(ip.end - ip.l3));
        ef_put_be16(h->id, static_cast<uint16_t>(ef_get_be16(h->id) + index));
        write_ipv4_header_checksum(s, ip);
    }
    auto *udp = reinterpret_cast<ef_udp_hdr *>(s + ip.l4);
    ef_put_be16(udp->len, static_cast<uint16_t>(ip.end - ip.l4));
    if (ip.v6 || ef_get_be16(udp->csum) != 0)
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

std::vector<Frame> segment_vxlan_tcp(const Frame &frame, uint32_t mtu, uint16_t gso_size)
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
    for (const Frame &seg : segment_tcp(in, static_cast<uint32_t>(mtu - overhead), gso_size)) {
        segments.push_back(encapsulated(frame, inner, seg));
        refresh_outer_headers(segments.back(), *ip, index++);
    }
    return segments;
}

void insert_vlan_tag(Frame &frame, uint16_t tpid, uint16_t tci)
{
    if (frame.size() < EF_ETH_ADDRS_LEN) return;
    const std::array<uint8_t, EF_VLAN_TAG_LEN> tag = {
        static_cast<uint8_t>(tpid >> 8), static_cast<uint8_t>(tpid),
        static_cast<uint8_t>(tci >> 8), static_cast<uint8_t>(tci)};
    frame.insert(frame.begin() + EF_ETH_ADDRS_LEN, tag.begin(), tag.end());
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

std::vector<Frame> segment_tcp(const Frame &frame, uint32_t mtu, uint16_t gso_size)
{
    const std::optional<IpLayout> ip = locate_ip(frame.data(), frame.size());
    if (!ip || ip->proto != EF_IPPROTO_TCP || ip->end < ip->l4 + EF_TCP_HLEN) return {};
    const auto *tcp = reinterpret_cast<const ef_tcp_hdr *>(frame.data() + ip->l4);
    const size_t tcp_header = (size_t{tcp->data_offset} >> 4) * 4;
    const size_t headers_end = ip->l4 + tcp_header;
    if (tcp_header < EF_TCP_HLEN || headers_end > ip->end || mtu <= headers_end - ip->l3) return {};
    size_t mss = mtu - (headers_end - ip->l3);
    if (gso_size != 0) mss = std::min<size_t>(mss, gso_size);
    const size_t payload = ip->end - headers_end;
    std::vector<Frame> segments;
    for (size_t offset = 0, index = 0; offset < payload || index == 0; offset += mss, ++index) {
        const size_t length = std::min(mss, payload - offset);
        const bool last = offset + length >= payload;
        segments.push_back(make_segment(frame, *ip, headers_end, offset, length, index, last));
    }
    return segments;
}

bool complete_checksum_at(Frame &frame, size_t start, size_t offset)
{
    if (start + offset + 2 > frame.size())
        return false;
    // The field holds the pseudo-header's sum, which the sum from start
    // takes in; a result of 0 is sent as its other form, as the kernel does.
    const uint16_t sum = ef_csum_sum(frame.data() + start, static_cast<uint32_t>(frame.size() - start));
    const auto value = static_cast<uint16_t>(~sum);
    ef_put_be16(frame.data() + start + offset, value == 0 ? 0xFFFF : value);
    return true;
}

namespace {

// The checksum a local sender left, where the kernel said it is, or where
// the frame's headers put it when the kernel did not say.
void complete_pending_checksum(Frame &f, const RxOffloadInfo &info)
{
    if (info.checksum_start != 0 && complete_checksum_at(f, info.checksum_start, info.checksum_offset))
        return;
    if (!complete_vxlan_inner_checksum(f))
        complete_l4_checksum(f);
}

// A super-frame is cut at the sender's own segment size when the kernel
// gave it, else to the MTU; segments come out with their checksums whole.
std::vector<Frame> segment_super_frame(const Frame &f, const RxOffloadInfo &info, uint32_t mtu)
{
    std::vector<Frame> frames = segment_tcp(f, mtu, info.gso_size);
    if (frames.empty())
        frames = segment_vxlan_tcp(f, mtu, info.gso_size);
    return frames;
}

}  // namespace

FixupResult fix_up_received_frame(const uint8_t *frame, size_t len, const RxOffloadInfo &info,
                                  uint32_t mtu)
{
    FixupResult result;
    Frame f(frame, frame + len);
    RxOffloadInfo at = info;
    if (info.vlan_stripped) {
        insert_vlan_tag(f, info.vlan_tpid, info.vlan_tci);
        if (at.checksum_start >= EF_ETH_ADDRS_LEN) at.checksum_start = static_cast<uint16_t>(at.checksum_start + EF_VLAN_TAG_LEN);
    }
    const bool oversize = exceeds_mtu(f.data(), f.size(), mtu);
    if (oversize || at.gso_size != 0) {
        result.frames = segment_super_frame(f, at, mtu);
        result.dropped = oversize && result.frames.empty();
        if (!result.frames.empty() || result.dropped)
            return result;
    }
    if (at.checksum_pending)
        complete_pending_checksum(f, at);
    result.frames.push_back(std::move(f));
    return result;
}

}  // namespace efhost
