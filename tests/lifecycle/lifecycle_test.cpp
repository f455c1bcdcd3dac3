// The module's whole life, many times over in one process: start, a full
// configuration, traffic on every packet path, a resynchronisation to a
// different configuration, exit. Each cycle must hand back everything it
// took, by the platform's accounting of memory per type and of packet
// buffers, and by the module's own count per category; run under valgrind
// (CTest's lifecycle_under_valgrind) nothing may leak or be touched wrongly.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "apply_config.h"
#include "bench_setup.h"
#include "efrt.h"
#include "efrt_services.h"
#include "tlv_message.h"
#include "vxlan_ef.h"
#include "workloads.h"

namespace {

constexpr int kCycles = 100;

// A configuration unlike the segment's in every table: switches, an anycast
// MAC, VNIs with routers and a VNI map, tunnels of both families, a VRF and
// sub-interfaces.
const char *kOtherConfig = R"(udp_port: 4790
switches:
  suppress_arp: true
  suppress_nd: true
  copy_dscp: true
  remote_arp_learn: false
  remote_nd_learn: true
anycast_mac: 00:00:5e:00:01:01
vnis:
  - vni: 1000
    vlans: [20, 30-33]
    router: {interface: 300, vrf: 1, anycast: true}
    map_vni: 2000
    arp_suppress: true
  - vni: 2000
    vlans: [40]
  - vni: 3000
tunnels:
  - {interface: 101, source: 192.0.2.1, destination: 10.0.0.1, vnis: [1000, 2000], mac_learn: true}
  - {interface: 106, source: "2001:db8::1", destination: "2001:db8::2", vnis: [2000, 3000], route_learn: true}
vrfs:
  - {id: 1, l3vni: 5000, l3_interface: 301}
  - {id: -3, l3vni: 5001, l3_interface: 302}
subinterfaces:
  - {interface: 201, parent: 11, vni: 1000, svid: 30, cvid: 0}
  - {interface: 202, parent: 11, vni: 2000, svid: 40, cvid: 7}
)";

std::vector<vxlanctl::Message> resync_messages(const char *apply_text)
{
    std::string error;
    const auto config = vxlanctl::read_apply_text(apply_text, "other.yaml", error);
    EXPECT_TRUE(config.has_value()) << error;
    if (!config)
        return {};
    const auto messages = vxlanctl::pack_messages(vxlanctl::apply_tlvs(*config), error);
    EXPECT_TRUE(messages.has_value()) << error;
    return messages.value_or(std::vector<vxlanctl::Message>{});
}

// Exit leaves sub-interface records to whoever configured them, so a host
// hands every record back with an empty resynchronisation first.
const char *kNothing = "";

// Every packet path of the segment once; each workload checks that its
// packet went the way it should.
size_t run_traffic()
{
    size_t paths = 0;
    for (const std::string &name : vxbench::workload_names()) {
        if (name.rfind("ref_", 0) == 0 || name == "resync_1000_vnis")
            continue;
        auto workload = vxbench::make_workload(name);
        if (!workload.has_value()) {
            ADD_FAILURE() << "no workload " << name;
            continue;
        }
        EXPECT_TRUE(workload->run()) << name << " went off its path";
        paths++;
    }
    return paths;
}

// Class 5 counts channel messages, which are freed outside the counting
// allocator: its count only grows, by design.
std::string module_records()
{
    std::string left;
    for (uint32_t cls = 0; cls < VXLAN_EF_MEM_CLASSES; ++cls)
        if (cls != VXLAN_EF_MEM_MSG && g_vxlan_ef_kmem_count[cls] != 0)
            left += " class " + std::to_string(cls) + ": " + std::to_string(g_vxlan_ef_kmem_count[cls]);
    return left;
}

TEST(LifecycleTest, HundredStartsConfigurationsTrafficAndExitsGiveEverythingBack)
{
    const auto other = resync_messages(kOtherConfig);
    const auto nothing = resync_messages(kNothing);
    ASSERT_FALSE(other.empty());
    ASSERT_FALSE(nothing.empty());
    const long blocks_before = efrt::mem_live_blocks_total();
    for (int cycle = 0; cycle < kCycles; ++cycle) {
        SCOPED_TRACE("cycle " + std::to_string(cycle));
        const std::string error = vxbench::start_segment();
        ASSERT_EQ(error, "");
        // decap, both tunnel families, fragmentation, flood, three sizes
        // each, the harness and the control path
        EXPECT_EQ(run_traffic(), 14u);
        for (const vxlanctl::Message &msg : other)
            ASSERT_TRUE(vxbench::deliver(msg));
        EXPECT_EQ(vxlan_ef_entry_get(g_vxlan_vsd, 100), nullptr) << "the resync kept VNI 100";
        EXPECT_NE(vxlan_ef_entry_get(g_vxlan_vsd, 3000), nullptr) << "the resync did not add VNI 3000";
        EXPECT_EQ(g_vxlan_ef_kmem_count[VXLAN_EF_MEM_SUBIF], 2u);
        for (const vxlanctl::Message &msg : nothing)
            ASSERT_TRUE(vxbench::deliver(msg));
        vxbench::stop_segment();
        ASSERT_EQ(module_records(), "") << "module records left by category";
        ASSERT_EQ(efrt::mem_live_blocks_total(), blocks_before) << "platform memory blocks left";
        ASSERT_EQ(efrt::buff_live_total(), 0) << "packet buffers left";
    }
}

}  // namespace
