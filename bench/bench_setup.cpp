// Starting, configuring and stopping the benchmark segment on the
// deterministic platform.
#include "bench_setup.h"

#include <cstdlib>
#include <cstring>
#include <utility>

#include "efrt.h"
#include "efrt_bcast.h"
#include "efrt_l3.h"
#include "efrt_services.h"
#include "vxlan_ef.h"
#include "vxlan_ef_frame.h"
#include "vxlan_ef_tables.h"

namespace vxbench {

namespace {

constexpr const char *kCapBase = "g_feature_spec/dcn/CAP_VXLAN_BASE";
constexpr const char *kCapSoft = "g_feature_spec/product_platform_spec/CAP_FWDMODE_SOFT";
constexpr uint32_t kEthernetType = 3;
constexpr uint64_t kTaskRunMs = 100;

struct Tunnel {
    uint32_t ifx;
    const char *name;
    bool ipv6;
    const char *local;
    const char *remote;
};

constexpr Tunnel kTunnels[] = {
    {kTunnel1, "tunnel1", false, kLocalVtep4, kRemoteVtep1},
    {kTunnel2, "tunnel2", false, kLocalVtep4, "10.0.0.2"},
    {kTunnel3, "tunnel3", false, kLocalVtep4, "10.0.0.3"},
    {kTunnel6, "tunnel6", true, "2001:db8::1", kRemoteVtep6},
};

constexpr std::pair<uint32_t, const char *> kPorts[] = {
    {kAccessPort, "eth11"}, {kOtherPort, "eth12"}, {kUplinkPort, "eth20"}};

// Module globals outlive an instance; a run starts them empty, as a freshly
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

void prepare_platform()
{
    efrt::reset();
    clear_module_globals();
    setenv("VSDID", "3", 1);
    unsetenv("TMPDIR");
    // Nothing may grow with the number of iterations.
    efrt::syslog_set_keep(false);
    efrt::bcast_set_recording(false);
    efrt::cap_define(kCapBase, true);
    efrt::cap_define(kCapSoft, true);
    for (const auto &[ifx, name] : kPorts)
        efrt::lsm_add(efrt::make_intf(ifx, kEthernetType, LSM_IF_STACK_BRIDGE, name));
}

// Tunnels are created after start: their parsers follow creation events.
void create_tunnels()
{
    for (const Tunnel &t : kTunnels)
        efrt::lsm_create(efrt::make_intf(t.ifx, LSM_IF_TYPE_OVERLAY_TUNNEL, LSM_IF_STACK_RAW, t.name));
}

void configure_bridge()
{
    for (uint32_t port : {kAccessPort, kOtherPort}) {
        efrt::bridge_add_vlan(port, kVlan);
        efrt::bridge_set_pvid(port, kVlan);
    }
    const uint64_t key = EF_BRIDGE_KEY_VNI | kVni;
    efrt::bridge_add_mac(key, kRemoteMac4.data(), kTunnel1, kVlan);
    efrt::bridge_add_mac(key, kRemoteMac6.data(), kTunnel6, kVlan);
    efrt::bridge_add_mac(key, kLocalMac.data(), kAccessPort, kVlan);
}

std::string check_configured()
{
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    vxlan_ef_entry_t *entry = vxlan_ef_entry_get(vsd, kVni);
    if (entry == nullptr)
        return "VNI 100 was not created by the configuration messages";
    for (const Tunnel &t : kTunnels)
        if (vxlan_ef_adj_get(vsd, nullptr, t.ifx, entry) == nullptr)
            return std::string("no adjacency of VNI 100 on ") + t.name;
    if (efrt::efmp_parser_of(lsm_get_intfcb(kTunnel1)) == nullptr)
        return "tunnel1 has no parser attached";
    if (efrt::efmp_encap_of(lsm_get_intfcb(kTunnel1)) == nullptr)
        return "tunnel1 has no encapsulation hook attached";
    return {};
}

}  // namespace

std::vector<Bytes> segment_config()
{
    std::vector<Tlv> tlvs{set_entry(kVni), set_vlan(kVni, {kVlan})};
    for (const Tunnel &t : kTunnels) {
        const auto ip = t.ipv6 ? ip6 : ip4;
        tlvs.push_back(set_vtep(t.ifx, ip(t.local), ip(t.remote)));
    }
    for (const Tunnel &t : kTunnels)
        tlvs.push_back(asso_vtep(kVni, t.ifx));
    return {make_msg(tlvs)};
}

bool deliver(const Bytes &msg)
{
    if (efrt::msg_deliver(EF_MSG_MODULE_VXLAN, msg) != 0)
        return false;
    efrt::clock_advance(kTaskRunMs);
    return true;
}

std::string start_segment()
{
    prepare_platform();
    if (vxlan_ef_init() != 0 || g_vxlan_vsd == nullptr)
        return "the module did not start";
    g_vxlan_vsd->debug_mask = 0;
    // As a host runs: nothing recorded for tests.
    efrt::bcast_set_recording(false);
    create_tunnels();
    configure_bridge();
    for (const Bytes &msg : segment_config())
        if (!deliver(msg))
            return "the control channel refused a configuration message";
    efrt::msg_take_sent();
    return check_configured();
}

void stop_segment()
{
    for (efmp_buff_t *b : efrt::l3_take())
        efmp_buff_free_sw_user(kBuffReason, b);
    if (g_vxlan_vsd != nullptr)
        vxlan_ef_exit();
    efrt::reset();
    vxlan_ef_thread = nullptr;
}

}  // namespace vxbench
