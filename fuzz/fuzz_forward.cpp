// Forwarding, flooding and encapsulation target: arbitrary frames with
// arbitrary buffer flags, VNI words, receiving and destination interfaces
// and tunnel MTUs, through the platform pipeline (receive parsers, the
// module's forwarding service, the destination's encapsulation hook, the
// broadcast engine and its per-node callback) or straight into one of the
// module's services. Every outer packet the module hands to the L3 engine is
// checked, and every buffer and broadcast node must be back when the input
// ends.
//
// Input (18 bytes, then the frame):
//   byte 0      bit 0 software forwarding, bit 1 L2 VNI mapping, bit 2
//               outside-centre capability, bit 3 bridge services withdrawn,
//               bit 4 forward and encap tracing, bits 5-7 the way in:
//               0, 6, 7 the whole pipeline; 1 the forwarding service, then
//               delivery of what it leaves; 2 delivery through the
//               destination's hook; 3 vxlan_ef_encap_frame; 4 router-MAC
//               forwarding; 5 the query services, then the whole pipeline
//   bytes 1-8   buffer flags (little-endian)
//   bytes 9-12  VNI word
//   byte 13     receiving interface (index into the segment's interfaces)
//   byte 14     destination interface (0 none, else index + 1)
//   bytes 15-16 MTU (little-endian): the underlay's, or with bit 7 of byte
//               17 the buffer's tunnel MTU itself
//   byte 17     bits 0-2 encapsulation mode, bit 3 next hop from the frame's
//               first bytes instead of a configured VTEP (bit 6: IPv6),
//               bit 4 router-MAC packet without its Ethernet header, bit 7
//               see above
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "ef_wire.h"
#include "efrt_pipeline.h"
#include "efrt_services.h"
#include "module_harness.h"
#include "vxlan_ef.h"
#include "vxlan_ef_encap.h"
#include "vxlan_ef_tables.h"

namespace {

using namespace fuzz::seg;

constexpr size_t kHeader = 18;

uint64_t le64(const uint8_t *p)
{
    uint64_t v = 0;
    for (int i = 7; i >= 0; --i)
        v = v << 8 | p[i];
    return v;
}

vxlan_ef_ip_addr_t next_hop(const uint8_t *data, size_t size, bool from_frame)
{
    vxlan_ef_ip_addr_t nh{};
    if (from_frame) {
        nh.family = (data[kHeader - 1] & 0x40) ? VXLAN_EF_AF_INET6 : VXLAN_EF_AF_INET;
        std::memcpy(nh.addr, data + kHeader, std::min<size_t>(16, size - kHeader));
        return nh;
    }
    nh.family = VXLAN_EF_AF_INET;
    const uint8_t t1[4] = {10, 0, 0, 1};
    std::memcpy(nh.addr, t1, sizeof t1);
    return nh;
}

void ask_query_services(uint32_t vni, uint32_t ifx)
{
    void *ctx = nullptr;
    (void)vxlan_ef_overlayrouter_get(ctx, vni);
    (void)vxlan_ef_vni_get(ctx, ifx);
    (void)vxlan_ef_mng_or_ifx_get(ctx, vni);
    (void)vxlan_ef_or_ifx_get(ctx, vni);
    (void)vxlan_ef_entry_type_get(ctx, vni);
    (void)vxlan_ef_entry_vrfid_get(ctx, vni);
    (void)vxlan_ef_or_vrf_get(ctx, ifx);
    (void)vxlan_ef_vrf_get_l3vni(ctx, vni);
    (void)vxlan_ef_manage_vni_get(ctx, vni);
    (void)vxlan_ef_or_no_icmp_service();
}

// A buffer the caller still owns after a service answered: delivered on
// when the answer lets it go on, freed otherwise.
void settle(efmp_buff_t *b, int answer)
{
    if (answer == EF_Lost)
        return;
    if (answer == EF_Normal && efrt::pipeline_deliver(b) == efrt::PipeOutcome::Consumed)
        return;
    efmp_buff_free_sw_user(EFMP_REASON_SW_USER, b);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < kHeader)
        return 0;
    const uint8_t options = data[0];
    const uint8_t extra = data[17];
    fuzz::StartOptions start;
    start.soft = (options & 0x01) != 0;
    start.l2vni_mapping = (options & 0x02) != 0;
    start.outside_center = (options & 0x04) != 0;
    start.bridge_services = (options & 0x08) == 0;
    fuzz::start_segment(start);
    if (options & 0x10) {
        g_vxlan_vsd->debug_mask = VXLAN_EF_DBG_FORWARD | VXLAN_EF_DBG_ENCAP | VXLAN_EF_DBG_PARSER;
        g_vxlan_vsd->trace_budget = 8;
    }

