// Private declarations of the control channel: message header accessors, the
// TLV walk and append rules, send buffers and the dispatch table.
#pragma once

#include <cstdint>
#include <span>

#include "core/core_private.h"

namespace vxlan_ef {

// TLV type codes the module acts on or sends.
enum TlvType : uint16_t {
    kSyncDataReq = 0,
    kSyncDataBegin = 1,
    kSyncDataOver = 2,
    kEfDbg = 64,
    kEfShow = 65,
    kEfCtrl = 66,
    kEfDataReady = 68,
    kTlvNameCount = 96,
};

// Send modes of vxlan_ef_msg_send.
enum SendMode : int { kSendRealTime = 0, kSendBatch = 1, kSendBatchFlush = 2 };

inline uint16_t msg_len(const uint8_t *msg) { return load_unaligned<uint16_t>(msg + 1); }
inline void set_msg_len(uint8_t *msg, uint16_t len) { store_unaligned(msg + 1, len); }

struct Tlv {
    uint16_t type;
    uint16_t length;
    const uint8_t *value;
};

inline Tlv tlv_at(const uint8_t *area, uint32_t offset)
{
    return Tlv{load_unaligned<uint16_t>(area + offset),
               load_unaligned<uint16_t>(area + offset + 2), area + offset + 4};
}

// Walks a TLV area as the framing check does: true when the TLVs end exactly
// at the area's end and their count equals tlv_num.
bool tlv_area_well_formed(std::span<const uint8_t> area, uint8_t tlv_num);

// True when a TLV of value length len fits the message image msg.
bool tlv_fits(const uint8_t *msg, uint32_t len);
// Appends a TLV; the caller has checked that it fits.
void tlv_append(uint8_t *msg, uint16_t type, uint16_t len, const uint8_t *value);

void send_buf_reset(vxlan_ef_send_buf_t *buf);

}  // namespace vxlan_ef
