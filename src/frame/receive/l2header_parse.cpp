// The layer-2 header parse of received frames: removal of up to two 802.1Q
// tags (shared by the local access path and the tunnel parser) and the
// classification of a frame into the platform's packet types.
#include <algorithm>
#include <array>
#include <cstring>

#include "ef_byteorder.h"
#include "ef_wire.h"
#include "frame/receive/receive_private.h"
#include "vxlan_ef_parser.h"

namespace vxlan_ef {

namespace {

using Mac = std::array<uint8_t, EF_ETH_ALEN>;

constexpr uint8_t kInnerTagKept = 0xF0;  // bits of the old inner tag byte that stay

// Moves the addresses over the tag that follows them.
void drop_tag(efmp_buff_t *buff)
{
    uint8_t *frame = frame_of(buff);
    std::memmove(frame + EF_VLAN_TAG_LEN, frame, EF_ETH_ADDRS_LEN);
    buff->data_off = static_cast<uint16_t>(buff->data_off + EF_VLAN_TAG_LEN);
    buff->len -= EF_VLAN_TAG_LEN;
}

bool tagged(efmp_buff_t *buff)
{
    const uint32_t need = EF_ETH_HLEN + EF_VLAN_TAG_LEN;
    return buff->len >= need && stored_bytes(buff) >= need &&
           ef_get_be16(frame_of(buff) + EF_ETH_TYPE_OFFSET) == EF_ETHERTYPE_VLAN;
}

uint16_t tag_tci(efmp_buff_t *buff)
{
    return ef_get_be16(reinterpret_cast<const ef_vlan_tag *>(frame_of(buff) + EF_ETH_ADDRS_LEN)->tci);
}

// One classification rule: every given condition must hold.
struct ClassRule {
    bool by_type;
    uint16_t type;
    bool by_dst;
    Mac dst;
    bool snap;  // the frame must be LLC/SNAP
    uint8_t pkt_type;
};

constexpr ClassRule type_rule(uint16_t type, uint8_t pkt_type)
{
    return ClassRule{true, type, false, {}, false, pkt_type};
}

constexpr ClassRule dst_rule(Mac dst, uint8_t pkt_type)
{
    return ClassRule{false, 0, true, dst, false, pkt_type};
}

constexpr ClassRule both_rule(uint16_t type, Mac dst, uint8_t pkt_type)
{
    return ClassRule{true, type, true, dst, false, pkt_type};
}

constexpr uint16_t kCdpSnapProtocol = 0x2000;

// First match wins.
// classify() answers the first three itself; keep them first.
constexpr std::array<ClassRule, 18> kClassRules{{
    type_rule(EF_ETHERTYPE_IPV4, EFMP_PKT_IPV4),
    type_rule(EF_ETHERTYPE_ARP, EFMP_PKT_ARP),
    type_rule(EF_ETHERTYPE_IPV6, EFMP_PKT_IPV6),
    type_rule(0xBB01, EFMP_PKT_TYPE_BB01),
    type_rule(EF_ETHERTYPE_MPLS, EFMP_PKT_MPLS),
    type_rule(EF_ETHERTYPE_SLOW_PROTOCOLS, EFMP_PKT_SLOW_PROTOCOLS),
    type_rule(EF_ETHERTYPE_TIPC, EFMP_PKT_TIPC),
    type_rule(EF_ETHERTYPE_PPPOE_DISCOVERY, EFMP_PKT_PPPOE_DISCOVERY),
    type_rule(EF_ETHERTYPE_PPPOE_SESSION, EFMP_PKT_PPPOE_SESSION),
    both_rule(EF_ETHERTYPE_CFM, {0x01, 0x19, 0xA7, 0x00, 0x00, 0x01}, EFMP_PKT_RAPS),
    type_rule(EF_ETHERTYPE_CFM, EFMP_PKT_CFM),
    dst_rule({0x01, 0x80, 0xC2, 0x00, 0x00, 0x00}, EFMP_PKT_BPDU),
    dst_rule({0x01, 0x80, 0xC2, 0x00, 0x00, 0x21}, EFMP_PKT_GVRP),
    dst_rule({0x01, 0x5C, 0xE2, 0x00, 0x00, 0x06}, EFMP_PKT_GVRP),
    both_rule(EF_ETHERTYPE_LLDP, {0x01, 0x80, 0xC2, 0x00, 0x00, 0x0E}, EFMP_PKT_LLDP),
    ClassRule{true, kCdpSnapProtocol, true, {0x01, 0x00, 0x0C, 0xCC, 0xCC, 0xCC}, true, EFMP_PKT_CDP},
    type_rule(0x0788, EFMP_PKT_TYPE_0788),
    dst_rule({0x01, 0x5C, 0xE2, 0x00, 0x00, 0x07}, EFMP_PKT_DST_5CE2_07),
}};

bool llc_snap(const uint8_t *frame, uint32_t len)
{
    const auto *llc = reinterpret_cast<const ef_llc_snap *>(frame + EF_ETH_HLEN);
    return len >= EF_LLC_SNAP_TYPE_OFFSET + sizeof llc->type && llc->dsap == EF_LLC_SNAP_SAP &&
           llc->ssap == EF_LLC_SNAP_SAP;
}

// What the rules look at, read once from the frame.
struct FrameKey {
    Mac dst;
    uint16_t type;  // after the addresses, or in the LLC/SNAP header
    bool snap;
};

FrameKey frame_key(efmp_buff_t *buff)
{
    FrameKey key{};
    const uint32_t len = std::min(buff->len, stored_bytes(buff));
    const uint8_t *frame = frame_of(buff);
    if (len >= key.dst.size())
        std::memcpy(key.dst.data(), frame, key.dst.size());
    if (len >= EF_ETH_HLEN)
        key.type = ef_get_be16(frame + EF_ETH_TYPE_OFFSET);
    if (llc_snap(frame, len)) {
        key.snap = true;
        key.type = ef_get_be16(frame + EF_LLC_SNAP_TYPE_OFFSET);
    }
    return key;
}

bool matches(const ClassRule &rule, const FrameKey &key)
{
    return (!rule.by_type || rule.type == key.type) && (!rule.by_dst || rule.dst == key.dst) &&
           (!rule.snap || key.snap);
}

// The trace lines of the tunnel parser's layer-2 parse.
void trace_l2header(efmp_buff_t *buff, const RemovedTags &tags)
{
    const char *name = buff->src_intf->name;
    const uint16_t vid = efmp_buff_tag_vid(buff);
    if (vid == 0) {
        VXLAN_EF_TRACE_AS(buff, TraceGate::Parser, "vxlan_ef_pkt_l2header_parse",
                          "VXLAN-EF-PARSER: [vsd %d %s] pkt %p, Faild to get VLAN, intf %s\n",
                          static_cast<void *>(buff), name);
        return;
    }
    if (buff->len < EF_ETH_HLEN)
        return;
    const auto *eth = reinterpret_cast<const ef_eth_hdr *>(frame_of(buff));
    VXLAN_EF_TRACE_AS(buff, TraceGate::Parser, "vxlan_ef_pkt_l2header_parse",
                      "VXLAN-EF-PARSER: [vsd %d %s] pkt %p, src_intf %s\n smac: "
                      "%02x%02x.%02x%02x.%02x%02x dmac: %02x%02x.%02x%02x.%02x%02x, O_VID %d, "
                      "I_VID %d, O_Pri %d, I_Pri %d, eth-type %d.\n",
                      static_cast<void *>(buff), name, eth->src[0], eth->src[1], eth->src[2], eth->src[3],
                      eth->src[4], eth->src[5], eth->dst[0], eth->dst[1], eth->dst[2], eth->dst[3], eth->dst[4],
                      eth->dst[5], vid, tags.inner_tci & EFMP_TAG_VID_MASK, tags.outer_tci >> EF_VLAN_PCP_SHIFT,
                      tags.inner_tci >> EF_VLAN_PCP_SHIFT, ef_get_be16(eth->type));
}

}  // namespace

RemovedTags remove_tags(efmp_buff_t *buff)
{
    RemovedTags tags{};
    if (tagged(buff)) {
        tags.outer_tci = tag_tci(buff);
        const uint32_t word = efmp_buff_tag_word(buff) & ~EFMP_TAG_TCI_MASK;
        efmp_buff_set_tag_word(buff, word | tags.outer_tci);
        drop_tag(buff);
        if (tagged(buff)) {
            tags.inner_tci = tag_tci(buff);
            buff->inner_tag =
                static_cast<uint8_t>((buff->inner_tag & kInnerTagKept) | (tags.inner_tci >> 8));
            drop_tag(buff);
        }
    }
    buff->l2_len = EF_ETH_HLEN;
    buff->l3_off = static_cast<uint16_t>(buff->data_off + EF_ETH_HLEN);
    buff->src_ifx = buff->src_intf->ifindex;
    return tags;
}

namespace {

// The type the first three rules look at, or 0 when the full key is needed.
uint16_t plain_type(efmp_buff_t *buff)
{
    const uint32_t len = std::min(buff->len, stored_bytes(buff));
    const uint8_t *frame = frame_of(buff);
    if (len < EF_ETH_HLEN)
        return 0;
    if (llc_snap(frame, len))
        return 0;
    return ef_get_be16(frame + EF_ETH_TYPE_OFFSET);
}

// The rule table, for what the type alone does not settle.
__attribute__((noinline)) void classify_by_rules(efmp_buff_t *buff)
{
    const FrameKey key = frame_key(buff);
    for (const ClassRule &rule : kClassRules) {
        if (matches(rule, key)) {
            buff->pkt_type = rule.pkt_type;
            return;
        }
    }
    buff->pkt_type = EFMP_PKT_UNCLASSIFIED;
    buff->unclassified = 1;
}

}  // namespace

void classify(efmp_buff_t *buff)
{
    // The first three rules look at the type alone, so nearly every frame is
    // settled here without building the key or walking the table.
    switch (plain_type(buff)) {
    case EF_ETHERTYPE_IPV4:
        buff->pkt_type = EFMP_PKT_IPV4;
        return;
    case EF_ETHERTYPE_ARP:
        buff->pkt_type = EFMP_PKT_ARP;
        return;
    case EF_ETHERTYPE_IPV6:
        buff->pkt_type = EFMP_PKT_IPV6;
        return;
    default:
        classify_by_rules(buff);
        return;
    }
}

}  // namespace vxlan_ef

void vxlan_ef_pkt_l2header_parse(efmp_buff_t *buff)
{
    if (buff == nullptr || buff->src_intf == nullptr)
        return;
    const vxlan_ef::RemovedTags tags = vxlan_ef::remove_tags(buff);
    vxlan_ef::classify(buff);
    if (g_vxlan_vsd != nullptr)
        vxlan_ef::trace_l2header(buff, tags);
}
