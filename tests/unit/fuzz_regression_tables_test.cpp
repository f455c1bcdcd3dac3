// Table inputs that the channel fuzz target found problems with, replayed
// message by message as the target delivered them, each asserting what the
// tables hold afterwards.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "channel_fuzz_input.h"
#include "forward_fixture.h"
#include "table_check.h"
#include "table_fixture.h"
#include "vxlan_ef_tables.h"

namespace {

using namespace vxtest;

// kT1 (101), kT2 (102) and kCapBase come from forward_fixture.h.
constexpr uint32_t kT6 = 106;

class FuzzRegressionTablesTest : public TableTest {
protected:
    // The tunnels and VNIs of the target's configured segment
    // (fuzz/module_harness.cpp), with the packet plane on as the target
    // starts it unless an input turns it off:
    //   T1 ifx 101 192.0.2.1 -> 10.0.0.1 in VNIs 100 and 200 (route learning)
    //   T2 ifx 102 192.0.2.1 -> 10.0.0.2 in VNI 100 (outside centre)
    //   T6 ifx 106 2001:db8::1 -> 2001:db8::2 in VNIs 100 and 300 (MAC learning)
    //   VNI 300 mapped to VNI 100; VNI 9000 with no tunnel.
    void start_segment()
    {
        set_cap(kCapBase);
        start_tables(0);
        const auto v4 = ip4("192.0.2.1");
        const auto v6 = ip6("2001:db8::1");
        deliver_tlvs({set_entry(100), set_entry(200), set_entry(300), set_entry(9000),
                      set_vlan(100, {10}), set_vlan(200, {20}), set_vlan(300, {30}), vni_map(300, 100),
                      set_vtep(kT1, v4, ip4("10.0.0.1")), set_vtep(kT2, v4, ip4("10.0.0.2")),
                      set_vtep(kT6, v6, ip6("2001:db8::2")), asso_vtep(100, kT1), asso_vtep(200, kT1),
                      asso_vtep(100, kT2), asso_vtep(100, kT6), asso_vtep(300, kT6),
                      tunnel_route_learn(kT1, 1), outside_center(kT2, 1), tunnel_mac_learn(kT6, 1)});
        ASSERT_EQ(vsd()->adj_count, 5u);
        ASSERT_EQ(table_problems_text(vsd()), "");
    }

    // Delivers the payloads on the channel, running the task after each one
    // (option bit 0) and checking the tables after every task run, as the
    // target does.
    void replay(const std::vector<uint8_t> &input)
    {
        const bool task_after_each = (input[0] & channel_input::kTaskAfterEach) != 0;
        for (const std::vector<uint8_t> &payload : channel_input::payloads(input.data(), input.size())) {
            ASSERT_EQ(efrt::msg_deliver(EF_MSG_MODULE_VXLAN, payload), 0);
            if (task_after_each) {
                efrt::clock_advance(100);
                EXPECT_EQ(table_problems_text(vsd()), "");
            }
        }
        efrt::clock_advance(100);
        EXPECT_EQ(table_problems_text(vsd()), "");
    }

    static std::vector<uint8_t> addr_bytes(const vxlan_ef_ip_addr_t &ip)
    {
        return std::vector<uint8_t>(ip.addr, ip.addr + sizeof ip.addr);
    }
};

// One SET_VTEP for T1 that repeats its addresses except for a byte beyond
// the 4 of its IPv4 destination. The module sees the same destination and
// leaves both adjacencies of T1 as they were; the table check compared all
// 16 bytes and reported both.
TEST_F(FuzzRegressionTablesTest, TunnelUpdateChangingOnlyBytesBeyondItsIpv4DestinationKeepsTheAdjacencies)
{
    start_segment();
    // Options 0x31: the configured segment, a task run after every payload,
    // payloads as TLV areas. One payload of 73 bytes: SET_VTEP (type 14) of
    // 69 bytes for ifx 101, source 192.0.2.1, destination 10.0.0.1 with
    // byte 6 of the address 0x08, oper 1.
    const std::vector<uint8_t> input = bytes({
        0x31, 0x49, 0x00, 0x0e, 0x00, 0x45, 0x00, 0x00, 0x00, 0x00, 0x00, 0x65, 0x00, 0x00, 0x00,
        0x02, 0x00, 0x00, 0x00, 0xc0, 0x00, 0x02, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
        0x00, 0x00, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00, 0x0a, 0x00, 0x00, 0x01, 0x00, 0x00,
        0x08, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
        0x01});
    ASSERT_EQ(input.size(), 76u);
    replay(input);

    const vxlan_ef_intf_t *t1 = tunnel(kT1);
    ASSERT_NE(t1, nullptr);
    const std::vector<uint8_t> sent = bytes({10, 0, 0, 1, 0, 0, 0x08, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    const std::vector<uint8_t> kept = bytes({10, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    EXPECT_EQ(t1->dip.family, static_cast<uint32_t>(VXLAN_EF_AF_INET));
    EXPECT_EQ(addr_bytes(t1->dip), sent);
    const vxlan_ef_ip_addr_t dip = ip4("10.0.0.1");
    for (uint32_t vni : {100u, 200u}) {
        SCOPED_TRACE("VNI " + std::to_string(vni));
        const vxlan_ef_adj_t *a = adj(vni, kT1);
        ASSERT_NE(a, nullptr);
        EXPECT_EQ(a->dip.family, static_cast<uint32_t>(VXLAN_EF_AF_INET));
        EXPECT_EQ(addr_bytes(a->dip), kept);
        EXPECT_EQ(a->sip.family, t1->sip.family);
        EXPECT_EQ(addr_bytes(a->sip), addr_bytes(t1->sip));
        // Still found by its destination, as decapsulation looks it up.
        EXPECT_EQ(vxlan_ef_adj_get(vsd(), &dip, 0, entry(vni)), a);
    }
    EXPECT_EQ(vsd()->adj_count, 5u);
}

}  // namespace
