// Fragmentation of the inner IP packet of a buffer that holds an Ethernet
// frame: IPv4 per RFC 791 (offsets in 8-byte units, MF flag, identification
// kept, header checksum recomputed) and IPv6 per RFC 8200 (a Fragment
// extension header after the per-fragment headers, one identification per
// packet). Every fragment is a new buffer carrying the frame's L2 header,
// the per-fragment IP headers and at most `size` bytes of IP payload; the
// original buffer is freed once the whole chain exists.
#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <vector>

#include "buff_metadata.h"
#include "ef_byteorder.h"
#include "ef_csum.h"
#include "ef_wire.h"
#include "efmp.h"

namespace {

constexpr int kReason = 0;
constexpr uint32_t kIpv6NextHeader = offsetof(ef_ipv6_hdr, next_hdr);

std::atomic<uint32_t> g_ipv6_ident{0};

// The pieces of one fragment: the headers that every fragment repeats, and
// its slice of the fragmentable part.
struct Piece {
    std::vector<uint8_t> headers;  // L2 header and IP headers, finished
    const uint8_t *data;
    uint32_t data_len;
};

// A new buffer with the original's metadata and the piece's bytes.
efmp_buff_t *build_fragment(const efmp_buff_t *orig, uint32_t l2_len, uint32_t ip_hdr_len,
                            const Piece &piece)
{
    const uint32_t len = static_cast<uint32_t>(piece.headers.size()) + piece.data_len;
    efmp_buff_t *frag = efrt::alloc_with_metadata(kReason, orig, len);
    if (frag == nullptr)
        return nullptr;
    uint8_t *head = frag->head;
    const uint16_t data_off = frag->data_off;
    frag->l3_off = static_cast<uint16_t>(data_off + l2_len);
    frag->l4_off = static_cast<uint16_t>(frag->l3_off + ip_hdr_len);
    std::memcpy(head + data_off, piece.headers.data(), piece.headers.size());
    std::memcpy(head + data_off + piece.headers.size(), piece.data, piece.data_len);
    return frag;
}

// Links the fragments into a chain that replaces the original buffer, or
// frees them all when one could not be built.
uint32_t commit(std::vector<efmp_buff_t *> &frags, efmp_buff_t **first, efmp_buff_t **last)
{
    for (efmp_buff_t *f : frags) {
        if (f == nullptr) {
            for (efmp_buff_t *g : frags)
                efmp_buff_free_sw_user(kReason, g);
            return 0;
        }
    }
    for (size_t i = 0; i + 1 < frags.size(); i++)
        frags[i]->next = frags[i + 1];
    efmp_buff_free_sw_user(kReason, *first);
    *first = frags.front();
    *last = frags.back();
    return static_cast<uint32_t>(frags.size());
}

// Where the IP packet lies in the buffer; false when it does not fit.
bool locate_ip(const efmp_buff_t *buff, uint32_t *l2_len, const uint8_t **ip, uint32_t *avail)
{
    if (buff->head == nullptr || buff->l3_off < buff->data_off)
        return false;
    *l2_len = buff->l3_off - buff->data_off;
    if (*l2_len > buff->len)
        return false;
    *ip = buff->head + buff->l3_off;
    *avail = buff->len - *l2_len;
    return true;
}

// The options of the first fragment's header that RFC 791 copies into every
// later fragment, padded to a multiple of 4 bytes.
std::vector<uint8_t> copied_options(const uint8_t *opts, uint32_t len)
{
    std::vector<uint8_t> out;
    for (uint32_t i = 0; i < len;) {
        const uint8_t type = opts[i];
        if (type == EF_IPV4_OPT_END)
            break;
        if (type == EF_IPV4_OPT_NOP) {
            i++;
            continue;
        }
        if (i + 1 >= len || opts[i + 1] < 2 || i + opts[i + 1] > len)
            break;
        if (type & EF_IPV4_OPT_COPIED)
            out.insert(out.end(), opts + i, opts + i + opts[i + 1]);
        i += opts[i + 1];
    }
    while (out.size() % 4 != 0)
        out.push_back(EF_IPV4_OPT_END);
    return out;
}

std::vector<uint8_t> ipv4_headers(const uint8_t *l2, uint32_t l2_len, const uint8_t *ip,
                                  const std::vector<uint8_t> &options, uint16_t frag_word,
                                  uint32_t data_len)
{
    const uint32_t hlen = EF_IPV4_HLEN + static_cast<uint32_t>(options.size());
    std::vector<uint8_t> h(l2, l2 + l2_len);
    h.insert(h.end(), ip, ip + EF_IPV4_HLEN);
    h.insert(h.end(), options.begin(), options.end());
    uint8_t *hdr = h.data() + l2_len;
    auto *v4 = reinterpret_cast<ef_ipv4_hdr *>(hdr);
    v4->ver_ihl = static_cast<uint8_t>(EF_IPV4_VERSION << 4 | hlen / 4);
    ef_put_be16(v4->total_len, static_cast<uint16_t>(hlen + data_len));
    ef_put_be16(v4->frag, frag_word);
    ef_put_be16(v4->csum, 0);
    ef_put_be16(v4->csum, static_cast<uint16_t>(~ef_csum_sum(hdr, hlen)));
    return h;
}

// The end of the per-fragment headers of an IPv6 packet (RFC 8200: the
// header and any Hop-by-Hop, Routing and Destination Options headers up to
// the last Routing header) and the offset of the next-header byte that
// names the first fragmentable header. 0 when the chain is malformed or the
// packet is a fragment already.
uint32_t ipv6_unfragmentable(const uint8_t *ip, uint32_t total, uint32_t *nh_field)
{
    uint32_t pos = EF_IPV6_HLEN;
    uint32_t field = kIpv6NextHeader;
    uint32_t end = EF_IPV6_HLEN;
    uint32_t end_field = kIpv6NextHeader;
    uint8_t nh = ip[kIpv6NextHeader];
    while (nh == EF_IPPROTO_HOP_BY_HOP || nh == EF_IPPROTO_ROUTING || nh == EF_IPPROTO_DEST_OPTS) {
        if (pos + 2 > total)
            return 0;
        const uint32_t len = (ip[pos + 1] + 1u) * 8u;  // in units of 8 bytes, the first not counted
        if (pos + len > total)
            return 0;
        field = pos;
        if (nh != EF_IPPROTO_DEST_OPTS) {
            end = pos + len;
            end_field = field;
        }
        nh = ip[pos];
        pos += len;
    }
    if (nh == EF_IPPROTO_FRAGMENT)
        return 0;
    *nh_field = end_field;
    return end;
}

}  // namespace

