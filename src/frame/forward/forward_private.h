// Private declarations of the bridge forwarding decision, the unicast branch
// and flooding: buffer helpers (instance bits, frame copy), the ARP and ND
// tests behind suppression and the result names.
#pragma once

#include <array>
#include <cstdint>

#include "core/core_private.h"
#include "efmp.h"
#include "frame/trace/packet_trace.h"
#include "lsm.h"
#include "vxlan_ef_tables.h"

namespace vxlan_ef::fwd {

// Interface type that, like the 4094 slot's interface, stands for the device
// itself rather than a port of a VLAN.
constexpr uint32_t kIntfTypeLocal = 34;

// Buffer flag bits cleared on a copy.
constexpr uint64_t kCopyClearFlags = 0x3;

// Engine and module codes of a sub-interface copy.
constexpr uint8_t kSubifEngine = 1;
constexpr uint8_t kSubifModule = 33;

inline constexpr std::array<const char *, 6> kResultNames{
    "EF_Normal", "EF_Drop", "EF_Reserve", "EF_Lost", "EF_Broadcast", "EF_Resv_Bcast"};

inline const char *result_name(int code)
{
    return code >= 0 && static_cast<std::size_t>(code) < kResultNames.size() ? kResultNames[code]
                                                                              : "UNKNOWN";
}

// Takes the parser's instance bits out of the tag word.
inline void clear_tag_vsd(efmp_buff_t *buff)
{
    efmp_buff_set_tag_word(buff, efmp_buff_tag_word(buff) & ~EFMP_TAG_VSD_MASK);
}

inline uint8_t *frame_start(const efmp_buff_t *buff) { return buff->head + buff->data_off; }

// A frame arriving on the device itself: the 4094 slot's interface or an
// interface of type 34.
inline bool from_device(const efmp_buff_t *buff, const vxlan_ef_vsd_t *vsd)
{
    const lsm_intfcb_t *src = buff->src_intf;
    return src != nullptr && (src == vsd->intf_slot_4094 || src->type == kIntfTypeLocal);
}

inline bool is_tunnel(const lsm_intfcb_t *intf)
{
    return intf != nullptr && intf->type == LSM_IF_TYPE_OVERLAY_TUNNEL;
}

inline bool is_local(const efmp_buff_t *buff) { return (buff->flags & EFMP_F_LOCAL) != 0; }
inline bool is_arp(const efmp_buff_t *buff) { return buff->pkt_type == EFMP_PKT_ARP; }

// An IPv6 neighbour-discovery message: ICMPv6 (next header 58 right after the
// fixed header) of type 133 (router solicitation) to 137 (redirect).
bool is_nd(const efmp_buff_t *buff);

// The suppression switches of a frame's VNI: the global one or the entry's.
inline bool arp_suppressed(const efmp_buff_t *buff, const vxlan_ef_vsd_t *vsd,
                           const vxlan_ef_entry_t *entry)
{
    return !is_local(buff) && is_arp(buff) && (vsd->arp_suppress || entry->arp_suppress);
}

inline bool nd_suppressed(const efmp_buff_t *buff, const vxlan_ef_vsd_t *vsd,
                          const vxlan_ef_entry_t *entry)
{
    return !is_local(buff) && is_nd(buff) && (vsd->nd_suppress || entry->nd_suppress);
}

// The L2 mapping partner of an entry: the VNI it maps to, or the VNI mapped
// to it; 0 for none.
inline uint32_t mapped_vni(const vxlan_ef_entry_t *entry)
{
    if (entry == nullptr)
        return 0;
    return entry->map_vni_b != 0 ? entry->map_vni_b : entry->map_vni_a;
}

// A new buffer holding the frame and metadata of src (flags without their two
// lowest bits, offsets re-based, no node list); nullptr when no buffer is
// left. The caller owns it.
efmp_buff_t *copy_frame(const efmp_buff_t *src);

// An interface's name for a message, read through lsm_if_get_name.
struct IntfName {
    char text[LSM_IF_NAME_LEN];
};
IntfName name_of(const lsm_intfcb_t *intf);

// ---- forward.cpp ----
// The management entry's flood of a frame after its suppression tests, with
// the forwarding decision's messages: 1 when it may not be flooded (no entry,
// ARP or ND suppressed), else vxlan_ef_vni_bcast's result. Caller holds the
// read lock.
int flood_in_vni(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd, uint32_t vni);

}  // namespace vxlan_ef::fwd

// A trace line of a buffer that may be gone: traced says whether its lines
// are printed (decided while the buffer still existed).
#define VXLAN_EF_TRACE_DECIDED(traced, func, fmt, ...)                                  \
    do {                                                                               \
        if ((traced) && g_vxlan_vsd != nullptr)                                        \
            printk_syslog_ext(7, "UNKNOW_MODULE", "DEBUG", 2, fmt, g_vxlan_vsd->id,     \
                              func, ##__VA_ARGS__);                                    \
    } while (0)
