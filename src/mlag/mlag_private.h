// Private declarations of the MLAG peer-link follower: the app-db numbers the
// module uses and the request that names the MLAG system table.
#pragma once

#include "core/core_private.h"
#include "ef_mom.h"
#include "efmp.h"
#include "p_intf.pb-c.h"

namespace vxlan_ef {

inline constexpr uint32_t kMomModule = EFMP_MODULE_VXLAN;
inline constexpr uint32_t kMomDb = 4;

// The request of the subscription and the scan: the table's descriptor only.
inline tq_mom_req_t peerlink_request()
{
    tq_mom_req_t req{};
    req.descriptor = &p_intf__data_mlag_system__descriptor;
    return req;
}

// peerlink.cpp: the scan started when a subscription is accepted.
void vxlan_ef_mom_peerlink_scan(vxlan_ef_vsd_t *vsd);

}  // namespace vxlan_ef