    const std::vector<uint32_t> &interfaces = fuzz::segment_interfaces();
    const uint32_t src = interfaces[data[13] % interfaces.size()];
    const uint32_t dst_choice = data[14] % (interfaces.size() + 1);
    const uint16_t mtu = static_cast<uint16_t>(data[15] | data[16] << 8);
    if ((extra & 0x80) == 0)
        efrt::pipeline_set_underlay_mtu(mtu);

    efmp_buff_t *b = efrt::pipeline_frame(src, data + kHeader, size - kHeader);
    if (b == nullptr) {
        fuzz::stop();
        return 0;
    }
    b->flags = le64(data + 1);
    std::memcpy(b->vni_tag, data + 9, 4);
    b->dst_intf = dst_choice == 0 ? nullptr : fuzz::intf(interfaces[dst_choice - 1]);
    if (extra & 0x80)
        b->vxlan_mtu = mtu;

    switch (options >> 5) {
    case 1: {
        auto forward = reinterpret_cast<int (*)(efmp_buff_t *)>(
            efmp_get_service(EFMP_MODULE_VXLAN, EFMP_VXLAN_SERV_FORWARD));
        if (forward == nullptr)
            fuzz::fail("the forwarding service is not published");
        settle(b, forward(b));
        break;
    }
    case 2:
        if (efrt::pipeline_deliver(b) != efrt::PipeOutcome::Consumed)
            efmp_buff_free_sw_user(EFMP_REASON_SW_USER, b);
        break;
    case 3: {
        const uint32_t r = vxlan_ef_encap_frame(b, extra & 0x07);
        if (r != EF_Lost)
            efmp_buff_free_sw_user(EFMP_REASON_SW_USER, b);
        break;
    }
    case 4: {
        if (extra & 0x10) {
            // A routed packet arrives without its link header.
            b->data_off = static_cast<uint16_t>(b->data_off + EF_ETH_HLEN);
            b->len -= EF_ETH_HLEN;
            b->l2_len = 0;
            b->l3_off = b->data_off;
        }
        const vxlan_ef_ip_addr_t nh = next_hop(data, size, (extra & 0x08) != 0);
        const uint8_t router_mac[6] = {0x02, 0x00, 0x5E, 0x00, 0x01, 0x02};
        lsm_intfcb_t *router = b->dst_intf != nullptr ? b->dst_intf : fuzz::intf(kRouter);
        const int r = vxlan_ef_router_mac_forward(b, router, &nh, router_mac);
        if (r != EF_Lost)
            efmp_buff_free_sw_user(EFMP_REASON_SW_USER, b);
        break;
    }
    case 5: {
        uint32_t vni = 0, ifx = 0;
        std::memcpy(&vni, data + 9, 4);
        std::memcpy(&ifx, data + 1, 4);
        ask_query_services(vni, ifx);
        ask_query_services(vni & 0xFFFFFF, src);
        efrt::pipeline_run(b);
        break;
    }
    default:
        efrt::pipeline_run(b);
        break;
    }
    fuzz::drain_l3_queue();
    fuzz::check_tables("after forwarding a frame");
    fuzz::stop();
    return 0;
}
