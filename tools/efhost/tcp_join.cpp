// The joining of tcp_join.h: which frames of a batch are joinable TCP
// segments, which follow each other, and the super-frame they make.
#include "tcp_join.h"

#include <array>
#include <cstddef>
#include <cstring>
#include <optional>
#include <utility>

#include "ef_byteorder.h"
#include "ef_csum.h"
#include "ef_wire.h"
#include "ip_layout.h"

namespace efhost {

namespace {

constexpr size_t kMaxIpPacket = 65535;

// A frame that may be joined, and where its parts are.
struct Segment {
    IpLayout ip;
    size_t payload_at = 0;
    uint32_t seq = 0;
    uint16_t ipv4_id = 0;
    uint8_t flags = 0;
    size_t payload() const { return ip.end - payload_at; }
};

// A bad IPv4 header checksum would come out of the kernel's segmentation
// mended, so such a segment is not joined.
bool ipv4_header_valid(const uint8_t *f, const IpLayout &ip)
{
    return ip.v6 || ef_csum_sum(f + ip.l3, static_cast<uint32_t>(ip.l4 - ip.l3)) == 0xFFFF;
}

bool tcp_checksum_valid(const uint8_t *f, const IpLayout &ip)
{
    const size_t length = ip.end - ip.l4;
    const uint16_t sum = ef_csum_sum(f + ip.l4, static_cast<uint32_t>(length));
    return ef_csum_add(sum, pseudo_header_sum(f, ip, length)) == 0xFFFF;
}

// TCP with data over IPv4 without options or IPv6 without extension
// headers, carrying ACK and at most PSH besides, no Ethernet padding, its
// checksums right: what the kernel's segmentation gives back byte for byte.
std::optional<Segment> joinable(const std::vector<uint8_t> &frame)
{
    const uint8_t *f = frame.data();
    const std::optional<IpLayout> ip = locate_ip(f, frame.size());
    if (!ip || ip->proto != EF_IPPROTO_TCP || ip->end != frame.size() ||
        ip->l4 - ip->l3 != (ip->v6 ? EF_IPV6_HLEN : EF_IPV4_HLEN) || ip->end < ip->l4 + EF_TCP_HLEN)
        return std::nullopt;
    const auto *tcp = reinterpret_cast<const ef_tcp_hdr *>(f + ip->l4);
    const auto *ipv4 = reinterpret_cast<const ef_ipv4_hdr *>(f + ip->l3);
    Segment s{*ip, ip->l4 + (size_t{tcp->data_offset} >> 4) * 4, ef_get_be32(tcp->seq),
              ip->v6 ? uint16_t{0} : ef_get_be16(ipv4->id), tcp->flags};
    if (s.payload_at < ip->l4 + EF_TCP_HLEN || s.payload_at >= ip->end ||
        (s.flags & ~EF_TCP_PSH) != EF_TCP_ACK || !ipv4_header_valid(f, *ip) || !tcp_checksum_valid(f, *ip))
        return std::nullopt;
    return s;
}

using ByteRange = std::pair<size_t, size_t>;

constexpr ByteRange bytes_at(size_t header, size_t offset, size_t size)
{
    return {header + offset, header + offset + size};
}

// The header bytes that differ from segment to segment of one super-frame.
std::array<ByteRange, 5> varying_fields(const Segment &s)
{
    const size_t l3 = s.ip.l3;
    const size_t l4 = s.ip.l4;
    const ByteRange seq = bytes_at(l4, offsetof(ef_tcp_hdr, seq), sizeof(ef_tcp_hdr::seq));
    const ByteRange flags = bytes_at(l4, offsetof(ef_tcp_hdr, flags), sizeof(ef_tcp_hdr::flags));
    const ByteRange csum = bytes_at(l4, offsetof(ef_tcp_hdr, csum), sizeof(ef_tcp_hdr::csum));
    if (s.ip.v6) {
        const ByteRange length =
            bytes_at(l3, offsetof(ef_ipv6_hdr, payload_len), sizeof(ef_ipv6_hdr::payload_len));
        return {{length, length, seq, flags, csum}};
    }
    // The total length and the id lie next to each other.
    const ByteRange length_and_id = {l3 + offsetof(ef_ipv4_hdr, total_len), l3 + offsetof(ef_ipv4_hdr, frag)};
    const ByteRange header_csum = bytes_at(l3, offsetof(ef_ipv4_hdr, csum), sizeof(ef_ipv4_hdr::csum));
    return {{length_and_id, header_csum, seq, flags, csum}};
}

bool same_headers(const uint8_t *a, const uint8_t *b, const Segment &s)
{
    size_t at = 0;
    for (const auto &[from, to] : varying_fields(s)) {
        if (from > at && std::memcmp(a + at, b + at, from - at) != 0)
            return false;
        at = std::max(at, to);
    }
    return std::memcmp(a + at, b + at, s.payload_at - at) == 0;
}

// Whether next continues the run that began with first and ends with last.
bool follows(const std::vector<uint8_t> &first_frame, const Segment &first, const Segment &last,
             size_t run_payload, const std::vector<uint8_t> &next_frame, const Segment &next)
{
    return next.ip.v6 == first.ip.v6 && next.payload_at == first.payload_at &&
           (last.flags & EF_TCP_PSH) == 0 && last.payload() == first.payload() &&
           next.payload() <= first.payload() && next.seq == static_cast<uint32_t>(last.seq + last.payload()) &&
           (first.ip.v6 || next.ipv4_id == static_cast<uint16_t>(last.ipv4_id + 1)) &&
           first.payload_at - first.ip.l3 + run_payload + next.payload() <= kMaxIpPacket &&
           same_headers(first_frame.data(), next_frame.data(), first);
}

// The super-frame of frames[first .. first + count): the first's headers
// with the lengths of the whole, the last's flags, and the TCP checksum
// field holding the pseudo-header's sum for the device to complete.
TxUnit join(const std::vector<uint8_t> *frames, size_t first, size_t count, const Segment &s,
            const Segment &last)
{
    TxUnit unit{first, count, {}, {}};
    std::vector<uint8_t> &j = unit.joined;
    const std::vector<uint8_t> &head = frames[first];
    j.assign(head.begin(), head.begin() + static_cast<std::ptrdiff_t>(s.payload_at));
    for (size_t i = first; i < first + count; ++i)
        j.insert(j.end(), frames[i].begin() + static_cast<std::ptrdiff_t>(s.payload_at), frames[i].end());
    IpLayout ip = s.ip;
    ip.end = j.size();
    uint8_t *f = j.data();
    if (ip.v6) {
        ef_put_be16(reinterpret_cast<ef_ipv6_hdr *>(f + ip.l3)->payload_len, static_cast<uint16_t>(ip.end - ip.l4));
    } else {
        ef_put_be16(reinterpret_cast<ef_ipv4_hdr *>(f + ip.l3)->total_len, static_cast<uint16_t>(ip.end - ip.l3));
        write_ipv4_header_checksum(f, ip);
    }
    auto *tcp = reinterpret_cast<ef_tcp_hdr *>(f + ip.l4);
    tcp->flags = last.flags;
    ef_put_be16(tcp->csum, pseudo_header_sum(f, ip, ip.end - ip.l4));
    unit.header.flags = kVnetNeedsChecksum;
    unit.header.gso_type = ip.v6 ? kVnetGsoTcpv6 : kVnetGsoTcpv4;
    unit.header.hdr_len = static_cast<uint16_t>(s.payload_at);
    unit.header.gso_size = static_cast<uint16_t>(s.payload());
    unit.header.csum_start = static_cast<uint16_t>(ip.l4);
    unit.header.csum_offset = static_cast<uint16_t>(EF_TCP_CSUM_OFFSET);
    return unit;
}

}  // namespace

// Each frame is looked at once: the one that ends a run is where the next
// run starts, already parsed.
std::vector<TxUnit> join_tcp_segments(const std::vector<uint8_t> *frames, size_t count)
{
    std::vector<TxUnit> units;
    std::optional<Segment> first;
    bool parsed = false;
    for (size_t i = 0; i < count;) {
        if (!parsed) first = joinable(frames[i]);
        parsed = false;
        size_t n = 1;
        std::optional<Segment> next;
        if (first) {
            Segment last = *first;
            size_t payload = first->payload();
            for (; i + n < count; ++n) {
                next = joinable(frames[i + n]);
                if (!next || !follows(frames[i], *first, last, payload, frames[i + n], *next)) {
                    parsed = true;
                    break;
                }
                last = *next;
                payload += next->payload();
            }
            if (n > 1)
                units.push_back(join(frames, i, n, *first, last));
        }
        if (n == 1)
            units.push_back(TxUnit{i, 1, {}, {}});
        i += n;
        first = next;
    }
    return units;
}

}  // namespace efhost
