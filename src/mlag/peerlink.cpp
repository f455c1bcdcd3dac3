// The peer-link index from the MLAG system table: the subscription callback
// follows set, update and removal notifications, and the scan started on an
// accepted subscription reads the table once. Both run on the app-db client's
// thread under the instance's write lock.
#include "mlag_private.h"
#include "vxlan_ef_frame.h"

namespace {

bool is_set_or_update(uint32_t cmd) { return cmd == TQ_MOM_CMD_SET || cmd == TQ_MOM_CMD_UPDATE; }

const PIntf__DataMlagSystem *first_object(const tq_mom_notify_t &msg)
{
    return msg.res != nullptr ? static_cast<const PIntf__DataMlagSystem *>(msg.res[0]) : nullptr;
}

void peerlink_got()
{
    VXLAN_EF_LOG_AS(VXLAN_EF_DBG_EVENT, vsd_log_->id, "vxlan_ef_mom_peerlink_callback",
                    "VXLAN-EF-EVENT: [vsd %d %s] vxlan-ef get peerlink msg success.\n");
}

// Caller holds the write lock.
int on_subscription_answer(vxlan_ef_vsd_t *vsd, uint32_t cmd)
{
    if (cmd == TQ_MOM_CMD_SUB_REFUSED) {
        VXLAN_EF_LOG_AS(VXLAN_EF_DBG_EVENT, vsd_log_->id, "vxlan_ef_mom_peerlink_callback",
                        "VXLAN-EF-EVENT: [vsd %d %s] fail to subscribe mlag table.\n");
        vxlan_ef_log_dump("fail to subscribe mlag table.\n");
        return -1;
    }
    VXLAN_EF_LOG_AS(VXLAN_EF_DBG_EVENT, vsd_log_->id, "vxlan_ef_mom_peerlink_callback",
                    "VXLAN-EF-EVENT: [vsd %d %s] success to subscribe mlag table.\n");
    vxlan_ef_log_dump("success to subscribe mlag table.\n");
    if (g_vxlan_ef_master.appdb_connected)
        vxlan_ef::vxlan_ef_mom_peerlink_scan(vsd);
    else
        VXLAN_EF_LOG_AS(VXLAN_EF_DBG_ERR, vsd_log_->id, "vxlan_ef_mom_peerlink_callback",
                        "VXLAN-EF-ERR: [vsd %d %s] mom_app_db_con is false, stop scan peerlink.\n");
    return 0;
}

// Caller holds the write lock.
int on_table_change(vxlan_ef_vsd_t *vsd, const tq_mom_notify_t &msg)
{
    switch (msg.cmd) {
    case TQ_MOM_CMD_SUB_ACCEPTED:
    case TQ_MOM_CMD_SUB_REFUSED:
        return on_subscription_answer(vsd, msg.cmd);
    case TQ_MOM_CMD_REMOVE:
    case TQ_MOM_CMD_REMOVE_ALL:
        vsd->peerlink_ifx = 0;
        peerlink_got();
        return 0;
    case TQ_MOM_CMD_SET:
    case TQ_MOM_CMD_UPDATE: {
        const PIntf__DataMlagSystem *system = first_object(msg);
        if (system == nullptr) {
            VXLAN_EF_LOG_AS(VXLAN_EF_DBG_ERR, vsd_log_->id, "vxlan_ef_mom_peerlink_callback",
                            "VXLAN-EF-ERR: [vsd %d %s] mlag peerlink msg(res) is null.\n");
            return -1;
        }
        vsd->peerlink_ifx = system->peerlink;
        peerlink_got();
        return 0;
    }
    default:
        VXLAN_EF_LOG_AS(VXLAN_EF_DBG_ERR, vsd_log_->id, "vxlan_ef_mom_peerlink_callback",
                        "VXLAN-EF-ERR: [vsd %d %s] mlag peerlink msg cmd: %d.\n",
                        static_cast<int>(msg.cmd));
        return 0;
    }
}

// One scan notification; caller holds the write lock.
int on_scan_object(vxlan_ef_vsd_t *vsd, const tq_mom_notify_t &msg)
{
    bool usable = false;
    if (is_set_or_update(msg.cmd)) {
        if (const PIntf__DataMlagSystem *system = first_object(msg)) {
            vsd->peerlink_ifx = system->peerlink;
            usable = true;
        } else if (!msg.end) {
            if (msg.res == nullptr)
                VXLAN_EF_LOG_AS(VXLAN_EF_DBG_ERR, vsd_log_->id, "vxlan_ef_mom_peerlink_scan_cb",
                                "VXLAN-EF-ERR: [vsd %d %s] mlag peerlink msg(res) is NULL.\n");
            else
                VXLAN_EF_LOG_AS(VXLAN_EF_DBG_ERR, vsd_log_->id, "vxlan_ef_mom_peerlink_scan_cb",
                                "VXLAN-EF-ERR: [vsd %d %s] mlag peerlink msg(args) is NULL.\n");
            return -1;
        }
    } else if (!msg.end) {
        VXLAN_EF_LOG_AS(VXLAN_EF_DBG_ERR, vsd_log_->id, "vxlan_ef_mom_peerlink_scan_cb",
                        "VXLAN-EF-ERR: [vsd %d %s] mlag peerlink msg cmd: %d.\n",
                        static_cast<int>(msg.cmd));
        return 0;
    }
    if (msg.end || !usable) {
        VXLAN_EF_LOG_AS(VXLAN_EF_DBG_EVENT, vsd_log_->id, "vxlan_ef_mom_peerlink_scan_cb",
                        "VXLAN-EF-EVENT: [vsd %d %s] vxlan-ef peerlink msg scan over.\n");
        vxlan_ef_log_dump("vxlan-ef peerlink msg scan over.\n");
    }
    VXLAN_EF_LOG_AS(VXLAN_EF_DBG_EVENT, vsd_log_->id, "vxlan_ef_mom_peerlink_scan_cb",
                    "VXLAN-EF-EVENT: [vsd %d %s] vxlan-ef peerlink msg scan success.\n");
    return 0;
}

}  // namespace

