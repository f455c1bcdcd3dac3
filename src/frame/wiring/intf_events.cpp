// Interface creation and destruction events from the interface manager: the
// packet plane's hooks follow them, and so do the two type-32 interface slots
// of the instance record.
#include "core/core_private.h"
#include "frame/wiring/wiring_private.h"
#include "vxlan_ef_encap.h"
#include "vxlan_ef_frame.h"

namespace {

constexpr uint32_t kTypeSlot = 32;
constexpr uint32_t kSlotIndex = 4094;

bool takes_hooks(const lsm_intfcb_t *intf)
{
    return intf->type == LSM_IF_TYPE_OVERLAY_TUNNEL || vxlan_ef_is_intf_parser(intf);
}

// Each hook filters the interface by type itself.
void attach_hooks(lsm_intfcb_t *intf)
{
    vxlan_ef_reg_intf_parser(intf);
    vxlan_ef_reg_tunnel_parser(intf);
    vxlan_ef_reg_intf_encap(intf);
}

void detach_hooks(lsm_intfcb_t *intf)
{
    vxlan_ef_dereg_intf_parser(intf);
    vxlan_ef_dereg_tunnel_parser(intf);
    vxlan_ef_dereg_intf_encap(intf);
}

// Stores (or, with nullptr, clears) the slot the interface index selects.
void set_slot(uint32_t ifindex, lsm_intfcb_t *value)
{
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr)
        return;
    if (ifindex == kSlotIndex)
        vxlan_ef::store_relaxed(vsd->intf_slot_4094, value);
    else
        vxlan_ef::store_relaxed(vsd->intf_slot_other, value);
    vxlan_ef::store_barrier();
}

void on_create(const lsm_if_event_msg_t &msg)
{
    VXLAN_EF_LOG_AS(VXLAN_EF_DBG_EVENT, vsd_log_->id, "vxlan_ef_lsm_event_handle",
                    "VXLAN-EF-EVENT: [vsd %d %s] INTF_EVENT_CREATE_INDEX %s ifx: %u\n", msg.name,
                    msg.ifindex);
    lsm_intfcb_t *intf = lsm_get_intfcb(msg.ifindex);
    if (intf == nullptr) {
        VXLAN_EF_LOG_AS(VXLAN_EF_DBG_ERR, vsd_log_->id, "vxlan_ef_lsm_event_handle",
                        "VXLAN-EF-ERR: [vsd %d %s] fail to get intfcb, %s, ifx: %u\n", msg.name,
                        msg.ifindex);
        return;
    }
    if (takes_hooks(intf))
        attach_hooks(intf);
    if (intf->type == kTypeSlot)
        set_slot(intf->ifindex, intf);
}

void on_destroy(const lsm_if_event_msg_t &msg)
{
    VXLAN_EF_LOG_AS(VXLAN_EF_DBG_EVENT, vsd_log_->id, "vxlan_ef_lsm_event_handle",
                    "VXLAN-EF-EVENT: [vsd %d %s] INTF_EVENT_DESTROY_INDEX ifx: %u\n",
                    msg.ifindex);
    lsm_intfcb_t *intf = lsm_get_intfcb(msg.ifindex);
    if (intf == nullptr) {
        VXLAN_EF_LOG_AS(VXLAN_EF_DBG_ERR, vsd_log_->id, "vxlan_ef_lsm_event_handle",
                        "VXLAN-EF-ERR: [vsd %d %s] fail to get intfcb, ifx: %u\n", msg.ifindex);
        return;
    }
    if (takes_hooks(intf))
        detach_hooks(intf);
    if (intf->type == kTypeSlot)
        set_slot(intf->ifindex, nullptr);
}

}  // namespace

int vxlan_ef_lsm_event_handle(uint32_t event, void *msg)
{
    if (msg == nullptr)
        return 0;
    const auto &ev = *static_cast<const lsm_if_event_msg_t *>(msg);
    if (event == LSM_IF_EVENT_CREATE)
        on_create(ev);
    else if (event == LSM_IF_EVENT_DESTROY)
        on_destroy(ev);
    return 0;
}
