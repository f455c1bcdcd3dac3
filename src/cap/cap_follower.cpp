// The capability follower: reads the five capabilities at start, follows four
// of them, and applies their values. CAP_VXLAN_BASE starts and stops the
// packet plane, CAP_FWDMODE_SOFT fetches and drops the two software-forwarding
// bridge services; the others are only stored.
#include <array>

#include "cap_private.h"
#include "ef_bridge.h"
#include "vxlan_ef.h"
#include "vxlan_ef_frame.h"

namespace {

using vxlan_ef::kCapFwdmodeSoft;
using vxlan_ef::kCapL2vniMapping;
using vxlan_ef::kCapOrNoIcmp;
using vxlan_ef::kCapOutsideCenter;
using vxlan_ef::kCapVxlanBase;

// A followed capability: read at start, then subscribed.
struct Followed {
    const char *path;
    vxlan_ef_cap_setter_fn setter;
    libtq_cap_cb callback;
    const char *null_msg;  // error text of a null change message
};

constexpr std::array<Followed, 4> kFollowed{{
    {kCapVxlanBase, vxlan_ef_cap_vxlan_base_set, vxlan_ef_cap_vxlan_base_sub_cb,
     "VXLAN-EF-ERR: [vsd %d %s] Failed to vxlan_ef_cap_vxlan_base_sub_cb for pmsg=NULL.\n"},
    {kCapFwdmodeSoft, vxlan_ef_cap_xmac_learn_get, vxlan_ef_cap_xmac_learn_sub_cb,
     "VXLAN-EF-ERR: [vsd %d %s] Failed to vxlan_ef_cap_xmac_learn_sub_cb for pmsg=NULL.\n"},
    {kCapOutsideCenter, vxlan_ef_cap_outside_center_set, vxlan_ef_cap_outside_center_sub_cb,
     "VXLAN-EF-ERR: [vsd %d %s] Failed to vxlan_ef_cap_outside_center_sub_cb for pmsg=NULL.\n"},
    {kCapL2vniMapping, vxlan_ef_cap_l2vni_mapping_set, vxlan_ef_cap_l2vni_mapping_sub_cb,
     "VXLAN-EF-ERR: [vsd %d %s] Failed to vxlan_ef_cap_l2vni_mapping_sub_cb for pmsg=NULL.\n"},
}};

const char *true_false(bool value) { return value ? "true" : "false"; }

// While the first reads run, the acting setters only record their values.
bool cap_init_running()
{
    const vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    return vsd != nullptr && (vsd->flags & VXLAN_EF_F_CAP_INIT) != 0;
}

void set_cap_init(bool on)
{
    if (vxlan_ef_vsd_t *vsd = g_vxlan_vsd)
        vsd->flags = on ? vsd->flags | VXLAN_EF_F_CAP_INIT : vsd->flags & ~VXLAN_EF_F_CAP_INIT;
}

// Capability bytes are read by packet threads without a lock.
void store(uint8_t &field, bool value)
{
    if (vxlan_ef::load_relaxed(field) != static_cast<uint8_t>(value))
        vxlan_ef::store_relaxed(field, value ? 1 : 0);
}

void drop_soft_services()
{
    vxlan_ef::store_relaxed(vxlan_ef_add_mac_entry, nullptr);
    vxlan_ef::store_relaxed(vxlan_ef_intf_vlan_check, nullptr);
    vxlan_ef::store_barrier();
}

// Reads the value a change message announces: type 4 carries it, type 29
// asks for a fresh read. false when there is nothing to apply.
bool read_change(const Followed &cap, const char *func, libtq_cap_msg_t *msg, bool &value)
{
    int ret;
    if (msg->type == LIBTQ_CAP_MSG_VALUE_CHANGE) {
        char url[vxlan_ef::kCapPathLen] = {};
        uint32_t length = 0;
        ret = libtq_cap_ce_get_g_cap_bool_by_pmsg(msg, vxlan_ef::kCapPathLen, url, &value,
                                                  &length);
        VXLAN_EF_CAP_LOG(VXLAN_EF_DBG_EVENT, func,
                         "VXLAN-EF-EVENT: [vsd %d %s] libtq_cap_ce_get_g_cap_bool_by_pmsg: "
                         "url:%s, value:%d, length:%d, ret:%d",
                         url, value, static_cast<int>(length), ret);
    } else if (msg->type == LIBTQ_CAP_MSG_REREAD) {
        ret = libtq_cap_ce_get_g_cap_bool(g_vxlan_ef_master.global_mom, cap.path, &value);
        VXLAN_EF_CAP_LOG(VXLAN_EF_DBG_EVENT, func,
                         "VXLAN-EF-EVENT: [vsd %d %s] libtq_cap_ce_get_g_cap_bool: url:%s, "
                         "value:%d, ret:%d",
                         cap.path, value, ret);
    } else {
        return false;
    }
    return ret == 0;
}

int follow_change(const Followed &cap, const char *func, libtq_cap_msg_t *msg)
{
    if (msg == nullptr) {
        VXLAN_EF_CAP_LOG(VXLAN_EF_DBG_ERR, func, cap.null_msg);
        return -1;
    }
    if (msg->error != 0) {
        VXLAN_EF_CAP_LOG(VXLAN_EF_DBG_ERR, func,
                         "VXLAN-EF-ERR: [vsd %d %s] Failed to subscribe %s for error(%d).\n",
                         cap.path, static_cast<int>(msg->error));
        return -1;
    }
    bool value = false;
    if (read_change(cap, func, msg, value))
        cap.setter(value);
    return 0;
}

}  // namespace

