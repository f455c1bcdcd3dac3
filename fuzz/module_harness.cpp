// The module's fuzz harness (module_harness.h).
#include "module_harness.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "apply_config.h"
#include "ef_byteorder.h"
#include "ef_wire.h"
#include "ef_bridge.h"
#include "efrt.h"
#include "efrt_bcast.h"
#include "efrt_l3.h"
#include "efrt_services.h"
#include "table_check.h"
#include "tlv_message.h"
#include "vxlan_ef.h"
#include "vxlan_ef_frame.h"
#include "vxlan_ef_tables.h"

namespace fuzz {

namespace {

constexpr const char *kCapBase = "g_feature_spec/dcn/CAP_VXLAN_BASE";
constexpr const char *kCapSoft = "g_feature_spec/product_platform_spec/CAP_FWDMODE_SOFT";
constexpr const char *kCapOutsideCenter = "g_feature_spec/dcn/CAP_VXLAN_OUTSIDECENTER";
constexpr const char *kCapL2vni = "g_feature_spec/dcn/CAP_VXLAN_L2VNIMAPPING";
constexpr uint64_t kTaskRunMs = 100;
constexpr uint32_t kEthernetType = 3;
constexpr uint32_t kDeviceType = 32;
constexpr uint8_t kSubifModeL2 = 5;

// The module writes its log file and dumps below TMPDIR: a directory of this
// process's own, removed when it ends. The log file is synced after every
// line, so it lives in memory where there is a memory file system.
std::string g_scratch;

void remove_scratch()
{
    std::error_code ec;
    std::filesystem::remove_all(g_scratch, ec);
}

void once_per_process()
{
    if (!g_scratch.empty())
        return;
    std::error_code ec;
    const bool shm = std::filesystem::is_directory("/dev/shm", ec);
    char tmpl[64];
    std::snprintf(tmpl, sizeof tmpl, "%s/vxlan_ef_fuzz.XXXXXX", shm ? "/dev/shm" : "/tmp");
    if (mkdtemp(tmpl) == nullptr)
        fail("cannot make a scratch directory");
    g_scratch = tmpl;
    std::filesystem::create_directories(g_scratch + "/dc/vxlan");
    std::atexit(remove_scratch);
}

// Module globals outlive an instance; each input starts them as a freshly
// loaded module has them.
void clear_module_globals()
{
    g_vxlan_ef_eve = 0;
    vxlan_ef_thread = nullptr;
    std::memset(g_vxlan_ef_kmem_count, 0, sizeof g_vxlan_ef_kmem_count);
    g_vxlan_ef_master = vxlan_ef_master_t{};
    g_vxlan_ef_mom_reg = ef_mom_reg_t{};
    vxlan_ef_bridge_mac_lookup = nullptr;
    vxlan_ef_bridge_intf_pvid_get = nullptr;
    vxlan_ef_l2protocol_pkt_check = nullptr;
    vxlan_ef_add_mac_entry = nullptr;
    vxlan_ef_intf_vlan_check = nullptr;
}

// VXLAN_EF_FUZZ_LOG=1 prints what the module logged for each input.
bool show_log()
{
    static const bool on = std::getenv("VXLAN_EF_FUZZ_LOG") != nullptr;
    return on;
}

void print_log()
{
    if (!show_log())
        return;
    for (const std::string &line : efrt::syslog_texts())
        std::fprintf(stderr, "log: %s%s", line.c_str(), !line.empty() && line.back() == '\n' ? "" : "\n");
}

void platform_fresh()
{
    efrt::reset();
    clear_module_globals();
    setenv("VSDID", "3", 1);
    setenv("TMPDIR", g_scratch.c_str(), 1);
    // Texts are still formatted (that is fuzzed too), just not kept, unless
    // someone replaying an input wants to read them.
    efrt::syslog_set_keep(show_log());
    efrt::bcast_set_recording(false);
}

// The segment's configuration as vxlanctl's apply file would give it.
constexpr const char *kSegmentApply = R"(
udp_port: 4789
switches: {suppress_arp: false, suppress_nd: false, copy_dscp: true,
           remote_arp_learn: false, remote_nd_learn: true}
anycast_mac: 00:00:5e:00:01:01
vnis:
  - {vni: 100, vlans: [10], router: {interface: 300, vrf: 5, anycast: true}}
  - {vni: 200, vlans: [20], arp_suppress: true, nd_suppress: true, protected: true}
  - {vni: 300, vlans: [30], map_vni: 100}
  - {vni: 9000}
tunnels:
  - {interface: 101, source: 192.0.2.1, destination: 10.0.0.1, vnis: [100, 200],
     route_learn: true}
  - {interface: 102, source: 192.0.2.1, destination: 10.0.0.2, vnis: [100],
     outside_center: true}
  - {interface: 106, source: "2001:db8::1", destination: "2001:db8::2", vnis: [100, 300],
     mac_learn: true}
vrfs:
  - {id: 5, l3vni: 9000, l3_interface: 300}
subinterfaces:
  - {interface: 201, parent: 11, vni: 100, svid: 40}
  - {interface: 202, parent: 12, vni: 100, svid: 50, cvid: 60}
)";

std::vector<Bytes> segment_messages()
{
    std::string error;
    const auto config = vxlanctl::read_apply_text(kSegmentApply, "segment", error);
    if (!config)
        fail("the segment's apply text is refused: " + error);
    const auto messages = vxlanctl::pack_messages(vxlanctl::apply_tlvs(*config), error);
    if (!messages)
        fail("the segment's TLVs do not pack: " + error);
    return *messages;
}

void add_port(uint32_t ifx, const char *name)
{
    efrt::lsm_add(efrt::make_intf(ifx, kEthernetType, LSM_IF_STACK_BRIDGE, name));
}

void add_subif(uint32_t ifx, uint32_t parent, const char *name)
{
    lsm_intfcb_t s = efrt::make_intf(ifx, kEthernetType, LSM_IF_STACK_BRIDGE, name);
    s.subif_mode = kSubifModeL2;
    s.parent_ifx = parent;
    efrt::lsm_add(s);
}

uint64_t vni_key(uint32_t vni) { return EF_BRIDGE_KEY_VNI | vni; }

void add_bridge_state()
{
    using namespace seg;
    for (uint16_t vid : {10, 20})
        efrt::bridge_add_vlan(kP1, vid);
    for (uint16_t vid : {10, 30})
        efrt::bridge_add_vlan(kP2, vid);
    efrt::bridge_add_vlan(kPeerLink, 10);
    efrt::bridge_set_pvid(kP1, 10);
    // Known hosts: behind each tunnel, on each port and sub-interface.
    const uint8_t behind_t1[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x01};
    const uint8_t behind_t6[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x06};
    const uint8_t on_p1[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x0B};
    const uint8_t on_s1[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x5B};
    const uint8_t router_mac[6] = {0x00, 0x00, 0x5E, 0x00, 0x01, 0x01};
    efrt::bridge_add_mac(vni_key(kVni), behind_t1, kT1, 10);
    efrt::bridge_add_mac(vni_key(kVni), behind_t6, kT6, 10);
    efrt::bridge_add_mac(vni_key(kVni), on_p1, kP1, 10);
    efrt::bridge_add_mac(vni_key(kVni), on_s1, kS1, 10);
    efrt::bridge_add_mac(vni_key(kVniSuppressed), behind_t1, kT1, 20);
    efrt::bridge_add_mac(vni_key(kVni), router_mac, kRouter, 10);
}

}  // namespace