namespace vxlan_ef {

void vxlan_ef_mom_peerlink_scan(vxlan_ef_vsd_t *)
{
    tq_mom_req_t req = peerlink_request();
    int ret = tq_mom_scan(g_vxlan_ef_master.global_mom, kMomDb, &req, 0,
                          vxlan_ef_mom_peerlink_scan_cb, nullptr);
    if (ret != 0)
        VXLAN_EF_ERR("VXLAN-EF-ERR: [vsd %d %s] scan peerlink failed, ret = %d.\n", ret);
    else
        VXLAN_EF_EVENT("VXLAN-EF-EVENT: [vsd %d %s] scan peerlink success.\n");
}

}  // namespace vxlan_ef

namespace {

// What sets the app-db's two callbacks apart in the opening they share: the
// name their lines carry, their texts, and the step each goes on to.
struct MomCallback {
    const char *func;
    const char *no_vsd_dump;
    const char *no_msg_dump;
    const char *error_line;
    const char *error_dump;
    int (*step)(vxlan_ef_vsd_t *vsd, const tq_mom_notify_t &msg);
};

constexpr MomCallback kTableChange{
    "vxlan_ef_mom_peerlink_callback",
    "MOM peerlink callback failed due to vsd 0 is NULL.\n",
    "MOM peerlink callback failed due to msg is NULL.\n",
    "VXLAN-EF-ERR: [vsd %d %s] Fail to subscribe mlag table for error(%d).\n",
    "MOM peerlink callback failed due to msg->error is %d.\n",
    on_table_change};

constexpr MomCallback kScanObject{
    "vxlan_ef_mom_peerlink_scan_cb",
    "MOM peerlink scan callback failed due to vsd 0 is NULL.\n",
    "MOM peerlink scan callback failed due to msg is NULL.\n",
    "VXLAN-EF-ERR: [vsd %d %s] Fail to scan mlag table for error(%d).\n",
    "MOM peerlink scan callback failed due to msg->error is %d.\n",
    on_scan_object};

// Without an instance only the log file hears of it; otherwise the message
// is checked and taken under the write lock, released on return.
int mom_callback(const MomCallback &cb, const tq_mom_notify_t *msg)
{
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr) {
        vxlan_ef_log_dump("%s", cb.no_vsd_dump);
        return -1;
    }
    vxlan_ef::WriteLock lock(vsd);
    if (msg == nullptr) {
        VXLAN_EF_LOG_AS(VXLAN_EF_DBG_ERR, vsd_log_->id, cb.func,
                        "VXLAN-EF-ERR: [vsd %d %s] mlag peer-link msg is NULL.\n");
        vxlan_ef_log_dump("%s", cb.no_msg_dump);
        return -1;
    }
    if (msg->error != 0) {
        VXLAN_EF_LOG_AS(VXLAN_EF_DBG_ERR, vsd_log_->id, cb.func, cb.error_line,
                        static_cast<int>(msg->error));
        vxlan_ef_log_dump(cb.error_dump, static_cast<int>(msg->error));
        return -1;
    }
    return cb.step(vsd, *msg);
}

}  // namespace

int vxlan_ef_mom_peerlink_callback(void *, tq_mom_notify_t *msg)
{
    return mom_callback(kTableChange, msg);
}

int vxlan_ef_mom_peerlink_scan_cb(void *, tq_mom_notify_t *msg)
{
    return mom_callback(kScanObject, msg);
}
