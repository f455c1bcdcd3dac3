// Scale of the configuration tables: 16,000 VNIs, 4,094 VLANs, 512 tunnels
// and 64 adjacencies per VNI on a sample of the VNIs (one in two: 8,000
// VNIs, 512,000 adjacencies), loaded through the channel, then resynchronised
// twice: once unchanged and once with half of the VNIs and tunnels left out.
// The sample keeps the run to seconds and about half a gigabyte under
// AddressSanitizer; the run time is printed, never asserted.
#include <chrono>
#include <cstdio>

#include "table_fixture.h"
#include "vxlan_ef_tables.h"

namespace {

using namespace vxtest;

constexpr uint32_t kVnis = 16000;
constexpr uint32_t kTunnels = 512;
constexpr uint32_t kAdjsPerVni = 64;
constexpr uint32_t kSampleEvery = 2;
constexpr uint32_t kFirstVni = 10000;
constexpr uint32_t kFirstTunnel = 2000;

uint32_t vni_of(uint32_t k) { return kFirstVni + k; }
uint32_t tunnel_ifx(uint32_t t) { return kFirstTunnel + t; }
// One VNI in two carries adjacencies, odd and even ones alike.
bool sampled(uint32_t k) { return k % 4 == 0 || k % 4 == 3; }

// The j-th tunnel of VNI k: 64 distinct tunnels, half of them even.
uint32_t tunnel_of(uint32_t k, uint32_t j) { return j * 8 + (j + k) % 8; }

vxlan_ef_ip_addr_t tunnel_dip(uint32_t t)
{
    char text[64];
    if (t % 2 == 0) {
        std::snprintf(text, sizeof text, "10.%u.%u.1", t / 256, t % 256);
        return ip4(text);
    }
    std::snprintf(text, sizeof text, "2001:db8::%x", t);
    return ip6(text);
}

// Which part of the configuration a pass sends.
struct Selection {
    bool half;  // only even VNIs and even tunnels
    bool vni(uint32_t k) const { return !half || k % 2 == 0; }
    bool tunnel(uint32_t t) const { return !half || t % 2 == 0; }
};

class TableScaleTest : public TableTest {
protected:
    // Sends TLVs in messages of at most about 8000 bytes.
    class Batcher {
    public:
        explicit Batcher(TableScaleTest *test) : test_(test) {}
        ~Batcher() { flush(); }
        void add(const Tlv &tlv)
        {
            if (bytes_ + tlv.value.size() + 4 > 8000 || tlvs_.size() == 255)
                flush();
            bytes_ += tlv.value.size() + 4;
            tlvs_.push_back(tlv);
        }
        void flush()
        {
            if (tlvs_.empty())
                return;
            test_->deliver_tlvs(tlvs_);
            tlvs_.clear();
            bytes_ = 4;
        }

    private:
        TableScaleTest *test_;
        std::vector<Tlv> tlvs_;
        size_t bytes_ = 4;
    };

    void send_config(const Selection &sel)
    {
        Batcher b(this);
        for (uint32_t t = 0; t < kTunnels; ++t)
            if (sel.tunnel(t))
                b.add(set_vtep(tunnel_ifx(t), ip4("1.1.1.1"), tunnel_dip(t)));
        for (uint32_t k = 0; k < kVnis; ++k)
            if (sel.vni(k))
                b.add(set_entry(vni_of(k)));
        for (uint32_t v = 1; v <= VXLAN_EF_VLAN_COUNT; ++v)
            if (sel.vni(v))
                b.add(set_vlan(vni_of(v), {static_cast<uint16_t>(v)}));
        for (uint32_t k = 0; k < kVnis; ++k) {
            if (!sampled(k) || !sel.vni(k))
                continue;
            for (uint32_t j = 0; j < kAdjsPerVni; ++j)
                if (sel.tunnel(tunnel_of(k, j)))
                    b.add(asso_vtep(vni_of(k), tunnel_ifx(tunnel_of(k, j))));
        }
    }

    void resync(const Selection &sel)
    {
        deliver_tlvs({sync_begin()});
        send_config(sel);
        deliver_tlvs({sync_over()});
    }

