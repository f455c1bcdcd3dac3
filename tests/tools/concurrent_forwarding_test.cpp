// efhost's pipeline under concurrency, as a threaded host runs it but in one
// process with fake ports: two packet workers forward in both directions
// while a configuration thread keeps replacing the whole configuration, the
// platform's timer thread runs the module task and the L3 engine's worker
// sends what the module handed off. Run in the ThreadSanitizer build, it
// shows every unsynchronised access on those paths.
//
//   host 02:00:00:00:00:01                     VTEP 10.99.0.2 (tunnel 101)
//        | port 1, PVID 10        port 2       VTEP 10.99.0.3 (tunnel 102)
//   [ pipeline + module ] ---- 10.99.0.1/24 ----+
//   VNI 1000 on VLAN 10
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <thread>
#include <vector>

#include "ef_bridge.h"
#include "ef_wire.h"
#include "efrt.h"
#include "efrt_bcast.h"
#include "efrt_l3.h"
#include "efrt_services.h"
#include "l3_engine.h"
#include "pipeline.h"
#include "port.h"
#include "rcu.h"
#include "runtime_interfaces.h"
#include "table_fixture.h"
#include "vxlan_ef_requests.h"
#include "vxlan_ef_tables.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Mac = std::array<uint8_t, 6>;

constexpr uint32_t kAccess = 1;
constexpr uint32_t kUplink = 2;
constexpr uint32_t kTunnelA = 101;
constexpr uint32_t kTunnelB = 102;
constexpr uint32_t kL2Local = 4094;
constexpr uint32_t kVni = 1000;
constexpr uint16_t kVlan = 10;
constexpr int kProcessTimeoutMs = 20000;
constexpr int kRounds = 12;
constexpr int kMinWorkerPasses = 200;
constexpr const char *kCapBase = "g_feature_spec/dcn/CAP_VXLAN_BASE";
constexpr const char *kCapSoft = "g_feature_spec/product_platform_spec/CAP_FWDMODE_SOFT";

