// The module task: each run drains the inbound queue when messages are
// waiting, then replaces itself with a fresh task armed with the same
// timeout, so the queue is polled once per timeout period.
#include "core_private.h"
#include "ef_task.h"
#include "vxlan_ef.h"

uint32_t g_vxlan_ef_eve;
void *vxlan_ef_thread;

namespace {
constexpr uint32_t kEventMsgQueued = 0x1;
constexpr int kTimeoutMode = 1;
constexpr uint32_t kTimeout = 100;
}  // namespace

void vxlan_ef_thread_init(void)
{
    if (vxlan_ef_thread != nullptr) {
        ef_task_delete(vxlan_ef_thread);
        vxlan_ef_thread = nullptr;
    }
    vxlan_ef_thread = ef_task_create(vxlan_ef_task, nullptr, "vxlan_ef_task");
    if (vxlan_ef_thread == nullptr) {
        vxlan_ef_log_dump("vxlan ef thread create fail.\n");
        return;
    }
    ef_task_active_timeout(vxlan_ef_thread, kTimeoutMode, kTimeout);
}

int vxlan_ef_task(void *)
{
    // Tested and cleared in one step: a message queued meanwhile sets it
    // again for the next run.
    if (__atomic_fetch_and(&g_vxlan_ef_eve, ~kEventMsgQueued, __ATOMIC_ACQ_REL) & kEventMsgQueued)
        vxlan_ef_msg_task();
    vxlan_ef_thread_init();
    return 0;
}
