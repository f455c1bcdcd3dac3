// VXLAN messages as vxlanctl sends and reads them: a 4-byte header (ver u8,
// len u16 at byte 1, tlv_num u8) and TLVs (type u16, length u16, value) packed
// without padding, all in host byte order. The framing rules are the module's
// (vxlan_ef_msg_frame.h); this adds packing many TLVs and reading a reply.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tlv_writer.h"
#include "vxlan_ef_msg_frame.h"

namespace vxlanctl {

// The limits are the module's own (vxlan_ef_msg_frame.h).
constexpr size_t kMessageHeaderLen = VXLAN_EF_MSG_HDR_LEN;
constexpr size_t kTlvHeaderLen = VXLAN_EF_TLV_HDR_LEN;
constexpr size_t kMaxMessageLen = VXLAN_EF_MSG_MAX_LEN;
constexpr size_t kMaxTlvsPerMessage = VXLAN_EF_MSG_MAX_TLVS;
// The largest value that fits an otherwise empty message.
constexpr size_t kMaxValueLen = kMaxMessageLen - kMessageHeaderLen - kTlvHeaderLen;

using Message = std::vector<uint8_t>;

// Packs TLVs in order into as few messages as the limits allow (8196 bytes,
// 255 TLVs each), a new message starting whenever the next TLV does not fit.
// A TLV whose value exceeds kMaxValueLen fits no message: then nothing is
// returned and error names the TLV.
std::optional<std::vector<Message>> pack_messages(const std::vector<Tlv> &tlvs, std::string &error);

// The TLVs of a received message, walked within its bytes; nothing (with
// error set) when the header or a TLV runs past the end or the count differs.
std::optional<std::vector<Tlv>> unpack_message(const std::vector<uint8_t> &bytes, std::string &error);

}  // namespace vxlanctl
