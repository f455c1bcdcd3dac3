// The inbound queue between the channel's receive callback and the module
// task: a spin-locked circular list with a sentinel head.
#include "channel_private.h"

vxlan_ef_msg_queue_t g_vxlan_ef_msg_queue;

namespace {
auto *const kPoisonNext = reinterpret_cast<vxlan_ef_msg_node_t *>(0x100100);
auto *const kPoisonPrev = reinterpret_cast<vxlan_ef_msg_node_t *>(0x200200);
}  // namespace

void vxlan_ef_msg_queue_init(vxlan_ef_msg_queue_t *queue)
{
    queue->head.next = &queue->head;
    queue->head.prev = &queue->head;
    queue->count = 0;
    pthread_spin_init(&queue->lock, PTHREAD_PROCESS_PRIVATE);
}

void vxlan_ef_msg_inqueue(vxlan_ef_msg_queue_t *queue, vxlan_ef_msg_node_t *node)
{
    pthread_spin_lock(&queue->lock);
    vxlan_ef_msg_node_t *tail = queue->head.prev;
    node->next = &queue->head;
    node->prev = tail;
    tail->next = node;
    queue->head.prev = node;
    // Atomic because the dequeue's shortcut reads the count without the lock.
    __atomic_fetch_add(&queue->count, 1, __ATOMIC_RELAXED);
    pthread_spin_unlock(&queue->lock);
}

vxlan_ef_msg_node_t *vxlan_ef_msg_dequeue(vxlan_ef_msg_queue_t *queue)
{
    // Unlocked shortcut for the common empty case; the list is tested again
    // under the lock.
    if (__atomic_load_n(&queue->count, __ATOMIC_RELAXED) == 0)
        return nullptr;
    pthread_spin_lock(&queue->lock);
    vxlan_ef_msg_node_t *node = queue->head.next;
    if (node == &queue->head) {
        pthread_spin_unlock(&queue->lock);
        return nullptr;
    }
    node->next->prev = &queue->head;
    queue->head.next = node->next;
    node->next = kPoisonNext;
    node->prev = kPoisonPrev;
    __atomic_fetch_sub(&queue->count, 1, __ATOMIC_RELAXED);
    pthread_spin_unlock(&queue->lock);
    return node;
}
