// The measured workloads: the packet paths as the pipeline strings them
// together (receive parser, tunnel parser, forwarding decision, the tunnel's
// encapsulation hook, the L3 hand-off queue), and the control path through
// the message channel and the module's task.
#include "vxlan_ef_tables.h"
#include "workloads.h"

#include <cstring>
#include <memory>

#include "bench_messages.h"
#include "bench_setup.h"
#include "reference_paths.h"
#include "ef_wire.h"
#include "efrt.h"
#include "efrt_l3.h"
#include "efrt_pipeline.h"
#include "efrt_services.h"
#include "vxlan_ef.h"

namespace vxbench {

namespace harness {

efmp_buff_t *receive(const Bytes &frame, lsm_intfcb_t *port)
{
    return efrt::pipeline_frame(port->ifindex, frame.data(), frame.size());
}

namespace {

// True when the packet's outer destination is the given VTEP address.
bool sent_to(const efmp_buff_t *b, const vxlan_ef_ip_addr_t &vtep)
{
    const uint8_t *ip = b->head + b->data_off;
    const bool v4 = vtep.family == VXLAN_EF_AF_INET;
    return v4 ? std::memcmp(reinterpret_cast<const ef_ipv4_hdr *>(ip)->dst, vtep.addr, sizeof(ef_ipv4_hdr::dst)) == 0
              : std::memcmp(reinterpret_cast<const ef_ipv6_hdr *>(ip)->dst, vtep.addr, sizeof(ef_ipv6_hdr::dst)) == 0;
}

}  // namespace

Drained drain_l3(const vxlan_ef_ip_addr_t *vtep)
{
    efmp_buff_t *b = efrt::l3_take_chain();
    Drained d{0, b != nullptr && (vtep == nullptr || sent_to(b, *vtep))};
    for (; b != nullptr; d.count++) {
        efmp_buff_t *next = b->next;
        efmp_buff_free_sw_user(kBuffReason, b);
        b = next;
    }
    return d;
}

}  // namespace harness

namespace {

using harness::receive;

constexpr size_t kFragmentedFrameLen = 4000;
constexpr size_t kFloodFrameLen = 64;
constexpr size_t kTunnelsInVni = 4;  // three IPv4, one IPv6
constexpr uint32_t kControlVni = 200;
constexpr uint16_t kControlVlan = 20;
constexpr uint32_t kControlTunnel = 110;
constexpr uint32_t kResyncFirstVni = 1000;
constexpr size_t kResyncVnis = 1000;
constexpr size_t kVnisPerMessage = 100;  // two TLVs each, under the 255-TLV limit

// The buffer stays the caller's unless a callee consumed it.
void release(efmp_buff_t *b, int result)
{
    if (result != EF_Lost)
        efmp_buff_free_sw_user(kBuffReason, b);
}

// The harness's own share of every packet workload: a fresh buffer, the
// frame copied in, freed again.
struct BufferOnly {
    Bytes frame;
    lsm_intfcb_t *port;

    bool operator()() const
    {
        efmp_buff_t *b = receive(frame, port);
        release(b, EF_Drop);
        return b != nullptr;
    }
};

// VXLAN from the uplink: the receive parser removes the outer headers and
// moves the frame onto its tunnel, whose parser admits it.
struct Decap {
    Bytes frame;
    lsm_intfcb_t *uplink;
    lsm_intfcb_t *tunnel;

    bool operator()() const
    {
        efmp_buff_t *b = receive(frame, uplink);
        if (b == nullptr)
            return false;
        const int r = efrt::pipeline_parse(b);
        const bool onto_tunnel = b->src_intf == tunnel;
        release(b, r);
        return onto_tunnel && r == EF_Normal;
    }
};

// An access frame to a MAC learnt behind a tunnel, through the whole
// pipeline: receive parser, forwarding decision, then the tunnel's
// encapsulation hook, which queues the packets for the L3 engine.
struct LocalToTunnel {
    Bytes frame;
    lsm_intfcb_t *port;
    vxlan_ef_ip_addr_t vtep;
    size_t expected_out;