extern "C" uint32_t efmp_frag_ipv4(efmp_buff_t **first, efmp_buff_t **last, uint32_t size)
{
    if (first == nullptr || last == nullptr || *first == nullptr)
        return 0;
    const efmp_buff_t *orig = *first;
    uint32_t l2_len, avail;
    const uint8_t *ip;
    if (!locate_ip(orig, &l2_len, &ip, &avail) || avail < EF_IPV4_HLEN || (ip[0] >> 4) != EF_IPV4_VERSION)
        return 0;
    const auto *v4 = reinterpret_cast<const ef_ipv4_hdr *>(ip);
    const uint32_t hlen = (v4->ver_ihl & 0x0Fu) * 4u;
    const uint32_t total = ef_get_be16(v4->total_len);
    const uint16_t frag_word = ef_get_be16(v4->frag);
    // The tunnel ingress is where the inner packet meets the smaller MTU and
    // nobody would hear an ICMP "fragmentation needed" from inside a tunnel,
    // so DF does not stop the split; the fragments carry it no more.
    if (hlen < EF_IPV4_HLEN || total < hlen || total > avail)
        return 0;
    const uint8_t *l2 = orig->head + orig->data_off;
    const std::vector<uint8_t> first_opts(ip + EF_IPV4_HLEN, ip + hlen);
    const std::vector<uint8_t> later_opts = copied_options(ip + EF_IPV4_HLEN, hlen - EF_IPV4_HLEN);
    const uint32_t base = frag_word & EF_IPV4_OFFSET_MASK;
    const bool more_after = (frag_word & EF_IPV4_MORE_FRAGMENTS) != 0;

    std::vector<efmp_buff_t *> frags;
    for (uint32_t pos = 0; pos < total - hlen;) {
        const std::vector<uint8_t> &opts = pos == 0 ? first_opts : later_opts;
        const uint32_t extra = static_cast<uint32_t>(opts.size());
        if (size < extra + EF_IP_FRAG_UNIT) {
            frags.push_back(nullptr);  // no room for data: give the whole split up
            break;
        }
        const uint32_t room = (size - extra) & ~(EF_IP_FRAG_UNIT - 1);
        const uint32_t chunk = std::min(room, total - hlen - pos);
        const bool last_piece = pos + chunk == total - hlen;
        const uint16_t word = static_cast<uint16_t>(
            (base + pos / EF_IP_FRAG_UNIT) | (!last_piece || more_after ? EF_IPV4_MORE_FRAGMENTS : 0));
        Piece piece{ipv4_headers(l2, l2_len, ip, opts, word, chunk), ip + hlen + pos, chunk};
        frags.push_back(build_fragment(orig, l2_len, EF_IPV4_HLEN + extra, piece));
        pos += chunk;
    }
    if (frags.empty())
        return 0;
    return commit(frags, first, last);
}

