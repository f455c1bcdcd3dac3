// Answers to other forwarding modules about the module's tables: the overlay
// router interface of a VNI, the VNI and VRF of an overlay router interface,
// the kind and VRF of a VXLAN entry and the L3 VNI of a VRF. Each takes the
// read lock only for its own lookup.
#include "encap_private.h"

using vxlan_ef::ReadLock;

namespace {

constexpr uint32_t kNoVrf = 0xFFFFFFFFu;

}  // namespace

lsm_intfcb_t *vxlan_ef_overlayrouter_get(void *, uint32_t vni)
{
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr)
        return nullptr;
    uint32_t router_ifx = 0;
    {
        ReadLock lock(vsd);
        const vxlan_ef_entry_t *manager = vxlan_ef_manage_vxlan_get(vsd, vni);
        if (manager == nullptr) {
            VXLAN_EF_ERR("VXLAN-EF-ERR: [vsd %d %s] vxlan manage entry is not exist, vni: %u\n",
                         vni);
            return nullptr;
        }
        router_ifx = manager->router_ifx;
    }
    // The interface manager is asked without holding the instance lock.
    return lsm_get_intfcb(router_ifx);
}

uint32_t vxlan_ef_vni_get(void *, uint32_t ifx)
{
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr)
        return 0;
    ReadLock lock(vsd);
    const vxlan_ef_intf_t *router = vxlan_ef_intf_get(vsd, ifx, LSM_IF_TYPE_OVERLAY_ROUTER);
    if (router == nullptr) {
        VXLAN_EF_ERR("VXLAN-EF-ERR: [vsd %d %s] vxlan overlayrouter intf is not exist, ifx: %u\n",
                     ifx);
        return 0;
    }
    return router->vni;
}

uint32_t vxlan_ef_mng_or_ifx_get(void *, uint32_t vni)
{
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr)
        return 0;
    ReadLock lock(vsd);
    const vxlan_ef_entry_t *manager = vxlan_ef_manage_vxlan_get(vsd, vni);
    if (manager == nullptr) {
        VXLAN_EF_ERR("VXLAN-EF-ERR: [vsd %d %s] vxlan manage entry is not exist, vni: %u\n", vni);
        return 0;
    }
    return manager->router_ifx;
}

uint32_t vxlan_ef_or_ifx_get(void *, uint32_t vni)
{
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr)
        return 0;
    ReadLock lock(vsd);
    const vxlan_ef_entry_t *entry = vxlan_ef_entry_get(vsd, vni);
    if (entry == nullptr) {
        VXLAN_EF_ERR("VXLAN-EF-ERR: [vsd %d %s] vxlan entry is not exist, vni: %u\n", vni);
        return 0;
    }
    return entry->router_ifx;
}

uint32_t vxlan_ef_entry_type_get(void *, uint32_t vni)
{
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr)
        return 0;
    ReadLock lock(vsd);
    const vxlan_ef_entry_t *entry = vxlan_ef_entry_get(vsd, vni);
    if (entry == nullptr) {
        VXLAN_EF_ERR("VXLAN-EF-ERR: [vsd %d %s] vxlan entry is not exist, vni: %u\n", vni);
        return 0;
    }
    return entry->type;
}

// The only getter whose "not found" is -1: VRF 0 is a real VRF.
uint32_t vxlan_ef_entry_vrfid_get(void *, uint32_t vni)
{
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr)
        return kNoVrf;
    ReadLock lock(vsd);
    const vxlan_ef_entry_t *entry = vxlan_ef_entry_get(vsd, vni);
    if (entry == nullptr) {
        VXLAN_EF_ERR("VXLAN-EF-ERR: [vsd %d %s] vxlan entry is not exist, vni: %u\n", vni);
        return kNoVrf;
    }
    return entry->vrf_id;
}

uint32_t vxlan_ef_or_vrf_get(void *, uint32_t ifx)
{
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr)
        return 0;
    ReadLock lock(vsd);
    const vxlan_ef_intf_t *router = vxlan_ef_intf_get(vsd, ifx, LSM_IF_TYPE_OVERLAY_ROUTER);
    if (router == nullptr) {
        VXLAN_EF_ERR("VXLAN-EF-ERR: [vsd %d %s] vxlan overlayrouter intf is not exist, ifx: %u\n",
                     ifx);
        return 0;
    }
    return router->vrf_id;
}

uint32_t vxlan_ef_vrf_get_l3vni(void *, uint32_t vrf_id)
{
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr)
        return 0;
    ReadLock lock(vsd);
    const vxlan_ef_vrf_t *vrf = vxlan_ef_vrf_get(vsd, static_cast<int32_t>(vrf_id));
    if (vrf == nullptr) {
        VXLAN_EF_ERR("VXLAN-EF-ERR: [vsd %d %s] vxlan vrf is not exist, vrf id: %d\n",
                     static_cast<int>(vrf_id));
        return 0;
    }
    return vrf->l3vni;
}
