// The packet pipeline of efhost.
#include "pipeline.h"

#include <cstring>
#include <vector>

#include "ef_byteorder.h"
#include "ef_wire.h"
#include "efrt_bcast.h"
#include "efrt_pipeline.h"
#include "efrt_services.h"
#include "lsm.h"

namespace efhost {

namespace {

// The priority bits of a tag's TCI, above the drop-eligible bit.

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

// The smallest MTU of the ports the encapsulated packets leave on.
uint32_t underlay_mtu(const Config &cfg)
{
    uint32_t mtu = 0;
    for (const InterfaceConfig &ic : cfg.interfaces)
        if (!ic.addresses.empty() && (mtu == 0 || ic.mtu < mtu))
            mtu = ic.mtu;
    return mtu;
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
    underlay_mtu_ = underlay_mtu(cfg);
}

void Pipeline::attach_to_platform()
{
    efrt::pipeline_set_underlay_mtu(underlay_mtu_);
    efrt::set_port_tx(tx_hook, this);
}

void Pipeline::detach_from_platform() { efrt::set_port_tx(nullptr, nullptr); }

void Pipeline::receive(uint32_t ifindex, const uint8_t *frame, size_t len)
{
    bind_cpu_slot();
    handle(ifindex, frame, len);
    if (l3_ != nullptr)
        l3_->send_own_queue();
}

void Pipeline::handle(uint32_t ifindex, const uint8_t *frame, size_t len)
{
    count(counters_.received);
    auto info = ports_.find(ifindex);
    // The underlay's own ARP and neighbour discovery stop here.
    if (len >= EF_ETH_HLEN && info != ports_.end() && info->second.has_addresses &&
        l3_ != nullptr && l3_->handle_rx(ifindex, frame, len))
        return count(counters_.underlay);
    efmp_buff_t *buff = efrt::pipeline_frame(ifindex, frame, len);
    if (buff == nullptr)
        return count(counters_.dropped);
    switch (efrt::pipeline_run(buff)) {
    case efrt::PipeOutcome::ParserDrop:
        return count(counters_.parser_drops);
    case efrt::PipeOutcome::NoVni:
        return count(counters_.no_vni);
    case efrt::PipeOutcome::Consumed:
    case efrt::PipeOutcome::ForwardDrop:
        return count(counters_.consumed);
    case efrt::PipeOutcome::Dropped:
        return count(counters_.dropped);
    case efrt::PipeOutcome::Routed:
        return count(counters_.routed);
    case efrt::PipeOutcome::Sent:
        return count(counters_.forwarded);
    case efrt::PipeOutcome::Answered:
        return count(counters_.answered);
    }
}

void Pipeline::transmit(uint32_t ifindex, const efmp_buff_t *buff)
{
    auto it = ports_.find(ifindex);
    if (it == ports_.end() || buff->len < EF_ETH_HLEN)
        return;
    const uint8_t *frame = buff->head + buff->data_off;
    const uint32_t tag = efmp_buff_tag_word(buff);
    const uint16_t vid = static_cast<uint16_t>(tag & EFMP_TAG_VID_MASK);
    // A sub-interface's hook already wrote its tags; a port's own VLAN
    // leaves untagged.
    if ((buff->flags & EFMP_F_SUBIF_TAGGED) != 0 || vid == 0 || vid == it->second.pvid) {
        it->second.port->send(frame, buff->len);
        return;
    }
    std::vector<uint8_t> tagged(buff->len + EF_VLAN_TAG_LEN);
    std::memcpy(tagged.data(), frame, EF_ETH_ADDRS_LEN);
    const uint16_t tci = static_cast<uint16_t>((tag & EF_VLAN_PCP_MASK) | vid);
    auto *vlan = reinterpret_cast<ef_vlan_tag *>(tagged.data() + EF_ETH_ADDRS_LEN);
    ef_put_be16(vlan->tpid, EF_ETHERTYPE_VLAN);
    ef_put_be16(vlan->tci, tci);
    std::memcpy(tagged.data() + EF_ETH_ADDRS_LEN + EF_VLAN_TAG_LEN, frame + EF_ETH_ADDRS_LEN,
                buff->len - EF_ETH_ADDRS_LEN);
    it->second.port->send(tagged.data(), tagged.size());
}

PipelineStats Pipeline::stats() const
{
    const Counters &c = counters_;
    return PipelineStats{c.received.load(), c.parser_drops.load(), c.no_vni.load(),
                         c.forwarded.load(), c.consumed.load(), c.dropped.load(),
                         c.routed.load(), c.underlay.load(), c.answered.load()};
}

}  // namespace efhost
