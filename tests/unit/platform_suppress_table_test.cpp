// The platform's suppression table on its own: remote and local bindings and
// how each replaces the other, ageing of local ones on the platform clock,
// the generation that tells a client whether the local set changed, the
// bound on learning, the per-VNI switches and reset. After each step the
// whole table is compared, not only the entry the step touched.
#include <gtest/gtest.h>

#include "efrt.h"
#include "suppress.h"

namespace {

using efrt::BindingKind;
using efrt::MacAddr;
using efrt::NeighbourIp;
using efrt::SuppressProto;

constexpr uint32_t kVni = 100;
constexpr MacAddr kMacA{0x02, 0, 0, 0, 0, 0x0A};
constexpr MacAddr kMacB{0x02, 0, 0, 0, 0, 0x0B};

NeighbourIp ip4(uint8_t last) { return NeighbourIp{false, {10, 1, 1, last}}; }

NeighbourIp ip6(uint8_t last)
{
    NeighbourIp ip{true, {0x20, 0x01, 0x0d, 0xb8}};
    ip.bytes[15] = last;
    return ip;
}

struct Row {
    uint32_t vni;
    NeighbourIp ip;
    MacAddr mac;
    BindingKind kind;
    bool operator==(const Row &) const = default;
};

std::vector<Row> table()
{
    std::vector<Row> rows;
    for (const efrt::SuppressBinding &b : efrt::suppress_bindings())
        rows.push_back(Row{b.vni, b.ip, b.mac, b.kind});
    return rows;
}

class SuppressTableTest : public ::testing::Test {
protected:
    void SetUp() override { efrt::reset(); }
    void TearDown() override { efrt::reset(); }
};

TEST_F(SuppressTableTest, BindingsAreListedByVniThenAddressWithIpv4First)
{
    efrt::suppress_add_remote(200, ip4(1), kMacA);
    efrt::suppress_add_remote(kVni, ip6(1), kMacA);
    efrt::suppress_learn_local(kVni, ip4(9), kMacB);
    efrt::suppress_add_remote(kVni, ip4(2), kMacB);
    EXPECT_EQ(table(), (std::vector<Row>{{kVni, ip4(2), kMacB, BindingKind::Remote},
                                         {kVni, ip4(9), kMacB, BindingKind::Local},
                                         {kVni, ip6(1), kMacA, BindingKind::Remote},
                                         {200, ip4(1), kMacA, BindingKind::Remote}}));
}

TEST_F(SuppressTableTest, RemoteBindingNeverAgesAndLocalAgesAfterTheAgeTime)
{
    efrt::suppress_add_remote(kVni, ip4(2), kMacB);
    efrt::suppress_learn_local(kVni, ip4(1), kMacA);
    efrt::clock_advance(299999);
    EXPECT_EQ(efrt::suppress_age_run(), 0u);
    efrt::clock_advance(1);
    EXPECT_EQ(efrt::suppress_age_run(), 1u);
    EXPECT_EQ(table(), (std::vector<Row>{{kVni, ip4(2), kMacB, BindingKind::Remote}}));
    efrt::clock_advance(10000000);
    EXPECT_EQ(efrt::suppress_age_run(), 0u);
    EXPECT_EQ(table().size(), 1u);
}

TEST_F(SuppressTableTest, SeeingALocalBindingAgainRestartsItsAge)
{
    efrt::suppress_set_age_time(1000);
    efrt::suppress_learn_local(kVni, ip4(1), kMacA);
    efrt::clock_advance(900);
    efrt::suppress_learn_local(kVni, ip4(1), kMacA);
    efrt::clock_advance(900);
    EXPECT_EQ(efrt::suppress_age_run(), 0u);
    efrt::clock_advance(100);
    EXPECT_EQ(efrt::suppress_age_run(), 1u);
    EXPECT_TRUE(table().empty());
}

TEST_F(SuppressTableTest, GenerationChangesExactlyWhenTheLocalSetChanges)
{
    uint64_t g = efrt::suppress_generation();
    auto changed = [&g]() {
        const uint64_t now = efrt::suppress_generation();
        const bool moved = now != g;
        g = now;
        return moved;
    };
    efrt::suppress_add_remote(kVni, ip4(2), kMacB);
    EXPECT_FALSE(changed()) << "a remote binding is not local";
    efrt::suppress_learn_local(kVni, ip4(1), kMacA);
    EXPECT_TRUE(changed()) << "learnt";
    efrt::suppress_learn_local(kVni, ip4(1), kMacA);
    EXPECT_FALSE(changed()) << "seen again";
    efrt::suppress_learn_local(kVni, ip4(1), kMacB);
    EXPECT_TRUE(changed()) << "moved to another MAC";
    EXPECT_FALSE(efrt::suppress_remove_remote(kVni, ip4(1)));
    EXPECT_FALSE(changed()) << "a remote removal leaves a local binding";
    efrt::suppress_learn_local(kVni, ip4(2), kMacA);
    EXPECT_TRUE(changed()) << "a local binding replaced a remote one";
    efrt::suppress_add_remote(kVni, ip4(1), kMacA);
    EXPECT_TRUE(changed()) << "a remote binding replaced a local one";
    efrt::clock_advance(300000);
    efrt::suppress_age_run();
    EXPECT_TRUE(changed()) << "aged out";
    efrt::suppress_age_run();
    EXPECT_FALSE(changed()) << "nothing left to age";
}

TEST_F(SuppressTableTest, LocalAndRemoteBindingsReplaceEachOther)
{
    efrt::suppress_add_remote(kVni, ip4(1), kMacB);
    efrt::suppress_learn_local(kVni, ip4(1), kMacA);
    EXPECT_EQ(table(), (std::vector<Row>{{kVni, ip4(1), kMacA, BindingKind::Local}})) << "the host moved here";
    const std::optional<efrt::SuppressBinding> before = efrt::suppress_add_remote(kVni, ip4(1), kMacB);
    ASSERT_TRUE(before);
    EXPECT_EQ(before->kind, BindingKind::Local);
    EXPECT_EQ(before->mac, kMacA);
    EXPECT_EQ(table(), (std::vector<Row>{{kVni, ip4(1), kMacB, BindingKind::Remote}})) << "and away again";
    uint64_t generation = 0;
    EXPECT_TRUE(efrt::suppress_local_bindings(generation).empty());
    EXPECT_EQ(generation, efrt::suppress_generation());
}

TEST_F(SuppressTableTest, RemoteAddIsIdempotentAndRemoveTakesOnlyRemoteBindings)
{
    EXPECT_FALSE(efrt::suppress_add_remote(kVni, ip4(2), kMacB));
    const std::optional<efrt::SuppressBinding> again = efrt::suppress_add_remote(kVni, ip4(2), kMacB);
    ASSERT_TRUE(again);
    EXPECT_EQ(again->kind, BindingKind::Remote);
    efrt::suppress_learn_local(kVni, ip4(1), kMacA);
    EXPECT_FALSE(efrt::suppress_remove_remote(kVni, ip4(1)));
    EXPECT_FALSE(efrt::suppress_remove_remote(kVni, ip4(3)));
    EXPECT_FALSE(efrt::suppress_remove_remote(200, ip4(2))) << "another VNI's address";
    EXPECT_TRUE(efrt::suppress_remove_remote(kVni, ip4(2)));
    EXPECT_EQ(table(), (std::vector<Row>{{kVni, ip4(1), kMacA, BindingKind::Local}}));
}

TEST_F(SuppressTableTest, LearningStopsAtTheCapacityWhileRemoteBindingsAreTaken)
{
    efrt::suppress_set_local_capacity(2);
    EXPECT_TRUE(efrt::suppress_learn_local(kVni, ip4(1), kMacA));
    EXPECT_TRUE(efrt::suppress_learn_local(kVni, ip4(2), kMacA));
    EXPECT_FALSE(efrt::suppress_learn_local(kVni, ip4(3), kMacA));
    EXPECT_TRUE(efrt::suppress_learn_local(kVni, ip4(2), kMacB)) << "a known one still moves";
    efrt::suppress_add_remote(kVni, ip4(4), kMacB);
    EXPECT_EQ(table().size(), 3u);
    const efrt::SuppressCounters n = efrt::suppress_counters();
    EXPECT_EQ(n.local_learned, 3u);
    EXPECT_EQ(n.local_refused, 1u);
    EXPECT_FALSE(efrt::suppress_lookup(kVni, ip4(3)));
}

TEST_F(SuppressTableTest, SwitchesArePerVniAndProtocol)
{
    EXPECT_FALSE(efrt::suppress_switch_on(kVni, SuppressProto::Arp));
    efrt::suppress_set_switch(kVni, SuppressProto::Arp, true);
    efrt::suppress_set_switch(200, SuppressProto::Nd, true);
    EXPECT_TRUE(efrt::suppress_switch_on(kVni, SuppressProto::Arp));
    EXPECT_FALSE(efrt::suppress_switch_on(kVni, SuppressProto::Nd));
    EXPECT_TRUE(efrt::suppress_switch_on(200, SuppressProto::Nd));
    EXPECT_FALSE(efrt::suppress_switch_on(300, SuppressProto::Arp));
    std::vector<efrt::SuppressSwitches> all = efrt::suppress_switches();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].vni, kVni);
    EXPECT_TRUE(all[0].arp);
    EXPECT_FALSE(all[0].nd);
    EXPECT_EQ(all[1].vni, 200u);
    efrt::suppress_set_switch(kVni, SuppressProto::Arp, false);
    all = efrt::suppress_switches();
    ASSERT_EQ(all.size(), 1u) << "a VNI with every switch off is not listed";
    EXPECT_EQ(all[0].vni, 200u);
}

TEST_F(SuppressTableTest, ResetEmptiesTheTableAndStartsANewGeneration)
{
    efrt::suppress_set_switch(kVni, SuppressProto::Arp, true);
    efrt::suppress_learn_local(kVni, ip4(1), kMacA);
    efrt::suppress_add_remote(kVni, ip4(2), kMacB);
    efrt::suppress_count(efrt::SuppressEvent::ArpAnswered);
    efrt::suppress_set_age_time(5);
    const uint64_t before = efrt::suppress_generation();
    efrt::reset();
    EXPECT_TRUE(table().empty());
    EXPECT_TRUE(efrt::suppress_switches().empty());
    EXPECT_FALSE(efrt::suppress_switch_on(kVni, SuppressProto::Arp));
    EXPECT_NE(efrt::suppress_generation(), before);
    EXPECT_EQ(efrt::suppress_counters().arp_answered, 0u);
    EXPECT_EQ(efrt::suppress_counters().local_learned, 0u);
    efrt::suppress_learn_local(kVni, ip4(1), kMacA);
    efrt::clock_advance(299999);
    EXPECT_EQ(efrt::suppress_age_run(), 0u) << "the age time is back to 300 s";
}

}  // namespace