constexpr Mac kAccessMac{0x02, 0xef, 0, 0, 0, 0x01};
constexpr Mac kUplinkMac{0x02, 0xef, 0, 0, 0, 0x02};
constexpr Mac kHostMac{0x02, 0, 0, 0, 0, 0x01};
constexpr Mac kRemoteHostMac{0x02, 0, 0, 0, 0, 0x02};
constexpr Mac kBroadcast{0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
constexpr Mac kVtepAMac{0x02, 0xaa, 0, 0, 0, 0x02};
constexpr Mac kVtepBMac{0x02, 0xaa, 0, 0, 0, 0x03};

// A port that never blocks and only counts what it is given.
class CountingPort : public efhost::Port {
public:
    bool open(std::string &) override { return true; }
    void start(efhost::RxHandler) override {}
    bool send(const uint8_t *, size_t) override
    {
        sent_.fetch_add(1, std::memory_order_relaxed);
        return true;
    }
    void stop() override {}
    bool input_done() const override { return true; }
    uint64_t rx_frames() const override { return 0; }
    uint64_t tx_frames() const override { return sent_.load(); }
    efhost::PortCounters counters() const override { return {0, sent_.load(), 0, 0}; }

private:
    std::atomic<uint64_t> sent_{0};
};

efhost::IpPrefix ipv4(uint8_t last, uint8_t len = 32)
{
    efhost::IpPrefix p;
    p.family = AF_INET;
    p.addr = {10, 99, 0, last};
    p.len = len;
    return p;
}

vxlan_ef_ip_addr_t vtep_ip(uint8_t last)
{
    vxlan_ef_ip_addr_t ip{};
    ip.family = VXLAN_EF_AF_INET;
    const uint8_t addr[4] = {10, 99, 0, last};
    std::memcpy(ip.addr, addr, sizeof addr);
    return ip;
}

void append(Bytes &out, std::initializer_list<int> values)
{
    for (int v : values)
        out.push_back(static_cast<uint8_t>(v));
}

void append_mac(Bytes &out, const Mac &mac) { out.insert(out.end(), mac.begin(), mac.end()); }

void append16(Bytes &out, size_t value) { append(out, {static_cast<int>(value >> 8 & 0xff), static_cast<int>(value & 0xff)}); }

uint16_t ipv4_header_sum(const uint8_t *header)
{
    uint32_t sum = 0;
    for (size_t i = 0; i < EF_IPV4_HLEN; i += 2)
        sum += static_cast<uint32_t>(header[i] << 8 | header[i + 1]);
    while (sum > 0xffff)
        sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<uint16_t>(~sum & 0xffff);
}

// An IPv4 header with its checksum, for a payload of the given length.
Bytes ipv4_header(const uint8_t (&src)[4], const uint8_t (&dst)[4], uint8_t proto, size_t payload)
{
    Bytes h;
    append(h, {0x45, 0});
    append16(h, EF_IPV4_HLEN + payload);
    append(h, {0, 1, 0x40, 0, 64, proto, 0, 0});
    h.insert(h.end(), src, src + 4);
    h.insert(h.end(), dst, dst + 4);
    const uint16_t sum = ipv4_header_sum(h.data());
    h[EF_IPV4_CSUM_OFFSET] = static_cast<uint8_t>(sum >> 8);
    h[EF_IPV4_CSUM_OFFSET + 1] = static_cast<uint8_t>(sum);
    return h;
}

// An untagged Ethernet frame carrying a small UDP datagram between two
// overlay hosts.
Bytes overlay_frame(const Mac &dst, const Mac &src)
{
    constexpr uint8_t kSrc[4] = {192, 168, 10, 1};
    constexpr uint8_t kDst[4] = {192, 168, 10, 2};
    Bytes udp;
    append(udp, {0x30, 0x39, 0x30, 0x39, 0, 16, 0, 0});
    append(udp, {'c', 'o', 'n', 'c', 'u', 'r', 'r', 't'});
    Bytes f;
    append_mac(f, dst);
    append_mac(f, src);
    append16(f, EF_ETHERTYPE_IPV4);
    const Bytes ip = ipv4_header(kSrc, kDst, EF_IPPROTO_UDP, udp.size());
    f.insert(f.end(), ip.begin(), ip.end());
    f.insert(f.end(), udp.begin(), udp.end());
    return f;
}

// A VXLAN packet from a remote VTEP to ours on the uplink, carrying a frame
// from the host behind it to the access host.
Bytes vxlan_packet(uint8_t vtep, const Mac &vtep_mac)
{
    constexpr uint8_t kLocal[4] = {10, 99, 0, 1};
    const uint8_t remote[4] = {10, 99, 0, vtep};
    const Bytes inner = overlay_frame(kHostMac, kRemoteHostMac);
    Bytes udp;
    append(udp, {0xc0, vtep});
    append16(udp, EF_VXLAN_PORT);
    append16(udp, EF_UDP_HLEN + EF_VXLAN_HLEN + inner.size());
    append(udp, {0, 0});
    append(udp, {EF_VXLAN_FLAG_I, 0, 0, 0, static_cast<int>(kVni >> 16), static_cast<int>(kVni >> 8 & 0xff),
                 static_cast<int>(kVni & 0xff), 0});
    udp.insert(udp.end(), inner.begin(), inner.end());
    Bytes f;
    append_mac(f, kUplinkMac);
    append_mac(f, vtep_mac);
    append16(f, EF_ETHERTYPE_IPV4);
    const Bytes ip = ipv4_header(remote, kLocal, EF_IPPROTO_UDP, udp.size());
    f.insert(f.end(), ip.begin(), ip.end());
    f.insert(f.end(), udp.begin(), udp.end());
    return f;
}

// A full resynchronisation: VNI 1000 on VLAN 10 with tunnel 101, and
// tunnel 102 as well when both is set. With both, packet tracing is also
// switched on for a few packets from the access port, so that packet
// threads spend the trace budget and switch tracing off again while the
// next message sets it.
Bytes resync(bool both)
{
    using namespace vxtest;
    constexpr uint16_t kTraceAll = VXLAN_EF_DBG_PARSER | VXLAN_EF_DBG_FORWARD | VXLAN_EF_DBG_ENCAP;
    std::vector<Tlv> tlvs{sync_begin(), set_entry(kVni), set_vlan(kVni, {kVlan}),
                          ef_dbg(both ? kTraceAll : 0, kAccess, both ? 64 : 0)};
    for (uint32_t tunnel : {kTunnelA, kTunnelB}) {
        if (tunnel == kTunnelB && !both)
            continue;
        tlvs.push_back(set_vtep(tunnel, vtep_ip(1), vtep_ip(tunnel == kTunnelA ? 2 : 3)));
        tlvs.push_back(asso_vtep(kVni, tunnel));
        tlvs.push_back(tunnel_mac_learn(tunnel, 1));
    }
    tlvs.push_back(sync_over());
    return make_msg(tlvs);
}

// Delivers a message as efhost's channel thread does and waits until the
// module's task has processed it.
bool deliver_and_wait(const Bytes &msg)
{
    const uint64_t processed = efrt::tasks_completed_runs() + 2;
    if (efrt::msg_deliver(EF_MSG_MODULE_VXLAN, msg) != 0)
        return false;
    return efrt::tasks_wait_runs(processed, kProcessTimeoutMs);
}

lsm_intfcb_t interface(uint32_t ifindex, uint32_t type, uint8_t stack, const char *name, const Mac &mac)
{
    lsm_intfcb_t intf = efrt::make_intf(ifindex, type, stack, name);
    std::snprintf(intf.sname, sizeof intf.sname, "%s", name);
    std::copy(mac.begin(), mac.end(), intf.mac);
    intf.mtu = 1500;
    intf.link_up = 1;
    return intf;
}

efhost::Config host_config()
{
    efhost::Config cfg;
    efhost::InterfaceConfig access;
    access.index = kAccess;
    access.name = "access1";
    access.mac = kAccessMac;
    access.pvid = kVlan;
    access.vlans = {kVlan};
    efhost::InterfaceConfig uplink;
    uplink.index = kUplink;
    uplink.name = "uplink";
    uplink.stack = 6;
    uplink.mac = kUplinkMac;
    uplink.addresses = {ipv4(1, 24)};
    cfg.interfaces = {access, uplink};
    return cfg;
}

class ConcurrentForwardingTest : public vxtest::ModuleTest {
protected:
    // A test stopped early leaves no platform thread or hook behind.
    void TearDown() override
    {
        efhost::runtime_interfaces_reset();
        pipeline_.reset();
        l3_.reset();
        efrt::tasks_stop_timer_thread();
        efrt::set_port_tx(nullptr, nullptr);
        ModuleTest::TearDown();
    }

    void bring_up_platform()
    {
        set_cap(kCapBase);
        set_cap(kCapSoft);
        efrt::bridge_publish_all();
        efrt::syslog_set_keep(false);
        efrt::bcast_set_recording(false);
    }

    // Tunnel B is a run-time tunnel interface when runtime_tunnel_b_ is
    // set, as the EVPN follower creates them through efhost's control socket.
    void create_interfaces()
    {
        efrt::lsm_create(interface(kAccess, 2, 5, "access1", kAccessMac));
        efrt::bridge_set_pvid(kAccess, kVlan);
        efrt::bridge_add_vlan(kAccess, kVlan);
        efrt::lsm_create(interface(kUplink, 2, 6, "uplink", kUplinkMac));
        efrt::lsm_create(interface(kTunnelA, 45, 5, "tunnel-a", Mac{}));
        if (runtime_tunnel_b_)
            EXPECT_TRUE(efhost::runtime_interface_request(kCreateTunnelB).ok);
        else
            efrt::lsm_create(interface(kTunnelB, 45, 5, "tunnel-b", Mac{}));
        efrt::lsm_create(interface(kL2Local, 32, 5, "L2LOCAL", Mac{}));
    }

    std::unique_ptr<efhost::L3Engine> make_l3()
    {
        std::vector<efhost::L3Port> ports{
            efhost::L3Port{kUplink, &uplink_, kUplinkMac, 1500, {ipv4(1, 24)}}};
        std::vector<efhost::NeighbourConfig> neighbours{
            efhost::NeighbourConfig{ipv4(2), kVtepAMac, kUplink},
            efhost::NeighbourConfig{ipv4(3), kVtepBMac, kUplink}};
        return std::make_unique<efhost::L3Engine>(ports, std::vector<efhost::RouteConfig>{}, neighbours);
    }

    // Everything a threaded efhost runs, started in its order: platform,
    // module, interfaces, timer thread, L3 engine, pipeline.
    void start_forwarding()
    {
        bring_up_platform();
        start("1");
        create_interfaces();
        efrt::tasks_start_timer_thread();
        l3_ = make_l3();
        l3_->start();
        pipeline_ = std::make_unique<efhost::Pipeline>(
            cfg_, std::map<uint32_t, efhost::Port *>{{kAccess, &access_}, {kUplink, &uplink_}}, l3_.get());
        pipeline_->attach_to_platform();
    }

    // Stopped in efhost's order once the ports are: configuration, L3
    // engine, pipeline, timer, module.
    void stop_forwarding()
    {
        EXPECT_TRUE(deliver_and_wait(vxtest::make_msg({vxtest::sync_begin(), vxtest::sync_over()})));
        l3_->stop();
        pipeline_->detach_from_platform();
        efrt::tasks_stop_timer_thread();
        vxlan_ef_exit();
        efrt::l3_reset();
    }

    void forward_while_toggling(const char *what, const std::function<void()> &toggle);

    static constexpr const char *kCreateTunnelB = "create 102 tunnel-b";
    static constexpr const char *kRemoveTunnelB = "remove 102";

    bool runtime_tunnel_b_ = false;
    CountingPort access_;
    CountingPort uplink_;
    const efhost::Config cfg_ = host_config();
    std::unique_ptr<efhost::L3Engine> l3_;
    std::unique_ptr<efhost::Pipeline> pipeline_;
};

constexpr int kChurnRounds = 8;
constexpr int kWorkers = 4;

// Every show (the status, the VNI's entry, interfaces, VRFs, sub-interfaces)
// and EF_CTRL with the tech-support bit.
Bytes shows_and_dump()
{
    using namespace vxtest;
    using vxlan_ef::tlv::ShowId;
    const auto id = [](ShowId s) { return static_cast<uint16_t>(s); };
    std::vector<uint8_t> ctrl(5, 0);
    ctrl[0] = vxlan_ef::tlv::kCtrlTechDump;
    ctrl[4] = 1;
    return make_msg({show(id(ShowId::Status)), show(id(ShowId::Entry), kVni), show(id(ShowId::Intf)),
                     show(id(ShowId::Vrf)), show(id(ShowId::Subif)), Tlv{vxlan_ef::tlv::kEfCtrl, ctrl}});
}

// Each pass offers every kind of frame once: from the access host to the
// remote host and to everyone, and from each remote VTEP to the access host.
// Like efhost's port threads, a worker reads the platform's tables for its
// whole life and passes a quiescent state after each pass.
void run_worker(efhost::Pipeline &pipeline, const std::atomic<bool> &config_done, uint64_t &passes)
{
    const std::vector<std::pair<uint32_t, Bytes>> frames{
        {kAccess, overlay_frame(kRemoteHostMac, kHostMac)},
        {kAccess, overlay_frame(kBroadcast, kHostMac)},
        {kUplink, vxlan_packet(2, kVtepAMac)},
        {kUplink, vxlan_packet(3, kVtepBMac)},
    };
    efrt::rcu::ReadSection reading;
    while (passes < kMinWorkerPasses || !config_done.load()) {
        for (const auto &[ifindex, frame] : frames)
            pipeline.receive(ifindex, frame.data(), frame.size());
        ++passes;
        efrt::rcu::quiescent();
    }
}

// Packet workers, each running run_worker on the pipeline until stopped.
class Workers {
public:
    Workers(efhost::Pipeline &pipeline, int count) : passes_(static_cast<size_t>(count))
    {
        for (uint64_t &passes : passes_)
            threads_.emplace_back([this, &pipeline, &passes] { run_worker(pipeline, done_, passes); });
    }
    ~Workers() { stop(); }

    // Lets every worker finish its pass and returns the passes of all.
    uint64_t stop()
    {
        done_ = true;
        for (std::thread &t : threads_)
            if (t.joinable())
                t.join();
        uint64_t all = 0;
        for (uint64_t p : passes_)
            all += p;
        return all;
    }

private:
    std::atomic<bool> done_{false};
    std::vector<uint64_t> passes_;  // each written by its own worker only
    std::vector<std::thread> threads_;
};

// Run to completion: the frame a worker encapsulates leaves on that worker,
// with no L3 worker running to take it off the hand-off queue.
TEST_F(ConcurrentForwardingTest, EncapsulatedFramesLeaveOnTheWorkerThatReceivedThem)
{
    start_forwarding();
    ASSERT_TRUE(deliver_and_wait(resync(true)));
    l3_->stop();
    {
        efrt::rcu::ReadSection reading;
        const Bytes learn = vxlan_packet(2, kVtepAMac);
        pipeline_->receive(kUplink, learn.data(), learn.size());
        const uint64_t before = uplink_.tx_frames();
        const uint64_t taken = l3_->stats().taken;
        const Bytes frame = overlay_frame(kRemoteHostMac, kHostMac);
        pipeline_->receive(kAccess, frame.data(), frame.size());
        EXPECT_EQ(uplink_.tx_frames(), before + 1);
        EXPECT_EQ(l3_->stats().taken, taken + 1);
        EXPECT_EQ(efrt::l3_queued(g_efmp_cpu_num), 0u);
    }
    stop_forwarding();
}

TEST_F(ConcurrentForwardingTest, PacketWorkersForwardWhileResynchronisationsRun)
{
    const long buffers_at_start = efrt::buff_live_total();
    start_forwarding();
    ASSERT_TRUE(deliver_and_wait(resync(true)));

    Workers workers(*pipeline_, 2);
    int processed_rounds = 0;
    for (int round = 0; round < kRounds; ++round)
        processed_rounds += deliver_and_wait(resync(round % 2 == 1)) ? 1 : 0;
    const uint64_t passes = workers.stop();

    stop_forwarding();

    const efhost::PipelineStats stats = pipeline_->stats();
    SCOPED_TRACE("received " + std::to_string(stats.received) + ", forwarded " +
                 std::to_string(stats.forwarded) + ", consumed " + std::to_string(stats.consumed) +
                 ", parser drops " + std::to_string(stats.parser_drops) + ", without VNI " +
                 std::to_string(stats.no_vni) + ", dropped " + std::to_string(stats.dropped));
    EXPECT_EQ(processed_rounds, kRounds);
    EXPECT_EQ(stats.received, passes * 4);
    EXPECT_GT(access_.tx_frames(), 0u);
    EXPECT_GT(uplink_.tx_frames(), 0u);
    EXPECT_GT(l3_->stats().sent, 0u);
    EXPECT_EQ(efrt::buff_live_total(), buffers_at_start);
}

// Two packet workers forward for a few seconds while the main thread keeps
// taking something away from them and giving it back; a worker that found a
// service must call the one it found, never a withdrawn one. Prints how often
// it toggled.
void ConcurrentForwardingTest::forward_while_toggling(const char *what, const std::function<void()> &toggle)
{
    constexpr std::chrono::seconds kToggleFor{3};
    const long buffers_at_start = efrt::buff_live_total();
    start_forwarding();
    ASSERT_TRUE(deliver_and_wait(resync(true)));

    Workers workers(*pipeline_, 2);
    const auto stop_at = std::chrono::steady_clock::now() + kToggleFor;
    int toggles = 0;
    for (; std::chrono::steady_clock::now() < stop_at; ++toggles)
        toggle();
    const uint64_t passes = workers.stop();

    stop_forwarding();

    std::printf("%s %d times while %llu frames were received\n", what, toggles,
                static_cast<unsigned long long>(pipeline_->stats().received));
    EXPECT_EQ(pipeline_->stats().received, passes * 4);
    EXPECT_GT(access_.tx_frames(), 0u);
    EXPECT_GT(uplink_.tx_frames(), 0u);
    EXPECT_EQ(efrt::buff_live_total(), buffers_at_start);
}

// The MAC lookup found at the unicast decision is the one called, even when
// the bridge withdraws it in between.
TEST_F(ConcurrentForwardingTest, ForwardingSurvivesBridgeServicesWithdrawnWhileFramesAreInFlight)
{
    forward_while_toggling("bridge MAC lookup withdrawn and published", [] {
        efrt::bridge_withdraw(EF_BRIDGE_SERV_MAC_LOOKUP);
        efrt::bridge_publish(EF_BRIDGE_SERV_MAC_LOOKUP);
    });
}

TEST_F(ConcurrentForwardingTest, ForwardingSurvivesPacketPlaneAndSoftForwardingSwitchedOffWhileFramesAreInFlight)
{
    forward_while_toggling("packet plane and software forwarding switched off and on", [] {
        efrt::cap_change(kCapSoft, false);
        efrt::cap_change(kCapBase, false);
        efrt::cap_change(kCapBase, true);
        efrt::cap_change(kCapSoft, true);
    });
}

// Everything that can happen to the module while traffic runs, at once:
// four packet workers forward, flood and encapsulate while the control side
// alternates full resynchronisations, switches the base capability off and
// on, withdraws and publishes the bridge's services, drops and restores the
// app-db connection, and asks for shows and tech-support dumps.
TEST_F(ConcurrentForwardingTest, FourWorkersForwardThroughChurnCapabilityFlipsWithdrawalsReconnectsAndShows)
{
    const long buffers_at_start = efrt::buff_live_total();
    const long blocks_at_start = efrt::mem_live_blocks_total();
    start_forwarding();
    ASSERT_TRUE(deliver_and_wait(resync(true)));

    Workers workers(*pipeline_, kWorkers);
    int processed = 0;
    for (int round = 0; round < kChurnRounds; ++round) {
        processed += deliver_and_wait(resync(round % 2 == 1)) ? 1 : 0;
        efrt::cap_change(kCapBase, false);
        efrt::bridge_withdraw_all();
        efrt::mom_disconnect(0);
        processed += deliver_and_wait(shows_and_dump()) ? 1 : 0;
        efrt::mom_reconnect();
        efrt::bridge_publish_all();
        efrt::cap_change(kCapBase, true);
        processed += deliver_and_wait(shows_and_dump()) ? 1 : 0;
    }
    const uint64_t all_passes = workers.stop();

    stop_forwarding();

    const efhost::PipelineStats stats = pipeline_->stats();
    std::printf("stress: %d requests processed during the churn (%d full resynchronisations), %llu frames received by "
                "%d workers, %llu sent on the access port, %llu on the uplink (%llu by the L3 engine)\n",
                processed, kChurnRounds, static_cast<unsigned long long>(stats.received), kWorkers,
                static_cast<unsigned long long>(access_.tx_frames()),
                static_cast<unsigned long long>(uplink_.tx_frames()),
                static_cast<unsigned long long>(l3_->stats().sent));
    EXPECT_EQ(processed, kChurnRounds * 3);
    EXPECT_EQ(stats.received, all_passes * 4);
    EXPECT_GT(access_.tx_frames(), 0u);
    EXPECT_GT(uplink_.tx_frames(), 0u);
    EXPECT_EQ(efrt::buff_live_total(), buffers_at_start);
    EXPECT_EQ(efrt::mem_live_blocks_total(), blocks_at_start);
}

// What a fabric does to efhost all the time, as fast as the control side
// can: a run-time tunnel interface is removed and created again, the other
// tunnel's block is replaced with the module told (a creation event) and
// without (its hooks follow it), and the bridge withdraws and publishes its
// MAC lookup, while four workers decapsulate from, encapsulate towards and
// flood through both tunnels. Nothing a worker may still read is freed
// under it (the sanitizer builds see every such read), and once the grace
// periods are over every block that was replaced or removed is freed.
TEST_F(ConcurrentForwardingTest, WorkersForwardThroughTunnelInterfacesCreatedRemovedAndReplacedWithoutPause)
{
    constexpr std::chrono::seconds kChurnFor{3};
    const long buffers_at_start = efrt::buff_live_total();
    const long blocks_at_start = efrt::mem_live_blocks_total();
    runtime_tunnel_b_ = true;
    start_forwarding();
    ASSERT_TRUE(deliver_and_wait(resync(true)));

    Workers workers(*pipeline_, kWorkers);
    const auto stop_at = std::chrono::steady_clock::now() + kChurnFor;
    int cycles = 0;
    for (; std::chrono::steady_clock::now() < stop_at; ++cycles) {
        ASSERT_TRUE(efhost::runtime_interface_request(kRemoveTunnelB).ok);
        ASSERT_TRUE(efhost::runtime_interface_request(kCreateTunnelB).ok);
        efrt::lsm_create(interface(kTunnelA, 45, 5, "tunnel-a", Mac{}));
        efrt::lsm_add(interface(kTunnelB, 45, 5, "tunnel-b", Mac{}));
        efrt::bridge_withdraw(EF_BRIDGE_SERV_MAC_LOOKUP);
        efrt::bridge_publish(EF_BRIDGE_SERV_MAC_LOOKUP);
    }
    const uint64_t passes = workers.stop();
    stop_forwarding();
    efrt::rcu::barrier();

    const efhost::PipelineStats stats = pipeline_->stats();
    std::printf("churn: %d cycles of a run-time tunnel removed and created, both tunnel blocks replaced and the "
                "MAC lookup withdrawn and published, while %d workers received %llu frames\n",
                cycles, kWorkers, static_cast<unsigned long long>(stats.received));
    EXPECT_GT(cycles, 0);
    EXPECT_EQ(stats.received, passes * 4);
    EXPECT_GT(access_.tx_frames(), 0u);
    EXPECT_GT(uplink_.tx_frames(), 0u);
    EXPECT_EQ(efrt::rcu::pending(), 0);
    EXPECT_EQ(efrt::lsm_blocks_live(), static_cast<long>(efrt::lsm_indexes().size()));
    EXPECT_EQ(efrt::buff_live_total(), buffers_at_start);
    EXPECT_EQ(efrt::mem_live_blocks_total(), blocks_at_start);
}

}  // namespace
