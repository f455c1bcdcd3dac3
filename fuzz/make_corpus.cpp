// Writes the seed corpora of the fuzz targets (fuzz/corpus/<target>/): valid
// control messages of every catalogued TLV type (built with vxlanctl's own
// encoder) and whole resynchronisations, VXLAN packets over IPv4 and IPv6,
// untagged, tagged and double-tagged frames, ARP and neighbour discovery,
// TCP super-frames, efhost configuration files and apply files taken from
// the documentation, command lines of the send, raw, show and debug verbs,
// and control-socket datagrams, whole and malformed. Each seed is framed as
// its target reads its input.
//
//   fuzz_make_corpus OUT_DIR DOCS_DIR
#include <arpa/inet.h>

#include <array>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "apply_config.h"
#include "ctl_wire.h"
#include "ef_byteorder.h"
#include "ef_wire.h"
#include "efmp.h"
#include "request.h"
#include "tlv_catalogue.h"
#include "tlv_message.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Mac = std::array<uint8_t, EF_ETH_ALEN>;
namespace fs = std::filesystem;

fs::path g_out;

[[noreturn]] void fail(const std::string &what)
{
    std::fprintf(stderr, "fuzz_make_corpus: %s\n", what.c_str());
    std::exit(1);
}

void write_seed(const std::string &target, const std::string &name, const Bytes &bytes)
{
    const fs::path dir = g_out / target;
    fs::create_directories(dir);
    std::ofstream out(dir / name, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char *>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!out)
        fail("cannot write " + (dir / name).string());
}

void write_text_seed(const std::string &target, const std::string &name, const std::string &text)
{
    write_seed(target, name, Bytes(text.begin(), text.end()));
}

Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes &p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

Bytes le16(uint16_t v) { return {static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8)}; }

Bytes le32(uint32_t v)
{
    return {static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v >> 16),
            static_cast<uint8_t>(v >> 24)};
}

Bytes le64(uint64_t v)
{
    Bytes out = le32(static_cast<uint32_t>(v));
    const Bytes hi = le32(static_cast<uint32_t>(v >> 32));
    out.insert(out.end(), hi.begin(), hi.end());
    return out;
}

Bytes addr4(const char *text)
{
    Bytes a(4);
    inet_pton(AF_INET, text, a.data());
    return a;
}

Bytes addr6(const char *text)
{
    Bytes a(16);
    inet_pton(AF_INET6, text, a.data());
    return a;
}

uint16_t ones_sum(const Bytes &data, uint32_t start = 0)
{
    uint32_t s = start;
    for (size_t i = 0; i < data.size(); i += 2) {
        s += static_cast<uint32_t>(data[i] << 8 | (i + 1 < data.size() ? data[i + 1] : 0));
        s = (s & 0xFFFF) + (s >> 16);
    }
    return static_cast<uint16_t>(s);
}

// ---- frames ----


