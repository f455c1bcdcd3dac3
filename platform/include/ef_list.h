/* Intrusive circular doubly linked lists in the kernel's style, shared by the
 * platform and the modules it hosts. An unlinked node carries the poison
 * values below so that a stale use faults recognisably. */
#ifndef EF_LIST_H
#define EF_LIST_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#define EF_LIST_POISON1 ((struct list_head *)0x100100)
#define EF_LIST_POISON2 ((struct list_head *)0x200200)

struct list_head {
    struct list_head *next;
    struct list_head *prev;
};

static inline void INIT_LIST_HEAD(struct list_head *head)
{
    head->next = head;
    head->prev = head;
}

static inline int list_empty(const struct list_head *head)
{
    return head->next == head;
}

static inline void ef_list_insert(struct list_head *node, struct list_head *prev,
                                  struct list_head *next)
{
    next->prev = node;
    node->next = next;
    node->prev = prev;
    prev->next = node;
}

/* Link node right behind head (at the front). */
static inline void list_add(struct list_head *node, struct list_head *head)
{
    ef_list_insert(node, head, head->next);
}

/* Link node right before head (at the tail). */
static inline void list_add_tail(struct list_head *node, struct list_head *head)
{
    ef_list_insert(node, head->prev, head);
}

/* Unlink node and leave the poison values in its links. */
static inline void list_del(struct list_head *node)
{
    node->next->prev = node->prev;
    node->prev->next = node->next;
    node->next = EF_LIST_POISON1;
    node->prev = EF_LIST_POISON2;
}

/* Unlink node and leave it linked to itself. */
static inline void list_del_init(struct list_head *node)
{
    node->next->prev = node->prev;
    node->prev->next = node->next;
    INIT_LIST_HEAD(node);
}

#define ef_container_of(ptr, type, member) \
    ((type *)((char *)(ptr) - offsetof(type, member)))

#ifdef __cplusplus
}
#endif

#endif
