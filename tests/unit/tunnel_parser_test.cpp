// The parser of overlay tunnel interfaces: the result word, the layer-2
// parse and its trace lines, and the admission of frames by VNI and VTEP
// adjacency with the protocol frames that pass without one.
#include "parser_fixture.h"
#include "vxlan_ef_parser.h"

namespace vxtest {
namespace {

constexpr uint32_t kBareTunnel = 45003;  // a tunnel that carries no VNI

class TunnelParserTest : public ParserTest {
protected:
    void start_tunnels()
    {
        start_parser();
        efrt::lsm_add(efrt::make_intf(kBareTunnel, 45, LSM_IF_STACK_RAW, "tunnel3"));
        deliver_tlvs({set_vtep(kBareTunnel, ip4("10.0.0.1"), ip4("10.0.0.3"))});
        take_logs();
    }

    // A frame delivered on a tunnel, already marked with its VNI.
    efmp_buff_t *on_tunnel(const Bytes &frame, uint32_t tunnel, uint32_t vni)
    {
        efmp_buff_t *b = receive(frame, tunnel);
        efmp_buff_set_vni(b, vni);
        return b;
    }
};

constexpr Mac kLldpDst{0x01, 0x80, 0xC2, 0x00, 0x00, 0x0E};

std::string tunnel_line(const char *rest, const efmp_buff_t *b)
{
    return fmt("VXLAN-EF-PARSER: [vsd 3 vxlan_ef_parser_tunnel_service] pkt: %p ",
               static_cast<const void *>(b)) +
           rest;
}

TEST_F(TunnelParserTest, TaggedFrameOfAKnownTunnelIsParsedAndAdmitted)
{
    start_tunnels();
    trace_on(kTunnel4);
    const Bytes inner = inner_ipv4();
    efmp_buff_t *b = on_tunnel(tagged(inner, 0x2064), kTunnel4, kVni);
    set_tag_word(b, 0x30000FFF);
    b->src_ifx = 0;
    const uint16_t start = b->data_off;
    uint32_t result = 0;

    EXPECT_EQ(vxlan_ef_tunnel_parser(b, &result), EF_Normal);

    EXPECT_EQ(result, 1u);
    EXPECT_EQ(frame_of(b), inner);
    EXPECT_EQ(b->data_off, start + 4);
    EXPECT_EQ(tag_word(b), 0x30002064u);
    EXPECT_EQ(b->pkt_type, 1u);
    EXPECT_EQ(b->unclassified, 0u);
    EXPECT_EQ(b->l2_len, 14u);
    EXPECT_EQ(b->l3_off, b->data_off + 14);
    EXPECT_EQ(b->src_ifx, kTunnel4);
    const Trace t = take_trace();
    EXPECT_EQ(t.parser,
              std::vector<std::string>{fmt(
                  "VXLAN-EF-PARSER: [vsd 3 vxlan_ef_pkt_l2header_parse] pkt %p, src_intf tunnel1\n smac: "
                  "0211.2233.4455 dmac: 0000.5e00.5301, O_VID 100, I_VID 0, O_Pri 1, I_Pri 0, "
                  "eth-type 2048.\n",
                  static_cast<void *>(b))});
    EXPECT_EQ(t.dumps, std::vector<std::string>{"Packet position: patch-parser(ot)\n"});
}

TEST_F(TunnelParserTest, DoubleTaggedFrameTracesBothTags)
{
    start_tunnels();
    trace_on(kTunnel4);
    efmp_buff_t *b = on_tunnel(tagged(tagged(inner_ipv4(), 0x612C), 0xA0C8), kTunnel4, kVni);
    uint32_t result = 0;
    EXPECT_EQ(vxlan_ef_tunnel_parser(b, &result), EF_Normal);
    EXPECT_EQ(b->inner_tag, 0x61);
    EXPECT_EQ(take_trace().parser,
              std::vector<std::string>{fmt(
                  "VXLAN-EF-PARSER: [vsd 3 vxlan_ef_pkt_l2header_parse] pkt %p, src_intf tunnel1\n smac: "
                  "0211.2233.4455 dmac: 0000.5e00.5301, O_VID 200, I_VID 300, O_Pri 5, I_Pri 3, "
                  "eth-type 2048.\n",
                  static_cast<void *>(b))});
}

TEST_F(TunnelParserTest, UntaggedFrameTracesThatItHasNoVlan)
{
    start_tunnels();
    trace_on(kTunnel4);
    efmp_buff_t *b = on_tunnel(inner_ipv4(), kTunnel4, kVni);
    set_tag_word(b, 0x00000064);  // cleared before parsing
    uint32_t result = 0;
    EXPECT_EQ(vxlan_ef_tunnel_parser(b, &result), EF_Normal);
    EXPECT_EQ(tag_word(b), 0u);
    EXPECT_EQ(take_trace().parser,
              std::vector<std::string>{
                  fmt("VXLAN-EF-PARSER: [vsd 3 vxlan_ef_pkt_l2header_parse] pkt %p, Faild to get VLAN, "
                      "intf tunnel1\n",
                      static_cast<void *>(b))});
}

TEST_F(TunnelParserTest, LldpWithoutAdjacencyPassesWhileIpv4IsDropped)
{
    start_tunnels();
    trace_on(kBareTunnel);
    efmp_buff_t *lldp = on_tunnel(ether(kLldpDst, kInnerSrc, 0x88CC), kBareTunnel, kVni);
    uint32_t result = 0;
    EXPECT_EQ(vxlan_ef_tunnel_parser(lldp, &result), EF_Normal);
    EXPECT_EQ(lldp->pkt_type, 36u);
    const Trace t = take_trace();
    EXPECT_EQ(t.parser,
              (std::vector<std::string>{
                  fmt("VXLAN-EF-PARSER: [vsd 3 vxlan_ef_pkt_l2header_parse] pkt %p, Faild to get VLAN, "
                      "intf tunnel3\n",
                      static_cast<void *>(lldp)),
                  tunnel_line("proto-pkt bypass vxlan-check.\n", lldp)}));
    EXPECT_TRUE(t.dumps.empty());

    efmp_buff_t *ip = on_tunnel(inner_ipv4(), kBareTunnel, kVni);
    EXPECT_EQ(vxlan_ef_tunnel_parser(ip, &result), EF_Drop);
    EXPECT_EQ(ip->pkt_type, 1u);
}

TEST_F(TunnelParserTest, OnlyProtocolTypesPassWithoutAdjacency)
{
    start_tunnels();
    for (uint8_t type : {26, 36, 37, 40, 42, 43, 44, 46}) {
        efmp_buff_t *b = on_tunnel(inner_ipv4(), kBareTunnel, kVni);
        b->pkt_type = type;
        EXPECT_EQ(vxlan_ef_parser_tunnel_service(b), EF_Normal) << int(type);
    }
    for (uint8_t type : {0, 1, 2, 9, 10, 27, 29, 38, 39, 48}) {
        efmp_buff_t *b = on_tunnel(inner_ipv4(), kBareTunnel, kVni);
        b->pkt_type = type;
        EXPECT_EQ(vxlan_ef_parser_tunnel_service(b), EF_Drop) << int(type);
    }
    efmp_buff_t *to_other = on_tunnel(ether({0x01, 0x5C, 0xE2, 0x00, 0x00, 0x09}, kInnerSrc, 0x0788),
                                      kBareTunnel, kVni);
    to_other->pkt_type = 45;
    EXPECT_EQ(vxlan_ef_parser_tunnel_service(to_other), EF_Normal);
    efmp_buff_t *to_08 = on_tunnel(ether({0x01, 0x5C, 0xE2, 0x00, 0x00, 0x08}, kInnerSrc, 0x0788),
                                   kBareTunnel, kVni);
    to_08->pkt_type = 45;
    EXPECT_EQ(vxlan_ef_parser_tunnel_service(to_08), EF_Drop);
}

TEST_F(TunnelParserTest, UnknownVniIsDroppedEvenForProtocolFrames)
{
    start_tunnels();
    uint32_t result = 0;
    efmp_buff_t *b = on_tunnel(ether(kLldpDst, kInnerSrc, 0x88CC), kTunnel4, 7000);
    EXPECT_EQ(vxlan_ef_tunnel_parser(b, &result), EF_Drop);
    EXPECT_EQ(result, 1u);
}

TEST_F(TunnelParserTest, FrameWithoutVniPassesUnchecked)
{
    start_tunnels();
    trace_on(kBareTunnel);
    efmp_buff_t *b = on_tunnel(inner_ipv4(), kBareTunnel, 0);
    uint32_t result = 0;
    EXPECT_EQ(vxlan_ef_tunnel_parser(b, &result), EF_Normal);
    EXPECT_EQ(take_trace().dumps, std::vector<std::string>{"Packet position: patch-parser(ot)\n"});
}

TEST_F(TunnelParserTest, WithoutAnyVxlanEveryFramePasses)
{
    set_cap(kCapBase);
    efrt::lsm_add(efrt::make_intf(kTunnel4, 45, LSM_IF_STACK_RAW, "tunnel1"));
    start_tables(0);
    trace_on(kTunnel4);
    efmp_buff_t *b = on_tunnel(inner_ipv4(), kTunnel4, kVni);
    uint32_t result = 0;
    EXPECT_EQ(vxlan_ef_tunnel_parser(b, &result), EF_Normal);
    const auto lines = take_trace().parser;
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[1],
              fmt("VXLAN-EF-PARSER: [vsd 3 vxlan_ef_parser_tunnel_service] pkt: %p no vxlan create in "
                  "this vsd\n",
                  static_cast<void *>(b)));
}

TEST_F(TunnelParserTest, MissingBufferOrInterfaceStillSetsTheResultAndPasses)
{
    start_tunnels();
    uint32_t result = 0;
    EXPECT_EQ(vxlan_ef_tunnel_parser(nullptr, &result), EF_Normal);
    EXPECT_EQ(result, 1u);
    EXPECT_EQ(vxlan_ef_parser_tunnel_service(nullptr), EF_Normal);

    const Bytes frame = tagged(inner_ipv4(), 0x0064);
    efmp_buff_t *b = receive(frame, 999);  // no such interface
    set_tag_word(b, 0x30000064);
    result = 0;
    EXPECT_EQ(vxlan_ef_tunnel_parser(b, &result), EF_Normal);
    EXPECT_EQ(result, 1u);
    EXPECT_EQ(frame_of(b), frame);        // not parsed
    EXPECT_EQ(tag_word(b), 0x30000000u);  // but its VLAN cleared
}

TEST_F(TunnelParserTest, RegisteredTunnelParserAnswersAsTheTunnelParser)
{
    start_tunnels();
    uint32_t result = 0;
    efmp_buff_t *known = on_tunnel(inner_ipv4(), kTunnel4, kVni);
    EXPECT_EQ(vxlan_ef_reg_tunnel_efmp_parser(known, &result), EF_Normal);
    EXPECT_EQ(result, 1u);
    EXPECT_EQ(known->pkt_type, 1u);
    result = 0;
    efmp_buff_t *dropped = on_tunnel(inner_ipv4(), kBareTunnel, kVni);
    EXPECT_EQ(vxlan_ef_reg_tunnel_efmp_parser(dropped, &result), EF_Drop);
    EXPECT_EQ(result, 1u);
}

}  // namespace
}  // namespace vxtest
