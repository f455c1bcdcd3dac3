// Private declarations of the control channel: the type codes and message
// framing it takes from the shared catalogue and framing headers, send modes
// and send buffers.
#pragma once

#include <cstdint>

#include "core/core_private.h"
#include "vxlan_ef_msg_frame.h"
#include "vxlan_ef_tlv_catalogue.h"

namespace vxlan_ef {

// TLV type codes by name (kSyncDataReq, kEfDataReady, ...), from the catalogue.
using enum tlv::Code;

// Send modes of vxlan_ef_msg_send.
enum SendMode : int { kSendRealTime = 0, kSendBatch = 1, kSendBatchFlush = 2 };

// The message framing shared with vxlanctl.
using frame::msg_len;
using frame::set_msg_len;
using frame::Tlv;
using frame::tlv_append;
using frame::tlv_area_well_formed;
using frame::tlv_at;
using frame::TlvCursor;
using frame::tlv_fits;

void send_buf_reset(vxlan_ef_send_buf_t *buf);

}  // namespace vxlan_ef
