// The layer-2 header parse of received frames: removal of up to two 802.1Q
// tags (shared by the local access path and the tunnel parser) and the
// classification of a frame into the platform's packet types.
#include <algorithm>
#include <array>
#include <cstring>

#include "frame/receive/receive_private.h"

namespace vxlan_ef {

namespace {

using Mac = std::array<uint8_t, 6>;

constexpr uint32_t kEthLen = sizeof(wire::EthHdr);
constexpr uint32_t kAddrLen = 12;  // destination and source MAC
constexpr uint32_t kTypeOff = 12;
constexpr uint32_t kTagLen = sizeof(wire::VlanTag);
constexpr uint32_t kSnapTypeOff = 20;
constexpr uint8_t kLlcSnap = 0xAA;
constexpr uint8_t kInnerTagKept = 0xF0;  // bits of the old inner tag byte that stay

// Moves the addresses over the tag that follows them.
void drop_tag(efmp_buff_t *buff)
{
    uint8_t *frame = frame_of(buff);
    std::memmove(frame + kTagLen, frame, kAddrLen);
    buff->data_off = static_cast<uint16_t>(buff->data_off + kTagLen);
    buff->len -= kTagLen;
}

bool tagged(efmp_buff_t *buff)
{
    const uint32_t need = kEthLen + kTagLen;
    return buff->len >= need && stored_bytes(buff) >= need &&
           ef_get_be16(frame_of(buff) + kTypeOff) == wire::kEthTypeVlan;
}

uint16_t tag_tci(efmp_buff_t *buff) { return ef_get_be16(frame_of(buff) + kTypeOff + 2); }

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

// First match wins.
// classify() answers the first three itself; keep them first.
constexpr std::array<ClassRule, 18> kClassRules{{
    type_rule(wire::kEthTypeIpv4, EFMP_PKT_IPV4),
    type_rule(wire::kEthTypeArp, EFMP_PKT_ARP),
    type_rule(wire::kEthTypeIpv6, EFMP_PKT_IPV6),
    type_rule(0xBB01, 39),
    type_rule(0x8847, 29),
    type_rule(0x8809, 42),
    type_rule(0x88CA, 38),
    type_rule(0x8863, 9),
    type_rule(0x8864, 10),
    both_rule(0x8902, {0x01, 0x19, 0xA7, 0x00, 0x00, 0x01}, 46),
    type_rule(0x8902, 40),
    dst_rule({0x01, 0x80, 0xC2, 0x00, 0x00, 0x00}, 26),
    dst_rule({0x01, 0x80, 0xC2, 0x00, 0x00, 0x21}, 43),
    dst_rule({0x01, 0x5C, 0xE2, 0x00, 0x00, 0x06}, 43),
    both_rule(0x88CC, {0x01, 0x80, 0xC2, 0x00, 0x00, 0x0E}, 36),
    ClassRule{true, 0x2000, true, {0x01, 0x00, 0x0C, 0xCC, 0xCC, 0xCC}, true, 37},
    type_rule(0x0788, 45),
    dst_rule({0x01, 0x5C, 0xE2, 0x00, 0x00, 0x07}, 48),
}};

// What the rules look at, read once from the frame.
struct FrameKey {
    Mac dst;
    uint16_t type;  // at offset 12, or 20 for LLC/SNAP
    bool snap;
};

FrameKey frame_key(efmp_buff_t *buff)
{
    FrameKey key{};
    const uint32_t len = std::min(buff->len, stored_bytes(buff));
    const uint8_t *frame = frame_of(buff);
    if (len >= key.dst.size())
        std::memcpy(key.dst.data(), frame, key.dst.size());
    if (len >= kEthLen)
        key.type = ef_get_be16(frame + kTypeOff);
    if (len >= kSnapTypeOff + 2 && frame[kEthLen] == kLlcSnap && frame[kEthLen + 1] == kLlcSnap) {
        key.snap = true;
        key.type = ef_get_be16(frame + kSnapTypeOff);
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
    if (buff->len < kEthLen)
        return;
    const uint8_t *f = frame_of(buff);
    VXLAN_EF_TRACE_AS(buff, TraceGate::Parser, "vxlan_ef_pkt_l2header_parse",
                      "VXLAN-EF-PARSER: [vsd %d %s] pkt %p, src_intf %s\n smac: "
                      "%02x%02x.%02x%02x.%02x%02x dmac: %02x%02x.%02x%02x.%02x%02x, O_VID %d, "
                      "I_VID %d, O_Pri %d, I_Pri %d, eth-type %d.\n",
                      static_cast<void *>(buff), name, f[6], f[7], f[8], f[9], f[10], f[11], f[0],
                      f[1], f[2], f[3], f[4], f[5], vid, tags.inner_tci & EFMP_TAG_VID_MASK,
                      tags.outer_tci >> kTciPriShift, tags.inner_tci >> kTciPriShift,
                      ef_get_be16(f + kTypeOff));
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
    buff->l2_len = kEthLen;
    buff->l3_off = static_cast<uint16_t>(buff->data_off + kEthLen);
    buff->src_ifx = buff->src_intf->ifindex;
    return tags;
}

namespace {

// The type the first three rules look at, or 0 when the full key is needed.
uint16_t plain_type(efmp_buff_t *buff)
{
    const uint32_t len = std::min(buff->len, stored_bytes(buff));
    const uint8_t *frame = frame_of(buff);
    if (len < kEthLen)
        return 0;
    if (len >= kSnapTypeOff + 2 && frame[kEthLen] == kLlcSnap && frame[kEthLen + 1] == kLlcSnap)
        return 0;
    return ef_get_be16(frame + kTypeOff);
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
    buff->pkt_type = 0;
    buff->unclassified = 1;
}

}  // namespace

void classify(efmp_buff_t *buff)
{
    // The first three rules look at the type alone, so nearly every frame is
    // settled here without building the key or walking the table.
    switch (plain_type(buff)) {
    case wire::kEthTypeIpv4:
        buff->pkt_type = EFMP_PKT_IPV4;
        return;
    case wire::kEthTypeArp:
        buff->pkt_type = EFMP_PKT_ARP;
        return;
    case wire::kEthTypeIpv6:
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
