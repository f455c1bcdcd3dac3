// Packet buffers recycled through the platform's pool: a buffer handed out
// again holds zeroes where its frame and tailroom lie, and the live count of
// every reason stays exact, inside and outside the range counted lock-free,
// whichever thread frees.
#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <vector>

#include "efmp.h"
#include "efrt.h"
#include "efrt_services.h"

namespace {

constexpr uint32_t kTailroom = 256;

TEST(BuffPoolTest, RecycledBufferHoldsZeroesInItsFrameAndTailroom)
{
    for (uint32_t len : {64u, 1500u, 9000u, 20000u}) {
        SCOPED_TRACE(len);
        efmp_buff_t *dirty = efmp_buff_alloc_sw_user(-3, len);
        ASSERT_NE(dirty, nullptr);
        std::memset(dirty->head + dirty->data_off, 0xAA, len + kTailroom);
        dirty->flags = ~0ull;
        efmp_buff_free_sw_user(-3, dirty);
        efmp_buff_t *b = efmp_buff_alloc_sw_user(-3, len);
        ASSERT_NE(b, nullptr);
        EXPECT_EQ(b->flags, 0u);
        EXPECT_EQ(b->len, len);
        EXPECT_EQ(b->data_off, EFMP_BUFF_START);
        EXPECT_EQ(b->size, EFMP_BUFF_START + len + kTailroom);
        const std::vector<uint8_t> zeroes(len + kTailroom, 0);
        EXPECT_EQ(std::vector<uint8_t>(b->head + b->data_off, b->head + b->data_off + len + kTailroom),
                  zeroes);
        efmp_buff_free_sw_user(-3, b);
    }
    EXPECT_EQ(efrt::buff_live(-3), 0);
}

TEST(BuffPoolTest, LiveCountsStayExactForEveryReasonAcrossThreads)
{
    constexpr int kPerThread = 2000;
    const long before_total = efrt::buff_live_total();
    std::vector<efmp_buff_t *> made(4 * kPerThread);
    std::vector<std::thread> makers;
    for (int t = 0; t < 4; ++t)
        makers.emplace_back([&made, t] {
            for (int i = 0; i < kPerThread; ++i)
                made[t * kPerThread + i] = efmp_buff_alloc_sw_user(t % 2 ? -300 : -4, 64);
        });
    for (std::thread &m : makers)
        m.join();
    EXPECT_EQ(efrt::buff_live(-4), 2 * kPerThread);
    EXPECT_EQ(efrt::buff_live(-300), 2 * kPerThread);
    EXPECT_EQ(efrt::buff_live_total(), before_total + 4 * kPerThread);
    // Freed by other threads than the ones that made them.
    std::vector<std::thread> freers;
    for (int t = 0; t < 4; ++t)
        freers.emplace_back([&made, t] {
            const int maker = (t + 1) % 4;
            for (int i = 0; i < kPerThread; ++i)
                efmp_buff_free_sw_user(maker % 2 ? -300 : -4, made[maker * kPerThread + i]);
        });
    for (std::thread &f : freers)
        f.join();
    EXPECT_EQ(efrt::buff_live(-4), 0);
    EXPECT_EQ(efrt::buff_live(-300), 0);
    EXPECT_EQ(efrt::buff_live_total(), before_total);
    efrt::buff_pool_trim();
}

TEST(BuffPoolTest, ArmedFailuresAreTakenOneAllocationEach)
{
    efrt::buff_fail_alloc(2);
    EXPECT_EQ(efmp_buff_alloc_sw_user(-3, 64), nullptr);
    EXPECT_EQ(efmp_buff_alloc_sw_user(-3, 64), nullptr);
    efmp_buff_t *b = efmp_buff_alloc_sw_user(-3, 64);
    ASSERT_NE(b, nullptr);
    efmp_buff_free_sw_user(-3, b);
    EXPECT_EQ(efrt::buff_live(-3), 0);
}

}  // namespace
