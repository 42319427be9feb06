// The heap against a sorted list.
#include <algorithm>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "zeb_heap.h"

TEST(zeb_heap, gives_equal_keys_in_the_order_in_which_they_came)
{
    zeb_heap_t heap = {};
    zeb_heap_node_t nodes[5] = {};
    for (zeb_heap_node_t &node : nodes)
        zeb_heap_add(&heap, &node, 7);
    for (zeb_heap_node_t &node : nodes) {
        EXPECT_EQ(heap.root, &node);
        zeb_heap_remove(&heap, &node);
        zeb_heap_remove(&heap, &node); // in no heap: changes nothing
    }
    EXPECT_EQ(heap.root, nullptr);
}

TEST(zeb_heap, finds_the_lowest_whatever_is_added_and_removed)
{
    std::mt19937 random(7);
    std::vector<zeb_heap_node_t> nodes(1000);
    std::vector<zeb_heap_node_t *> in;
    zeb_heap_t heap = {};
    for (int step = 0; step < 20000; step++) {
        zeb_heap_node_t *node = &nodes[random() % nodes.size()];
        auto at = std::find(in.begin(), in.end(), node);
        if (random() % 4 == 0 && !in.empty()) {
            zeb_heap_remove(&heap, in.front());
            in.erase(in.begin());
        } else if (at != in.end()) {
            zeb_heap_remove(&heap, node);
            in.erase(at);
        } else {
            zeb_heap_add(&heap, node, (int64_t)(random() % 100));
            in.insert(std::find_if(in.begin(), in.end(), [&](auto *other) { return other->key > node->key; }), node);
        }
        ASSERT_EQ(heap.root, in.empty() ? nullptr : in.front()) << "step " << step;
    }
}
