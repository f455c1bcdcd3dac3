// Private declarations of the receive parser: the instance bits it keeps in
// the outer tag word, the 802.1Q tag removal shared by the local access path
// and the tunnel parser, and the VXLAN decapsulation step.
#pragma once

#include <cstdint>

#include "core/core_private.h"
#include "efmp.h"
#include "frame/trace/packet_trace.h"

namespace vxlan_ef {

// ---- buffer helpers (inline) ----

// The top of a VLAN id's range.
constexpr uint16_t kVidMax = 4094;

inline uint8_t *frame_of(efmp_buff_t *buff) { return buff->head + buff->data_off; }

// Bytes stored from the frame start on, whatever the frame's length says.
inline uint32_t stored_bytes(const efmp_buff_t *buff)
{
    if (buff->head == nullptr || buff->data_off >= buff->size)
        return 0;
    return buff->size - buff->data_off;
}

// The instance that parsed the frame rides in the top of the outer tag word.
inline void set_tag_vsd(efmp_buff_t *buff, int32_t vsd_id)
{
    const uint32_t id = static_cast<uint32_t>(vsd_id) << EFMP_TAG_VSD_SHIFT;
    efmp_buff_set_tag_word(buff, (efmp_buff_tag_word(buff) & ~EFMP_TAG_VSD_MASK) | id);
}

// ---- l2header_parse.cpp ----

// Tag control words of the tags removed from a frame (0 when absent).
struct RemovedTags {
    uint16_t outer_tci;
    uint16_t inner_tci;
};

// Removes up to two 802.1Q tags: the outer one into the outer tag word, the
// first byte of the inner one into the inner tag byte. Then sets the layer-2
// header length, the layer-3 start and the receiving interface's index.
RemovedTags remove_tags(efmp_buff_t *buff);

// The packet type of the frame at the buffer's frame start; 0 also sets the
// unclassified mark.
void classify(efmp_buff_t *buff);

// ---- vxlan_decap.cpp ----

enum class DecapResult {
    Done,      // EF_Normal: decapsulated, or left as ordinary IP
    Drop,      // EF_Drop: abnormal inner tag
    NotVxlan,  // not VXLAN for this module: take the local access path
};

// Header check and decapsulation of a frame received on a parser interface.
DecapResult vxlan_decap(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd);

// ---- capabilities ----

// True in software forwarding mode, where the parser checks VLAN membership
// and learns MAC addresses into the bridge.
inline bool soft_forwarding() { return vxlan_ef::load_relaxed(g_vxlan_ef_master.fwdmode_soft) != 0; }

}  // namespace vxlan_ef
