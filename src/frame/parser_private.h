// Private declarations of the receive parser: the buffer words it reads and
// writes (outer tag word, VNI word), the 802.1Q tag removal shared by the
// local access path and the tunnel parser, and the VXLAN decapsulation step.
#pragma once

#include <cstdint>

#include "core/core_private.h"
#include "efmp.h"
#include "packet_trace.h"
#include "wire_headers.h"

namespace vxlan_ef {

// ---- buffer words (inline) ----

// Bits of the outer tag word read as a big-endian number: the tag control
// word in the low 16 bits, the instance id in the top four.
constexpr uint32_t kTagVidMask = 0x0FFF;
constexpr uint32_t kTagTciMask = 0xFFFF;
constexpr uint32_t kTagVsdShift = 28;
constexpr uint32_t kTagVsdMask = 0xF0000000u;
constexpr uint32_t kTciPriShift = 13;
constexpr uint16_t kVidMax = 4094;
constexpr uint32_t kVniMask = 0xFFFFFF;

inline uint8_t *frame_of(efmp_buff_t *buff) { return buff->head + buff->data_off; }

// Bytes stored from the frame start on, whatever the frame's length says.
inline uint32_t stored_bytes(const efmp_buff_t *buff)
{
    if (buff->head == nullptr || buff->data_off >= buff->size)
        return 0;
    return buff->size - buff->data_off;
}

inline uint32_t tag_word(const efmp_buff_t *buff)
{
    return wire::get_be32(reinterpret_cast<const uint8_t *>(&buff->vlan_tag));
}

inline void set_tag_word(efmp_buff_t *buff, uint32_t word)
{
    wire::put_be32(reinterpret_cast<uint8_t *>(&buff->vlan_tag), word);
}

inline uint16_t tag_vid(const efmp_buff_t *buff)
{
    return static_cast<uint16_t>(tag_word(buff) & kTagVidMask);
}

inline void set_tag_vid(efmp_buff_t *buff, uint16_t vid)
{
    set_tag_word(buff, (tag_word(buff) & ~kTagVidMask) | (vid & kTagVidMask));
}

inline void set_tag_vsd(efmp_buff_t *buff, int32_t vsd_id)
{
    const uint32_t id = static_cast<uint32_t>(vsd_id) << kTagVsdShift;
    set_tag_word(buff, (tag_word(buff) & ~kTagVsdMask) | id);
}

inline uint32_t buff_vni(const efmp_buff_t *buff)
{
    return wire::get_be32(buff->vni_tag) & kVniMask;
}

// The first byte of the VNI word is another's: only the VNI bytes are OR-ed.
inline void or_buff_vni(efmp_buff_t *buff, uint32_t vni)
{
    buff->vni_tag[1] |= static_cast<uint8_t>(vni >> 16);
    buff->vni_tag[2] |= static_cast<uint8_t>(vni >> 8);
    buff->vni_tag[3] |= static_cast<uint8_t>(vni);
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
