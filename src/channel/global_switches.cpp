// The six module-wide switches set by single TLVs: the anycast gateway MAC and
// five on/off switches stored in the instance record.
#include <cstring>

#include "channel_private.h"
#include "core/handler_guard.h"

namespace {

const char *enable_word(uint8_t value) { return value != 0 ? "enable" : "disable"; }

// One on/off switch. Learning switches compare first and leave an unchanged
// value alone: no lock, no store, no success line.
template <vxlan_ef::tlv::Code C>
int switch_deal(const char *func, const char *words, const uint8_t *value,
                uint8_t vxlan_ef_vsd_t::*field, bool store_only_changes)
{
    vxlan_ef::HandlerGuard<C> guard(func, value, vxlan_ef::kArgsNullStop);
    if (!guard)
        return -1;
    vxlan_ef_vsd_t *vsd = guard.vsd();
    const uint8_t setting = guard.template get<"enable">();
    const char *word = enable_word(setting);
    VXLAN_EF_LOG_AS(VXLAN_EF_DBG_EVENT, vsd_log_->id, func, "VXLAN-EF-EVENT: [vsd %d %s] %s %s.\n",
                    word, words);
    if (store_only_changes && vsd->*field == setting)
        return 0;
    {
        vxlan_ef::WriteLock lock(vsd);
        vsd->*field = setting;
    }
    VXLAN_EF_LOG_AS(VXLAN_EF_DBG_EVENT, vsd_log_->id, func,
                    "VXLAN-EF-EVENT: [vsd %d %s] Success to %s %s.\n", word, words);
    return 0;
}

}  // namespace

int vxlan_ef_arp_suppress_deal(uint32_t, const uint8_t *value)
{
    return switch_deal<vxlan_ef::kSetSuppressArp>(__func__, "vxlan arp suppress", value,
                                                  &vxlan_ef_vsd_t::arp_suppress, false);
}

int vxlan_ef_remote_arp_learn_deal(uint32_t, const uint8_t *value)
{
    return switch_deal<vxlan_ef::kSetRemoteLearn>(__func__, "vxlan remote arp learn", value,
                                                  &vxlan_ef_vsd_t::remote_arp_learn, true);
}

int vxlan_ef_nd_suppress_deal(uint32_t, const uint8_t *value)
{
    return switch_deal<vxlan_ef::kSetSuppressNd>(__func__, "vxlan nd suppress", value,
                                                 &vxlan_ef_vsd_t::nd_suppress, false);
}

int vxlan_ef_remote_nd_learn_deal(uint32_t, const uint8_t *value)
{
    return switch_deal<vxlan_ef::kSetRemoteNdLearn>(__func__, "vxlan remote nd learn", value,
                                                    &vxlan_ef_vsd_t::remote_nd_learn, true);
}

int vxlan_ef_copy_dscp_deal(uint32_t, const uint8_t *value)
{
    return switch_deal<vxlan_ef::kSetCopyDscp>(__func__, "vxlan copy dscp", value,
                                               &vxlan_ef_vsd_t::copy_dscp, false);
}

int vxlan_ef_anycast_mac(uint32_t, const uint8_t *value)
{
    vxlan_ef::HandlerGuard<vxlan_ef::kSetAnycastMac> guard(__func__, value,
                                                           vxlan_ef::kArgsNullStop);
    if (!guard)
        return -1;
    vxlan_ef_vsd_t *vsd = guard.vsd();
    const vxlan_ef::MacBytes mac = guard.get<"mac">();
    const uint8_t oper = guard.get<"oper">();
    VXLAN_EF_EVENT("VXLAN-EF-EVENT: [vsd %d %s] try to set anycast mac "
                   "%02x%02x.%02x%02x.%02x%02x, oper: %d\n",
                   mac[0], mac[1], mac[2], mac[3], mac[4], mac[5], oper);
    guard.lock();
    if (oper != 0) {
        static_assert(sizeof vsd->anycast_mac == sizeof mac);
        std::memcpy(vsd->anycast_mac, mac.data(), sizeof vsd->anycast_mac);
        vsd->anycast_mac_valid = 1;
    } else {
        std::memset(vsd->anycast_mac, 0, sizeof vsd->anycast_mac);
        vsd->anycast_mac_valid = 0;
    }
    return 0;
}
