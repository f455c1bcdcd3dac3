// The name the module prints for a TLV type, from the shared catalogue, and
// the reset of its send buffers; the framing rules themselves are in
// vxlan_ef_msg_frame.h, shared with vxlanctl.
#include <array>

#include "channel_private.h"

namespace {

// Names by type code, null where a code has none; resolved at compile time so
// that a log line costs one index.
constexpr std::array<const char *, vxlan_ef::tlv::kCodeLimit> kTlvNames = [] {
    std::array<const char *, vxlan_ef::tlv::kCodeLimit> names{};
    for (const vxlan_ef::tlv::Type &t : vxlan_ef::tlv::kTypes)
        if (!t.name.empty())
            names[t.code] = t.name.data();
    return names;
}();

}  // namespace

const char *vxlan_ef_tlv_name(uint32_t type)
{
    if (type >= kTlvNames.size() || kTlvNames[type] == nullptr)
        return "unknown";
    return kTlvNames[type];
}

namespace vxlan_ef {

void send_buf_reset(vxlan_ef_send_buf_t *buf) { frame::msg_reset(buf->data); }

}  // namespace vxlan_ef
