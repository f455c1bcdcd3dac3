// Private declarations of VXLAN encapsulation: the tunnel address record
// built per packet from the VTEP adjacency, and the header builders shared
// by the encapsulation path and flooding.
#pragma once

#include <cstdint>

#include "core/core_private.h"
#include "ef_wire.h"
#include "efmp.h"
#include "frame/counters/flow_count.h"
#include "vxlan_ef_tables.h"

// Where one packet goes: copied from the VTEP adjacency under the read lock,
// so that the headers are written without holding it.
typedef struct vxlan_ef_tnl_addr {
    uint32_t vni;       // host order
    uint8_t family;     // 2 IPv4, 10 IPv6; anything else is not encapsulated
    uint8_t sip[16];    // local VTEP (IPv4 in the first 4 bytes)
    uint8_t dip[16];    // remote VTEP (IPv4 in the first 4 bytes)
    uint32_t ifx;       // the adjacency's tunnel interface, for the L3 hand-off
} vxlan_ef_tnl_addr_t;

// Checks the size, fragments when needed and builds the outer headers on each
// piece. 0: first/last/count describe the chain; 1: failed, buff intact;
// 3: failed after fragmenting, the whole chain has been freed.
VXLAN_EF_API int vxlan_ef_encap_header(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd,
                                       const vxlan_ef_tnl_addr_t *tnl, uint32_t mode,
                                       efmp_buff_t **first, efmp_buff_t **last,
                                       uint32_t *count);

// Pushes the VXLAN, UDP and IP headers on one buffer and rewrites its
// metadata. true on success; false when the headroom runs out.
VXLAN_EF_API bool vxlan_ef_encap_one_frag(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd,
                                          const vxlan_ef_tnl_addr_t *tnl, uint32_t mode);

namespace vxlan_ef {

// Payload limits of a tunnel without its own MTU, and what a tunnel MTU loses
// to the outer headers.
constexpr uint16_t kOverheadV4 = EF_VXLAN_IPV4_OVERHEAD;
constexpr uint16_t kOverheadV6 = EF_VXLAN_IPV6_OVERHEAD;
constexpr uint16_t kDefaultLimitV4 = EF_ETH_MTU - kOverheadV4;
constexpr uint16_t kDefaultLimitV6 = EF_ETH_MTU - kOverheadV6;

// Internet checksums of the outer headers, computed over the bytes in place.
uint16_t udp_checksum_v4(const uint8_t *sip, const uint8_t *dip, const uint8_t *udp,
                         uint32_t len);
uint16_t udp_checksum_v6(const uint8_t *sip, const uint8_t *dip, const uint8_t *udp,
                         uint32_t len);
uint16_t ipv4_header_checksum(const uint8_t *hdr);

// Copies what the packet needs of an adjacency; the caller holds the lock.
void fill_tnl_addr(vxlan_ef_tnl_addr_t *tnl, const vxlan_ef_adj_t *adj, uint32_t vni);

// Builds the headers and hands the chain to the L3 engine, tracing under
// func's name and counting the frame as dir in its VNI and tunnel.
// EF_Drop: buff intact, the caller drops it; EF_Lost: consumed.
int encap_and_hand_off(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd, const vxlan_ef_tnl_addr_t *tnl,
                       uint32_t mode, const char *func, FlowDir dir = FlowDir::Tx);

// A layer-2 sub-interface: an Ethernet-class interface (types 2..10 and 21)
// in sub-interface mode with a parent.
constexpr uint8_t kSubifModeL2 = 5;
constexpr uint32_t kIfTypeEthFirst = 2;
constexpr uint32_t kIfTypeEthLast = 10;
constexpr uint32_t kIfTypeRoutedPort = 21;
inline bool is_l2_subif(const lsm_intfcb_t *intf)
{
    const bool eth = (intf->type >= kIfTypeEthFirst && intf->type <= kIfTypeEthLast) ||
                     intf->type == kIfTypeRoutedPort;
    return eth && intf->subif_mode == kSubifModeL2 && intf->parent_ifx != 0;
}

}  // namespace vxlan_ef
