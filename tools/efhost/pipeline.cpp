// The packet pipeline of efhost.
#include "pipeline.h"

#include <arpa/inet.h>

#include <cstring>
#include <vector>

#include "efrt_bcast.h"
#include "efrt_services.h"
#include "lsm.h"

namespace efhost {

namespace {

// Buffers are accounted under the same reason as the module's and the
// platform's copies, so that each reason balances on its own.
constexpr int kReason = -98;
constexpr uint32_t kEthParserSlot = 5;
constexpr uint32_t kForwardService = 2;
constexpr size_t kEthHeader = 14;

using EthParser = int (*)(efmp_buff_t *);
using Forward = int (*)(efmp_buff_t *);

uint32_t vni_of(const efmp_buff_t *b)
{
    return static_cast<uint32_t>(b->vni_tag[1]) << 16 | b->vni_tag[2] << 8 | b->vni_tag[3];
}

// Spreads the port threads over the per-CPU hand-off slots.
void bind_cpu_slot()
{
    static std::atomic<uint32_t> next{0};
    thread_local bool bound = false;
    if (bound)
        return;
    g_efmp_cpu_num = next.fetch_add(1) % efmp_skip_top.cpu_count;
    bound = true;
}

// The platform's Ethernet layer classifies what a port receives; the
// module's access path relies on it (only IP frames can be fragmented, ARP
// and ND are recognised for suppression).
uint8_t classify(const uint8_t *frame, size_t len)
{
    size_t off = 12;
    uint16_t type = static_cast<uint16_t>(frame[off] << 8 | frame[off + 1]);
    for (int tags = 0; tags < 2 && type == 0x8100 && off + 6 <= len; ++tags) {
        off += 4;
        type = static_cast<uint16_t>(frame[off] << 8 | frame[off + 1]);
    }
    switch (type) {
    case 0x0800:
        return 1;
    case 0x0806:
        return 2;
    case 0x86DD:
        return 27;
    default:
        return 0;
    }
}

// The tunnel MTU handed to the module with every frame. Its size check
// counts the inner packet after a 20-byte IP header against the MTU less the
// outer headers, which leaves the inner Ethernet header and the rest of an
// IPv6 inner header (20 + 20 bytes) out; taking them off here keeps every
// outer packet within the smallest underlay port's MTU.
uint16_t tunnel_mtu(const Config &cfg)
{
    constexpr uint32_t kUncounted = 40;
    uint32_t mtu = 0;
    for (const InterfaceConfig &ic : cfg.interfaces)
        if (!ic.addresses.empty() && (mtu == 0 || ic.mtu < mtu))
            mtu = ic.mtu;
    return mtu > kUncounted + 70 ? static_cast<uint16_t>(mtu - kUncounted) : 0;
}

void tx_hook(uint32_t ifindex, const efmp_buff_t *buff, void *ctx)
{
    static_cast<Pipeline *>(ctx)->transmit(ifindex, buff);
}

}  // namespace

Pipeline::Pipeline(const Config &cfg, std::map<uint32_t, Port *> ports, L3Engine *l3) : l3_(l3)
{
    for (const InterfaceConfig &ic : cfg.interfaces) {
        auto it = ports.find(ic.index);
        if (it == ports.end())
            continue;
        ports_[ic.index] = PortInfo{it->second, ic.pvid, !ic.addresses.empty()};
    }
    tunnel_mtu_ = tunnel_mtu(cfg);
}

void Pipeline::attach_to_platform() { efrt::set_port_tx(tx_hook, this); }

void Pipeline::detach_from_platform() { efrt::set_port_tx(nullptr, nullptr); }

void Pipeline::receive(uint32_t ifindex, const uint8_t *frame, size_t len)
{
    bind_cpu_slot();
    count(counters_.received);
    if (len < kEthHeader)
        return count(counters_.dropped);
    auto info = ports_.find(ifindex);
    // The underlay's own ARP and neighbour discovery stop here.
    if (info != ports_.end() && info->second.has_addresses && l3_ != nullptr &&
        l3_->handle_rx(ifindex, frame, len))
        return count(counters_.underlay);
    efmp_buff_t *buff = efmp_buff_alloc_sw_user(kReason, static_cast<uint32_t>(len));
    if (buff == nullptr)
        return count(counters_.dropped);
    std::memcpy(buff->head + buff->data_off, frame, len);
    buff->src_intf = lsm_get_intfcb(ifindex);
    buff->src_ifx = ifindex;
    buff->l2_len = kEthHeader;
    buff->l3_off = static_cast<uint16_t>(buff->data_off + kEthHeader);
    buff->pkt_type = classify(frame, len);
    buff->vxlan_mtu = tunnel_mtu_;
    if (buff->src_intf == nullptr) {
        efmp_buff_free_sw_user(kReason, buff);
        return count(counters_.dropped);
    }
    run(buff);
}

int Pipeline::run_parsers(efmp_buff_t *buff)
{
    auto eth = reinterpret_cast<EthParser>(efrt::eth_parser_of(buff->src_ifx, kEthParserSlot));
    if (eth != nullptr && eth(buff) == EF_Drop)
        return EF_Drop;
    // A decapsulated frame now comes from its tunnel, whose own parser admits it.
    if ((buff->flags & EFMP_F_VXLAN_DECAP) == 0 || buff->src_intf == nullptr)
        return EF_Normal;
    efmp_parser_fn tunnel = efrt::efmp_parser_of(buff->src_intf);
    uint32_t result = 0;
    return tunnel != nullptr ? tunnel(buff, &result) : EF_Normal;
}

void Pipeline::run(efmp_buff_t *buff)
{
    if (run_parsers(buff) == EF_Drop) {
        efmp_buff_free_sw_user(kReason, buff);
        return count(counters_.parser_drops);
    }
    auto forward = reinterpret_cast<Forward>(efmp_get_service(EFMP_MODULE_VXLAN, kForwardService));
    if (vni_of(buff) == 0 || forward == nullptr) {
        efmp_buff_free_sw_user(kReason, buff);
        return count(counters_.no_vni);
    }
    const int r = forward(buff);
    if (r == EF_Lost)
        return count(counters_.consumed);
    if (r != EF_Normal) {
        efmp_buff_free_sw_user(kReason, buff);
        return count(r == EF_Drop ? counters_.consumed : counters_.dropped);
    }
    deliver(buff);
}

// A frame the forwarding service left to the pipeline leaves through its
// destination interface, after that interface's encapsulation hook.
void Pipeline::deliver(efmp_buff_t *buff)
{
    if ((buff->flags & EFMP_F_SWITCH_ENGINE) != 0 || buff->dst_intf == nullptr) {
        efmp_buff_free_sw_user(kReason, buff);
        return count(buff->dst_intf == nullptr ? counters_.dropped : counters_.routed);
    }
    lsm_intfcb_t *dst = buff->dst_intf;
    if (efmp_encap_fn hook = efrt::efmp_encap_of(dst); hook != nullptr) {
        const int r = hook(buff, dst);
        if (r == EF_Lost)
            return count(counters_.consumed);
        if (r != EF_Normal || buff->dst_intf == nullptr) {
            efmp_buff_free_sw_user(kReason, buff);
            return count(counters_.dropped);
        }
    }
    transmit(buff->dst_intf->ifindex, buff);
    efmp_buff_free_sw_user(kReason, buff);
    count(counters_.forwarded);
}

void Pipeline::transmit(uint32_t ifindex, const efmp_buff_t *buff)
{
    auto it = ports_.find(ifindex);
    if (it == ports_.end() || buff->len < kEthHeader)
        return;
    const uint8_t *frame = buff->head + buff->data_off;
    const uint32_t tag = ntohl(buff->vlan_tag);
    const uint16_t vid = static_cast<uint16_t>(tag & 0xFFF);
    // A sub-interface's hook already wrote its tags; a port's own VLAN
    // leaves untagged.
    if ((buff->flags & EFMP_F_SUBIF_TAGGED) != 0 || vid == 0 || vid == it->second.pvid) {
        it->second.port->send(frame, buff->len);
        return;
    }
    std::vector<uint8_t> tagged(buff->len + 4);
    std::memcpy(tagged.data(), frame, 12);
    const uint16_t tci = static_cast<uint16_t>((tag & 0xE000) | vid);
    tagged[12] = 0x81;
    tagged[13] = 0x00;
    tagged[14] = static_cast<uint8_t>(tci >> 8);
    tagged[15] = static_cast<uint8_t>(tci);
    std::memcpy(tagged.data() + 16, frame + 12, buff->len - 12);
    it->second.port->send(tagged.data(), tagged.size());
}

PipelineStats Pipeline::stats() const
{
    const Counters &c = counters_;
    return PipelineStats{c.received.load(), c.parser_drops.load(), c.no_vni.load(),
                         c.forwarded.load(), c.consumed.load(), c.dropped.load(),
                         c.routed.load(), c.underlay.load()};
}

}  // namespace efhost
