// Hand-off of encapsulated chains to the L3 engine through the current CPU's
// slot of the platform's queue.
#include "frame/transmit/l3_handoff.h"

using vxlan_ef::TraceGate;

// The platform defines the CPU number in the executable that loads the
// module, so it sits in the static TLS block: initial-exec reads it with one
// load instead of a __tls_get_addr call on every hand-off.
extern __thread uint32_t g_efmp_cpu_num __attribute__((tls_model("initial-exec")));

int vxlan_ef_skip_fw(efmp_buff_t *first, efmp_buff_t *last, uint32_t count, const char *func)
{
    last->next = nullptr;
    const uint32_t cpu = g_efmp_cpu_num;
    efmp_skip_slot_t &slot = efmp_skip_top.slots[cpu];
    // Decided before queueing: once queued, the chain belongs to the L3 worker.
    const bool traced = vxlan_ef::trace_admit(first, TraceGate::Encap);
    // Header writes must be visible before another CPU's worker reads the chain.
    vxlan_ef::store_barrier();
    // The room test is made without the lock, as a cheap first look.
    if (__atomic_load_n(&slot.count, __ATOMIC_RELAXED) + count <= efmp_skip_top.capacity) {
        pthread_spin_lock(&slot.lock);
        if (slot.head == nullptr)
            slot.head = first;
        else
            slot.tail->next = first;
        slot.tail = last;
        __atomic_store_n(&slot.count, slot.count + count, __ATOMIC_RELAXED);
        pthread_spin_unlock(&slot.lock);
        efmp_vth_active_async(efmp_skip_top.worker, cpu);
        if (traced)
            printk_syslog_ext(7, "UNKNOW_MODULE", "DEBUG", 2,
                              "VXLAN-EF-ENCAP: [vsd %d %s] efmp_vxlan_skip_fw success: skip to "
                              "l3-engin.\n",
                              g_vxlan_vsd->id, func);
        return EF_Lost;
    }
    efmp_vth_active_async(efmp_skip_top.worker, cpu);
    if (traced)
        printk_syslog_ext(7, "UNKNOW_MODULE", "DEBUG", 2,
                          "VXLAN-EF-ENCAP: [vsd %d %s] efmp_vxlan_skip_fw failed.(Drop it!)\n",
                          g_vxlan_vsd->id, func);
    efmp_buff_chain_free_sw_user(EFMP_REASON_SW_USER, first, 0, count);
    return EF_Lost;
}
