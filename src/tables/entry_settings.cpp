// Per-VNI settings of VXLAN entries: router interface binding (SET_ROUTER),
// L2 VNI mapping (SET_VNI_MAP), switch protection, ARP and ND suppression,
// and the instance's VXLAN UDP port (SET_UDP_PORT). Each confirms its part of
// the entry for a running resynchronisation.
#include "core/handler_guard.h"
#include "tables_private.h"
#include "vxlan_ef_tables.h"

using namespace vxlan_ef;

namespace {

constexpr uint32_t kNoVrf = 0xFFFFFFFFu;

const char *enable_word(uint8_t value) { return value != 0 ? "enable" : "disable"; }

// One per-VNI suppression switch: the byte it sets and the mark it clears.
struct Suppress {
    uint8_t vxlan_ef_entry_t::*field;
    uint32_t dirty_bit;
    const char *event;
};

constexpr Suppress kArpSuppress{
    &vxlan_ef_entry_t::arp_suppress, VXLAN_EF_ENTRY_DIRTY_ARP,
    "VXLAN-EF-EVENT: [vsd %d %s] try to set arp suppress by vni, vni: %u, oper: %s\n"};
constexpr Suppress kNdSuppress{
    &vxlan_ef_entry_t::nd_suppress, VXLAN_EF_ENTRY_DIRTY_ND,
    "VXLAN-EF-EVENT: [vsd %d %s] try to set nd suppress by vni, vni: %u, oper: %s\n"};

template <tlv::Code C>
int suppress_deal(const char *func, const Suppress &sw, const uint8_t *value)
{
    EntryGuard<C> guard(func, value, kArgsPointerNull);
    vxlan_ef_entry_t *entry = guard.entry();
    if (entry == nullptr)
        return -1;
    const uint8_t setting = guard.template get<"enable">();
    VXLAN_EF_LOG_AS(VXLAN_EF_DBG_EVENT, vsd_log_->id, func, sw.event, guard.vni(),
                    enable_word(setting));
    entry->*sw.field = setting;
    entry->dirty &= ~sw.dirty_bit;
    return 0;
}

}  // namespace

int vxlan_ef_set_router_deal(uint32_t, const uint8_t *value)
{
    EntryGuard<tlv::kSetRouter> guard(__func__, value);
    vxlan_ef_entry_t *entry = guard.entry();
    if (entry == nullptr)
        return -1;
    const uint32_t router_ifx = guard.get<"router_ifx">();
    const uint32_t vrf_id = guard.get<"vrf_id">();
    const uint8_t anycast = guard.get<"anycast">();
    const uint8_t oper = guard.get<"oper">();
    VXLAN_EF_EVENT("VXLAN-EF-EVENT: [vsd %d %s] try to set router, vni: %u rifx: %u, oper: %d\n",
                   guard.vni(), router_ifx, oper);
    entry->dirty &= ~VXLAN_EF_ENTRY_DIRTY_ROUTER;
    // An unbind names the message's router interface, not the stored one.
    vxlan_ef_intf_asso_vni(static_cast<uint32_t>(guard.vsd()->id), router_ifx, entry->vni,
                           oper != 0 ? vrf_id : 0, oper);
    entry->router_ifx = oper != 0 ? router_ifx : 0;
    entry->vrf_id = oper != 0 ? vrf_id : kNoVrf;
    entry->anycast = anycast;
    return 0;
}

int vxlan_ef_set_vni_map_deal(uint32_t, const uint8_t *value)
{
    EntryGuard<tlv::kSetVniMap> guard(__func__, value);
    vxlan_ef_entry_t *a = guard.entry();
    if (a == nullptr)
        return -1;
    const uint32_t map_vni = guard.get<"map_vni">();
    const uint8_t oper = guard.get<"oper">();
    vxlan_ef_entry_t *b = vxlan_ef_entry_get(guard.vsd(), map_vni);
    if (b == nullptr) {
        VXLAN_EF_ERR("VXLAN-EF-ERR: [vsd %d %s] map entry is not exist, map vni: %u\n", map_vni);
        return -1;
    }
    // A map overwrites both sides whole: A's own VNI_A and B's own VNI_B go.
    a->map_vni_b = oper != 0 ? b->vni : 0;
    a->map_vni_a = 0;
    b->map_vni_b = 0;
    b->map_vni_a = oper != 0 ? a->vni : 0;
    a->map_dirty = 0;
    b->map_dirty = 0;
    return 0;
}

int vxlan_ef_set_switch_proteched_deal(uint32_t, const uint8_t *value)
{
    HandlerGuard<tlv::kSetSwitchProtected> guard(__func__, value, kArgsNullStop);
    if (!guard)
        return -1;
    const uint32_t vni = guard.get<"vni">();
    const uint8_t setting = guard.get<"value">();
    VXLAN_EF_EVENT("VXLAN-EF-EVENT: [vsd %d %s] try to set vxlan switch proteched, vni: %u, "
                   "oper: %d\n",
                   vni, setting);
    vxlan_ef_entry_t *entry = guard.lock_entry(vni);
    if (entry == nullptr)
        return -1;
    entry->switch_proteched = setting;
    entry->dirty &= ~VXLAN_EF_ENTRY_DIRTY_PROTECTED;
    return 0;
}

int vxlan_ef_vni_arp_suppress_deal(uint32_t, const uint8_t *value)
{
    return suppress_deal<tlv::kSetVniArpSuppress>(__func__, kArpSuppress, value);
}

int vxlan_ef_vni_nd_suppress_deal(uint32_t, const uint8_t *value)
{
    return suppress_deal<tlv::kSetVniNdSuppress>(__func__, kNdSuppress, value);
}

int vxlan_ef_set_udp_port_deal(uint32_t, const uint8_t *value)
{
    HandlerGuard<tlv::kSetUdpPort> guard(__func__, value);
    if (!guard)
        return -1;
    vxlan_ef_vsd_t *vsd = guard.vsd();
    const uint16_t port = guard.get<"port">();
    VXLAN_EF_EVENT("VXLAN-EF-EVENT: [vsd %d %s] try to set udp port: %u\n", port);
    guard.lock();
    store_relaxed(vsd->udp_port, port);  // taken as is, 0 included
    vsd->udp_port_dirty = 0;
    return 0;
}
