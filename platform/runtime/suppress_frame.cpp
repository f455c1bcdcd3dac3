// The pipeline's suppression step (suppress.h): what becomes of an ARP or ND
// frame before the module sees it.
//
// From an access port or sub-interface, senders are snooped into local
// bindings in every VNI: a control process advertises them as MAC/IP routes
// whether or not this VTEP answers for the VNI. Where the VNI's switch is
// on, a request or solicitation for a bound address is answered out of the
// receiving interface and goes no further, and everything else is marked as
// a local frame, which the module floods although its own suppression drops
// frames that are not. A frame decapsulated from a tunnel is only marked
// (where the switch is on): the VTEP that sent it already decided not to
// answer it, and its hosts are not ours to snoop. With the switch off the
// frame itself goes on exactly as it came.
#include <algorithm>
#include <cstring>

#include "ef_wire.h"
#include "efrt_pipeline.h"
#include "neighbour_wire.h"
#include "suppress.h"

namespace efrt {

namespace {

// The frame's bytes that are really there, and its L3 part as the receive
// parsers left it (tags removed, l3_off just past the Ethernet header).
struct FrameView {
    const uint8_t *eth = nullptr;
    size_t len = 0;
    const uint8_t *l3 = nullptr;
    size_t l3_len = 0;
};

std::optional<FrameView> view_of(const efmp_buff_t *buff)
{
    if (buff->head == nullptr || buff->data_off >= buff->size || buff->l3_off < buff->data_off)
        return std::nullopt;
    const size_t len = std::min<size_t>(buff->len, buff->size - buff->data_off);
    const size_t l3 = buff->l3_off - buff->data_off;
    if (len < EF_ETH_HLEN || l3 > len)
        return std::nullopt;
    const uint8_t *eth = buff->head + buff->data_off;
    return FrameView{eth, len, eth + l3, len - l3};
}

bool decapsulated(const efmp_buff_t *buff) { return (buff->flags & EFMP_F_VXLAN_DECAP) != 0; }

SuppressVerdict hand_on(efmp_buff_t *buff)
{
    buff->flags |= EFMP_F_LOCAL;
    return SuppressVerdict::HandedOn;
}

// Sends an answer frame out of the interface the request came in on, in the
// request's VLAN: the interface's own encapsulation hook (a sub-interface's
// tags) and then its port, which tags it as it tags everything it sends.
// False when no buffer was left or it could not be sent; nothing is kept.
bool send_answer(const efmp_buff_t *request, const uint8_t *frame, size_t len)
{
    if (request->src_intf == nullptr)
        return false;
    efmp_buff_t *answer = efmp_buff_alloc_sw_user(EFMP_REASON_SW_USER, static_cast<uint32_t>(len));
    if (answer == nullptr)
        return false;
    std::memcpy(answer->head + answer->data_off, frame, len);
    answer->src_intf = request->src_intf;
    answer->src_ifx = request->src_ifx;
    answer->dst_intf = request->src_intf;
    // The instance bits say who parsed a received frame; this one was made here.
    efmp_buff_set_tag_word(answer, efmp_buff_tag_word(request) & ~EFMP_TAG_VSD_MASK);
    efmp_buff_set_vni(answer, efmp_buff_vni(request));
    answer->l2_len = EF_ETH_HLEN;
    answer->l3_off = static_cast<uint16_t>(answer->data_off + EF_ETH_HLEN);
    answer->pkt_type = request->pkt_type;
    const PipeOutcome out = pipeline_deliver(answer);
    if (out != PipeOutcome::Consumed)
        efmp_buff_free_sw_user(EFMP_REASON_SW_USER, answer);
    return out == PipeOutcome::Sent || out == PipeOutcome::Consumed;
}

// ---- ARP ----

bool answer_arp(const efmp_buff_t *request, const nwire::ArpMessage &asked, const MacAddr &bound)
{
    uint8_t frame[nwire::kArpFrameLen];
    nwire::write_arp_reply(frame, bound, asked.target_ip, asked.sender_mac, asked.sender_ip);
    return send_answer(request, frame, sizeof frame);
}

SuppressVerdict arp_from_access(efmp_buff_t *buff, uint32_t vni)
{
    const std::optional<FrameView> view = view_of(buff);
    const std::optional<nwire::ArpMessage> arp =
        view ? nwire::read_arp(view->l3, view->l3_len) : std::nullopt;
    if (arp && nwire::ipv4_host(arp->sender_ip) && nwire::host_mac(arp->sender_mac))
        suppress_learn_local(vni, nwire::neighbour_ip(arp->sender_ip), arp->sender_mac);
    if (!suppress_switch_on(vni, SuppressProto::Arp))
        return SuppressVerdict::Untouched;
    if (!arp || arp->op != EF_ARP_REQUEST)
        return hand_on(buff);
    // A host asking for its own address (gratuitous ARP) finds its own MAC
    // and is handed on, so that the others hear of it.
    std::optional<MacAddr> bound;
    if (nwire::host_mac(arp->sender_mac))
        bound = suppress_lookup(vni, nwire::neighbour_ip(arp->target_ip));
    if (bound && *bound != arp->sender_mac && answer_arp(buff, *arp, *bound)) {
        suppress_count(SuppressEvent::ArpAnswered);
        return SuppressVerdict::Answered;
    }
    suppress_count(SuppressEvent::ArpHandedOn);
    return hand_on(buff);
}

SuppressVerdict arp_frame(efmp_buff_t *buff, uint32_t vni)
{
    if (!decapsulated(buff))
        return arp_from_access(buff, vni);
    return suppress_switch_on(vni, SuppressProto::Arp) ? hand_on(buff) : SuppressVerdict::Untouched;
}

// ---- neighbour discovery ----

bool answer_ns(const efmp_buff_t *request, const nwire::NdMessage &ns, const MacAddr &solicitor,
               const MacAddr &bound)
{
    uint8_t frame[nwire::kNaFrameLen];
    nwire::write_na(frame, bound, ns.target, solicitor, ns.src);
    return send_answer(request, frame, sizeof frame);
}

void snoop_nd(uint32_t vni, const nwire::NdMessage &nd)
{
    if (nd.type == EF_ND_NEIGHBOUR_SOLICIT && !nwire::ipv6_all_zero(nd.src) && nd.link_addr &&
        nwire::host_mac(*nd.link_addr))
        suppress_learn_local(vni, nwire::neighbour_ip(nd.src), *nd.link_addr);
    // An unsolicited advertisement tells of a host's new or moved address.
    if (nd.type != EF_ND_NEIGHBOUR_SOLICIT && !nd.solicited && nd.link_addr && nwire::host_mac(*nd.link_addr) &&
        !nwire::ipv6_all_zero(nd.target))
        suppress_learn_local(vni, nwire::neighbour_ip(nd.target), *nd.link_addr);
}

SuppressVerdict solicitation(efmp_buff_t *buff, uint32_t vni, const FrameView &view, const nwire::NdMessage &ns)
{
    const bool from_nobody = nwire::ipv6_all_zero(ns.src);
    MacAddr solicitor;
    std::memcpy(solicitor.data(), view.eth + offsetof(ef_eth_hdr, src), solicitor.size());
    solicitor = ns.link_addr.value_or(solicitor);
    // Duplicate address detection has no address to answer to: the owner of
    // the address, reached by the flood, defends it itself.
    std::optional<MacAddr> bound;
    if (!from_nobody && nwire::host_mac(solicitor))
        bound = suppress_lookup(vni, nwire::neighbour_ip(ns.target));
    if (bound && *bound != solicitor && answer_ns(buff, ns, solicitor, *bound)) {
        suppress_count(SuppressEvent::NdAnswered);
        return SuppressVerdict::Answered;
    }
    suppress_count(SuppressEvent::NdHandedOn);
    return hand_on(buff);
}

SuppressVerdict nd_from_access(efmp_buff_t *buff, uint32_t vni, const FrameView &view)
{
    const std::optional<nwire::NdMessage> nd = nwire::read_nd(view.l3, view.l3_len);
    if (nd)
        snoop_nd(vni, *nd);
    if (!suppress_switch_on(vni, SuppressProto::Nd))
        return SuppressVerdict::Untouched;
    if (nd && nd->type == EF_ND_NEIGHBOUR_SOLICIT)
        return solicitation(buff, vni, view, *nd);
    return hand_on(buff);
}

SuppressVerdict ipv6_frame(efmp_buff_t *buff, uint32_t vni)
{
    const std::optional<FrameView> view = view_of(buff);
    if (!view || nwire::nd_type(view->l3, view->l3_len) == 0)
        return SuppressVerdict::Untouched;
    if (!decapsulated(buff))
        return nd_from_access(buff, vni, *view);
    return suppress_switch_on(vni, SuppressProto::Nd) ? hand_on(buff) : SuppressVerdict::Untouched;
}

}  // namespace

SuppressVerdict suppress_frame(efmp_buff_t *buff)
{
    const uint32_t vni = efmp_buff_vni(buff);
    if (buff->pkt_type == EFMP_PKT_ARP)
        return arp_frame(buff, vni);
    if (buff->pkt_type == EFMP_PKT_IPV6)
        return ipv6_frame(buff, vni);
    return SuppressVerdict::Untouched;
}

}  // namespace efrt