void fail(const std::string &what)
{
    print_log();
    std::fprintf(stderr, "\n==== fuzz check failed ====\n%s\n", what.c_str());
    std::fflush(stderr);
    std::abort();
}

namespace {

// Starts the module on the platform as it is now.
void launch(const StartOptions &options)
{
    efrt::cap_define(kCapBase, options.base);
    efrt::cap_define(kCapSoft, options.soft);
    efrt::cap_define(kCapL2vni, options.l2vni_mapping);
    efrt::cap_define(kCapOutsideCenter, options.outside_center);
    if (vxlan_ef_init() != 0 || g_vxlan_vsd == nullptr)
        fail("the module did not start");
    if (!options.bridge_services)
        efrt::bridge_withdraw_all();
    efrt::msg_connect(EF_MSG_MODULE_VXLAN, true);
}

}  // namespace

void start(const StartOptions &options)
{
    once_per_process();
    platform_fresh();
    launch(options);
}

void deliver(const Bytes &payload)
{
    if (efrt::msg_deliver(EF_MSG_MODULE_VXLAN, payload) != 0)
        fail("the channel refused a payload: the module is not registered");
}

void run_task() { efrt::clock_advance(kTaskRunMs); }

void deliver_all(const std::vector<Bytes> &messages)
{
    for (const Bytes &m : messages) {
        deliver(m);
        run_task();
    }
    check_tables("after the configuration");
}

