// The platform's intrusive red-black tree: after every insertion and erasure
// of a long random sequence the tree keeps its colour rules and equal black
// heights, its parent links agree with its child links, and its in-order walk
// is the sorted set of keys.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <vector>

#include "ef_rbtree.h"

namespace {

struct Item {
    rb_node node;
    int key;
};

Item *item_of(rb_node *n) { return reinterpret_cast<Item *>(reinterpret_cast<char *>(n) - offsetof(Item, node)); }

bool black(const rb_node *n) { return n == nullptr || (n->rb_parent_color & 1) != 0; }

void insert(rb_root *root, Item *item)
{
    rb_node **link = &root->rb_node;
    rb_node *parent = nullptr;
    while (*link != nullptr) {
        parent = *link;
        link = item->key < item_of(parent)->key ? &parent->rb_left : &parent->rb_right;
    }
    rb_link_node(&item->node, parent, link);
    rb_insert_color(&item->node, root);
}

// Checks the subtree at n below parent; returns its black height or -1.
int check(const rb_node *n, const rb_node *parent, int *violations)
{
    if (n == nullptr)
        return 1;
    if (rb_parent(n) != parent)
        ++*violations;
    if ((n->rb_parent_color & 2) != 0)
        ++*violations;  // only bit 0 may carry anything besides the parent
    if (!black(n) && (!black(n->rb_left) || !black(n->rb_right)))
        ++*violations;
    const int left = check(n->rb_left, n, violations);
    const int right = check(n->rb_right, n, violations);
    if (left != right)
        ++*violations;
    return left + (black(n) ? 1 : 0);
}

// Every rule at once; the failure message says which step broke it.
void expect_valid(const rb_root &root, const std::set<int> &model, size_t step)
{
    int violations = 0;
    check(root.rb_node, nullptr, &violations);
    ASSERT_EQ(violations, 0) << "step " << step;
    ASSERT_TRUE(black(root.rb_node)) << "step " << step;
    std::vector<int> walk;
    for (rb_node *n = rb_first(&root); n != nullptr; n = rb_next(n))
        walk.push_back(item_of(n)->key);
    ASSERT_EQ(walk, std::vector<int>(model.begin(), model.end())) << "step " << step;
}

TEST(RbTreeTest, RandomInsertsAndErasesKeepEveryRuleAfterEachStep)
{
    std::mt19937 rng(20261121);
    std::uniform_int_distribution<int> key(0, 1499);
    rb_root root{nullptr};
    std::set<int> model;
    std::map<int, std::unique_ptr<Item>> items;
    constexpr size_t kSteps = 30000;
    for (size_t step = 0; step < kSteps; ++step) {
        const int k = key(rng);
        if (items.count(k) == 0) {
            auto item = std::make_unique<Item>();
            item->key = k;
            insert(&root, item.get());
            items[k] = std::move(item);
            model.insert(k);
        } else {
            rb_erase(&items[k]->node, &root);
            items.erase(k);
            model.erase(k);
        }
        expect_valid(root, model, step);
        if (HasFatalFailure())
            return;
    }
    EXPECT_GT(model.size(), 300u);  // the sequence did grow a real tree
    // Erase in an order unrelated to the keys until nothing is left.
    std::vector<int> keys(model.begin(), model.end());
    std::shuffle(keys.begin(), keys.end(), rng);
    for (size_t i = 0; i < keys.size(); ++i) {
        rb_erase(&items[keys[i]]->node, &root);
        model.erase(keys[i]);
        expect_valid(root, model, kSteps + i);
        if (HasFatalFailure())
            return;
    }
    EXPECT_EQ(root.rb_node, nullptr);
    EXPECT_EQ(rb_first(&root), nullptr);
}

TEST(RbTreeTest, AscendingInsertsStayBalancedAndWalkInOrder)
{
    rb_root root{nullptr};
    std::vector<std::unique_ptr<Item>> items;
    std::set<int> model;
    for (int k = 0; k < 1024; ++k) {
        items.push_back(std::make_unique<Item>());
        items.back()->key = k;
        insert(&root, items.back().get());
        model.insert(k);
    }
    expect_valid(root, model, 0);
    int depth = 0;
    for (const rb_node *n = root.rb_node; n != nullptr; n = n->rb_left)
        depth++;
    EXPECT_LE(depth, 20);  // at most twice the height of a perfect tree of 1024
    EXPECT_EQ(item_of(rb_first(&root))->key, 0);
    EXPECT_EQ(rb_next(&items.back()->node), nullptr);
}

TEST(RbTreeTest, SingleNodeIsABlackRootAndErasingItEmptiesTheTree)
{
    rb_root root{nullptr};
    Item item{};
    item.key = 7;
    insert(&root, &item);
    EXPECT_EQ(root.rb_node, &item.node);
    EXPECT_EQ(item.node.rb_parent_color, static_cast<uintptr_t>(RB_BLACK));
    EXPECT_EQ(rb_next(&item.node), nullptr);
    rb_erase(&item.node, &root);
    EXPECT_EQ(root.rb_node, nullptr);
}

}  // namespace
