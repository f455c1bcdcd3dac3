// The L3 engine's neighbour table keeps its size whatever the links send.
#include <gtest/gtest.h>

#include <sys/socket.h>

#include "l3_neighbours.h"

namespace {

using namespace efhost::l3;

NeighbourKey v4_key(uint32_t n)
{
    NeighbourKey k;
    k.port = 1;
    k.ip.family = AF_INET;
    k.ip.addr[0] = 10;
    k.ip.addr[1] = static_cast<uint8_t>(n >> 16);
    k.ip.addr[2] = static_cast<uint8_t>(n >> 8);
    k.ip.addr[3] = static_cast<uint8_t>(n);
    return k;
}

constexpr Mac kMac{0x02, 0, 0, 0, 0, 0x01};

TEST(NeighbourTableTest, NewNeighboursBeyondTheCapacityAreRefusedAndCounted)
{
    NeighbourTable t;
    for (uint32_t i = 0; i < kMaxNeighbours + 10; ++i)
        t.learn(v4_key(i), kMac, 0, true);
    EXPECT_EQ(t.size(), kMaxNeighbours);
    EXPECT_EQ(t.refused(), 10u);
    EXPECT_TRUE(t.find(v4_key(0), 0).has_value());
    EXPECT_FALSE(t.find(v4_key(kMaxNeighbours), 0).has_value());
}

TEST(NeighbourTableTest, KnownNeighbourIsRefreshedAndAnAwaitedOneLearntWhenTheTableIsFull)
{
    NeighbourTable t;
    for (uint32_t i = 0; i < kMaxNeighbours; ++i)
        t.learn(v4_key(i), kMac, 0, true);
    const NeighbourKey awaited = v4_key(kMaxNeighbours + 1);
    ASSERT_EQ(t.wait(awaited, Packet{1, 2, 3}, 0), NeighbourTable::Wait::Asking);
    const std::vector<Packet> released = t.learn(awaited, kMac, 5, false);
    ASSERT_EQ(released.size(), 1u);
    EXPECT_EQ(released[0], (Packet{1, 2, 3}));
    EXPECT_TRUE(t.find(awaited, 5).has_value());
    t.learn(v4_key(0), kMac, kNeighbourLifetimeMs - 1, true);
    EXPECT_TRUE(t.find(v4_key(0), kNeighbourLifetimeMs).has_value());
    EXPECT_EQ(t.refused(), 0u);
}

TEST(NeighbourTableTest, NoFurtherNextHopIsResolvedWhileTooManyAre)
{
    NeighbourTable t;
    for (uint32_t i = 0; i < kMaxResolving; ++i)
        ASSERT_EQ(t.wait(v4_key(i), Packet{1}, 0), NeighbourTable::Wait::Asking);
    EXPECT_EQ(t.wait(v4_key(kMaxResolving), Packet{1}, 0), NeighbourTable::Wait::Full);
    // One already being resolved still takes its packets.
    EXPECT_EQ(t.wait(v4_key(0), Packet{2}, 0), NeighbourTable::Wait::Queued);
    EXPECT_EQ(t.waiting(), kMaxResolving + 1);
    // Once the resolutions are given up there is room again.
    t.expire(kResolveGiveUpMs);
    EXPECT_EQ(t.waiting(), 0u);
    EXPECT_EQ(t.wait(v4_key(kMaxResolving), Packet{1}, kResolveGiveUpMs), NeighbourTable::Wait::Asking);
}

}  // namespace