constexpr Mac kBroadcast{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
constexpr Mac kHostBehindT1{0x00, 0x11, 0x22, 0x33, 0x44, 0x01};
constexpr Mac kHostBehindT6{0x00, 0x11, 0x22, 0x33, 0x44, 0x06};
constexpr Mac kHostOnP1{0x00, 0x11, 0x22, 0x33, 0x44, 0x0B};
constexpr Mac kHostOnS1{0x00, 0x11, 0x22, 0x33, 0x44, 0x5B};
constexpr Mac kUnknownHost{0x00, 0x11, 0x22, 0x33, 0x44, 0x77};
constexpr Mac kRouterMac{0x00, 0x00, 0x5E, 0x00, 0x01, 0x01};
constexpr Mac kUplinkMac{0x02, 0xAA, 0x00, 0x00, 0x00, 0x20};
constexpr Mac kNextHopMac{0x02, 0xBB, 0x00, 0x00, 0x00, 0x01};
constexpr Mac kLldp{0x01, 0x80, 0xC2, 0x00, 0x00, 0x0E};

Bytes eth(const Mac &dst, const Mac &src, uint16_t type, const Bytes &payload)
{
    Bytes f(EF_ETH_HLEN);
    auto *h = reinterpret_cast<ef_eth_hdr *>(f.data());
    std::copy(dst.begin(), dst.end(), h->dst);
    std::copy(src.begin(), src.end(), h->src);
    ef_put_be16(h->type, type);
    f.insert(f.end(), payload.begin(), payload.end());
    return f;
}

Bytes tagged(Bytes f, uint16_t tci, uint16_t tpid = EF_ETHERTYPE_VLAN)
{
    Bytes tag(EF_VLAN_TAG_LEN);
    auto *t = reinterpret_cast<ef_vlan_tag *>(tag.data());
    ef_put_be16(t->tpid, tpid);
    ef_put_be16(t->tci, tci);
    f.insert(f.begin() + EF_ETH_ADDRS_LEN, tag.begin(), tag.end());
    return f;
}

Bytes counting(size_t n)
{
    Bytes b(n);
    for (size_t i = 0; i < n; ++i)
        b[i] = static_cast<uint8_t>(i);
    return b;
}

Bytes ipv4(const Bytes &src, const Bytes &dst, uint8_t proto, const Bytes &payload, uint16_t ident = 0x1234)
{
    Bytes ip(EF_IPV4_HLEN);
    auto *h = reinterpret_cast<ef_ipv4_hdr *>(ip.data());
    h->ver_ihl = EF_IPV4_VER_IHL;
    ef_put_be16(h->total_len, static_cast<uint16_t>(EF_IPV4_HLEN + payload.size()));
    ef_put_be16(h->id, ident);
    h->ttl = 64;
    h->proto = proto;
    std::copy(src.begin(), src.end(), h->src);
    std::copy(dst.begin(), dst.end(), h->dst);
    ef_put_be16(h->csum, static_cast<uint16_t>(~ones_sum(ip)));
    ip.insert(ip.end(), payload.begin(), payload.end());
    return ip;
}

Bytes ipv6(const Bytes &src, const Bytes &dst, uint8_t next, const Bytes &payload, uint8_t hops = 64)
{
    Bytes ip(EF_IPV6_HLEN);
    auto *h = reinterpret_cast<ef_ipv6_hdr *>(ip.data());
    h->ver_tc_flow[0] = EF_IPV6_VERSION << 4;
    ef_put_be16(h->payload_len, static_cast<uint16_t>(payload.size()));
    h->next_hdr = next;
    h->hop_limit = hops;
    std::copy(src.begin(), src.end(), h->src);
    std::copy(dst.begin(), dst.end(), h->dst);
    ip.insert(ip.end(), payload.begin(), payload.end());
    return ip;
}

Bytes udp(uint16_t sport, uint16_t dport, const Bytes &payload)
{
    Bytes u(EF_UDP_HLEN);
    auto *h = reinterpret_cast<ef_udp_hdr *>(u.data());
    ef_put_be16(h->sport, sport);
    ef_put_be16(h->dport, dport);
    ef_put_be16(h->len, static_cast<uint16_t>(EF_UDP_HLEN + payload.size()));
    u.insert(u.end(), payload.begin(), payload.end());
    return u;
}

Bytes tcp(uint32_t seq, uint8_t flags, const Bytes &payload)
{
    Bytes t(EF_TCP_HLEN);
    auto *h = reinterpret_cast<ef_tcp_hdr *>(t.data());
    ef_put_be16(h->sport, 40000);
    ef_put_be16(h->dport, 80);
    ef_put_be32(h->seq, seq);
    ef_put_be32(h->ack, 1);
    h->data_offset = EF_TCP_HLEN / 4 << 4;
    h->flags = flags;
    ef_put_be16(h->window, 0xFFFF);
    t.insert(t.end(), payload.begin(), payload.end());
    return t;
}

Bytes vxlan_header(uint32_t vni)
{
    Bytes v(EF_VXLAN_HLEN);
    auto *h = reinterpret_cast<ef_vxlan_hdr *>(v.data());
    h->flags = EF_VXLAN_FLAG_I;
    h->vni[0] = static_cast<uint8_t>(vni >> 16);
    h->vni[1] = static_cast<uint8_t>(vni >> 8);
    h->vni[2] = static_cast<uint8_t>(vni);
    return v;
}

Bytes inner_ipv4_frame(const Mac &dst, const Mac &src, size_t payload = 26)
{
    return eth(dst, src, EF_ETHERTYPE_IPV4,
               ipv4(addr4("192.168.1.1"), addr4("192.168.1.2"), EF_IPPROTO_UDP, udp(1000, 2000, counting(payload))));
}

Bytes inner_ipv6_frame(const Mac &dst, const Mac &src, size_t payload = 26)
{
    return eth(dst, src, EF_ETHERTYPE_IPV6,
               ipv6(addr6("fd00::1"), addr6("fd00::2"), EF_IPPROTO_UDP, udp(1000, 2000, counting(payload))));
}

Bytes vxlan4(const char *src, const char *dst, uint32_t vni, const Bytes &inner)
{
    return eth(kUplinkMac, kNextHopMac, EF_ETHERTYPE_IPV4,
               ipv4(addr4(src), addr4(dst), EF_IPPROTO_UDP, udp(49152, EF_VXLAN_PORT, cat({vxlan_header(vni), inner}))));
}

Bytes vxlan6(const char *src, const char *dst, uint32_t vni, const Bytes &inner)
{
    return eth(kUplinkMac, kNextHopMac, EF_ETHERTYPE_IPV6,
               ipv6(addr6(src), addr6(dst), EF_IPPROTO_UDP, udp(49152, EF_VXLAN_PORT, cat({vxlan_header(vni), inner}))));
}

Bytes arp(uint16_t op, const Mac &sha, const char *spa, const Mac &tha, const char *tpa)
{
    Bytes a(EF_ARP_LEN);
    auto *h = reinterpret_cast<ef_arp *>(a.data());
    ef_put_be16(h->hw_type, EF_ARP_HW_ETHERNET);
    ef_put_be16(h->proto_type, EF_ETHERTYPE_IPV4);
    h->hw_len = EF_ETH_ALEN;
    h->proto_len = sizeof h->sender_ip;
    ef_put_be16(h->op, op);
    const Bytes s = addr4(spa), t = addr4(tpa);
    std::copy(sha.begin(), sha.end(), h->sender_mac);
    std::copy(s.begin(), s.end(), h->sender_ip);
    std::copy(tha.begin(), tha.end(), h->target_mac);
    std::copy(t.begin(), t.end(), h->target_ip);
    return a;
}

// A neighbour solicitation or advertisement with its link-layer option and a
// correct checksum.
Bytes nd(uint8_t type, const Mac &src_mac, const Mac &dst_mac, const char *src, const char *dst,
         const char *target, uint32_t flags)
{
    Bytes body(EF_ND_LEN + EF_ND_LINK_ADDR_OPT_LEN);
    auto *msg = reinterpret_cast<ef_nd_msg *>(body.data());
    msg->type = type;
    ef_put_be32(msg->flags, flags);
    const Bytes t = addr6(target);
    std::copy(t.begin(), t.end(), msg->target);
    auto *opt = reinterpret_cast<ef_nd_link_addr_opt *>(body.data() + EF_ND_LEN);
    opt->type = type == EF_ND_NEIGHBOUR_SOLICIT ? EF_ND_OPT_SOURCE_LINK_ADDR : EF_ND_OPT_TARGET_LINK_ADDR;
    opt->units = 1;
    std::copy(src_mac.begin(), src_mac.end(), opt->mac);
    Bytes pseudo = cat({addr6(src), addr6(dst)});
    const Bytes len_bytes = {0, 0, static_cast<uint8_t>(body.size() >> 8), static_cast<uint8_t>(body.size()),
                             0, 0, 0, EF_IPPROTO_ICMPV6};
    pseudo.insert(pseudo.end(), len_bytes.begin(), len_bytes.end());
    pseudo.insert(pseudo.end(), body.begin(), body.end());
    ef_put_be16(msg->csum, static_cast<uint16_t>(~ones_sum(pseudo)));
    return eth(dst_mac, src_mac, EF_ETHERTYPE_IPV6,
               ipv6(addr6(src), addr6(dst), EF_IPPROTO_ICMPV6, body, EF_ND_HOP_LIMIT));
}

// ---- control messages ----

Bytes one_message(const std::vector<vxlanctl::Tlv> &tlvs)
{
    std::string error;
    const auto messages = vxlanctl::pack_messages(tlvs, error);
    if (!messages || messages->size() != 1)
        fail("cannot pack a seed message: " + error);
    return messages->front();
}

// The channel target's framing: options, then each payload behind its
// little-endian u16 length.
Bytes channel_input(uint8_t options, const std::vector<Bytes> &payloads)
{
    Bytes in{options};
    for (const Bytes &p : payloads) {
        const Bytes len = le16(static_cast<uint16_t>(p.size()));
        in.insert(in.end(), len.begin(), len.end());
        in.insert(in.end(), p.begin(), p.end());
    }
    return in;
}

// Sample text for every field of the catalogue, so that each type's message
// names the segment's objects.
std::string sample(const vxlanctl::FieldDef &f, uint16_t code)
{
    using K = vxlanctl::FieldKind;
    const std::string name(f.name);
    if (f.kind == K::Ip)
        return name == "sip" ? "192.0.2.1" : "10.0.0.9";
    if (f.kind == K::Mac)
        return "00:00:5e:00:01:02";
    if (f.kind == K::VlanBitmap)
        return "10,20-22,4094";
    if (name == "oper" || name == "enable" || name == "value" || name == "anycast")
        return "1";
    if (name == "vni" || name == "l3vni")
        return "100";
    if (name == "map_vni")
        return "300";
    if (name == "ifx" || name == "trace_ifx")
        return code == vxlanctl::kSubInterface ? "203" : "101";
    if (name == "main_ifx")
        return "11";
    if (name == "svid")
        return "41";
    if (name == "cvid")
        return "7";
    if (name == "router_ifx" || name == "l3ifx")
        return "300";
    if (name == "vrf_id")
        return "5";
    if (name == "port")
        return "8472";
    if (name == "mask")
        return "0x3b";
    if (name == "budget")
        return "10";
    if (name == "show_id")
        return "1";
    if (name == "ctrl")
        return "4";
    return "1";
}

std::vector<std::string> sample_fields(const vxlanctl::TlvDef &def)
{
    std::vector<std::string> fields;
    for (const vxlanctl::FieldDef &f : def.fields)
        fields.push_back(std::string(f.name) + "=" + sample(f, def.code));
    return fields;
}

std::string lower(std::string_view s)
{
    std::string out(s);
    for (char &c : out)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

std::string read_file(const fs::path &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

// The ```yaml blocks of a Markdown file.
std::vector<std::string> yaml_blocks(const fs::path &md)
{
    std::vector<std::string> blocks;
    std::istringstream in(read_file(md));
    std::string line, block;
    bool inside = false;
    while (std::getline(in, line)) {
        if (!inside && line.rfind("```yaml", 0) == 0) {
            inside = true;
            block.clear();
        } else if (inside && line.rfind("```", 0) == 0) {
            inside = false;
            blocks.push_back(block);
        } else if (inside) {
            block += line + "\n";
        }
    }
    return blocks;
}

std::vector<Bytes> apply_messages(const std::string &text)
{
    std::string error;
    const auto config = vxlanctl::read_apply_text(text, "seed", error);
    if (!config)
        fail("a seed apply text is refused: " + error);
    return *vxlanctl::pack_messages(vxlanctl::apply_tlvs(*config), error);
}

const char *kSegmentChurn = R"(
vnis:
  - {vni: 100, vlans: [10, 11], arp_suppress: true}
  - {vni: 400, vlans: [40-45], map_vni: 100}
tunnels:
  - {interface: 101, source: 192.0.2.1, destination: 10.0.0.11, vnis: [100, 400]}
  - {interface: 107, source: "2001:db8::1", destination: "2001:db8::7", vnis: [400]}
vrfs:
  - {id: -1, l3vni: 400, l3_interface: 301}
subinterfaces:
  - {interface: 201, parent: 12, vni: 400, svid: 50, cvid: 60}
  - {interface: 203, parent: 11, vni: 100, svid: 40}
)";

void channel_seeds(const fs::path &docs)
{
    // Every catalogued type alone, on empty tables and on the segment.
    for (const vxlanctl::TlvDef &def : vxlanctl::catalogue()) {
        std::string error;
        const auto r = vxlanctl::send_request(std::string(def.name), sample_fields(def), error);
        if (!r)
            fail("seed " + std::string(def.name) + ": " + error);
        write_seed("channel", "tlv_" + lower(def.name), channel_input(0x01, r->messages));
        write_seed("channel", "segment_tlv_" + lower(def.name), channel_input(0x11, r->messages));
        // The same as a bare TLV area that the harness frames, once whole and
        // once with its value cut short (the handler reads past it).
        Bytes area(r->messages.front().begin() + 4, r->messages.front().end());
        write_seed("channel", "area_" + lower(def.name), channel_input(0x31, {area}));
        if (def.length >= 2) {
            const uint16_t cut = static_cast<uint16_t>(def.length / 2);
            area[2] = static_cast<uint8_t>(cut);
            area[3] = static_cast<uint8_t>(cut >> 8);
            area.resize(4 + cut);
            write_seed("channel", "short_" + lower(def.name), channel_input(0x31, {area}));
        }
    }
    // Whole resynchronisations: the documentation's example, and a change of
    // the segment (VNIs, tunnels, sub-interfaces moving, a conflict).
    for (const std::string &text : yaml_blocks(docs / "vxlanctl.md"))
        write_seed("channel", "apply_docs_example", channel_input(0x01, apply_messages(text)));
    write_seed("channel", "segment_resync_change", channel_input(0x11, apply_messages(kSegmentChurn)));
    write_seed("channel", "segment_resync_queued", channel_input(0x10, apply_messages(kSegmentChurn)));
    // Several TLVs in one message, then a removal of most of them.
    using vxlanctl::TlvWriter;
    const Bytes build = one_message(
        {TlvWriter(vxlanctl::kSetEntry).number("vni", 7).number("oper", 1).tlv(),
         TlvWriter(vxlanctl::kSetVlan).number("vni", 7).number("oper", 1).vlan("vlans", 7).vlan("vlans", 8).tlv(),
         TlvWriter(vxlanctl::kSetVtep).number("ifx", 70).ip("sip", *vxlanctl::parse_ip("10.1.1.1"))
             .ip("dip", *vxlanctl::parse_ip("10.1.1.2")).number("oper", 1).tlv(),
         TlvWriter(vxlanctl::kAssoVtep).number("vni", 7).number("ifx", 70).number("oper", 1).tlv(),
         TlvWriter(vxlanctl::kSubInterface).number("ifx", 71).number("main_ifx", 1).number("vni", 7)
             .number("svid", 7).number("oper", 1).tlv(),
         TlvWriter(vxlanctl::kSubInterface).number("ifx", 72).number("main_ifx", 1).number("vni", 7)
             .number("svid", 7).number("oper", 1).tlv(),
         TlvWriter(vxlanctl::kSetVrf).number("vrf_id", 9).number("l3vni", 7).number("l3ifx", 73)
             .number("oper", 1).tlv(),
         TlvWriter(vxlanctl::kSetRouter).number("vni", 7).number("router_ifx", 74).number("vrf_id", 9)
             .number("oper", 1).tlv()});
    const Bytes teardown = one_message(
        {TlvWriter(vxlanctl::kSetVtep).number("ifx", 70).number("oper", 0).tlv(),
         TlvWriter(vxlanctl::kSubInterface).number("ifx", 72).number("oper", 0).tlv(),
         TlvWriter(vxlanctl::kSetEntry).number("vni", 7).number("oper", 0).tlv()});
    write_seed("channel", "build_and_tear_down", channel_input(0x01, {build, teardown}));
    // Shows and the tech dump over the segment, with every log category on.
    std::vector<Bytes> shows;
    std::string error;
    shows.push_back(vxlanctl::debug_request({"0x3b", "11", "5"}, error)->messages.front());
    for (std::vector<std::string> args :
         {std::vector<std::string>{"status"}, {"entry"}, {"entry", "100"}, {"intf"}, {"vrf"}, {"subif"}})
        shows.push_back(vxlanctl::show_request(args, error)->messages.front());
    shows.push_back(vxlanctl::techdump_request().messages.front());
    write_seed("channel", "segment_shows", channel_input(0x11, shows));
    // Framing faults: too short, a count that disagrees, a newer version.
    Bytes miscounted = build;
    miscounted[3] = static_cast<uint8_t>(miscounted[3] - 1);
    Bytes newer = build;
    newer[0] = 2;
    write_seed("channel", "framing_faults", channel_input(0x01, {Bytes{1, 3, 0}, miscounted, newer}));
}

// ---- packet targets ----

// Receiving interfaces of the parser target, as its options byte numbers them.
enum ParserReceiver : uint8_t { kOnP1 = 0, kOnP2 = 1, kOnUplink = 2, kOnPeerLink = 3, kOnS1 = 4, kOnT1 = 5, kOnT6 = 7 };

Bytes parser_input(uint8_t flags, ParserReceiver receiver, uint32_t vni, const Bytes &frame, uint8_t cut = 0)
{
    Bytes in{static_cast<uint8_t>(flags | receiver << 5), cut, EF_VXLAN_FLAG_I, static_cast<uint8_t>(vni >> 16),
             static_cast<uint8_t>(vni >> 8), static_cast<uint8_t>(vni)};
    in.insert(in.end(), frame.begin(), frame.end());
    return in;
}

void parser_seeds()
{
    constexpr uint8_t kSoft = 0x01, kL2vni = 0x02, kBridge = 0x04, kTrace = 0x10;
    const Bytes in4 = inner_ipv4_frame(kHostOnP1, kHostBehindT1);
    write_seed("parser", "vxlan_ipv4_t1", parser_input(kBridge | kSoft, kOnUplink, 0,
                                                        vxlan4("10.0.0.1", "192.0.2.1", 100, in4)));
    write_seed("parser", "vxlan_ipv6_t6", parser_input(kBridge | kSoft | kTrace, kOnUplink, 0,
                                                        vxlan6("2001:db8::2", "2001:db8::1", 100,
                                                               inner_ipv6_frame(kHostOnP1, kHostBehindT6))));
    write_seed("parser", "vxlan_ipv6_mapped", parser_input(kBridge | kL2vni, kOnUplink, 0,
                                                            vxlan6("2001:db8::2", "2001:db8::1", 300, in4)));
    write_seed("parser", "vxlan_inner_tag", parser_input(kBridge, kOnUplink, 0,
                                                          vxlan4("10.0.0.1", "192.0.2.1", 100, tagged(in4, 10))));
    write_seed("parser", "vxlan_inner_double_tag",
               parser_input(kBridge | kTrace, kOnUplink, 0,
                            vxlan4("10.0.0.1", "192.0.2.1", 100, tagged(tagged(in4, 60), 50))));
    write_seed("parser", "vxlan_unknown_tunnel", parser_input(kBridge, kOnUplink, 0,
                                                               vxlan4("10.0.0.9", "192.0.2.1", 100, in4)));
    write_seed("parser", "vxlan_cut_short", parser_input(kBridge, kOnUplink, 0,
                                                          vxlan4("10.0.0.1", "192.0.2.1", 100, in4), 40));
    const Bytes local = inner_ipv4_frame(kHostBehindT1, kHostOnP1);
    write_seed("parser", "access_untagged", parser_input(kBridge | kSoft | kTrace, kOnP1, 0, local));
    write_seed("parser", "access_tagged", parser_input(kBridge | kSoft, kOnP1, 0, tagged(local, 20)));
    write_seed("parser", "access_subif_single", parser_input(kBridge, kOnP1, 0, tagged(local, 40)));
    write_seed("parser", "access_subif_double", parser_input(kBridge | kSoft, kOnP2, 0,
                                                              tagged(tagged(local, 60), 50)));
    write_seed("parser", "access_peerlink", parser_input(kBridge, kOnPeerLink, 0, tagged(local, 10)));
    write_seed("parser", "access_on_subif", parser_input(kBridge, kOnS1, 0, local));
    write_seed("parser", "arp_broadcast", parser_input(kBridge | kSoft, kOnP1, 0,
                                                        tagged(eth(kBroadcast, kHostOnP1, EF_ETHERTYPE_ARP,
                                                                   arp(EF_ARP_REQUEST, kHostOnP1, "192.168.1.1", Mac{},
                                                                       "192.168.1.2")), 20)));
    write_seed("parser", "tunnel_ipv4", parser_input(kBridge | kTrace, kOnT1, 100, in4));
    write_seed("parser", "tunnel_lldp_no_adjacency", parser_input(kBridge, kOnT6, 200,
                                                                   eth(kLldp, kHostBehindT6, EF_ETHERTYPE_LLDP, counting(40))));
    write_seed("parser", "tunnel_tagged", parser_input(kBridge, kOnT1, 100, tagged(in4, 10)));
    write_seed("parser", "runt", parser_input(kBridge, kOnUplink, 0, Bytes{0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x08}));
}

enum ForwardWay : uint8_t { kPipeline = 0, kForwardService = 1, kDeliver = 2, kEncapFrame = 3, kRouterMacForward = 4, kQueries = 5 };
// Positions in fuzz::segment_interfaces().
enum SegmentIndex : uint8_t { kIxP1, kIxP2, kIxUplink, kIxPeerLink, kIxS1, kIxS2, kIxT1, kIxT2, kIxT6, kIxRouter, kIxDevice };

struct ForwardSeed {
    uint8_t flags_byte = 0;   // capability and trace bits of byte 0
    ForwardWay way = kPipeline;
    uint64_t buff_flags = 0;
    uint32_t vni = 0;
    SegmentIndex src = kIxP1;
    int dst = -1;             // segment index, -1 none
    uint16_t mtu = 0;
    uint8_t extra = 0;
};

Bytes forward_input(const ForwardSeed &s, const Bytes &frame)
{
    Bytes in{static_cast<uint8_t>(s.flags_byte | s.way << 5)};
    const Bytes flags = le64(s.buff_flags);
    in.insert(in.end(), flags.begin(), flags.end());
    in.insert(in.end(), {EF_VXLAN_FLAG_I, static_cast<uint8_t>(s.vni >> 16), static_cast<uint8_t>(s.vni >> 8),
                         static_cast<uint8_t>(s.vni)});
    in.push_back(s.src);
    in.push_back(static_cast<uint8_t>(s.dst + 1));
    const Bytes mtu = le16(s.mtu);
    in.insert(in.end(), mtu.begin(), mtu.end());
    in.push_back(s.extra);
    in.insert(in.end(), frame.begin(), frame.end());
    return in;
}

void forward_seeds()
{
    constexpr uint8_t kSoft = 0x01, kL2vni = 0x02, kOutside = 0x04, kTrace = 0x10;
    constexpr uint8_t kOwnMtu = 0x80;
    const Bytes in4 = inner_ipv4_frame(kHostOnP1, kHostBehindT1);
    ForwardSeed s;
    s.src = kIxUplink;
    s.flags_byte = kSoft | kTrace;
    write_seed("forward", "decap_to_access_port", forward_input(s, vxlan4("10.0.0.1", "192.0.2.1", 100, in4)));
    s = {};
    s.src = kIxP1;
    s.flags_byte = kSoft;
    write_seed("forward", "access_to_remote_host",
               forward_input(s, tagged(inner_ipv4_frame(kHostBehindT1, kHostOnP1), 10)));
    write_seed("forward", "access_broadcast",
               forward_input(s, eth(kBroadcast, kHostOnP1, EF_ETHERTYPE_ARP,
                                    arp(EF_ARP_REQUEST, kHostOnP1, "192.168.1.1", Mac{}, "192.168.1.2"))));
    write_seed("forward", "access_unknown_unicast_v6",
               forward_input(s, tagged(inner_ipv6_frame(kUnknownHost, kHostOnP1), 10)));
    s.flags_byte = kSoft | kL2vni | kOutside;
    write_seed("forward", "mapped_vni_broadcast",
               forward_input(s, tagged(inner_ipv4_frame(kBroadcast, kHostOnP1), 30)));
    s = {};
    s.way = kForwardService;
    s.vni = 100;
    s.src = kIxP1;
    s.dst = kIxT1;
    s.buff_flags = EFMP_F_DST_SET;
    write_seed("forward", "service_set_tunnel", forward_input(s, inner_ipv4_frame(kHostBehindT1, kHostOnP1)));
    s.buff_flags = EFMP_F_BRDG_FLOOD;
    s.dst = -1;
    write_seed("forward", "service_bridge_flood", forward_input(s, inner_ipv4_frame(kBroadcast, kHostOnP1)));
    s.buff_flags = EFMP_F_BRG_NOT_FWD | EFMP_F_SWITCH_ENGINE;
    s.src = kIxT1;
    s.vni = 200;
    write_seed("forward", "service_arp_from_tunnel",
               forward_input(s, eth(kBroadcast, kHostBehindT1, EF_ETHERTYPE_ARP,
                                    arp(EF_ARP_REQUEST, kHostBehindT1, "192.168.2.1", Mac{}, "192.168.2.2"))));
    s = {};
    s.way = kDeliver;
    s.vni = 100;
    s.dst = kIxS2;
    write_seed("forward", "deliver_to_subif", forward_input(s, inner_ipv4_frame(kHostOnS1, kHostBehindT1)));
    s = {};
    s.way = kEncapFrame;
    s.vni = 100;
    s.dst = kIxT6;
    s.mtu = 600;
    s.extra = kOwnMtu | 2;
    s.flags_byte = kTrace;
    write_seed("forward", "encap_fragment_ipv4_over_ipv6",
               forward_input(s, inner_ipv4_frame(kHostBehindT6, kHostOnP1, 1400)));
    s.dst = kIxT1;
    s.mtu = 1280;
    write_seed("forward", "encap_fragment_ipv6_over_ipv4",
               forward_input(s, inner_ipv6_frame(kHostBehindT1, kHostOnP1, 1400)));
    s.extra = 4;
    s.mtu = 1500;
    write_seed("forward", "encap_underlay_mtu", forward_input(s, inner_ipv4_frame(kHostBehindT1, kHostOnP1, 1470)));
    s = {};
    s.way = kRouterMacForward;
    s.dst = kIxRouter;
    s.extra = 0x10;
    write_seed("forward", "router_mac_without_link_header",
               forward_input(s, inner_ipv4_frame(kRouterMac, kHostOnP1)));
    s.extra = 0x08 | 0x40;
    write_seed("forward", "router_mac_next_hop_from_frame",
               forward_input(s, cat({addr6("2001:db8::2"), inner_ipv6_frame(kRouterMac, kHostOnP1)})));
    s = {};
    s.way = kQueries;
    s.vni = 100;
    s.buff_flags = 300;
    write_seed("forward", "query_services", forward_input(s, inner_ipv4_frame(kHostBehindT1, kHostOnP1)));
}

// ---- efhost and vxlanctl inputs ----

Bytes fixup_input(uint8_t options, uint16_t tci, uint16_t mtu, const Bytes &frame)
{
    Bytes in{options, static_cast<uint8_t>(tci >> 8), static_cast<uint8_t>(tci)};
    const Bytes m = le16(mtu);
    in.insert(in.end(), m.begin(), m.end());
    in.insert(in.end(), frame.begin(), frame.end());
    return in;
}

void fixup_seeds()
{
    const Mac a{0x02, 0, 0, 0, 0, 1}, b{0x02, 0, 0, 0, 0, 2};
    const Bytes tcp4 = eth(a, b, EF_ETHERTYPE_IPV4, ipv4(addr4("10.0.0.1"), addr4("10.0.0.2"), EF_IPPROTO_TCP,
                                              tcp(1000, EF_TCP_ACK | EF_TCP_PSH | EF_TCP_FIN, counting(3000))));
    const Bytes tcp6 = eth(a, b, EF_ETHERTYPE_IPV6, ipv6(addr6("fd00::1"), addr6("fd00::2"), EF_IPPROTO_TCP,
                                              tcp(1000, EF_TCP_CWR | EF_TCP_ACK, counting(3000))));
    write_seed("frame_fixup", "tcp4_super_frame", fixup_input(0x02, 0, 1500, tcp4));
    write_seed("frame_fixup", "tcp6_super_frame_tag_stripped", fixup_input(0x03, 10, 1500, tcp6));
    write_seed("frame_fixup", "udp4_checksum_pending",
               fixup_input(0x02, 0, 1500, eth(a, b, EF_ETHERTYPE_IPV4, ipv4(addr4("10.0.0.1"), addr4("10.0.0.2"), EF_IPPROTO_UDP,
                                                                 udp(1, 2, counting(100))))));
    write_seed("frame_fixup", "double_tagged_udp6",
               fixup_input(0x02, 0, 1500,
                           tagged(tagged(eth(a, b, EF_ETHERTYPE_IPV6, ipv6(addr6("fd00::1"), addr6("fd00::2"), EF_IPPROTO_UDP,
                                                                udp(1, 2, counting(100)))), 20), 10, EF_ETHERTYPE_QINQ)));
    const Bytes inner_tcp = eth(a, b, EF_ETHERTYPE_IPV4, ipv4(addr4("192.168.0.1"), addr4("192.168.0.2"), EF_IPPROTO_TCP,
                                                   tcp(7, EF_TCP_ACK, counting(2900))));
    write_seed("frame_fixup", "vxlan_tcp_super_frame",
               fixup_input(0x02, 0, 1500, eth(a, b, EF_ETHERTYPE_IPV4, ipv4(addr4("10.0.0.1"), addr4("10.0.0.2"), EF_IPPROTO_UDP,
                                                                 udp(5000, EF_VXLAN_PORT, cat({vxlan_header(100), inner_tcp}))))));
    write_seed("frame_fixup", "vxlan6_checksum_pending",
               fixup_input(0x02, 0, 1500,
                           eth(a, b, EF_ETHERTYPE_IPV6, ipv6(addr6("fd00::1"), addr6("fd00::2"), EF_IPPROTO_UDP,
                                                  udp(5000, EF_VXLAN_PORT, cat({vxlan_header(100),
                                                                       inner_ipv4_frame(a, b, 64)}))))));
    write_seed("frame_fixup", "icmpv6_tag_stripped",
               fixup_input(0x03, 0x2014, 1500, nd(EF_ND_NEIGHBOUR_SOLICIT, a, b, "fd00::1", "fd00::2", "fd00::2", 0)));
    // The kernel's virtio-net header: a segment size below the MTU's, and
    // a pending checksum's place (UDP's: where its header starts, and the
    // checksum's offset in it).
    write_seed("frame_fixup", "tcp4_super_frame_with_segment_size", fixup_input(0x0A, 1000, 1500, tcp4));
    write_seed("frame_fixup", "udp4_checksum_where_the_kernel_says",
               fixup_input(0x12, (EF_ETH_HLEN + EF_IPV4_HLEN) << 8 | EF_UDP_CSUM_OFFSET, 1500,
                           eth(a, b, EF_ETHERTYPE_IPV4, ipv4(addr4("10.0.0.1"), addr4("10.0.0.2"), EF_IPPROTO_UDP,
                                                  udp(1, 2, counting(100))))));
}

Bytes join_input(uint16_t mtu, uint8_t what, uint8_t which, uint8_t where, const Bytes &frame)
{
    Bytes in = le16(mtu);
    in.insert(in.end(), {what, which, where});
    in.insert(in.end(), frame.begin(), frame.end());
    return in;
}

void join_seeds()
{
    const Mac a{0x02, 0, 0, 0, 0, 1}, b{0x02, 0, 0, 0, 0, 2};
    const Bytes tcp4 = eth(a, b, EF_ETHERTYPE_IPV4, ipv4(addr4("10.0.0.1"), addr4("10.0.0.2"), EF_IPPROTO_TCP,
                                              tcp(1000, EF_TCP_ACK | EF_TCP_PSH, counting(6000))));
    const Bytes tcp6 = eth(a, b, EF_ETHERTYPE_IPV6, ipv6(addr6("fd00::1"), addr6("fd00::2"), EF_IPPROTO_TCP,
                                              tcp(1000, EF_TCP_ACK, counting(6000))));
    write_seed("tcp_join", "tcp4_segments_in_order", join_input(1500, 0, 0, 0, tcp4));
    write_seed("tcp_join", "tcp6_segments_in_order", join_input(1400, 0, 0, 0, tcp6));
    write_seed("tcp_join", "tcp4_two_segments_swapped", join_input(1000, 0x01, 2, 0, tcp4));
    write_seed("tcp_join", "tcp6_one_segment_damaged", join_input(1000, 0x04, 1, 77, tcp6));
    write_seed("tcp_join", "tcp4_push_in_the_middle", join_input(1000, 0x08, 2, 0, tcp4));
}

void l3_seeds()
{
    const Mac peer{0x02, 0, 0, 0, 0, 0x99};
    const Mac port1{0x02, 0, 0, 0, 0, 0x01};
    write_seed("l3_input", "arp_request_for_own_address",
               cat({Bytes{0x02}, eth(kBroadcast, peer, EF_ETHERTYPE_ARP, arp(EF_ARP_REQUEST, peer, "10.1.0.9", Mac{}, "10.1.0.1"))}));
    write_seed("l3_input", "arp_reply_from_gateway",
               cat({Bytes{0x02}, eth(port1, peer, EF_ETHERTYPE_ARP, arp(EF_ARP_REPLY, peer, "10.1.0.254", port1, "10.1.0.1"))}));
    write_seed("l3_input", "arp_on_the_other_port",
               cat({Bytes{0x01}, eth(kBroadcast, peer, EF_ETHERTYPE_ARP, arp(EF_ARP_REQUEST, peer, "10.2.0.9", Mac{}, "10.2.0.1"))}));
    const Mac solicited{0x33, 0x33, 0xFF, 0x00, 0x00, 0x01};
    write_seed("l3_input", "neighbour_solicitation",
               cat({Bytes{0x02}, nd(EF_ND_NEIGHBOUR_SOLICIT, peer, solicited, "2001:db8:1::9", "ff02::1:ff00:1", "2001:db8:1::1", 0)}));
    write_seed("l3_input", "neighbour_advertisement",
               cat({Bytes{0x02}, nd(EF_ND_NEIGHBOUR_ADVERT, peer, port1, "2001:db8:1::9", "2001:db8:1::1", "2001:db8:1::9",
                                    uint32_t{EF_ND_NA_SOLICITED | EF_ND_NA_OVERRIDE} << 24)}));
}

void config_seeds(const fs::path &docs)
{
    int n = 0;
    for (const std::string &text : yaml_blocks(docs / "efhost-config.md"))
        write_text_seed("efhost_config", "docs_example_" + std::to_string(n++), text);
    write_text_seed("efhost_config", "minimal", "control_socket: /tmp/s\ninterfaces:\n  - {index: 1, name: p1}\n");
    n = 0;
    for (const std::string &text : yaml_blocks(docs / "vxlanctl.md"))
        write_text_seed("vxlanctl_apply", "docs_example_" + std::to_string(n++), text);
    write_text_seed("vxlanctl_apply", "segment_change", kSegmentChurn);
    write_text_seed("vxlanctl_apply", "empty", "");
}

Bytes args_input(uint8_t verb, const std::vector<std::string> &words)
{
    Bytes in{verb};
    for (size_t i = 0; i < words.size(); ++i) {
        if (i != 0)
            in.push_back(0);
        in.insert(in.end(), words[i].begin(), words[i].end());
    }
    return in;
}

void args_seeds()
{
    for (const vxlanctl::TlvDef &def : vxlanctl::catalogue()) {
        std::vector<std::string> words{std::string(def.name)};
        const std::vector<std::string> fields = sample_fields(def);
        words.insert(words.end(), fields.begin(), fields.end());
        write_seed("vxlanctl_args", "send_" + lower(def.name), args_input(0, words));
    }
    write_seed("vxlanctl_args", "send_by_number", args_input(0, {"8", "vni=0x64", "oper=1"}));
    write_seed("vxlanctl_args", "send_mac_dotted", args_input(0, {"SET_ANYCAST_MAC", "mac=0000.5e00.0101"}));
    write_seed("vxlanctl_args", "raw", args_input(1, {"01 0d 00 01", "08:00 05 00", "64000000 01"}));
    write_seed("vxlanctl_args", "show_entry", args_input(2, {"entry", "100"}));
    write_seed("vxlanctl_args", "show_subif", args_input(2, {"subif"}));
    write_seed("vxlanctl_args", "debug", args_input(3, {"0x3b", "11", "10"}));
    write_seed("vxlanctl_args", "hex", args_input(4, {"01:08 00-01 ab CD"}));
}

// Datagrams as clients send them to efhost's control socket: envelopes
// vxlanctl builds, and three that efhost refuses.
void control_envelope_seeds()
{
    using vxlanctl::TlvWriter;
    const Bytes message = one_message({TlvWriter(vxlanctl::kSetEntry).number("vni", 100).number("oper", 1).tlv()});
    const Bytes vxlan = ctl::encode({1, ctl::kFlagReplyWhenDone, ctl::kModuleVxlan, message});
    write_seed("control_envelope", "vxlan_message_reply_when_done", vxlan);
    const std::string counters = "counters";
    write_seed("control_envelope", "counters_request",
               ctl::encode({1, ctl::kFlagReplyWhenDone, ctl::kModuleCountersRequest,
                            Bytes(counters.begin(), counters.end())}));
    const std::string create = "create 1000 evpn-10.0.0.2";
    write_seed("control_envelope", "interface_request_create",
               ctl::encode({1, ctl::kFlagReplyWhenDone, ctl::kModuleInterfaceRequest,
                            Bytes(create.begin(), create.end())}));
    write_seed("control_envelope", "empty_payload", ctl::encode({7, 0, ctl::kModuleVxlan, {}}));
    write_seed("control_envelope", "ten_bytes", Bytes(vxlan.begin(), vxlan.begin() + 10));
    Bytes wrong_magic = vxlan;
    wrong_magic[0] ^= 0xFF;
    write_seed("control_envelope", "wrong_magic", wrong_magic);
    // The length field still counts the payload that is no longer there.
    write_seed("control_envelope", "length_beyond_carried", Bytes(vxlan.begin(), vxlan.end() - 5));
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s OUT_DIR DOCS_DIR\n", argv[0]);
        return 2;
    }
    g_out = argv[1];
    const fs::path docs = argv[2];
    channel_seeds(docs);
    parser_seeds();
    forward_seeds();
    fixup_seeds();
    join_seeds();
    l3_seeds();
    config_seeds(docs);
    args_seeds();
    control_envelope_seeds();
    return 0;
}