void check_tables(const char *when)
{
    const std::string problems = vxtest::table_problems_text(g_vxlan_vsd);
    if (!problems.empty())
        fail(std::string("inconsistent tables ") + when + ":\n" + problems);
}

void stop()
{
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd != nullptr) {
        // An empty resynchronisation leaves every table empty, whatever the
        // input left behind (a resynchronisation it began included).
        std::string error;
        const auto sweep = vxlanctl::pack_messages(
            {vxlanctl::Tlv{vxlanctl::kSyncDataBegin, {}}, vxlanctl::Tlv{vxlanctl::kSyncDataOver, {}}},
            error);
        deliver(sweep->front());
        run_task();
        check_tables("after an empty resynchronisation");
        if (vsd->entry_count != 0 || vsd->adj_count != 0 || vsd->tunnel_count != 0 ||
            vsd->router_count != 0 || vsd->vrf_count != 0 || vsd->subif_by_ifx.count != 0)
            fail("an empty resynchronisation left records behind");
    }
    drain_l3_queue();
    print_log();
    if (g_vxlan_vsd != nullptr)
        vxlan_ef_exit();
    // Channel messages are freed outside the module's accounting, so their
    // category only counts up; the platform's count below covers them.
    for (uint32_t category = 0; category < VXLAN_EF_MEM_CLASSES; ++category)
        if (category != VXLAN_EF_MEM_MSG && g_vxlan_ef_kmem_count[category] != 0)
            fail("the stopped module still holds " + std::to_string(g_vxlan_ef_kmem_count[category]) +
                 " blocks of memory category " + std::to_string(category));
    if (const long live = efrt::mem_live_blocks(VXLAN_EF_EF_MEM_TYPE); live != 0)
        fail("the stopped module still holds " + std::to_string(live) + " platform memory blocks");
    if (const long live = efrt::buff_live_total(); live != 0)
        fail(std::to_string(live) + " packet buffers were neither freed nor handed on");
    if (const long live = efrt::mcast_nodes_live(); live != 0)
        fail(std::to_string(live) + " broadcast nodes were not given back");
    efrt::reset();
    vxlan_ef_thread = nullptr;
}

// ---- the segment ----

