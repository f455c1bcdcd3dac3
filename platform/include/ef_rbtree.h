/* Intrusive red-black tree in the kernel's style: the caller descends and
 * links a node itself, then asks the tree to rebalance. */
#ifndef EF_RBTREE_H
#define EF_RBTREE_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct rb_node {
    uintptr_t rb_parent_color; /* parent pointer, colour in bit 0 (1 = black) */
    struct rb_node *rb_right;
    struct rb_node *rb_left;
};

struct rb_root {
    struct rb_node *rb_node;
};

#define RB_RED 0u
#define RB_BLACK 1u

static inline struct rb_node *rb_parent(const struct rb_node *node)
{
    return (struct rb_node *)(node->rb_parent_color & ~(uintptr_t)3);
}

/* Links node below parent at *link as a red leaf; rb_insert_color then
 * restores the tree's rules. */
static inline void rb_link_node(struct rb_node *node, struct rb_node *parent,
                                struct rb_node **link)
{
    node->rb_parent_color = (uintptr_t)parent;
    node->rb_left = NULL;
    node->rb_right = NULL;
    *link = node;
}

void rb_insert_color(struct rb_node *node, struct rb_root *root);
void rb_erase(struct rb_node *node, struct rb_root *root);
/* In-order successor, or NULL. */
struct rb_node *rb_next(const struct rb_node *node);
/* Leftmost node, or NULL. */
struct rb_node *rb_first(const struct rb_root *root);

#ifdef __cplusplus
}
#endif

#endif
