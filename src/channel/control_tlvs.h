// Handlers of the TLVs that the dispatcher acts on itself: synchronisation
// markers, debug settings, show and control requests.
#pragma once

#include <cstdint>

namespace vxlan_ef {

int sync_data_req(uint32_t vsd_id, const uint8_t *value);
int sync_data_begin(uint32_t vsd_id, const uint8_t *value);
int sync_data_over(uint32_t vsd_id, const uint8_t *value);
int ef_dbg(uint32_t vsd_id, const uint8_t *value);
int vxlan_ef_show_deal(uint32_t vsd_id, const uint8_t *value);
int vxlan_ef_ctrl_deal(uint32_t vsd_id, const uint8_t *value);

}  // namespace vxlan_ef
