// Answers to other forwarding modules about the module's tables: the overlay
// router interface of a VNI, the VNI and VRF of an overlay router interface,
// the kind and VRF of a VXLAN entry and the L3 VNI of a VRF. Each takes the
// read lock only for its own lookup.
#include <optional>

#include "frame/transmit/transmit_private.h"
#include "vxlan_ef_encap.h"
#include "vxlan_ef_tables.h"

namespace {

constexpr uint32_t kNoVrf = 0xFFFFFFFFu;

constexpr const char *kNoManageEntry =
    "VXLAN-EF-ERR: [vsd %d %s] vxlan manage entry is not exist, vni: %u\n";
constexpr const char *kNoEntry = "VXLAN-EF-ERR: [vsd %d %s] vxlan entry is not exist, vni: %u\n";
constexpr const char *kNoRouter =
    "VXLAN-EF-ERR: [vsd %d %s] vxlan overlayrouter intf is not exist, ifx: %u\n";
constexpr const char *kNoVrfRecord = "VXLAN-EF-ERR: [vsd %d %s] vxlan vrf is not exist, vrf id: %d\n";

// Looks a record up by key under the read lock and copies one value out of
// it. Without an instance there is no answer and no message; a missing record
// logs the getter's own message (error flag) with the key.
template <typename Lookup, typename Read>
std::optional<uint32_t> lookup_value(const char *func, const char *missing, uint32_t key,
                                     Lookup lookup, Read read)
{
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr)
        return std::nullopt;
    vxlan_ef::ReadLock lock(vsd);
    const auto *record = lookup(vsd, key);
    if (record == nullptr) {
        VXLAN_EF_LOG_AS(VXLAN_EF_DBG_ERR, vsd_log_->id, func, missing, key);
        return std::nullopt;
    }
    return read(*record);
}

const vxlan_ef_entry_t *manage_entry(vxlan_ef_vsd_t *vsd, uint32_t vni)
{
    return vxlan_ef_manage_vxlan_get(vsd, vni);
}

const vxlan_ef_entry_t *entry(vxlan_ef_vsd_t *vsd, uint32_t vni)
{
    return vxlan_ef_entry_get(vsd, vni);
}

const vxlan_ef_intf_t *router(vxlan_ef_vsd_t *vsd, uint32_t ifx)
{
    return vxlan_ef_intf_get(vsd, ifx, LSM_IF_TYPE_OVERLAY_ROUTER);
}

const vxlan_ef_vrf_t *vrf(vxlan_ef_vsd_t *vsd, uint32_t vrf_id)
{
    return vxlan_ef_vrf_get(vsd, static_cast<int32_t>(vrf_id));
}

uint32_t router_ifx_of(const vxlan_ef_entry_t &e) { return e.router_ifx; }

}  // namespace

lsm_intfcb_t *vxlan_ef_overlayrouter_get(void *, uint32_t vni)
{
    const auto ifx = lookup_value(__func__, kNoManageEntry, vni, manage_entry, router_ifx_of);
    // The interface manager is asked without holding the instance lock.
    return ifx ? lsm_get_intfcb(*ifx) : nullptr;
}

uint32_t vxlan_ef_vni_get(void *, uint32_t ifx)
{
    return lookup_value(__func__, kNoRouter, ifx, router,
                        [](const vxlan_ef_intf_t &r) { return r.vni; })
        .value_or(0);
}

uint32_t vxlan_ef_mng_or_ifx_get(void *, uint32_t vni)
{
    return lookup_value(__func__, kNoManageEntry, vni, manage_entry, router_ifx_of).value_or(0);
}

uint32_t vxlan_ef_or_ifx_get(void *, uint32_t vni)
{
    return lookup_value(__func__, kNoEntry, vni, entry, router_ifx_of).value_or(0);
}

uint32_t vxlan_ef_entry_type_get(void *, uint32_t vni)
{
    return lookup_value(__func__, kNoEntry, vni, entry,
                        [](const vxlan_ef_entry_t &e) { return e.type; })
        .value_or(0);
}

// The only getter whose "not found" is -1: VRF 0 is a real VRF.
uint32_t vxlan_ef_entry_vrfid_get(void *, uint32_t vni)
{
    return lookup_value(__func__, kNoEntry, vni, entry,
                        [](const vxlan_ef_entry_t &e) { return e.vrf_id; })
        .value_or(kNoVrf);
}

uint32_t vxlan_ef_or_vrf_get(void *, uint32_t ifx)
{
    return lookup_value(__func__, kNoRouter, ifx, router,
                        [](const vxlan_ef_intf_t &r) { return r.vrf_id; })
        .value_or(0);
}

uint32_t vxlan_ef_vrf_get_l3vni(void *, uint32_t vrf_id)
{
    return lookup_value(__func__, kNoVrfRecord, vrf_id, vrf,
                        [](const vxlan_ef_vrf_t &v) { return v.l3vni; })
        .value_or(0);
}
