// The bridge's MAC table: open addressing that must find every key it holds
// after any mix of insertions and removals, and a learning capacity that
// bounds what a flood of source MACs can take.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <random>

#include "efrt.h"
#include "efrt_services.h"
#include "mac_table.h"

namespace {

using Key = std::pair<uint64_t, uint64_t>;

// Every key of the model is found with its entry, and nothing else is.
void expect_same(efrt::MacTable &table, const std::map<Key, uint32_t> &model, std::mt19937_64 &rng)
{
    ASSERT_EQ(table.size(), model.size());
    for (const auto &[key, ifindex] : model) {
        const efrt::MacEntry *e = table.find(key.first, key.second);
        ASSERT_NE(e, nullptr);
        EXPECT_EQ(e->ifindex, ifindex);
    }
    for (int i = 0; i < 50; ++i) {
        const Key absent{rng() % 4, rng() % 512 + 1000};
        EXPECT_EQ(table.find(absent.first, absent.second), nullptr);
    }
}

TEST(MacTableTest, EveryKeyIsFoundAfterRandomInsertionsAndRemovals)
{
    efrt::MacTable table;
    std::map<Key, uint32_t> model;
    std::mt19937_64 rng(7);
    for (int round = 0; round < 200; ++round) {
        for (int i = 0; i < 40; ++i) {
            const Key key{rng() % 4, rng() % 512};
            const auto ifindex = static_cast<uint32_t>(rng() % 1000);
            table.find_or_insert(key.first, key.second) = efrt::MacEntry{ifindex, 0, false, efrt::MacKind::Learned, 0};
            model[key] = ifindex;
        }
        const uint32_t cut = static_cast<uint32_t>(rng() % 1000);
        const size_t removed = table.erase_if([cut](const efrt::MacEntry &e) { return e.ifindex < cut / 3; });
        size_t expected = 0;
        for (auto it = model.begin(); it != model.end();)
            if (it->second < cut / 3) {
                it = model.erase(it);
                expected++;
            } else {
                ++it;
            }
        ASSERT_EQ(removed, expected);
        expect_same(table, model, rng);
    }
}

class MacCapacityTest : public ::testing::Test {
protected:
    void SetUp() override { efrt::reset(); }
    void TearDown() override { efrt::reset(); }

    static int learn(uint32_t n)
    {
        auto add = reinterpret_cast<ef_bridge_add_mac_fn>(
            efmp_get_service(EFMP_MODULE_BRIDGE, EF_BRIDGE_SERV_ADD_MAC));
        ef_bridge_mac_req_t req{};
        req.mac[0] = 0x02;
        std::memcpy(req.mac + 2, &n, sizeof n);
        req.key = EF_BRIDGE_KEY_VNI | 100;
        req.ifindex = 9;
        return add(&req);
    }
};

TEST_F(MacCapacityTest, LearningStopsAtTheCapacityAndCountsWhatItRefused)
{
    efrt::bridge_set_mac_capacity(100);
    for (uint32_t n = 0; n < 100; ++n)
        ASSERT_EQ(learn(n), 0) << n;
    EXPECT_EQ(learn(100), -1);
    EXPECT_EQ(learn(101), -1);
    EXPECT_EQ(efrt::bridge_mac_count(), 100u);
    EXPECT_EQ(efrt::bridge_mac_refused(), 2u);
    EXPECT_EQ(learn(5), 0);  // a MAC already held is refreshed, not refused
    EXPECT_EQ(efrt::bridge_mac_refused(), 2u);
    const uint8_t fixed[6] = {0x00, 0x00, 0x5e, 0x00, 0x01, 0x01};
    efrt::bridge_add_mac(EF_BRIDGE_KEY_VNI | 100, fixed, 3, 10);  // configured: always taken
    EXPECT_EQ(efrt::bridge_mac_count(), 101u);
}

TEST_F(MacCapacityTest, AgedOutEntriesMakeRoomForNewOnes)
{
    efrt::bridge_set_mac_capacity(10);
    efrt::bridge_set_age_time(1000);
    for (uint32_t n = 0; n < 10; ++n)
        ASSERT_EQ(learn(n), 0);
    EXPECT_EQ(learn(10), -1);
    efrt::clock_advance(1000);
    EXPECT_EQ(efrt::bridge_age_run(), 10u);
    EXPECT_EQ(learn(10), 0);
    EXPECT_EQ(efrt::bridge_mac_count(), 1u);
}

TEST_F(MacCapacityTest, ResetRestoresTheDefaultCapacityAndClearsTheRefusedCount)
{
    efrt::bridge_set_mac_capacity(1);
    ASSERT_EQ(learn(0), 0);
    ASSERT_EQ(learn(1), -1);
    efrt::reset();
    EXPECT_EQ(efrt::bridge_mac_refused(), 0u);
    for (uint32_t n = 0; n < 1000; ++n)
        ASSERT_EQ(learn(n), 0);
}

}  // namespace
