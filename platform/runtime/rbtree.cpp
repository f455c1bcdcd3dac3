// Intrusive red-black tree in the kernel's style: the caller links a new node
// as a red leaf (rb_link_node) and rb_insert_color restores the rules; the
// colour lives in bit 0 of rb_parent_color (1 = black) beside the parent
// pointer. Rules kept: the root is black, a red node has no red child, and
// every path from a node down to a leaf passes the same number of black nodes.
#include "ef_rbtree.h"

namespace {

constexpr uintptr_t kColourBit = 1;

bool is_black(const rb_node *node) { return node == nullptr || (node->rb_parent_color & kColourBit); }
bool is_red(const rb_node *node) { return !is_black(node); }
uintptr_t colour(const rb_node *node) { return node->rb_parent_color & kColourBit; }
void set_black(rb_node *node) { node->rb_parent_color |= kColourBit; }
void set_red(rb_node *node) { node->rb_parent_color &= ~kColourBit; }

void set_colour(rb_node *node, uintptr_t c)
{
    node->rb_parent_color = (node->rb_parent_color & ~kColourBit) | c;
}

void set_parent(rb_node *node, rb_node *parent)
{
    node->rb_parent_color = (node->rb_parent_color & 3) | reinterpret_cast<uintptr_t>(parent);
}

// Makes replacement take old's place below parent (or at the root).
void replace_child(rb_node *old, rb_node *replacement, rb_node *parent, rb_root *root)
{
    if (parent == nullptr)
        root->rb_node = replacement;
    else if (parent->rb_left == old)
        parent->rb_left = replacement;
    else
        parent->rb_right = replacement;
}

// x's right child y takes x's place; x becomes y's left child.
void rotate_left(rb_node *x, rb_root *root)
{
    rb_node *y = x->rb_right;
    rb_node *parent = rb_parent(x);
    x->rb_right = y->rb_left;
    if (y->rb_left != nullptr)
        set_parent(y->rb_left, x);
    y->rb_left = x;
    replace_child(x, y, parent, root);
    set_parent(y, parent);
    set_parent(x, y);
}

// x's left child y takes x's place; x becomes y's right child.
void rotate_right(rb_node *x, rb_root *root)
{
    rb_node *y = x->rb_left;
    rb_node *parent = rb_parent(x);
    x->rb_left = y->rb_right;
    if (y->rb_right != nullptr)
        set_parent(y->rb_right, x);
    y->rb_right = x;
    replace_child(x, y, parent, root);
    set_parent(y, parent);
    set_parent(x, y);
}

// After a black node was removed, the subtree at node (possibly empty, below
// parent) lacks one black; push the deficit up or resolve it by rotations.
void erase_fixup(rb_node *node, rb_node *parent, rb_root *root)
{
    while (is_black(node) && node != root->rb_node) {
        if (parent->rb_left == node) {
            rb_node *sibling = parent->rb_right;
            if (is_red(sibling)) {
                set_black(sibling);
                set_red(parent);
                rotate_left(parent, root);
                sibling = parent->rb_right;
            }
            if (is_black(sibling->rb_left) && is_black(sibling->rb_right)) {
                set_red(sibling);
                node = parent;
                parent = rb_parent(node);
                continue;
            }
            if (is_black(sibling->rb_right)) {
                set_black(sibling->rb_left);
                set_red(sibling);
                rotate_right(sibling, root);
                sibling = parent->rb_right;
            }
            set_colour(sibling, colour(parent));
            set_black(parent);
            set_black(sibling->rb_right);
            rotate_left(parent, root);
        } else {
            rb_node *sibling = parent->rb_left;
            if (is_red(sibling)) {
                set_black(sibling);
                set_red(parent);
                rotate_right(parent, root);
                sibling = parent->rb_left;
            }
            if (is_black(sibling->rb_left) && is_black(sibling->rb_right)) {
                set_red(sibling);
                node = parent;
                parent = rb_parent(node);
                continue;
            }
            if (is_black(sibling->rb_left)) {
                set_black(sibling->rb_right);
                set_red(sibling);
                rotate_left(sibling, root);
                sibling = parent->rb_left;
            }
            set_colour(sibling, colour(parent));
            set_black(parent);
            set_black(sibling->rb_left);
            rotate_right(parent, root);
        }
        node = root->rb_node;
        break;
    }
    if (node != nullptr)
        set_black(node);
}

}  // namespace

extern "C" void rb_insert_color(struct rb_node *node, struct rb_root *root)
{
    rb_node *parent;
    while ((parent = rb_parent(node)) != nullptr && is_red(parent)) {
        rb_node *grand = rb_parent(parent);  // a red parent is never the root
        const bool parent_is_left = grand->rb_left == parent;
        rb_node *uncle = parent_is_left ? grand->rb_right : grand->rb_left;
        if (is_red(uncle)) {
            set_black(uncle);
            set_black(parent);
            set_red(grand);
            node = grand;
            continue;
        }
        if (parent_is_left) {
            if (parent->rb_right == node) {
                rotate_left(parent, root);
                parent = node;
            }
            rotate_right(grand, root);
        } else {
            if (parent->rb_left == node) {
                rotate_right(parent, root);
                parent = node;
            }
            rotate_left(grand, root);
        }
        set_black(parent);
        set_red(grand);
        break;
    }
    set_black(root->rb_node);
}

extern "C" void rb_erase(struct rb_node *node, struct rb_root *root)
{
    rb_node *child;
    rb_node *parent;
    uintptr_t removed_colour;
    if (node->rb_left == nullptr || node->rb_right == nullptr) {
        // At most one child: it takes the node's place.
        child = node->rb_left != nullptr ? node->rb_left : node->rb_right;
        parent = rb_parent(node);
        removed_colour = colour(node);
        if (child != nullptr)
            set_parent(child, parent);
        replace_child(node, child, parent, root);
    } else {
        // Two children: the in-order successor (no left child) leaves its own
        // place to its right child and takes the node's place and colour.
        rb_node *successor = node->rb_right;
        while (successor->rb_left != nullptr)
            successor = successor->rb_left;
        child = successor->rb_right;
        removed_colour = colour(successor);
        if (rb_parent(successor) == node) {
            parent = successor;
        } else {
            parent = rb_parent(successor);
            if (child != nullptr)
                set_parent(child, parent);
            parent->rb_left = child;
            successor->rb_right = node->rb_right;
            set_parent(node->rb_right, successor);
        }
        replace_child(node, successor, rb_parent(node), root);
        successor->rb_parent_color = node->rb_parent_color;
        successor->rb_left = node->rb_left;
        set_parent(node->rb_left, successor);
    }
    if (removed_colour == RB_BLACK)
        erase_fixup(child, parent, root);
}

extern "C" struct rb_node *rb_next(const struct rb_node *node)
{
    if (node->rb_right != nullptr) {
        const rb_node *next = node->rb_right;
        while (next->rb_left != nullptr)
            next = next->rb_left;
        return const_cast<rb_node *>(next);
    }
    rb_node *parent;
    while ((parent = rb_parent(node)) != nullptr && parent->rb_right == node)
        node = parent;
    return parent;
}

extern "C" struct rb_node *rb_first(const struct rb_root *root)
{
    rb_node *node = root->rb_node;
    if (node == nullptr)
        return nullptr;
    while (node->rb_left != nullptr)
        node = node->rb_left;
    return node;
}
