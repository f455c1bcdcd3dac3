/* Framing of the VXLAN message, written once for both ends: the module's
 * receiver and send buffers (src/channel) and vxlanctl's packing and reading
 * (tools/vxlanctl). A message is a 4-byte header (ver u8, len u16 at byte 1,
 * tlv_num u8) followed by TLVs (type u16, length u16, value) packed without
 * padding, all in host byte order. The limits are plain macros so that the
 * public header can size its send buffers with them; the helpers are C++ and
 * depend on the standard library only. */
#ifndef VXLAN_EF_MSG_FRAME_H
#define VXLAN_EF_MSG_FRAME_H

#define VXLAN_EF_MSG_VER 1u
#define VXLAN_EF_MSG_HDR_LEN 4u
#define VXLAN_EF_TLV_HDR_LEN 4u
#define VXLAN_EF_MSG_MAX_LEN 8196u
#define VXLAN_EF_MSG_MAX_TLVS 255u

#ifdef __cplusplus

#include <cstdint>
#include <cstring>

namespace vxlan_ef::frame {

inline uint16_t load_u16(const uint8_t *p)
{
    uint16_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

inline void store_u16(uint8_t *p, uint16_t v) { std::memcpy(p, &v, sizeof v); }

// The header's total length, header included; unaligned at byte 1.
inline uint16_t msg_len(const uint8_t *msg) { return load_u16(msg + 1); }
inline void set_msg_len(uint8_t *msg, uint16_t len) { store_u16(msg + 1, len); }

// An empty message: version 1, len 4, no TLVs.
inline void msg_reset(uint8_t *msg)
{
    msg[0] = VXLAN_EF_MSG_VER;
    set_msg_len(msg, VXLAN_EF_MSG_HDR_LEN);
    msg[3] = 0;
}

struct Tlv {
    uint16_t type;
    uint16_t length;
    const uint8_t *value;
};

// The TLV at offset of a TLV area; the caller has checked that its header
// lies inside the area.
inline Tlv tlv_at(const uint8_t *area, uint32_t offset)
{
    return Tlv{load_u16(area + offset), load_u16(area + offset + 2), area + offset + VXLAN_EF_TLV_HDR_LEN};
}

// Walks a TLV area of size bytes as the receiver's framing check does: true
// when the TLVs end exactly at the area's end and their count equals tlv_num.
inline bool tlv_area_well_formed(const uint8_t *area, uint32_t size, uint8_t tlv_num)
{
    uint16_t offset = 0;  // the running sum is kept in 16 bits, as the peer does
    uint32_t count = 0;
    while (static_cast<uint32_t>(offset) + VXLAN_EF_TLV_HDR_LEN <= size) {
        const uint16_t len = load_u16(area + offset + 2);
        offset = static_cast<uint16_t>(offset + len + VXLAN_EF_TLV_HDR_LEN);
        // A length that wraps the 16-bit offset back onto itself would walk
        // forever; past 255 TLVs the count can no longer match tlv_num anyway.
        if (++count > VXLAN_EF_MSG_MAX_TLVS)
            return false;
    }
    return offset == size && count == tlv_num;
}

// Steps through the TLVs of a TLV area in order as the receiver does (offset
// plus length plus 4, kept in 16 bits) until the offset reaches or passes the
// area's size. Only an area that tlv_area_well_formed accepted is sure to keep
// every TLV inside it.
struct TlvCursor {
    const uint8_t *area;
    uint32_t size;
    uint16_t offset = 0;

    bool done() const { return offset >= size; }
    Tlv take()
    {
        const Tlv tlv = tlv_at(area, offset);
        offset = static_cast<uint16_t>(offset + tlv.length + VXLAN_EF_TLV_HDR_LEN);
        return tlv;
    }
};

// True when a TLV of value length len still fits the message image msg.
inline bool tlv_fits(const uint8_t *msg, uint32_t len)
{
    return len + VXLAN_EF_TLV_HDR_LEN <= VXLAN_EF_MSG_MAX_LEN - msg_len(msg) && msg[3] < VXLAN_EF_MSG_MAX_TLVS;
}

// Appends a TLV at the message's end; the caller has checked that it fits. A
// null value or a length of 0 copies nothing.
inline void tlv_append(uint8_t *msg, uint16_t type, uint16_t len, const uint8_t *value)
{
    const uint16_t at = msg_len(msg);
    store_u16(msg + at, type);
    store_u16(msg + at + 2, len);
    if (value != nullptr && len != 0)
        std::memcpy(msg + at + VXLAN_EF_TLV_HDR_LEN, value, len);
    set_msg_len(msg, static_cast<uint16_t>(at + len + VXLAN_EF_TLV_HDR_LEN));
    msg[3]++;
}

}  // namespace vxlan_ef::frame

#endif /* __cplusplus */

#endif /* VXLAN_EF_MSG_FRAME_H */