void start_segment(const StartOptions &options)
{
    using namespace seg;
    once_per_process();
    platform_fresh();
    // Ports and the device exist before the module starts: it attaches its
    // parsers to what is there and keeps the device's slot.
    add_port(kP1, "eth11");
    add_port(kP2, "eth12");
    add_port(kUplink, "eth20");
    add_port(kPeerLink, "eth14");
    add_subif(kS1, kP1, "eth11.40");
    add_subif(kS2, kP2, "eth12.50");
    efrt::lsm_add(efrt::make_intf(kRouter, LSM_IF_TYPE_OVERLAY_ROUTER, LSM_IF_STACK_RAW, "vbdif100"));
    efrt::lsm_add(efrt::make_intf(kL2Local, kDeviceType, LSM_IF_STACK_RAW, "L2LOCAL"));
    launch(options);
    // Tunnels come later: their parsers follow creation events.
    efrt::lsm_create(efrt::make_intf(kT1, LSM_IF_TYPE_OVERLAY_TUNNEL, LSM_IF_STACK_RAW, "tunnel1"));
    efrt::lsm_create(efrt::make_intf(kT2, LSM_IF_TYPE_OVERLAY_TUNNEL, LSM_IF_STACK_RAW, "tunnel2"));
    efrt::lsm_create(efrt::make_intf(kT6, LSM_IF_TYPE_OVERLAY_TUNNEL, LSM_IF_STACK_RAW, "tunnel6"));
    g_vxlan_vsd->peerlink_ifx = kPeerLink;
    add_bridge_state();
    static const std::vector<Bytes> messages = segment_messages();
    deliver_all(messages);
    efrt::msg_take_sent();
    if (vxlan_ef_entry_get(g_vxlan_vsd, kVni) == nullptr || g_vxlan_vsd->adj_count != 5 ||
        g_vxlan_vsd->subif_by_ifx.count != 2)
        fail("the segment's configuration did not take");
    if (options.base && (efrt::eth_parser_of(kUplink, EF_ETH_PARSER_SLOT_VXLAN) == nullptr ||
                         efrt::efmp_parser_of(intf(kT1)) == nullptr))
        fail("the module attached no parser to the segment's interfaces");
}

const std::vector<uint32_t> &segment_interfaces()
{
    using namespace seg;
    static const std::vector<uint32_t> all{kP1, kP2, kUplink, kPeerLink, kS1, kS2,
                                           kT1, kT2, kT6, kRouter, kL2Local};
    return all;
}

lsm_intfcb_t *intf(uint32_t ifindex) { return lsm_get_intfcb(ifindex); }

namespace {

void check_outer_packet(const efmp_buff_t *b)
{
    const uint8_t *p = b->head + b->data_off;
    const uint32_t len = b->len;
    if (uint64_t{b->data_off} + len > b->size)
        fail("an outer packet lies outside its buffer's storage");
    if (len < 1)
        fail("an empty packet reached the L3 engine");
    const unsigned version = p[0] >> 4;
    constexpr uint32_t kUdpAndVxlan = EF_UDP_HLEN + EF_VXLAN_HLEN;
    uint32_t udp = 0;
    if (version == EF_IPV4_VERSION) {
        if (len < EF_IPV4_HLEN + kUdpAndVxlan)
            fail("an IPv4 outer packet shorter than its headers reached the L3 engine");
        const uint16_t total = ef_get_be16(reinterpret_cast<const ef_ipv4_hdr *>(p)->total_len);
        if (total != len)
            fail("an outer IPv4 total length of " + std::to_string(total) + " on a packet of " +
                 std::to_string(len) + " bytes");
        udp = EF_IPV4_HLEN;
    } else if (version == EF_IPV6_VERSION) {
        if (len < EF_IPV6_HLEN + kUdpAndVxlan)
            fail("an IPv6 outer packet shorter than its headers reached the L3 engine");
        const uint16_t payload = ef_get_be16(reinterpret_cast<const ef_ipv6_hdr *>(p)->payload_len);
        if (payload != len - EF_IPV6_HLEN)
            fail("an outer IPv6 payload length of " + std::to_string(payload) +
                 " on a packet of " + std::to_string(len) + " bytes");
        udp = EF_IPV6_HLEN;
    } else {
        fail("a packet of IP version " + std::to_string(version) + " reached the L3 engine");
    }
    const uint16_t udp_len = ef_get_be16(reinterpret_cast<const ef_udp_hdr *>(p + udp)->len);
    if (udp_len != len - udp)
        fail("an outer UDP length of " + std::to_string(udp_len) + " on " +
             std::to_string(len - udp) + " bytes of UDP");
    if ((reinterpret_cast<const ef_vxlan_hdr *>(p + udp + EF_UDP_HLEN)->flags & EF_VXLAN_FLAG_I) == 0)
        fail("an outer packet without the VXLAN I flag");
}

}  // namespace

void drain_l3_queue()
{
    for (efmp_buff_t *b : efrt::l3_take()) {
        check_outer_packet(b);
        efmp_buff_free_sw_user(EFMP_REASON_SW_USER, b);
    }
}

}  // namespace fuzz
