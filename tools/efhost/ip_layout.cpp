// Locating the IP packet and L4 header of a frame, and the checksum pieces
// of ip_layout.h.
#include "ip_layout.h"

#include <algorithm>
#include <array>

#include "ef_byteorder.h"
#include "ef_csum.h"
#include "ef_wire.h"

namespace efhost {

namespace {

// Service-provider tags (802.1ad, and the TPID used before it) stack in
// front of the 802.1Q tag like it.
constexpr std::array<uint16_t, 3> kTagTpids = {EF_ETHERTYPE_VLAN, EF_ETHERTYPE_QINQ,
                                               EF_ETHERTYPE_QINQ_OLD};

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
    {EF_IPPROTO_HOP_BY_HOP, 8, 1},
    {EF_IPPROTO_ROUTING, 8, 1},
    {EF_IPPROTO_DEST_OPTS, 8, 1},
    {EF_IPPROTO_AH, 4, 2},
}};

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
    const auto *h = reinterpret_cast<const ef_ipv4_hdr *>(f + l3);
    if (len < l3 + EF_IPV4_HLEN || h->ver_ihl >> 4 != EF_IPV4_VERSION) return std::nullopt;
    const size_t ihl = size_t{h->ver_ihl & 0x0Fu} * 4;
    if (ihl < EF_IPV4_HLEN || len < l3 + ihl) return std::nullopt;
    if ((ef_get_be16(h->frag) & (EF_IPV4_MORE_FRAGMENTS | EF_IPV4_OFFSET_MASK)) != 0)
        return std::nullopt;  // a fragment
    const std::optional<size_t> end = packet_end(l3, ef_get_be16(h->total_len), ihl, len);
    if (!end) return std::nullopt;
    return IpLayout{l3, l3 + ihl, *end, false, h->proto};
}

std::optional<IpLayout> locate_ipv6(const uint8_t *f, size_t len, size_t l3)
{
    const auto *h = reinterpret_cast<const ef_ipv6_hdr *>(f + l3);
    if (len < l3 + EF_IPV6_HLEN || h->ver_tc_flow[0] >> 4 != EF_IPV6_VERSION) return std::nullopt;
    const size_t payload = ef_get_be16(h->payload_len);
    const std::optional<size_t> end =
        payload == 0 ? std::optional<size_t>(len) : packet_end(l3 + EF_IPV6_HLEN, payload, 0, len);
    if (!end) return std::nullopt;
    uint8_t next = h->next_hdr;
    size_t at = l3 + EF_IPV6_HLEN;
    while (const ExtensionHeader *ext = find_extension(next)) {
        if (*end < at + ext->base_units * ext->unit) return std::nullopt;
        next = f[at];
        at += (f[at + 1] + ext->base_units) * ext->unit;
    }
    if (at > *end) return std::nullopt;
    return IpLayout{l3, at, *end, true, next};
}

}  // namespace

size_t ethernet_header_length(const uint8_t *frame, size_t len)
{
    size_t at = EF_ETH_TYPE_OFFSET;
    while (len >= at + 2 && is_tag_tpid(ef_get_be16(frame + at))) at += EF_VLAN_TAG_LEN;
    return len >= at + 2 ? at + 2 : 0;
}

std::optional<IpLayout> locate_ip(const uint8_t *f, size_t len)
{
    const size_t l3 = ethernet_header_length(f, len);
    if (l3 == 0) return std::nullopt;
    const uint16_t type = ef_get_be16(f + l3 - 2);
    if (type == EF_ETHERTYPE_IPV4) return locate_ipv4(f, len, l3);
    if (type == EF_ETHERTYPE_IPV6) return locate_ipv6(f, len, l3);
    return std::nullopt;
}

uint16_t pseudo_header_sum(const uint8_t *f, const IpLayout &ip, size_t l4_length)
{
    // The IPv6 pseudo-header takes the destination field as it stands; a
    // routing header's final destination is not looked up.
    // Both headers hold the source address right before the destination.
    const auto *h4 = reinterpret_cast<const ef_ipv4_hdr *>(f + ip.l3);
    const auto *h6 = reinterpret_cast<const ef_ipv6_hdr *>(f + ip.l3);
    const uint16_t addresses = ip.v6 ? ef_csum_sum(h6->src, sizeof h6->src + sizeof h6->dst)
                                     : ef_csum_sum(h4->src, sizeof h4->src + sizeof h4->dst);
    const uint64_t fields = uint64_t{ip.proto} + (l4_length & 0xFFFF) + (l4_length >> 16);
    return ef_csum_fold(addresses + fields);
}

void write_ipv4_header_checksum(uint8_t *f, const IpLayout &ip)
{
    auto *h = reinterpret_cast<ef_ipv4_hdr *>(f + ip.l3);
    ef_put_be16(h->csum, 0);
    const auto header_length = static_cast<uint32_t>(ip.l4 - ip.l3);
    ef_put_be16(h->csum, static_cast<uint16_t>(~ef_csum_sum(f + ip.l3, header_length)));
}

}  // namespace efhost