    // Every table holds exactly what sel describes.
    void expect_tables(const Selection &sel)
    {
        uint32_t vnis = 0, tunnels = 0, adjs = 0;
        for (uint32_t t = 0; t < kTunnels; ++t) {
            vxlan_ef_intf_t *tun = tunnel(tunnel_ifx(t));
            ASSERT_EQ(tun != nullptr, sel.tunnel(t)) << t;
            tunnels += sel.tunnel(t) ? 1 : 0;
        }
        for (uint32_t k = 0; k < kVnis; ++k) {
            vxlan_ef_entry_t *e = entry(vni_of(k));
            ASSERT_EQ(e != nullptr, sel.vni(k)) << k;
            if (e == nullptr)
                continue;
            vnis++;
            ASSERT_EQ(e->dirty, 0u);
            uint32_t want = 0;
            if (sampled(k)) {
                for (uint32_t j = 0; j < kAdjsPerVni; ++j) {
                    const uint32_t t = tunnel_of(k, j);
                    vxlan_ef_adj_t *a = vxlan_ef_adj_get(vsd(), nullptr, tunnel_ifx(t), e);
                    ASSERT_EQ(a != nullptr, sel.tunnel(t)) << k << " " << j;
                    if (a == nullptr)
                        continue;
                    want++;
                    const vxlan_ef_ip_addr_t dip = tunnel_dip(t);
                    const vxlan_ef_ip_addr_t sip = ip4("1.1.1.1");
                    ASSERT_EQ(a->dirty, 0);
                    ASSERT_EQ(vxlan_ef_adj_get(vsd(), &dip, 0, e), a);
                    ASSERT_EQ(vxlan_ef_tunnel_get(nullptr, e, &sip, &dip), nullptr);  // no control blocks
                }
            }
            ASSERT_EQ(e->adj_count, want) << k;
            adjs += want;
        }
        for (uint32_t v = 1; v <= VXLAN_EF_VLAN_COUNT; ++v) {
            ASSERT_EQ(vsd()->vid_vni[v - 1], sel.vni(v) ? vni_of(v) : 0u) << v;
            ASSERT_EQ(vsd()->vid_node[v - 1] != nullptr, sel.vni(v)) << v;
        }
        EXPECT_EQ(vsd()->entry_count, vnis);
        EXPECT_EQ(vsd()->tunnel_count, tunnels);
        EXPECT_EQ(vsd()->adj_count, adjs);
        EXPECT_EQ(g_vxlan_ef_kmem_count[VXLAN_EF_MEM_ENTRY], vnis);
        EXPECT_EQ(g_vxlan_ef_kmem_count[VXLAN_EF_MEM_ADJ], adjs);
        EXPECT_EQ(g_vxlan_ef_kmem_count[VXLAN_EF_MEM_INTF], tunnels);
        EXPECT_EQ(g_vxlan_ef_kmem_count[VXLAN_EF_MEM_VID], sel.half ? VXLAN_EF_VLAN_COUNT / 2 : VXLAN_EF_VLAN_COUNT);
    }
};

TEST_F(TableScaleTest, SixteenThousandVnisSurviveAnUnchangedResyncAndLoseHalfInAReducedOne)
{
    const auto started = std::chrono::steady_clock::now();
    const long blocks_at_start = efrt::mem_live_blocks_total();
    start_tables(0);
    const Selection all{false};
    const Selection half{true};

    send_config(all);
    expect_tables(all);
    ASSERT_EQ(vsd()->adj_count, kVnis / kSampleEvery * kAdjsPerVni);
    vxlan_ef_entry_t *kept = entry(vni_of(8));
    vxlan_ef_intf_t *kept_tunnel = tunnel(tunnel_ifx(6));

    resync(all);
    expect_tables(all);
    EXPECT_EQ(entry(vni_of(8)), kept);  // confirmed, not re-created
    EXPECT_EQ(tunnel(tunnel_ifx(6)), kept_tunnel);

    resync(half);
    expect_tables(half);
    EXPECT_EQ(entry(vni_of(8)), kept);
    EXPECT_EQ(vsd()->entry_count, kVnis / 2);
    EXPECT_EQ(vsd()->adj_count, kVnis / kSampleEvery / 2 * kAdjsPerVni / 2);  // half the VNIs, half their tunnels

    vxlan_ef_exit();
    EXPECT_EQ(efrt::mem_live_blocks_total(), blocks_at_start);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    std::printf("scale: %u VNIs, %u tunnels, %u adjacencies, two resynchronisations in %.2f s\n", kVnis,
                kTunnels, kVnis / kSampleEvery * kAdjsPerVni, seconds);
}

}  // namespace
