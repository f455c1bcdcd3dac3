// The encapsulation hooks of the pipeline: the entry points the platform
// calls for frames leaving through an overlay tunnel or a layer-2
// sub-interface, and their per-interface registration.
#include "frame/transmit/transmit_private.h"
#include "vxlan_ef_encap.h"

namespace {

constexpr uint32_t kEncapValue = 1;

// The hook an interface takes, or nullptr for an interface without one.
efmp_encap_fn hook_of(const lsm_intfcb_t *intf)
{
    if (intf->type == LSM_IF_TYPE_OVERLAY_TUNNEL)
        return vxlan_ef_encap_driver;
    if (vxlan_ef::is_l2_subif(intf))
        return vxlan_ef_subif_encap_driver;
    return nullptr;
}

}  // namespace

int vxlan_ef_encap_service(efmp_buff_t *buff)
{
    return static_cast<int>(vxlan_ef_encap_frame(buff, VXLAN_EF_ENCAP_MODE_SERVICE));
}

int vxlan_ef_encap_driver(efmp_buff_t *buff, lsm_intfcb_t *)
{
    return static_cast<int>(vxlan_ef_encap_frame(buff, VXLAN_EF_ENCAP_MODE_TUNNEL));
}

int vxlan_ef_subif_encap_driver(efmp_buff_t *buff, lsm_intfcb_t *)
{
    return static_cast<int>(vxlan_ef_subif_encap_frame(buff));
}

int vxlan_ef_reg_intf_encap(lsm_intfcb_t *intf)
{
    if (intf == nullptr)
        return -1;
    const efmp_encap_fn hook = hook_of(intf);
    if (hook == nullptr)
        return 0;
    efmp_encap_t reg{hook, intf, kEncapValue};
    if (efmp_reg_encap(&reg) >= 0)
        return 0;
    if (hook == vxlan_ef_encap_driver)
        VXLAN_EF_LOG_AS(VXLAN_EF_DBG_ERR, 0, __func__,
                        "VXLAN-EF-ERR: [vsd %d %s] efmp reg ot-encap error!\n");
    else
        VXLAN_EF_LOG_AS(VXLAN_EF_DBG_ERR, 0, __func__,
                        "VXLAN-EF-ERR: [vsd %d %s] efmp reg l2-subif-encap error!\n");
    return -1;
}

int vxlan_ef_dereg_intf_encap(lsm_intfcb_t *intf)
{
    if (intf == nullptr)
        return -1;
    const efmp_encap_fn hook = hook_of(intf);
    if (hook == nullptr)
        return 0;
    const bool tunnel = hook == vxlan_ef_encap_driver;
    if (tunnel)
        VXLAN_EF_EVENT("VXLAN-EF-EVENT: [vsd %d %s] efmp dereg encap for %s\n", intf->name);
    efmp_encap_t reg{hook, intf, kEncapValue};
    if (efmp_dereg_encap(&reg) >= 0)
        return 0;
    if (tunnel)
        VXLAN_EF_ERR("VXLAN-EF-ERR: [vsd %d %s] efmp dereg encap error!\n");
    else
        VXLAN_EF_ERR("VXLAN-EF-ERR: [vsd %d %s] efmp dereg l2-subif-encap error!\n");
    return -1;
}