void vxlan_ef_cap_g_bool_get(const char *path, vxlan_ef_cap_setter_fn setter)
{
    bool value = false;
    int ret = libtq_cap_ce_get_g_cap_bool(g_vxlan_ef_master.global_mom, path, &value);
    if (ret != 0) {
        VXLAN_EF_CAP_LOG(VXLAN_EF_DBG_ERR, __func__,
                         "VXLAN-EF-ERR: [vsd %d %s] Failed to get %s![ret: %d]\n", path, ret);
        return;
    }
    setter(value);
}

void vxlan_ef_cap_g_bool_subscribe(const char *path, libtq_cap_cb callback)
{
    int ret = libtq_cap_ce_subscribe_g_cap_bool(g_vxlan_ef_master.global_mom, path, callback,
                                                &g_vxlan_ef_master);
    if (ret != 0)
        VXLAN_EF_CAP_LOG(
            VXLAN_EF_DBG_ERR, __func__,
            "VXLAN-EF-ERR: [vsd %d %s] Failed to libtq_cap_ce_subscribe_g_cap_bool %s, ret=%d.\n",
            path, ret);
}

int vxlan_ef_cap_init(void)
{
    vxlan_ef_master_t &m = g_vxlan_ef_master;
    for (uint8_t *byte : {&m.vxlan_base, &m.fwdmode_soft, &m.outside_center, &m.l2vni_mapping, &m.or_no_icmp})
        vxlan_ef::store_relaxed(*byte, 0);
    drop_soft_services();
    m.global_mom = efmp_get_mom_client();
    if (m.global_mom == nullptr) {
        vxlan_ef_log_dump("Failed to get global_mom in vxlan_ef_cap_init.\n");
        return -1;
    }
    vxlan_ef_cap_g_bool_get(kCapOrNoIcmp, vxlan_ef_cap_or_no_icmp_set);
    set_cap_init(true);
    for (const Followed &cap : kFollowed)
        vxlan_ef_cap_g_bool_get(cap.path, cap.setter);
    set_cap_init(false);
    for (const Followed &cap : kFollowed)
        vxlan_ef_cap_g_bool_subscribe(cap.path, cap.callback);
    return 0;
}

// Start-up registers the pipeline itself right after the first reads.
void vxlan_ef_cap_vxlan_base_set(bool value)
{
    VXLAN_EF_CAP_LOG(VXLAN_EF_DBG_EVENT, __func__,
                     "VXLAN-EF-EVENT: [vsd %d %s] vxlan_ef_cap_vxlan_base set enable : %s\n",
                     true_false(value));
    vxlan_ef_master_t &m = g_vxlan_ef_master;
    if (static_cast<uint8_t>(value) == m.vxlan_base)
        return;
    if (value) {
        vxlan_ef::store_relaxed(m.vxlan_base, 1);
        if (!cap_init_running())
            vxlan_ef_frame_init();
    } else {
        vxlan_ef_frame_exit();
        vxlan_ef::store_relaxed(m.vxlan_base, 0);
    }
}

// The pipeline fetches the services itself during start-up.
void vxlan_ef_cap_xmac_learn_get(bool value)
{
    VXLAN_EF_CAP_LOG(VXLAN_EF_DBG_EVENT, __func__,
                     "VXLAN-EF-EVENT: [vsd %d %s] vxlan_ef_cap_xmac_learn set enable : %s\n",
                     true_false(value));
    vxlan_ef_master_t &m = g_vxlan_ef_master;
    if (static_cast<uint8_t>(value) == m.fwdmode_soft)
        return;
    if (!value) {
        vxlan_ef::store_relaxed(m.fwdmode_soft, 0);
        drop_soft_services();
        return;
    }
    vxlan_ef::store_relaxed(m.fwdmode_soft, 1);
    if (cap_init_running())
        return;
    vxlan_ef::store_relaxed(vxlan_ef_add_mac_entry,
                            efmp_get_service(EFMP_MODULE_BRIDGE, EF_BRIDGE_SERV_ADD_MAC));
    vxlan_ef::store_relaxed(vxlan_ef_intf_vlan_check,
                            efmp_get_service(EFMP_MODULE_BRIDGE, EF_BRIDGE_SERV_INTF_VLAN_CHECK));
    vxlan_ef::store_barrier();
}

void vxlan_ef_cap_outside_center_set(bool value) { store(g_vxlan_ef_master.outside_center, value); }
void vxlan_ef_cap_l2vni_mapping_set(bool value) { store(g_vxlan_ef_master.l2vni_mapping, value); }
void vxlan_ef_cap_or_no_icmp_set(bool value) { store(g_vxlan_ef_master.or_no_icmp, value); }

int vxlan_ef_cap_vxlan_base_sub_cb(void *, libtq_cap_msg_t *msg)
{
    return follow_change(kFollowed[0], __func__, msg);
}

int vxlan_ef_cap_xmac_learn_sub_cb(void *, libtq_cap_msg_t *msg)
{
    return follow_change(kFollowed[1], __func__, msg);
}

int vxlan_ef_cap_outside_center_sub_cb(void *, libtq_cap_msg_t *msg)
{
    return follow_change(kFollowed[2], __func__, msg);
}

int vxlan_ef_cap_l2vni_mapping_sub_cb(void *, libtq_cap_msg_t *msg)
{
    return follow_change(kFollowed[3], __func__, msg);
}
