// The module's packet counters as the loading process reads them through
// vxlan_ef_counters_read: a drop is counted under its reason while its trace
// line stays as it was, and decapsulated frames are counted in their VNI and
// tunnel. Counts live as long as the library, so each check is a difference.
#include <memory>

#include "parser_fixture.h"
#include "vxlan_ef_counters.h"
#include "vxlan_ef_parser.h"

namespace vxtest {
namespace {

class PacketCountersTest : public ParserTest {
protected:
    std::unique_ptr<vxlan_ef_counters_t> read()
    {
        auto c = std::make_unique<vxlan_ef_counters_t>();
        EXPECT_EQ(vxlan_ef_counters_read(c.get()), 0);
        return c;
    }
};

const vxlan_ef_flow_counts_t *row(const vxlan_ef_flow_counts_t *rows, uint32_t n, uint32_t key)
{
    for (uint32_t i = 0; i < n; i++)
        if (rows[i].key == key)
            return &rows[i];
    return nullptr;
}

uint64_t rx_frames(const vxlan_ef_flow_counts_t *r) { return r == nullptr ? 0 : r->rx_frames; }
uint64_t rx_bytes(const vxlan_ef_flow_counts_t *r) { return r == nullptr ? 0 : r->rx_bytes; }

TEST_F(PacketCountersTest, ReadRefusesANullRecord)
{
    EXPECT_EQ(vxlan_ef_counters_read(nullptr), -1);
}

TEST_F(PacketCountersTest, ReasonNamesFollowTheRecordsFields)
{
    ASSERT_EQ(sizeof vxlan_ef_drop_reasons / sizeof vxlan_ef_drop_reasons[0], VXLAN_EF_DROP_REASONS);
    EXPECT_STREQ(vxlan_ef_drop_reasons[0].name, "no_instance");
    EXPECT_STREQ(vxlan_ef_drop_reasons[offsetof(vxlan_ef_drop_counts_t, BadInnerTag) / 8].name,
                 "bad_inner_tag");
}

TEST_F(PacketCountersTest, BadInnerTagIsCountedAndTracedAsBefore)
{
    start_parser();
    trace_on();
    const auto before = read();
    efmp_buff_t *b = receive(vxlan4(from_tunnel4(), tagged(inner_ipv4(), 0x0000)));
    EXPECT_EQ(vxlan_ef_parser_service(b), EF_Drop);
    const auto after = read();
    EXPECT_EQ(after->drops.BadInnerTag - before->drops.BadInnerTag, 1u);
    EXPECT_EQ(after->drops.UnknownVni, before->drops.UnknownVni);
    EXPECT_EQ(take_trace().parser,
              std::vector<std::string>{fmt("VXLAN-EF-PARSER: [vsd 3 vxlan_ef_vxlan_parser] pkt %p: the "
                                           "inner tag of the vxlan packet is abnormal[vid: 0], drop.\n",
                                           static_cast<void *>(b))});
}

TEST_F(PacketCountersTest, UnknownVniOnATunnelIsCounted)
{
    start_parser();
    const auto before = read();
    efmp_buff_t *b = receive(inner_ipv4(), kTunnel4);
    efmp_buff_set_vni(b, 7000);
    EXPECT_EQ(vxlan_ef_parser_tunnel_service(b), EF_Drop);
    const auto after = read();
    EXPECT_EQ(after->drops.UnknownVni - before->drops.UnknownVni, 1u);
}

TEST_F(PacketCountersTest, DecapsulatedFramesAreCountedInTheirVniAndTunnel)
{
    start_parser();
    const auto before = read();
    const Bytes inner = inner_ipv4();
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(vxlan_ef_parser_service(receive(vxlan4(from_tunnel4(), inner))), EF_Normal);
    const auto after = read();
    const auto *vb = row(before->vnis, before->vni_count, kVni);
    const auto *va = row(after->vnis, after->vni_count, kVni);
    ASSERT_NE(va, nullptr);
    EXPECT_EQ(rx_frames(va) - rx_frames(vb), 3u);
    EXPECT_EQ(rx_bytes(va) - rx_bytes(vb), 3u * inner.size());
    const auto *tb = row(before->tunnels, before->tunnel_count, kTunnel4);
    const auto *ta = row(after->tunnels, after->tunnel_count, kTunnel4);
    ASSERT_NE(ta, nullptr);
    EXPECT_EQ(rx_frames(ta) - rx_frames(tb), 3u);
    EXPECT_EQ(rx_bytes(ta) - rx_bytes(tb), 3u * inner.size());
    // Rows come sorted by key.
    for (uint32_t i = 1; i < after->vni_count; i++)
        EXPECT_LT(after->vnis[i - 1].key, after->vnis[i].key);
}

}  // namespace
}  // namespace vxtest
