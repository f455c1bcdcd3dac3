// The parser of overlay tunnel interfaces: the layer-2 header parse, then the
// admission of the frame by its VNI and the tunnel's VTEP adjacency, with the
// layer-2 protocol frames that pass without one.
#include <algorithm>
#include <array>
#include <cstring>

#include "ef_wire.h"
#include "efmp.h"
#include "frame/counters/drop_count.h"
#include "frame/receive/receive_private.h"
#include "frame/trace/packet_dump.h"
#include "vxlan_ef_parser.h"
#include "vxlan_ef_tables.h"

namespace vxlan_ef {

namespace {

// Protocol frames that pass a tunnel without an adjacency of their VNI.
constexpr std::array<uint8_t, 8> kBypassTypes{EFMP_PKT_BPDU,          EFMP_PKT_LLDP, EFMP_PKT_CDP,
                                               EFMP_PKT_CFM,           EFMP_PKT_SLOW_PROTOCOLS,
                                               EFMP_PKT_GVRP,          EFMP_PKT_PROTOCOL_44,
                                               EFMP_PKT_RAPS};
// This type passes too, except towards this address.
constexpr uint8_t kBypassUnlessDst = EFMP_PKT_TYPE_0788;
constexpr std::array<uint8_t, EF_ETH_ALEN> kNoBypassDst{0x01, 0x5C, 0xE2, 0x00, 0x00, 0x08};

bool bypasses_check(efmp_buff_t *buff)
{
    if (std::find(kBypassTypes.begin(), kBypassTypes.end(), buff->pkt_type) != kBypassTypes.end())
        return true;
    if (buff->pkt_type != kBypassUnlessDst)
        return false;
    return buff->len < kNoBypassDst.size() ||
           std::memcmp(frame_of(buff), kNoBypassDst.data(), kNoBypassDst.size()) != 0;
}

enum class Admission { Known, UnknownVni, NoAdjacency };

// Whether the receiving tunnel carries the entry of vni.
Admission admission(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd, uint32_t vni)
{
    ReadLock lock(vsd);
    vxlan_ef_entry_t *entry = vxlan_ef_entry_get(vsd, vni);
    if (entry == nullptr)
        return Admission::UnknownVni;
    if (vxlan_ef_adj_get(vsd, nullptr, buff->src_intf->ifindex, entry) == nullptr)
        return Admission::NoAdjacency;
    return Admission::Known;
}

}  // namespace

}  // namespace vxlan_ef

int vxlan_ef_parser_tunnel_service(efmp_buff_t *buff)
{
    using namespace vxlan_ef;
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (buff == nullptr || buff->src_intf == nullptr || vsd == nullptr)
        return EF_Normal;
    if (load_relaxed(vsd->entry_count) == 0) {
        VXLAN_EF_TRACE(buff, TraceGate::Parser,
                       "VXLAN-EF-PARSER: [vsd %d %s] pkt: %p no vxlan create in this vsd\n",
                       static_cast<void *>(buff));
        return EF_Normal;
    }
    const uint32_t vni = efmp_buff_vni(buff);
    if (vni != 0) {
        switch (admission(buff, vsd, vni)) {
        case Admission::UnknownVni:
            count_drop(Drop::UnknownVni);
            return EF_Drop;
        case Admission::NoAdjacency:
            if (!bypasses_check(buff)) {
                count_drop(Drop::TunnelWithoutVni);
                return EF_Drop;
            }
            VXLAN_EF_TRACE(buff, TraceGate::Parser,
                           "VXLAN-EF-PARSER: [vsd %d %s] pkt: %p proto-pkt bypass vxlan-check.\n",
                           static_cast<void *>(buff));
            return EF_Normal;
        case Admission::Known:
            break;
        }
    }
    if (trace_admit(buff, TraceGate::Parser))
        vxlan_ef_pkt_dump(buff, "patch-parser(ot)");
    return EF_Normal;
}

int vxlan_ef_tunnel_parser(efmp_buff_t *buff, uint32_t *result)
{
    if (result != nullptr)
        *result = 1;
    if (buff == nullptr)
        return vxlan_ef_parser_tunnel_service(buff);
    efmp_buff_set_tag_vid(buff, 0);
    if (buff->src_intf != nullptr && g_vxlan_vsd != nullptr)
        vxlan_ef_pkt_l2header_parse(buff);
    return vxlan_ef_parser_tunnel_service(buff);
}

int vxlan_ef_reg_tunnel_efmp_parser(efmp_buff_t *buff, uint32_t *result)
{
    return vxlan_ef_tunnel_parser(buff, result);
}