    bool operator()() const
    {
        efmp_buff_t *b = receive(frame, port);
        if (b == nullptr)
            return false;
        const efrt::PipeOutcome out = efrt::pipeline_run(b);
        const harness::Drained d = harness::drain_l3(&vtep);
        return d.count == expected_out && out == efrt::PipeOutcome::Consumed && d.first_to_vtep;
    }
};

// A broadcast from the access port, flooded to every tunnel of the VNI and
// the other VLAN member; the original is the caller's to drop.
struct Flood {
    Bytes frame;
    lsm_intfcb_t *port;

    bool operator()() const
    {
        efmp_buff_t *b = receive(frame, port);
        if (b == nullptr)
            return false;
        const efrt::PipeOutcome out = efrt::pipeline_run(b);
        return harness::drain_l3().count == kTunnelsInVni && out == efrt::PipeOutcome::ForwardDrop;
    }
};

// A message set delivered on the channel and run by the module's task; each
// message is followed by a check of the table it should leave.
struct Control {
    std::vector<Bytes> messages;
    std::vector<bool (*)()> checks;

    bool operator()() const
    {
        bool ok = true;
        for (size_t i = 0; i < messages.size(); ++i)
            ok = deliver(messages[i]) && checks[i]() && ok;
        efrt::msg_take_sent();
        return ok;
    }
};

bool no_check() { return true; }

bool control_vni_present()
{
    vxlan_ef_entry_t *e = vxlan_ef_entry_get(g_vxlan_vsd, kControlVni);
    return e != nullptr && vxlan_ef_adj_get(g_vxlan_vsd, nullptr, kControlTunnel, e) != nullptr;
}

bool control_vni_absent() { return vxlan_ef_entry_get(g_vxlan_vsd, kControlVni) == nullptr; }

// The segment's VNI and the resynchronised ones, nothing else.
bool resync_complete() { return g_vxlan_vsd->entry_count == kResyncVnis + 1; }

Workload packet_workload(const std::string &name, size_t bytes, std::function<bool()> run)
{
    return Workload{name, "packet", 1, bytes, 0, std::move(run)};
}

Workload buffer_only(const std::string &name, size_t frame_len)
{
    BufferOnly o{ipv4_frame(kRemoteMac4, kLocalMac, frame_len), lsm_get_intfcb(kAccessPort)};
    return packet_workload(name, o.frame.size(), o);
}

Workload decap(const std::string &name, size_t inner_len)
{
    const Bytes inner = ipv4_frame(kLocalMac, kRemoteMac4, inner_len);
    const OuterHeaders outer{kUplinkMac, kNextHopMac, kRemoteVtep1, kLocalVtep4, kVni};
    lsm_intfcb_t *tunnel = lsm_get_intfcb(kTunnel1);
    Decap d{vxlan4_frame(outer, inner), lsm_get_intfcb(kUplinkPort), tunnel};
    return packet_workload(name, d.frame.size(), d);
}

Workload local_to_tunnel(const std::string &name, size_t frame_len, bool ipv6_tunnel,
                         size_t expected_out = 1)
{
    const Mac &dst = ipv6_tunnel ? kRemoteMac6 : kRemoteMac4;
    const vxlan_ef_ip_addr_t vtep = ipv6_tunnel ? ip6(kRemoteVtep6) : ip4(kRemoteVtep1);
    LocalToTunnel l{ipv4_frame(dst, kLocalMac, frame_len), lsm_get_intfcb(kAccessPort), vtep,
                    expected_out};
    return packet_workload(name, l.frame.size(), l);
}

Workload flood(const std::string &name)
{
    Flood f{ipv4_frame(kBroadcastMac, kLocalMac, kFloodFrameLen), lsm_get_intfcb(kAccessPort)};
    return packet_workload(name, f.frame.size(), f);
}

// A VNI with its VLAN, a tunnel and their association configured, then
// removed again, so that every run starts from the same tables.
Workload control_set(const std::string &name)
{
    const auto sip = ip4(kLocalVtep4), dip = ip4("10.0.0.9");
    Control c{{make_msg({set_entry(kControlVni), set_vlan(kControlVni, {kControlVlan}),
                         set_vtep(kControlTunnel, sip, dip), asso_vtep(kControlVni, kControlTunnel)}),
               make_msg({asso_vtep(kControlVni, kControlTunnel, 0),
                         set_vtep(kControlTunnel, sip, dip, 0),
                         set_vlan(kControlVni, {kControlVlan}, 0), set_entry(kControlVni, 0)})},
              {control_vni_present, control_vni_absent}};
    const size_t n = c.messages.size();
    return Workload{name, "message", n, 0, 1, c};
}

// A full resynchronisation: begin, the segment's own configuration, 1000 VNIs
// each associated with tunnel1, over. From the second run on it confirms what
// the first one created.
Workload resync(const std::string &name)
{
    Control c;
    c.messages.push_back(make_msg({sync_begin()}));
    for (const Bytes &m : segment_config())
        c.messages.push_back(m);
    for (size_t first = 0; first < kResyncVnis; first += kVnisPerMessage) {
        std::vector<Tlv> tlvs;
        for (size_t i = first; i < first + kVnisPerMessage; ++i) {
            const auto vni = static_cast<uint32_t>(kResyncFirstVni + i);
            tlvs.push_back(set_entry(vni));
            tlvs.push_back(asso_vtep(vni, kTunnel1));
        }
        c.messages.push_back(make_msg(tlvs));
    }
    c.messages.push_back(make_msg({sync_over()}));
    c.checks.assign(c.messages.size(), no_check);
    c.checks.back() = resync_complete;
    const size_t n = c.messages.size();
    return Workload{name, "message", n, 0, kResyncVnis, c};
}

struct Entry {
    const char *name;
    Workload (*make)(const std::string &name);
};

constexpr Entry kWorkloads[] = {
    {"buffer_only/64", [](const std::string &n) { return buffer_only(n, 64); }},
    {"buffer_only/1500", [](const std::string &n) { return buffer_only(n, 1500); }},
    {"decap/64", [](const std::string &n) { return decap(n, 64); }},
    {"decap/512", [](const std::string &n) { return decap(n, 512); }},
    {"decap/1450", [](const std::string &n) { return decap(n, 1450); }},
    {"local_to_tunnel4/64", [](const std::string &n) { return local_to_tunnel(n, 64, false); }},
    {"local_to_tunnel4/512", [](const std::string &n) { return local_to_tunnel(n, 512, false); }},
    {"local_to_tunnel4/1450", [](const std::string &n) { return local_to_tunnel(n, 1450, false); }},
    {"local_to_tunnel6/64", [](const std::string &n) { return local_to_tunnel(n, 64, true); }},
    {"local_to_tunnel6/512", [](const std::string &n) { return local_to_tunnel(n, 512, true); }},
    {"local_to_tunnel6/1450", [](const std::string &n) { return local_to_tunnel(n, 1450, true); }},
    {"encap_fragmented/4000",
     [](const std::string &n) { return local_to_tunnel(n, kFragmentedFrameLen, false, 3); }},
    {"flood/64", flood},
    {"control_message_set", control_set},
    {"resync_1000_vnis", resync},
};

}  // namespace

std::vector<std::string> workload_names()
{
    std::vector<std::string> names;
    for (const Entry &e : kWorkloads) {
        names.emplace_back(e.name);
        if (has_reference(e.name))
            names.push_back(kReferencePrefix + names.back());
    }
    return names;
}

std::optional<Workload> make_workload(const std::string &name)
{
    const std::string prefix = kReferencePrefix;
    if (name.starts_with(prefix))
        return make_reference(name.substr(prefix.size()), name);
    for (const Entry &e : kWorkloads)
        if (name == e.name)
            return e.make(name);
    return std::nullopt;
}

}  // namespace vxbench
