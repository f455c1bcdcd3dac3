// The receive parser of parser interfaces: the frames it lets pass untouched,
// the local access path (VLAN from the tag or the port, VNI of the VLAN,
// sub-interfaces, MAC learning), the parser's trace budget and how the parser
// is attached to the pipeline.
#include "ef_wire.h"
#include "parser_fixture.h"
#include "vxlan_ef_parser.h"

namespace vxtest {
namespace {

constexpr uint32_t kSubif = 2001;
constexpr uint32_t kSubifVni = 6000;

class ParserServiceTest : public ParserTest {
protected:
    // Sub-interface 2001 of the port: outer VLAN 200, inner VLAN 300, VNI 6000.
    void add_subif()
    {
        efrt::lsm_add(efrt::make_intf(kSubif, 3, LSM_IF_STACK_BRIDGE, "eth10.200"));
        deliver_tlvs({set_entry(kSubifVni), subif(kSubif, kPort, kSubifVni, 200, 300)});
        take_logs();
    }
};

std::string service_line(const char *rest, const efmp_buff_t *b)
{
    return fmt("VXLAN-EF-PARSER: [vsd 3 vxlan_ef_parser_service] pkt: %p ", static_cast<const void *>(b)) +
           rest;
}

std::string not_ip_line(unsigned type, const efmp_buff_t *b)
{
    return fmt("VXLAN-EF-PARSER: [vsd 3 vxlan_ef_vxlan_header_check] pkt %p: protocol(0x%04x) is not "
               "IP-PROTOCOL.\n",
               static_cast<const void *>(b), type);
}

std::string learn_line(const efmp_buff_t *b, uint32_t vni, const char *result, unsigned ret)
{
    return fmt("VXLAN-EF-PARSER: [vsd 3 vxlan_ef_learn_xmac] pkt: %p add xmac(vni %u, mac "
               "0211.2233.4455) %s, ret: %u\n",
               static_cast<const void *>(b), vni, result, ret);
}

TEST_F(ParserServiceTest, DropsWithoutBufferReceivingInterfaceOrInstance)
{
    start_parser();
    EXPECT_EQ(vxlan_ef_parser_service(nullptr), EF_Drop);
    efmp_buff_t *b = receive(vxlan4(from_tunnel4(), inner_ipv4()), 999);  // no such interface
    EXPECT_EQ(b->src_intf, nullptr);
    EXPECT_EQ(vxlan_ef_parser_service(b), EF_Drop);

    efmp_buff_t *ok = receive(vxlan4(from_tunnel4(), inner_ipv4()));
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    g_vxlan_vsd = nullptr;
    const int rc = vxlan_ef_parser_service(ok);
    g_vxlan_vsd = vsd;
    EXPECT_EQ(rc, EF_Drop);
    EXPECT_EQ(ok->src_intf, intf(kPort));
}

TEST_F(ParserServiceTest, LayerTwoProtocolFrameSkipsTheParserUntouched)
{
    start_parser();
    efrt::bridge_publish(EF_BRIDGE_SERV_L2PROTOCOL_CHECK);
    trace_on();
    const Bytes frame = tagged(ether({0x01, 0x80, 0xC2, 0x00, 0x00, 0x02}, kInnerSrc, 0x8809), 0x0064);
    efmp_buff_t *b = receive(frame);
    EXPECT_EQ(vxlan_ef_parser_service(b), EF_Normal);
    EXPECT_EQ(frame_of(b), frame);
    EXPECT_EQ(tag_word(b), 0u);
    EXPECT_EQ(vni_word(b), vni_bytes(0, 0));
    const Trace t = take_trace();
    EXPECT_EQ(t.parser, std::vector<std::string>{service_line("is l2protocol, skip vxlan parser\n", b)});
    EXPECT_TRUE(t.dumps.empty());
}

TEST_F(ParserServiceTest, AggregateMemberFramesAreNotHandled)
{
    start_parser(false, false, LSM_IF_STATUS_AP_MEMBER);
    trace_on();
    const Bytes frame = vxlan4(from_tunnel4(), inner_ipv4());
    efmp_buff_t *b = receive(frame);
    EXPECT_EQ(vxlan_ef_parser_service(b), EF_Normal);
    EXPECT_EQ(frame_of(b), frame);
    EXPECT_EQ(b->src_intf, intf(kPort));
    EXPECT_EQ(vni_word(b), vni_bytes(0, 0));
    EXPECT_EQ(take_trace().parser,
              std::vector<std::string>{service_line("from AP-MEMBER(ifx = 10), needn't to handle.\n", b)});
}

TEST_F(ParserServiceTest, WithoutAnyVxlanFramesPassUntouched)
{
    set_cap(kCapBase);
    efrt::lsm_add(efrt::make_intf(kPort, 3, LSM_IF_STACK_BRIDGE, "eth10"));
    start_tables(0);
    trace_on();
    const Bytes frame = tagged(inner_ipv4(), 0x0064);
    efmp_buff_t *b = receive(frame);
    EXPECT_EQ(vxlan_ef_parser_service(b), EF_Normal);
    EXPECT_EQ(frame_of(b), frame);
    EXPECT_EQ(tag_word(b), 0u);
    EXPECT_EQ(take_trace().parser,
              std::vector<std::string>{service_line("no vxlan create in this vsd\n", b)});
}

TEST_F(ParserServiceTest, TaggedLocalFrameLosesItsTagAndTakesTheVniOfItsVlan)
{
    start_parser();
    trace_on();
    const Bytes inner = inner_ipv4();
    efmp_buff_t *b = receive(tagged(inner, 0xA064));  // priority 5, VLAN 100
    const uint16_t start = b->data_off;
    const uint32_t len = b->len;
    b->inner_tag = 0x37;

    EXPECT_EQ(vxlan_ef_parser_service(b), EF_Normal);

    EXPECT_EQ(frame_of(b), inner);
    EXPECT_EQ(b->data_off, start + 4);
    EXPECT_EQ(b->len, len - 4);
    EXPECT_EQ(b->l2_len, 14u);
    EXPECT_EQ(b->l3_off, b->data_off + 14);
    EXPECT_EQ(b->src_ifx, kPort);
    EXPECT_EQ(b->src_intf, intf(kPort));
    EXPECT_EQ(b->inner_tag, 0x37);  // no second tag
    EXPECT_EQ(tag_word(b), 0x3000A064u);
    EXPECT_EQ(vni_word(b), vni_bytes(0, kVni));
    EXPECT_EQ(b->flags, EFMP_F_TRACE);
    const Trace t = take_trace();
    EXPECT_EQ(t.parser, std::vector<std::string>{not_ip_line(0x8100, b)});
    EXPECT_EQ(t.dumps, std::vector<std::string>{"Packet position: patch-parser(eth)\n"});
}

TEST_F(ParserServiceTest, LocalFrameSourceMacIsLearnedInItsVniAndVlan)
{
    start_parser(true);
    efrt::bridge_publish(EF_BRIDGE_SERV_ADD_MAC);
    efrt::bridge_publish(EF_BRIDGE_SERV_INTF_VLAN_CHECK);
    efrt::bridge_add_vlan(kPort, kVlan);
    trace_on();
    efmp_buff_t *b = receive(tagged(inner_ipv4(), 0x0064));

    EXPECT_EQ(vxlan_ef_parser_service(b), EF_Normal);

    EXPECT_EQ(vni_word(b), vni_bytes(0, kVni));
    const auto macs = learned();
    ASSERT_EQ(macs.size(), 1u);
    EXPECT_EQ(macs[0].key, EF_BRIDGE_KEY_VNI | kVni);
    EXPECT_EQ(std::to_array(macs[0].mac), kInnerSrc);
    EXPECT_EQ(macs[0].ifindex, kPort);
    EXPECT_EQ(macs[0].vid, kVlan);
    EXPECT_EQ(take_trace().parser,
              (std::vector<std::string>{not_ip_line(0x8100, b), learn_line(b, kVni, "success", 0)}));
}

TEST_F(ParserServiceTest, PortOutsideTheVlanGetsNoVniInSoftForwarding)
{
    start_parser(true);
    efrt::bridge_publish(EF_BRIDGE_SERV_ADD_MAC);
    efrt::bridge_publish(EF_BRIDGE_SERV_INTF_VLAN_CHECK);
    trace_on();
    efmp_buff_t *b = receive(tagged(inner_ipv4(), 0x0064));

    EXPECT_EQ(vxlan_ef_parser_service(b), EF_Normal);

    EXPECT_EQ(vni_word(b), vni_bytes(0, 0));
    EXPECT_EQ(tag_word(b), 0x30000064u);
    EXPECT_TRUE(learned().empty());
    const Trace t = take_trace();
    EXPECT_EQ(t.parser,
              (std::vector<std::string>{
                  not_ip_line(0x8100, b),
                  service_line("vsd decap is disable, pkt buff port can't find vid[100].\n", b)}));
    EXPECT_EQ(t.dumps, std::vector<std::string>{"Packet position: patch-parser(eth)\n"});
}

TEST_F(ParserServiceTest, MissingVlanCheckIsReportedAndTheVniStillApplies)
{
    start_parser(true);
    efrt::bridge_publish(EF_BRIDGE_SERV_ADD_MAC);
    trace_on();
    efmp_buff_t *b = receive(tagged(inner_ipv4(), 0x0064));

    EXPECT_EQ(vxlan_ef_parser_service(b), EF_Normal);

    EXPECT_EQ(vni_word(b), vni_bytes(0, kVni));
    EXPECT_EQ(learned().size(), 1u);
    EXPECT_EQ(take_trace().parser,
              (std::vector<std::string>{not_ip_line(0x8100, b),
                                        service_line("vxlan_intf_vlan_check is NULL.\n", b),
                                        learn_line(b, kVni, "success", 0)}));
}

TEST_F(ParserServiceTest, UntaggedFrameOnAPortWithPortVlanZeroPassesWithoutVni)
{
    start_parser();
    efrt::bridge_publish(EF_BRIDGE_SERV_INTF_PVID_GET);
    efrt::bridge_set_pvid(kPort, 0);
    trace_on();
    const Bytes frame = ether(kInnerDst, kInnerSrc, EF_ETHERTYPE_ARP);
    efmp_buff_t *b = receive(frame);

    EXPECT_EQ(vxlan_ef_parser_service(b), EF_Normal);

    EXPECT_EQ(frame_of(b), frame);
    EXPECT_EQ(vni_word(b), vni_bytes(0, 0));
    EXPECT_EQ(tag_word(b), 0x30000000u);
    const Trace t = take_trace();
    EXPECT_EQ(t.parser,
              (std::vector<std::string>{
                  not_ip_line(0x0806, b),
                  fmt("VXLAN-EF-PARSER: [vsd 3 vxlan_ef_parser_service] VID of pkt: %p is zero, get "
                      "the PVID: 0 of IFX: 10\n",
                      static_cast<void *>(b)),
                  service_line("vsd decap is disable, pkt buff VID is still ZERO\n", b)}));
    EXPECT_EQ(t.dumps, std::vector<std::string>{"Packet position: patch-parser(eth)\n"});
}

TEST_F(ParserServiceTest, UntaggedFrameTakesThePortVlanAndItsVni)
{
    start_parser();
    efrt::bridge_publish(EF_BRIDGE_SERV_INTF_PVID_GET);
    efrt::bridge_set_pvid(kPort, kVlan);
    efmp_buff_t *b = receive(ether(kInnerDst, kInnerSrc, EF_ETHERTYPE_ARP));
    set_tag_word(b, 0x0000E000);  // priority 7, no VLAN
    EXPECT_EQ(vxlan_ef_parser_service(b), EF_Normal);
    EXPECT_EQ(tag_word(b), 0x3000E064u);
    EXPECT_EQ(vni_word(b), vni_bytes(0, kVni));
}

TEST_F(ParserServiceTest, UntaggedFrameWithoutPortVlanServiceStaysWithoutVni)
{
    start_parser();
    trace_on();
    efmp_buff_t *b = receive(ether(kInnerDst, kInnerSrc, EF_ETHERTYPE_ARP));
    set_tag_word(b, 0x00000064);  // a VLAN left by someone else is not the frame's
    EXPECT_EQ(vxlan_ef_parser_service(b), EF_Normal);
    EXPECT_EQ(tag_word(b), 0x30000000u);
    EXPECT_EQ(vni_word(b), vni_bytes(0, 0));
    EXPECT_EQ(take_trace().parser,
              (std::vector<std::string>{not_ip_line(0x0806, b),
                                        service_line("vsd decap is disable, pkt buff VID is still ZERO\n", b)}));
}

TEST_F(ParserServiceTest, VlanWithoutVniIsReported)
{
    start_parser();
    trace_on();
    for (uint16_t tci : {uint16_t{0x012C}, uint16_t{0x0FFF}}) {
        efmp_buff_t *b = receive(tagged(inner_ipv4(), tci));
        EXPECT_EQ(vxlan_ef_parser_service(b), EF_Normal);
        EXPECT_EQ(tag_word(b), 0x30000000u | tci);
        EXPECT_EQ(vni_word(b), vni_bytes(0, 0));
        EXPECT_EQ(take_trace().parser,
                  (std::vector<std::string>{not_ip_line(0x8100, b),
                                            service_line("vsd decap is disable, pkt buff vid can't find vni\n", b)}));
    }
}

TEST_F(ParserServiceTest, DoubleTaggedFrameIsReceivedOnItsSubInterface)
{
    start_parser(true);
    add_subif();
    efrt::bridge_publish(EF_BRIDGE_SERV_ADD_MAC);
    efrt::bridge_publish(EF_BRIDGE_SERV_INTF_VLAN_CHECK);  // the port is in no VLAN
    const Bytes inner = inner_ipv4();
    efmp_buff_t *b = receive(tagged(tagged(inner, 0x612C), 0x00C8));  // 200 outside, 300 (pri 3) inside
    const uint16_t start = b->data_off;
    b->inner_tag = 0xA5;

    EXPECT_EQ(vxlan_ef_parser_service(b), EF_Normal);

    EXPECT_EQ(frame_of(b), inner);
    EXPECT_EQ(b->data_off, start + 8);
    EXPECT_EQ(b->inner_tag, 0xE1);  // old upper bits 0xA0 with the inner tag's 0x61
    EXPECT_EQ(tag_word(b), 0x300000C8u);
    EXPECT_EQ(vni_word(b), vni_bytes(0, kSubifVni));
    EXPECT_EQ(b->src_intf, intf(kSubif));
    EXPECT_EQ(b->src_ifx, kSubif);
    const auto macs = learned();
    ASSERT_EQ(macs.size(), 1u);
    EXPECT_EQ(macs[0].key, EF_BRIDGE_KEY_VNI | kSubifVni);
    EXPECT_EQ(macs[0].ifindex, kSubif);
    EXPECT_EQ(macs[0].vid, 200u);
}

TEST_F(ParserServiceTest, SubInterfacesAreFoundUnderThePortsKeyIndex)
{
    start_parser();
    lsm_intfcb_t member = efrt::make_intf(11, 3, LSM_IF_STACK_BRIDGE, "eth11");
    member.subif_key_ifx = kPort;  // keyed under the port it belongs to
    efrt::lsm_add(member);
    add_subif();
    efmp_buff_t *b = receive(tagged(tagged(inner_ipv4(), 0x012C), 0x00C8), 11);
    EXPECT_EQ(vxlan_ef_parser_service(b), EF_Normal);
    EXPECT_EQ(b->src_intf, intf(kSubif));
    EXPECT_EQ(vni_word(b), vni_bytes(0, kSubifVni));
}

TEST_F(ParserServiceTest, SubIntfParseAnswersTheSubInterfaceAndItsVni)
{
    start_parser();
    add_subif();
    uint32_t vni = 1;
    {
        pthread_rwlock_rdlock(&g_vxlan_vsd->rwlock);
        EXPECT_EQ(vxlan_ef_sub_intf_parse(g_vxlan_vsd, kPort, 200, 300, &vni), intf(kSubif));
        EXPECT_EQ(vni, kSubifVni);
        vni = 1;
        EXPECT_EQ(vxlan_ef_sub_intf_parse(g_vxlan_vsd, kPort, 200, 301, &vni), nullptr);
        EXPECT_EQ(vxlan_ef_sub_intf_parse(g_vxlan_vsd, 11, 200, 300, &vni), nullptr);
        EXPECT_EQ(vni, 1u);
        pthread_rwlock_unlock(&g_vxlan_vsd->rwlock);
    }
    EXPECT_EQ(vxlan_ef_sub_intf_parse(nullptr, kPort, 200, 300, &vni), nullptr);
}

TEST_F(ParserServiceTest, LearnXmacAnswersFourWithoutTheBridgeService)
{
    start_parser();
    trace_on();
    efmp_buff_t *b = receive(inner_ipv4());
    EXPECT_EQ(vxlan_ef_learn_xmac(b, g_vxlan_vsd, kVni, kVlan, intf(kPort)), 4);
    EXPECT_EQ(take_trace().parser, std::vector<std::string>{learn_line(b, kVni, "failed", 4)});

    vxlan_ef_add_mac_entry = efrt::bridge_handler(EF_BRIDGE_SERV_ADD_MAC);
    EXPECT_EQ(vxlan_ef_learn_xmac(b, g_vxlan_vsd, kVni, kVlan, intf(kPort)), 0);
    EXPECT_EQ(take_trace().parser, std::vector<std::string>{learn_line(b, kVni, "success", 0)});
    ASSERT_EQ(learned().size(), 1u);
    EXPECT_EQ(learned()[0].key, EF_BRIDGE_KEY_VNI | kVni);
}

TEST_F(ParserServiceTest, TraceCoversOnlyTheTracedInterface)
{
    start_parser();
    efrt::lsm_add(efrt::make_intf(11, 3, LSM_IF_STACK_BRIDGE, "eth11"));
    trace_on(kPort, 5);
    efmp_buff_t *other = receive(vxlan4(from_tunnel4(7000), inner_ipv4()), 11);
    EXPECT_EQ(vxlan_ef_parser_service(other), EF_Normal);
    EXPECT_TRUE(take_trace().parser.empty());
    EXPECT_EQ(other->flags & EFMP_F_TRACE, 0u);
    EXPECT_EQ(g_vxlan_vsd->trace_budget, 5u);
}

TEST_F(ParserServiceTest, EmptyTraceBudgetSwitchesParserTracingOff)
{
    start_parser();
    trace_on(kPort, 1);
    g_vxlan_vsd->debug_mask |= VXLAN_EF_DBG_EVENT;
    efmp_buff_t *first = receive(vxlan4(from_tunnel4(7000), inner_ipv4()));
    EXPECT_EQ(vxlan_ef_parser_service(first), EF_Normal);
    EXPECT_EQ(take_trace().parser.size(), 1u);
    EXPECT_EQ(first->flags & EFMP_F_TRACE, EFMP_F_TRACE);
    EXPECT_EQ(g_vxlan_vsd->trace_budget, 0u);

    efmp_buff_t *second = receive(vxlan4(from_tunnel4(7000), inner_ipv4()));
    EXPECT_EQ(vxlan_ef_parser_service(second), EF_Normal);
    EXPECT_TRUE(take_trace().parser.empty());
    EXPECT_EQ(second->flags & EFMP_F_TRACE, 0u);
    EXPECT_EQ(g_vxlan_vsd->debug_mask, VXLAN_EF_DBG_EVENT);  // only the parser flag went
    EXPECT_EQ(g_vxlan_vsd->trace_ifx, 0u);

    // A packet already marked is printed with the flag off and no budget.
    efmp_buff_t *marked = receive(vxlan4(from_tunnel4(7000), inner_ipv4()));
    marked->flags |= EFMP_F_TRACE;
    EXPECT_EQ(vxlan_ef_parser_service(marked), EF_Normal);
    EXPECT_EQ(take_trace().parser,
              std::vector<std::string>{
                  fmt("VXLAN-EF-PARSER: [vsd 3 vxlan_ef_vxlan_parser] pkt: %p vxlan 7000 is not exist\n",
                      static_cast<void *>(marked))});
}

TEST_F(ParserServiceTest, ParserIsPublishedAsServiceZeroAndAttachedToParserInterfaces)
{
    start_parser();
    bool found = false;
    for (const auto &s : efrt::services_of(EFMP_MODULE_VXLAN)) {
        if (s.service == 0) {
            found = true;
            EXPECT_EQ(s.handler, reinterpret_cast<void *>(vxlan_ef_parser_service));
        }
    }
    EXPECT_TRUE(found) << "service 0 is not published";
    EXPECT_EQ(g_vxlan_vsd->flags & VXLAN_EF_F_SERV_PARSER, VXLAN_EF_F_SERV_PARSER);
    const auto eth = efrt::eth_parsers();
    ASSERT_EQ(eth.size(), 1u);  // the port; tunnels are not parser interfaces
    EXPECT_EQ(eth[0].ifindex, kPort);
    EXPECT_EQ(eth[0].slot, 5u);
    EXPECT_EQ(eth[0].handler, reinterpret_cast<void *>(vxlan_ef_parser_service));

    efrt::lsm_create(efrt::make_intf(45009, 45, LSM_IF_STACK_RAW, "tunnel9"));
    const auto parsers = efrt::efmp_parsers();
    ASSERT_EQ(parsers.size(), 1u);
    EXPECT_EQ(parsers[0].handler, vxlan_ef_reg_tunnel_efmp_parser);
    EXPECT_EQ(parsers[0].intf, intf(45009));
    EXPECT_EQ(parsers[0].value, 1u);
}

}  // namespace
}  // namespace vxtest
