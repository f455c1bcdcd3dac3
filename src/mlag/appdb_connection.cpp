// The module's connection to the application database: registration with its
// three connection callbacks, and the subscription to the MLAG system table
// made on every connection.
#include "mlag_private.h"
#include "vxlan_ef_frame.h"

ef_mom_reg_t g_vxlan_ef_mom_reg;

namespace {

int connected()
{
    g_vxlan_ef_master.appdb_connected = 1;
    vxlan_ef_mom_peerlink_sub();
    vxlan_ef_log_dump("vxlan app-db connected.\n");
    return 0;
}

int reconnected()
{
    g_vxlan_ef_master.appdb_connected = 1;
    vxlan_ef_mom_peerlink_sub();
    vxlan_ef_log_dump("vxlan app-db reconnected.\n");
    return 0;
}

// The peer-link index stays as it was until the table says otherwise.
int disconnected(int reason)
{
    g_vxlan_ef_master.appdb_connected = 0;
    vxlan_ef_log_dump("vxlan app-db is disconnected [%d].\n", reason);
    return 0;
}

}  // namespace

int vxlan_ef_mom_init(void)
{
    vxlan_ef_master_t &m = g_vxlan_ef_master;
    if (m.global_mom == nullptr) {
        m.global_mom = efmp_get_mom_client();
        if (m.global_mom == nullptr) {
            vxlan_ef_log_dump("Failed to get global_mom in vxlan_ef_mom_init.\n");
            return -1;
        }
    }
    m.appdb_connected = 0;
    g_vxlan_ef_mom_reg = ef_mom_reg_t{connected, disconnected, reconnected};
    if (ef_mom_register(vxlan_ef::kMomModule, &g_vxlan_ef_mom_reg, vxlan_ef::kMomDb) != 0) {
        vxlan_ef_log_dump("ef_mom_register app db failed.\n");
        return -1;
    }
    vxlan_ef_log_dump("vxlan_ef_mom_init success.\n");
    return 0;
}

int vxlan_ef_mom_exit(void) { return ef_mom_unregister(vxlan_ef::kMomModule, vxlan_ef::kMomDb); }

// Not retried here: the next connection subscribes again.
int vxlan_ef_mom_peerlink_sub(void)
{
    tq_mom_req_t req = vxlan_ef::peerlink_request();
    int ret = tq_mom_subscribe(g_vxlan_ef_master.global_mom, vxlan_ef::kMomDb, &req, 0,
                               vxlan_ef_mom_peerlink_callback, nullptr);
    if (ret != 0) {
        VXLAN_EF_ERR("VXLAN-EF-ERR: [vsd %d %s] vxlan-ef subscribe mlag table failed![ret:%d]\n",
                     ret);
        vxlan_ef_log_dump("vxlan-ef subscribe mlag table failed![ret:%d]\n", ret);
        return -1;
    }
    VXLAN_EF_EVENT("VXLAN-EF-EVENT: [vsd %d %s] vxlan-ef subscribe mlag table success.\n");
    vxlan_ef_log_dump("vxlan-ef subscribe mlag table success.\n");
    return 0;
}
