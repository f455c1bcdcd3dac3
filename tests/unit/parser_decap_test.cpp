// VXLAN decapsulation by the receive parser: the outer header checks, the
// tunnel lookup, the removal of the outer headers over IPv4 and IPv6, the
// inner tag check, VNI mapping and MAC learning from the tunnel.
#include "parser_fixture.h"
#include "vxlan_ef_parser.h"

namespace vxtest {
namespace {

constexpr uint64_t kDecap = 0x400000000ull;

class ParserDecapTest : public ParserTest {};

std::string decap_line(const char *text, const efmp_buff_t *b)
{
    return fmt("VXLAN-EF-PARSER: [vsd 3 vxlan_ef_vxlan_parser] pkt %p: %s", static_cast<const void *>(b),
               text);
}

std::string header_line(const char *format_rest, const efmp_buff_t *b)
{
    return fmt("VXLAN-EF-PARSER: [vsd 3 vxlan_ef_vxlan_header_check] pkt %p: ", static_cast<const void *>(b)) +
           format_rest;
}

std::string vid_zero_line(const efmp_buff_t *b)
{
    return fmt("VXLAN-EF-PARSER: [vsd 3 vxlan_ef_parser_service] pkt: %p vsd decap is disable, pkt "
               "buff VID is still ZERO\n",
               static_cast<const void *>(b));
}

// Everything the parser may write, to show that a frame was left alone.
struct Snapshot {
    Bytes frame;
    uint16_t data_off;
    uint32_t len;
    Bytes vni;
    lsm_intfcb_t *src_intf;
    uint32_t src_ifx;
    uint64_t flags;
};

Snapshot snapshot(const efmp_buff_t *b)
{
    return Snapshot{Bytes(b->head + b->data_off, b->head + b->data_off + b->len),
                    b->data_off,
                    b->len,
                    Bytes(b->vni_tag, b->vni_tag + 4),
                    b->src_intf,
                    b->src_ifx,
                    b->flags & ~0x1000ull};
}

void expect_untouched(const Snapshot &before, const efmp_buff_t *b)
{
    const Snapshot after = snapshot(b);
    EXPECT_EQ(after.frame, before.frame);
    EXPECT_EQ(after.data_off, before.data_off);
    EXPECT_EQ(after.len, before.len);
    EXPECT_EQ(after.vni, before.vni);
    EXPECT_EQ(after.src_intf, before.src_intf);
    EXPECT_EQ(after.src_ifx, before.src_ifx);
    EXPECT_EQ(after.flags, before.flags);
}

TEST_F(ParserDecapTest, Ipv4VxlanFrameIsDecapsulatedOntoItsTunnelWithItsVni)
{
    start_parser();
    trace_on();
    const Bytes inner = inner_ipv4();
    efmp_buff_t *b = receive(vxlan4(from_tunnel4(), inner));
    const uint16_t start = b->data_off;
    set_tag_word(b, 0x0000A0FF);  // priority 5, VLAN 255 from the port
    b->vni_tag[0] = 0x5A;         // not the parser's byte

    EXPECT_EQ(vxlan_ef_parser_service(b), EF_Normal);

    EXPECT_EQ(b->data_off, start + 50);
    EXPECT_EQ(b->len, inner.size());
    EXPECT_EQ(frame_of(b), inner);
    EXPECT_EQ(vni_word(b), vni_bytes(0x5A, kVni));
    EXPECT_EQ(tag_word(b), 0x3000A000u);  // instance 3 on top, VLAN cleared, priority kept
    EXPECT_EQ(b->src_intf, intf(kTunnel4));
    EXPECT_EQ(b->src_ifx, kTunnel4);
    EXPECT_EQ(b->flags, kDecap | EFMP_F_TRACE);
    const Trace t = take_trace();
    EXPECT_EQ(t.parser, std::vector<std::string>{decap_line("remove vxlan-header.\n", b)});
    EXPECT_EQ(t.dumps, std::vector<std::string>{"Packet position: patch-parser(vxlan)\n"});
}

TEST_F(ParserDecapTest, Ipv6VxlanFrameIsDecapsulatedOntoItsTunnelWithItsVni)
{
    start_parser();
    const Bytes inner = tagged(inner_ipv4(), 0x6064);
    efmp_buff_t *b = receive(vxlan6(from_tunnel6(), inner));
    const uint16_t start = b->data_off;

    EXPECT_EQ(vxlan_ef_parser_service(b), EF_Normal);

    EXPECT_EQ(b->data_off, start + 70);
    EXPECT_EQ(b->len, inner.size());
    EXPECT_EQ(frame_of(b), inner);  // a valid inner tag stays in the frame
    EXPECT_EQ(vni_word(b), vni_bytes(0, kVni));
    EXPECT_EQ(tag_word(b), 0x30000000u);
    EXPECT_EQ(b->src_intf, intf(kTunnel6));
    EXPECT_EQ(b->src_ifx, kTunnel6);
    EXPECT_EQ(b->flags, kDecap);
    EXPECT_TRUE(take_trace().parser.empty());  // parser tracing is off
}

TEST_F(ParserDecapTest, LargestVniIsDecapsulated)
{
    start_parser();
    deliver_tlvs({set_entry(0xFFFFFF), asso_vtep(0xFFFFFF, kTunnel6)});
    trace_on();
    efmp_buff_t *b = receive(vxlan6(from_tunnel6(0xFFFFFF), inner_ipv4()));
    EXPECT_EQ(vxlan_ef_parser_service(b), EF_Normal);
    EXPECT_EQ(vni_word(b), vni_bytes(0, 0xFFFFFF));
    EXPECT_EQ(b->src_intf, intf(kTunnel6));
    EXPECT_EQ(take_trace().parser, std::vector<std::string>{decap_line("remove vxlan-header.\n", b)});
}

TEST_F(ParserDecapTest, VniZeroIsTakenAsALocalFrameNotDropped)
{
    start_parser();
    efrt::bridge_publish(EF_BRIDGE_SERV_INTF_PVID_GET);
    efrt::bridge_set_pvid(kPort, kVlan);
    trace_on();
    const Bytes frame = vxlan4(from_tunnel4(0), inner_ipv4());
    efmp_buff_t *b = receive(frame);
    const uint16_t start = b->data_off;

    EXPECT_EQ(vxlan_ef_parser_service(b), EF_Normal);

    EXPECT_EQ(b->data_off, start);
    EXPECT_EQ(frame_of(b), frame);
    EXPECT_EQ(b->flags & kDecap, 0u);
    EXPECT_EQ(b->src_intf, intf(kPort));
    EXPECT_EQ(vni_word(b), vni_bytes(0, kVni));  // from the port's VLAN
    EXPECT_EQ(tag_word(b), 0x30000000u | kVlan);
    const Trace t = take_trace();
    EXPECT_EQ(t.parser,
              (std::vector<std::string>{
                  header_line("vni is error, vni: 0\n", b),
                  fmt("VXLAN-EF-PARSER: [vsd 3 vxlan_ef_parser_service] VID of pkt: %p is zero, get "
                      "the PVID: 100 of IFX: 10\n",
                      static_cast<void *>(b))}));
    EXPECT_EQ(t.dumps, std::vector<std::string>{"Packet position: patch-parser(eth)\n"});
}

TEST_F(ParserDecapTest, ClearIFlagIsTakenAsALocalFrameNotDropped)
{
    start_parser();
    trace_on();
    Outer o = from_tunnel4();
    o.flags = 0x00;
    const Bytes frame = vxlan4(o, inner_ipv4());
    efmp_buff_t *b = receive(frame);

    EXPECT_EQ(vxlan_ef_parser_service(b), EF_Normal);

    EXPECT_EQ(frame_of(b), frame);
    EXPECT_EQ(b->flags & kDecap, 0u);
    EXPECT_EQ(vni_word(b), vni_bytes(0, 0));
    EXPECT_EQ(take_trace().parser,
              (std::vector<std::string>{header_line("flag_i is not 1, 0x00\n", b), vid_zero_line(b)}));
}

TEST_F(ParserDecapTest, NonUdpOuterPacketsAreLocalFramesForBothFamilies)
{
    start_parser();
    trace_on();
    Outer o4 = from_tunnel4();
    o4.proto = 6;
    efmp_buff_t *b4 = receive(vxlan4(o4, inner_ipv4()));
    EXPECT_EQ(vxlan_ef_parser_service(b4), EF_Normal);
    EXPECT_EQ(take_trace().parser,
              (std::vector<std::string>{header_line("6 not UDP-PROTOCOL.\n", b4), vid_zero_line(b4)}));

    Outer o6 = from_tunnel6();
    o6.proto = 58;
    efmp_buff_t *b6 = receive(vxlan6(o6, inner_ipv4()));
    EXPECT_EQ(vxlan_ef_parser_service(b6), EF_Normal);
    EXPECT_EQ(take_trace().parser,
              (std::vector<std::string>{header_line("58 not UDP-PROTOCOL(ipv6).\n", b6),
                                        vid_zero_line(b6)}));
    EXPECT_EQ(b4->flags & kDecap, 0u);
    EXPECT_EQ(b6->flags & kDecap, 0u);
}

TEST_F(ParserDecapTest, NonIpFrameIsALocalFrame)
{
    start_parser();
    trace_on();
    efmp_buff_t *b = receive(ether(kInnerDst, kInnerSrc, 0x0806));
    EXPECT_EQ(vxlan_ef_parser_service(b), EF_Normal);
    EXPECT_EQ(take_trace().parser,
              (std::vector<std::string>{header_line("protocol(0x0806) is not IP-PROTOCOL.\n", b),
                                        vid_zero_line(b)}));
}

TEST_F(ParserDecapTest, OtherUdpPortIsALocalFrameUntilConfigured)
{
    start_parser();
    trace_on();
    Outer o = from_tunnel4();
    o.dport = 4790;
    efmp_buff_t *b = receive(vxlan4(o, inner_ipv4()));
    EXPECT_EQ(vxlan_ef_parser_service(b), EF_Normal);
    EXPECT_EQ(b->flags & kDecap, 0u);
    EXPECT_EQ(take_trace().parser,
              (std::vector<std::string>{header_line("udp-dport 4790 != 4789\n", b), vid_zero_line(b)}));

    deliver_tlvs({set_udp_port(4790)});
    take_logs();
    efmp_buff_t *again = receive(vxlan4(o, inner_ipv4()));
    EXPECT_EQ(vxlan_ef_parser_service(again), EF_Normal);
    EXPECT_EQ(again->flags & kDecap, kDecap);
    EXPECT_EQ(frame_of(again), inner_ipv4());
}

TEST_F(ParserDecapTest, UnknownVniPassesUnchanged)
{
    start_parser();
    trace_on();
    efmp_buff_t *b = receive(vxlan4(from_tunnel4(7000), inner_ipv4()));
    const Snapshot before = snapshot(b);
    EXPECT_EQ(vxlan_ef_parser_service(b), EF_Normal);
    expect_untouched(before, b);
    EXPECT_EQ(take_trace().parser,
              std::vector<std::string>{
                  fmt("VXLAN-EF-PARSER: [vsd 3 vxlan_ef_vxlan_parser] pkt: %p vxlan 7000 is not exist\n",
                      static_cast<void *>(b))});
}

TEST_F(ParserDecapTest, UnknownTunnelPassesUnchangedNamingThePacketsDestination)
{
    start_parser();
    trace_on();
    Outer to_other = from_tunnel4();
    to_other.dst = "10.0.0.9";
    Outer from_other = from_tunnel4();
    from_other.src = "10.0.0.7";
    Outer v6 = from_tunnel6();
    v6.dst = "2001:db8::9";
    const std::vector<std::pair<Bytes, std::string>> cases{
        {vxlan4(to_other, inner_ipv4()), "10.0.0.9"},
        {vxlan4(from_other, inner_ipv4()), "10.0.0.1"},
        {vxlan6(v6, inner_ipv4()), "2001:db8::9"},
    };
    for (const auto &[frame, dip] : cases) {
        efmp_buff_t *b = receive(frame);
        const Snapshot before = snapshot(b);
        EXPECT_EQ(vxlan_ef_parser_service(b), EF_Normal);
        expect_untouched(before, b);
        const std::string text =
            "fail to find tunnel(sip) with packet's dip(" + dip + "), so needn't to process vxlan-pkt\n";
        EXPECT_EQ(take_trace().parser, std::vector<std::string>{decap_line(text.c_str(), b)}) << dip;
    }
}

TEST_F(ParserDecapTest, FrameShorterThanItsOuterHeadersIsALocalFrameUnchanged)
{
    start_parser();
    trace_on();
    const Bytes frame = vxlan4(from_tunnel4(), {});  // exactly the 50 outer bytes
    efmp_buff_t *b = receive(frame);
    b->len = 49;
    const uint16_t start = b->data_off;

    EXPECT_EQ(vxlan_ef_parser_service(b), EF_Normal);

    EXPECT_EQ(b->data_off, start);
    EXPECT_EQ(b->len, 49u);
    EXPECT_EQ(b->flags & kDecap, 0u);
    EXPECT_EQ(take_trace().parser,
              (std::vector<std::string>{decap_line("efmp_buff_pull failed\n", b), vid_zero_line(b)}));
}

TEST_F(ParserDecapTest, InnerTagWithVlanZeroOr4095IsDropped)
{
    start_parser();
    trace_on();
    struct Case {
        Bytes inner;
        unsigned vid;
    };
    const std::vector<Case> cases{
        {tagged(inner_ipv4(), 0x0000), 0},
        {tagged(inner_ipv4(), 0xEFFF), 4095},
        {tagged(tagged(inner_ipv4(), 0x2000), 0x0064), 0},      // second tag broken
        {tagged(tagged(inner_ipv4(), 0x0FFF), 0x0064), 4095},
    };
    for (const Case &c : cases) {
        efmp_buff_t *b = receive(vxlan4(from_tunnel4(), c.inner));
        EXPECT_EQ(vxlan_ef_parser_service(b), EF_Drop) << c.vid;
        EXPECT_EQ(b->flags & kDecap, 0u);
        EXPECT_EQ(vni_word(b), vni_bytes(0, 0));
        const std::string text =
            fmt("the inner tag of the vxlan packet is abnormal[vid: %u], drop.\n", c.vid);
        EXPECT_EQ(take_trace().parser, std::vector<std::string>{decap_line(text.c_str(), b)});
    }
}

TEST_F(ParserDecapTest, ValidInnerTagsStayInTheFrame)
{
    start_parser();
    for (const Bytes &inner : {tagged(inner_ipv4(), 0x0001), tagged(inner_ipv4(), 0xEFFE),
                               tagged(tagged(inner_ipv4(), 0x012C), 0x00C8)}) {
        efmp_buff_t *b = receive(vxlan4(from_tunnel4(), inner));
        EXPECT_EQ(vxlan_ef_parser_service(b), EF_Normal);
        EXPECT_EQ(frame_of(b), inner);
        EXPECT_EQ(b->flags & kDecap, kDecap);
    }
}

TEST_F(ParserDecapTest, MappedVniReplacesThePacketsVniWhileMappingIsOn)
{
    start_parser(false, true);
    deliver_tlvs({set_entry(6000), vni_map(kVni, 6000)});
    efmp_buff_t *b = receive(vxlan4(from_tunnel4(), inner_ipv4()));
    EXPECT_EQ(vxlan_ef_parser_service(b), EF_Normal);
    EXPECT_EQ(vni_word(b), vni_bytes(0, 6000));
    EXPECT_EQ(b->src_intf, intf(kTunnel4));
}

TEST_F(ParserDecapTest, MappedVniIsIgnoredWhileMappingIsOff)
{
    start_parser(false, false);
    deliver_tlvs({set_entry(6000), vni_map(kVni, 6000)});
    efmp_buff_t *b = receive(vxlan4(from_tunnel4(), inner_ipv4()));
    EXPECT_EQ(vxlan_ef_parser_service(b), EF_Normal);
    EXPECT_EQ(vni_word(b), vni_bytes(0, kVni));
}

TEST_F(ParserDecapTest, InnerSourceMacIsLearnedOnTheTunnelWhenItsLearningIsOn)
{
    start_parser(true);
    efrt::bridge_publish(EF_BRIDGE_SERV_ADD_MAC);
    deliver_tlvs({tunnel_mac_learn(kTunnel4, 1)});
    trace_on();
    efmp_buff_t *b = receive(vxlan4(from_tunnel4(), inner_ipv4()));

    EXPECT_EQ(vxlan_ef_parser_service(b), EF_Normal);

    const auto macs = learned();
    ASSERT_EQ(macs.size(), 1u);
    EXPECT_EQ(macs[0].key, EF_BRIDGE_KEY_VNI | kVni);
    EXPECT_EQ(std::to_array(macs[0].mac), kInnerSrc);
    EXPECT_EQ(macs[0].ifindex, kTunnel4);
    EXPECT_EQ(macs[0].vid, 0u);
    EXPECT_EQ(take_trace().parser,
              (std::vector<std::string>{
                  decap_line("remove vxlan-header.\n", b),
                  fmt("VXLAN-EF-PARSER: [vsd 3 vxlan_ef_learn_xmac] pkt: %p add xmac(vni 5000, mac "
                      "0211.2233.4455) success, ret: 0\n",
                      static_cast<void *>(b))}));
}

TEST_F(ParserDecapTest, NothingIsLearnedFromATunnelWithoutLearningOrOutsideSoftForwarding)
{
    start_parser(true);
    efrt::bridge_publish(EF_BRIDGE_SERV_ADD_MAC);
    efmp_buff_t *b = receive(vxlan4(from_tunnel4(), inner_ipv4()));
    EXPECT_EQ(vxlan_ef_parser_service(b), EF_Normal);
    EXPECT_TRUE(learned().empty());  // the tunnel's learning switch is off

    g_vxlan_ef_master.fwdmode_soft = 0;
    deliver_tlvs({tunnel_mac_learn(kTunnel4, 1)});
    efmp_buff_t *again = receive(vxlan4(from_tunnel4(), inner_ipv4()));
    EXPECT_EQ(vxlan_ef_parser_service(again), EF_Normal);
    EXPECT_TRUE(learned().empty());
}

}  // namespace
}  // namespace vxtest
