// The dispatch table: which handler acts on each TLV type.
#pragma once

#include <cstdint>

namespace vxlan_ef {

using TlvHandler = int (*)(uint32_t vsd_id, const uint8_t *value);

// The handler of a TLV type, or nullptr for a type the module does not act on.
TlvHandler tlv_handler(uint16_t type);

}  // namespace vxlan_ef
