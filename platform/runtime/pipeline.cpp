// The packet pipeline: the order every received frame takes through the
// hooks that modules registered (efmp_hooks.cpp, efmp_services.cpp) and the
// platform's ARP and ND suppression (suppress.h), and the classification and
// tunnel MTU the Ethernet layer gives each frame.
#include <atomic>
#include <cstring>

#include "ef_byteorder.h"
#include "ef_wire.h"
#include "efrt_pipeline.h"
#include "efrt_services.h"
#include "lsm.h"
#include "suppress.h"

namespace efrt {

namespace {


using FrameHook = int (*)(efmp_buff_t *);

std::atomic<uint32_t> g_underlay_mtu{0};

// The packet type of a frame, looking through up to two 802.1Q tags: only IP
// frames can be fragmented, and ARP and ND are recognised for suppression.
uint8_t classify(const uint8_t *frame, size_t len)
{
    constexpr size_t kTypeLen = sizeof(ef_eth_hdr::type);
    size_t off = EF_ETH_TYPE_OFFSET;
    uint16_t type = ef_get_be16(frame + off);
    for (int tags = 0; tags < 2 && type == EF_ETHERTYPE_VLAN && off + EF_VLAN_TAG_LEN + kTypeLen <= len; ++tags) {
        off += EF_VLAN_TAG_LEN;
        type = ef_get_be16(frame + off);
    }
    switch (type) {
    case EF_ETHERTYPE_IPV4:
        return EFMP_PKT_IPV4;
    case EF_ETHERTYPE_ARP:
        return EFMP_PKT_ARP;
    case EF_ETHERTYPE_IPV6:
        return EFMP_PKT_IPV6;
    default:
        return EFMP_PKT_UNCLASSIFIED;
    }
}

// The module checks a frame against its tunnel MTU as if the inner IP header
// were 20 bytes and the Ethernet header were not there, and leaves the same
// room in each fragment: an IPv4 fragment carries 20 header bytes, an IPv6
// fragment 48 (with its fragment header) in a payload limit that already
// counts 8 of them. MTU - 20 keeps a whole outer packet of either family
// within the underlay; IPv6 frames too large for it get MTU - 40, so that
// their fragments fit too. (An IPv6 frame within 20 bytes of the limit of
// an IPv4 tunnel is therefore fragmented although it would just fit.)
uint16_t tunnel_mtu(uint8_t pkt_type, size_t len)
{
    constexpr uint32_t kUncounted = EF_IPV4_HLEN;      // the inner Ethernet header's share
    constexpr uint32_t kIpv6Uncounted = EF_IPV6_HLEN;  // and the rest of an IPv6 header
    constexpr uint32_t kLargestOverhead = EF_VXLAN_IPV6_OVERHEAD - EF_ETH_HLEN;
    constexpr uint32_t kSmallestMtu = EF_VXLAN_IPV6_OVERHEAD + kIpv6Uncounted;
    const uint32_t mtu = g_underlay_mtu.load(std::memory_order_relaxed);
    if (mtu < kSmallestMtu)
        return 0;
    if (pkt_type == EFMP_PKT_IPV6 && len + kLargestOverhead > mtu)
        return static_cast<uint16_t>(mtu - kIpv6Uncounted);
    return static_cast<uint16_t>(mtu - kUncounted);
}

}  // namespace

efmp_buff_t *pipeline_frame(uint32_t ifindex, const uint8_t *frame, size_t len)
{
    if (len < EF_ETH_HLEN || len > UINT16_MAX)
        return nullptr;
    lsm_intfcb_t *intf = lsm_get_intfcb(ifindex);
    if (intf == nullptr)
        return nullptr;
    efmp_buff_t *buff = efmp_buff_alloc_sw_user(EFMP_REASON_SW_USER, static_cast<uint32_t>(len));
    if (buff == nullptr)
        return nullptr;
    std::memcpy(buff->head + buff->data_off, frame, len);
    buff->src_intf = intf;
    buff->src_ifx = ifindex;
    buff->l2_len = EF_ETH_HLEN;
    buff->l3_off = static_cast<uint16_t>(buff->data_off + EF_ETH_HLEN);
    buff->pkt_type = classify(frame, len);
    buff->vxlan_mtu = tunnel_mtu(buff->pkt_type, len);
    return buff;
}

void pipeline_set_underlay_mtu(uint32_t mtu) { g_underlay_mtu.store(mtu, std::memory_order_relaxed); }

int pipeline_parse(efmp_buff_t *buff)
{
    auto eth = reinterpret_cast<FrameHook>(eth_parser_of(buff->src_ifx, EF_ETH_PARSER_SLOT_VXLAN));
    if (eth != nullptr && eth(buff) == EF_Drop)
        return EF_Drop;
    // A decapsulated frame now comes from its tunnel, whose own parser admits it.
    if ((buff->flags & EFMP_F_VXLAN_DECAP) == 0 || buff->src_intf == nullptr)
        return EF_Normal;
    efmp_parser_fn tunnel = efmp_parser_of(buff->src_intf);
    uint32_t result = 0;
    return tunnel != nullptr ? tunnel(buff, &result) : EF_Normal;
}

PipeOutcome pipeline_deliver(efmp_buff_t *buff)
{
    lsm_intfcb_t *dst = buff->dst_intf;
    if (dst == nullptr)
        return PipeOutcome::Dropped;
    if (efmp_encap_fn hook = efmp_encap_of(dst); hook != nullptr) {
        const int r = hook(buff, dst);
        if (r == EF_Lost)
            return PipeOutcome::Consumed;
        if (r != EF_Normal || buff->dst_intf == nullptr)
            return PipeOutcome::Dropped;
    }
    port_send(buff->dst_intf->ifindex, buff, false);
    return PipeOutcome::Sent;
}

namespace {

// A parsed frame of a VNI through the forwarding service and on to its
// destination. The buffer stays the caller's unless Consumed.
PipeOutcome forward_in_vni(efmp_buff_t *buff, FrameHook forward)
{
    const int r = forward(buff);
    if (r == EF_Lost)
        return PipeOutcome::Consumed;
    if (r == EF_Drop)
        return PipeOutcome::ForwardDrop;
    if (r != EF_Normal)
        return PipeOutcome::Dropped;
    if ((buff->flags & EFMP_F_SWITCH_ENGINE) != 0 && buff->dst_intf != nullptr)
        return PipeOutcome::Routed;
    return pipeline_deliver(buff);
}

// Parsers, suppression and forwarding. The buffer stays the caller's unless
// Consumed.
PipeOutcome run_parsed(efmp_buff_t *buff)
{
    if (pipeline_parse(buff) != EF_Normal)
        return PipeOutcome::ParserDrop;
    auto forward = reinterpret_cast<FrameHook>(efmp_get_service(EFMP_MODULE_VXLAN, EFMP_VXLAN_SERV_FORWARD));
    if (efmp_buff_vni(buff) == 0 || forward == nullptr)
        return PipeOutcome::NoVni;
    // The receive parsers have removed the tags and classified the frame:
    // only ARP and IPv6 frames go any further into suppression.
    if (suppress_may_concern(buff->pkt_type) && suppress_frame(buff) == SuppressVerdict::Answered)
        return PipeOutcome::Answered;
    return forward_in_vni(buff, forward);
}

}  // namespace

PipeOutcome pipeline_run(efmp_buff_t *buff)
{
    const PipeOutcome out = run_parsed(buff);
    if (out != PipeOutcome::Consumed)
        efmp_buff_free_sw_user(EFMP_REASON_SW_USER, buff);
    return out;
}

}  // namespace efrt
