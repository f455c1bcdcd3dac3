// Buffer helpers of forwarding and flooding: the copy of a frame that
// flooding and the mapped-VNI path send on, the neighbour-discovery test, and
// interface names for messages.
#include <cstring>

#include "ef_wire.h"
#include "frame/forward/forward_private.h"

namespace vxlan_ef::fwd {

namespace {

uint16_t rebase(uint16_t off, const efmp_buff_t *from, const efmp_buff_t *to)
{
    return static_cast<uint16_t>(off - from->data_off + to->data_off);
}

}  // namespace

bool is_nd(const efmp_buff_t *buff)
{
    if (buff->pkt_type != EFMP_PKT_IPV6 || buff->head == nullptr || buff->l3_off < buff->data_off)
        return false;
    const uint32_t l3 = buff->l3_off - buff->data_off;
    if (l3 + EF_IPV6_HLEN + 1 > buff->len)
        return false;
    const auto *ip = reinterpret_cast<const ef_ipv6_hdr *>(buff->head + buff->l3_off);
    const uint8_t type = buff->head[buff->l3_off + EF_IPV6_HLEN];
    return ip->next_hdr == EF_IPPROTO_ICMPV6 && type >= EF_ND_FIRST_TYPE && type <= EF_ND_LAST_TYPE;
}

efmp_buff_t *copy_frame(const efmp_buff_t *src)
{
    efmp_buff_t *copy = efmp_buff_alloc_sw_user(EFMP_REASON_SW_USER, src->len);
    if (copy == nullptr)
        return nullptr;
    copy->src_intf = src->src_intf;
    copy->flags = src->flags & ~kCopyClearFlags;
    copy->priv_flags = src->priv_flags;
    copy->len = src->len;
    copy->vlan_tag = src->vlan_tag;
    copy->l2_len = src->l2_len;
    copy->l3_off = rebase(src->l3_off, src, copy);
    copy->l4_off = src->l4_off == 0 ? 0 : rebase(src->l4_off, src, copy);
    copy->pkt_type = src->pkt_type;
    copy->outer_family = src->outer_family;
    copy->module_code = src->module_code;
    copy->unclassified = src->unclassified;
    copy->src_ifx = src->src_ifx;
    std::memcpy(copy->vni_tag, src->vni_tag, sizeof copy->vni_tag);
    copy->inner_tag = src->inner_tag;
    copy->vxlan_mtu = src->vxlan_mtu;
    copy->dst_intf = src->dst_intf;
    copy->engine = src->engine;
    copy->module = src->module;
    // The platform's buffer has no optional tail block (private flag bit 48)
    // beyond these extension words.
    copy->l3_src_intf = src->l3_src_intf;
    copy->l3_word1 = src->l3_word1;
    copy->l3_word2 = src->l3_word2;
    copy->pid = src->pid;
    copy->mcast_nodes = nullptr;
    if (src->len != 0)
        std::memcpy(frame_start(copy), frame_start(src), src->len);
    return copy;
}

IntfName name_of(const lsm_intfcb_t *intf)
{
    IntfName n{};
    if (intf != nullptr)
        lsm_if_get_name(intf->ifindex, n.text, sizeof n.text);
    return n;
}

}  // namespace vxlan_ef::fwd
