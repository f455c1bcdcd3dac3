// The TLVs handled by the dispatcher itself. Synchronisation markers move the
// instance's sync flags around the tables' mark and sweep and are answered;
// EF_DBG sets the debug mask and the packet-trace settings together. Values
// are read by the catalogue's field names.
#include <array>

#include "channel_private.h"
#include "control_tlvs.h"
#include "core/tlv_value.h"
#include "vxlan_ef.h"
#include "vxlan_ef_requests.h"
#include "vxlan_ef_tables.h"

namespace vxlan_ef {

namespace {

using SyncStep = void (*)();

// The tables' mark and sweep steps, called in this order.
constexpr std::array<SyncStep, 4> kSyncStart{vxlan_ef_intf_sync_start, vxlan_ef_entry_sync_start,
                                              vxlan_ef_vrf_sync_start, vxlan_ef_subif_sync_start};
constexpr std::array<SyncStep, 4> kSyncEnd{vxlan_ef_intf_sync_end, vxlan_ef_entry_sync_end,
                                            vxlan_ef_vrf_sync_end, vxlan_ef_subif_sync_end};

using ShowFn = void (*)(uint32_t vsd_id, const uint8_t *value);

struct ShowRoute {
    tlv::ShowId id;
    ShowFn show;
};

void show_status(uint32_t vsd_id, const uint8_t *) { vxlan_ef_show_status(vsd_id); }
void show_entry(uint32_t vsd_id, const uint8_t *value)
{
    vxlan_ef_entry_show(vsd_id, TlvValue<tlv::kEfShow>(value).get<"vni">());
}
void show_intf(uint32_t vsd_id, const uint8_t *) { vxlan_ef_intf_show(vsd_id); }
void show_vrf(uint32_t vsd_id, const uint8_t *) { vxlan_ef_vrf_show(vsd_id); }
void show_subif(uint32_t vsd_id, const uint8_t *) { vxlan_ef_subif_show(vsd_id); }

constexpr ShowRoute kShows[] = {
    {tlv::ShowId::Entry, show_entry},
    {tlv::ShowId::Status, show_status},
    {tlv::ShowId::Intf, show_intf},
    {tlv::ShowId::Vrf, show_vrf},
    {tlv::ShowId::Subif, show_subif},
};

}  // namespace

int sync_data_req(uint32_t, const uint8_t *)
{
    return vxlan_ef_msg_send(g_vxlan_vsd, kSyncDataReq, 0, nullptr, kSendRealTime);
}

int sync_data_begin(uint32_t, const uint8_t *)
{
    g_vxlan_vsd->flags |= VXLAN_EF_F_SYNC_START;
    for (SyncStep step : kSyncStart)
        step();
    return 0;
}

int sync_data_over(uint32_t, const uint8_t *)
{
    for (SyncStep step : kSyncEnd)
        step();
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    vsd->flags &= ~VXLAN_EF_F_SYNC_START;
    vsd->flags |= VXLAN_EF_F_SYNC_END;
    return vxlan_ef_msg_send(vsd, kEfDataReady, 0, nullptr, kSendRealTime);
}

int ef_dbg(uint32_t, const uint8_t *value)
{
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    WriteLock lock(vsd);
    // Packet threads read these, and spend the budget, without the lock.
    const TlvValue<tlv::kEfDbg> dbg(value);
    store_relaxed(vsd->debug_mask, dbg.get<"mask">());
    store_relaxed(vsd->trace_ifx, dbg.get<"trace_ifx">());
    store_relaxed(vsd->trace_budget, dbg.get<"budget">());
    return 0;
}

int vxlan_ef_show_deal(uint32_t vsd_id, const uint8_t *value)
{
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    const uint16_t show_id = TlvValue<tlv::kEfShow>(value).get<"show_id">();
    ReadLock lock(vsd);
    for (const ShowRoute &route : kShows) {
        if (static_cast<uint16_t>(route.id) == show_id) {
            route.show(vsd_id, value);
            return 0;
        }
    }
    VXLAN_EF_ERR("VXLAN-EF-ERR: [vsd %d %s] unknown show id: 0x%X\n", show_id);
    return 0;
}

int vxlan_ef_ctrl_deal(uint32_t vsd_id, const uint8_t *value)
{
    const TlvValue<tlv::kEfCtrl> request(value);
    const uint32_t ctrl = request.get<"ctrl">();
    const uint8_t oper = request.get<"oper">();
    VXLAN_EF_EVENT("VXLAN-EF-EVENT: [vsd %d %s] recv ef ctrl message, ctrl: 0x%x, oper: %d\n", ctrl,
                   oper);
    ReadLock lock(g_vxlan_vsd);
    if (ctrl & tlv::kCtrlTechDump)
        vxlan_ef_tech_dump(vsd_id);
    return 0;
}

}  // namespace vxlan_ef
