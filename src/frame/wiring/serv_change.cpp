// The bridge services the packet plane calls: fetched when the pipeline is
// registered, then kept current from the platform's service-change
// notifications. Packet threads read the pointers without a lock, so each
// store is a single word followed by a store barrier.
#include <array>

#include "core/core_private.h"
#include "ef_bridge.h"
#include "frame/wiring/wiring_private.h"
#include "vxlan_ef_frame.h"

namespace {

struct BridgePointer {
    uint32_t service;   // bridge service number
    void **pointer;     // the module's global
    bool soft_only;     // followed only with CAP_FWDMODE_SOFT
    const char *got;    // event text when the service appears
    const char *lost;   // event text when it goes away
};

constexpr std::array<BridgePointer, 5> kBridgePointers{{
    {EF_BRIDGE_SERV_MAC_LOOKUP, &vxlan_ef_bridge_mac_lookup, false,
     "VXLAN-EF-EVENT: [vsd %d %s] GET SERV: vxlan ef bridgre mac lookup function\n",
     "VXLAN-EF-EVENT: [vsd %d %s] LOST SERV: vxlan ef bridgre mac lookup function\n"},
    {EF_BRIDGE_SERV_INTF_PVID_GET, &vxlan_ef_bridge_intf_pvid_get, false,
     "VXLAN-EF-EVENT: [vsd %d %s] GET SERV: vxlan ef bridgre interface pvid get function\n",
     "VXLAN-EF-EVENT: [vsd %d %s] LOST SERV: vxlan ef bridgre interface pvid get function\n"},
    {EF_BRIDGE_SERV_L2PROTOCOL_CHECK, &vxlan_ef_l2protocol_pkt_check, false,
     "VXLAN-EF-EVENT: [vsd %d %s] GET SERV: vxlan ef l2protocol pkt check get function\n",
     "VXLAN-EF-EVENT: [vsd %d %s] LOST SERV: vxlan ef l2protocol pkt check get function\n"},
    {EF_BRIDGE_SERV_ADD_MAC, &vxlan_ef_add_mac_entry, true,
     "VXLAN-EF-EVENT: [vsd %d %s] GET SERV: vxlan ef bridgre mac add function\n",
     "VXLAN-EF-EVENT: [vsd %d %s] LOST SERV: vxlan ef bridgre mac add function\n"},
    {EF_BRIDGE_SERV_INTF_VLAN_CHECK, &vxlan_ef_intf_vlan_check, true,
     "VXLAN-EF-EVENT: [vsd %d %s] GET SERV: vxlan ef bridgre intf vlan check function\n",
     "VXLAN-EF-EVENT: [vsd %d %s] LOST SERV: vxlan ef bridgre intf vlan check function\n"},
}};

bool followed(const BridgePointer &row) { return !row.soft_only || vxlan_ef::load_relaxed(g_vxlan_ef_master.fwdmode_soft); }

const BridgePointer *find_row(const efmp_service_t &serv)
{
    if (serv.module != EFMP_MODULE_BRIDGE)
        return nullptr;
    for (const BridgePointer &row : kBridgePointers)
        if (row.service == serv.service)
            return followed(row) ? &row : nullptr;
    return nullptr;
}

// The software-forwarding services are looked up afresh rather than taken
// from the notification.
void on_published(const BridgePointer &row, const efmp_service_t &serv)
{
    if (*row.pointer == nullptr)
        VXLAN_EF_LOG_AS(VXLAN_EF_DBG_EVENT, vsd_log_->id, "vxlan_ef_frame_serv_chg_func", row.got);
    // Packet threads load the pointer without a lock.
    vxlan_ef::store_relaxed(*row.pointer, row.soft_only ? efmp_get_service(EFMP_MODULE_BRIDGE, row.service)
                                                        : serv.handler);
    vxlan_ef::store_barrier();
}

void on_withdrawn(const BridgePointer &row)
{
    if (*row.pointer != nullptr)
        VXLAN_EF_LOG_AS(VXLAN_EF_DBG_EVENT, vsd_log_->id, "vxlan_ef_frame_serv_chg_func",
                        row.lost);
    vxlan_ef::store_relaxed(*row.pointer, nullptr);
    vxlan_ef::store_barrier();
}

}  // namespace

void vxlan_ef_frame_serv_chg_func(uint32_t change, efmp_service_t *serv)
{
    if (change != EFMP_SERV_PUBLISHED && change != EFMP_SERV_WITHDRAWN) {
        VXLAN_EF_ERR("VXLAN-EF-ERR: [vsd %d %s] serv-chg-type error\n");
        return;
    }
    const BridgePointer *row = serv != nullptr ? find_row(*serv) : nullptr;
    if (row == nullptr)
        return;
    if (change == EFMP_SERV_PUBLISHED)
        on_published(*row, *serv);
    else
        on_withdrawn(*row);
}

namespace vxlan_ef {

void fetch_bridge_services()
{
    for (const BridgePointer &row : kBridgePointers)
        if (followed(row))
            store_relaxed(*row.pointer, efmp_get_service(EFMP_MODULE_BRIDGE, row.service));
    store_barrier();
}

}  // namespace vxlan_ef