extern "C" uint32_t efmp_frag_ipv6(efmp_buff_t **first, efmp_buff_t **last, uint32_t size)
{
    if (first == nullptr || last == nullptr || *first == nullptr)
        return 0;
    const efmp_buff_t *orig = *first;
    uint32_t l2_len, avail;
    const uint8_t *ip;
    if (!locate_ip(orig, &l2_len, &ip, &avail) || avail < EF_IPV6_HLEN || (ip[0] >> 4) != EF_IPV6_VERSION)
        return 0;
    const uint32_t total = EF_IPV6_HLEN + ef_get_be16(reinterpret_cast<const ef_ipv6_hdr *>(ip)->payload_len);
    uint32_t nh_field = 0;
    const uint32_t unfrag = total > avail ? 0 : ipv6_unfragmentable(ip, total, &nh_field);
    if (unfrag == 0 || size < unfrag - EF_IPV6_HLEN + EF_IPV6_FRAG_HLEN + EF_IP_FRAG_UNIT || unfrag >= total)
        return 0;
    const uint32_t room = (size - (unfrag - EF_IPV6_HLEN) - EF_IPV6_FRAG_HLEN) & ~(EF_IP_FRAG_UNIT - 1);
    const uint32_t ident = g_ipv6_ident.fetch_add(1) + 1;
    const uint8_t *l2 = orig->head + orig->data_off;

    std::vector<efmp_buff_t *> frags;
    for (uint32_t pos = 0; pos < total - unfrag;) {
        const uint32_t chunk = std::min(room, total - unfrag - pos);
        const bool last_piece = pos + chunk == total - unfrag;
        std::vector<uint8_t> h(l2, l2 + l2_len);
        h.insert(h.end(), ip, ip + unfrag);
        uint8_t *hdr = h.data() + l2_len;
        ef_put_be16(reinterpret_cast<ef_ipv6_hdr *>(hdr)->payload_len,
                    static_cast<uint16_t>(unfrag - EF_IPV6_HLEN + EF_IPV6_FRAG_HLEN + chunk));
        ef_ipv6_frag_hdr fh{};
        fh.next_hdr = ip[nh_field];
        hdr[nh_field] = EF_IPPROTO_FRAGMENT;
        ef_put_be16(fh.offset_flags, static_cast<uint16_t>(pos | (last_piece ? 0u : 1u)));
        ef_put_be32(fh.id, ident);
        const auto *fh_bytes = reinterpret_cast<const uint8_t *>(&fh);
        h.insert(h.end(), fh_bytes, fh_bytes + EF_IPV6_FRAG_HLEN);
        frags.push_back(build_fragment(orig, l2_len, unfrag + EF_IPV6_FRAG_HLEN,
                                       Piece{std::move(h), ip + unfrag + pos, chunk}));
        pos += chunk;
    }
    return commit(frags, first, last);
}
