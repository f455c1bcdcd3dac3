// Registration with the EF message channel, its connection callback and its
// receive callback. The receive callback only copies and queues; the module
// task parses later.
#include <cstdlib>
#include <cstring>

#include "channel_private.h"
#include "ef_mem.h"
#include "ef_msg.h"

namespace {

constexpr uint32_t kEventMsgQueued = 0x1;

// Reads VSDID as the channel callbacks always have; the printed id is the
// instance record's.
void touch_vsdid() { (void)std::getenv("VSDID"); }

vxlan_ef_msg_node_t *vxlan_ef_msg_node_alloc()
{
    auto *node = static_cast<vxlan_ef_msg_node_t *>(
        vxlan_ef_kmalloc(VXLAN_EF_MEM_MSG, sizeof(vxlan_ef_msg_node_t), 0));
    if (node == nullptr) {
        VXLAN_EF_LOG_AS(VXLAN_EF_DBG_ERR, vsd_log_->id, "vxlan_ef_msg_node_alloc",
                        "VXLAN-EF-ERR: [vsd %d %s] failed to alloc memory for msg node\n");
        return nullptr;
    }
    std::memset(node, 0, sizeof *node);
    node->next = node;
    node->prev = node;
    return node;
}

void free_node(vxlan_ef_msg_node_t *node)
{
    ef_free(VXLAN_EF_EF_MEM_TYPE, node->data);
    ef_free(VXLAN_EF_EF_MEM_TYPE, node);
}

}  // namespace

int vxlan_ef_com_init(void)
{
    vxlan_ef_msg_queue_init(&g_vxlan_ef_msg_queue);
    const ef_msg_callbacks_t callbacks{vxlan_ef_msg_read, nullptr, vxlan_ef_com_connect};
    if (ef_msg_register(EF_MSG_MODULE_VXLAN, &callbacks) != 0) {
        vxlan_ef_log_dump("Register EF_MSG_MODULE_VXLAN failed.\n");
        return -1;
    }
    return 0;
}

void vxlan_ef_com_exit(void)
{
    ef_msg_unregister(EF_MSG_MODULE_VXLAN);
    while (vxlan_ef_msg_node_t *node = vxlan_ef_msg_dequeue(&g_vxlan_ef_msg_queue))
        free_node(node);
}

int vxlan_ef_com_connect(void *, int8_t connected)
{
    touch_vsdid();
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr)
        return -1;
    // The channel's thread changes the flags word while the module's task
    // may read or change it too.
    vxlan_ef::WriteLock lock(vsd);
    if (connected) {
        VXLAN_EF_EVENT("VXLAN-EF-EVENT: [vsd %d %s] Connect to VXLAN EF success.\n");
        vsd->flags |= VXLAN_EF_F_NL_CONN;
    } else {
        VXLAN_EF_EVENT("VXLAN-EF-EVENT: [vsd %d %s] Connect to VXLAN EF failed.\n");
        vsd->flags &= ~VXLAN_EF_F_NL_CONN;
    }
    return 0;
}

int vxlan_ef_msg_read(void *message)
{
    touch_vsdid();
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (message == nullptr || vsd == nullptr)
        return 0;
    const auto *msg = static_cast<const ef_msg_t *>(message);
    VXLAN_EF_EVENT("VXLAN-EF-EVENT: [vsd %d %s] Recv data module_id %d, len %d.\n",
                   static_cast<int>(msg->module_id), static_cast<int>(msg->len));

    vxlan_ef_msg_node_t *node = vxlan_ef_msg_node_alloc();
    if (node == nullptr) {
        VXLAN_EF_LOG_AS(VXLAN_EF_DBG_ERR, 0, __func__,
                        "VXLAN-EF-ERR: [vsd %d %s] Alloc client msg node failed\n");
        return 0;
    }
    auto *data = static_cast<uint8_t *>(vxlan_ef_kmalloc(VXLAN_EF_MEM_MSG, msg->len, 0));
    if (data == nullptr) {
        VXLAN_EF_LOG_AS(VXLAN_EF_DBG_ERR, 0, __func__,
                        "VXLAN-EF-ERR: [vsd %d %s] skb kmalloc error\n");
        ef_free(VXLAN_EF_EF_MEM_TYPE, node);
        return 0;
    }
    std::memcpy(data, msg->data, msg->len);
    node->vsd_id = static_cast<uint32_t>(vsd->id);
    node->length = msg->len;
    node->data = data;
    vxlan_ef_msg_inqueue(&g_vxlan_ef_msg_queue, node);
    // The channel thread sets the bit while the task may be clearing it.
    __atomic_fetch_or(&g_vxlan_ef_eve, kEventMsgQueued, __ATOMIC_RELEASE);
    return 0;
}
