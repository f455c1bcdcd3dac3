// The layer-2 header parse of received frames: removal of up to two 802.1Q
// tags and the classification of the frame into the platform's packet types.
#include "ef_wire.h"
#include "efmp.h"
#include "parser_fixture.h"
#include "vxlan_ef_parser.h"

namespace vxtest {
namespace {

class L2HeaderTest : public ParserTest {};

Mac mac(int a, int b, int c, int d, int e, int f)
{
    return Mac{static_cast<uint8_t>(a), static_cast<uint8_t>(b), static_cast<uint8_t>(c),
               static_cast<uint8_t>(d), static_cast<uint8_t>(e), static_cast<uint8_t>(f)};
}

// An LLC/SNAP frame: a length in the type field, then AA AA 03, an OUI and
// the SNAP protocol.
Bytes snap(const Mac &dst, uint16_t protocol)
{
    Bytes f = ether(dst, kInnerSrc, 0x0030);
    const Bytes llc = bytes({0xAA, 0xAA, 0x03, 0x00, 0x00, 0x0C});
    std::copy(llc.begin(), llc.end(), f.begin() + 14);
    put16(f, 20, protocol);
    return f;
}

TEST_F(L2HeaderTest, FramesAreClassifiedByTheFirstMatchingRule)
{
    start_parser();
    const Mac any = kInnerDst;
    struct Case {
        const char *what;
        Bytes frame;
        uint8_t type;
    };
    const std::vector<Case> cases{
        {"ipv4", ether(any, kInnerSrc, EF_ETHERTYPE_IPV4), EFMP_PKT_IPV4},
        {"arp", ether(any, kInnerSrc, EF_ETHERTYPE_ARP), EFMP_PKT_ARP},
        {"ipv6", ether(any, kInnerSrc, EF_ETHERTYPE_IPV6), EFMP_PKT_IPV6},
        {"bb01", ether(any, kInnerSrc, 0xBB01), EFMP_PKT_TYPE_BB01},
        {"mpls", ether(any, kInnerSrc, 0x8847), EFMP_PKT_MPLS},
        {"slow protocols", ether(any, kInnerSrc, 0x8809), EFMP_PKT_SLOW_PROTOCOLS},
        {"88ca", ether(any, kInnerSrc, 0x88CA), EFMP_PKT_TIPC},
        {"pppoe discovery", ether(any, kInnerSrc, 0x8863), EFMP_PKT_PPPOE_DISCOVERY},
        {"pppoe session", ether(any, kInnerSrc, 0x8864), EFMP_PKT_PPPOE_SESSION},
        {"cfm to 01:19:a7:00:00:01", ether(mac(0x01, 0x19, 0xA7, 0, 0, 1), kInnerSrc, 0x8902), EFMP_PKT_RAPS},
        {"cfm elsewhere", ether(mac(0x01, 0x80, 0xC2, 0, 0, 0x30), kInnerSrc, 0x8902), EFMP_PKT_CFM},
        {"bridge group", ether(mac(0x01, 0x80, 0xC2, 0, 0, 0), kInnerSrc, 0x0026), EFMP_PKT_BPDU},
        {"01:80:c2:00:00:21", ether(mac(0x01, 0x80, 0xC2, 0, 0, 0x21), kInnerSrc, 0x0026), EFMP_PKT_GVRP},
        {"01:5c:e2:00:00:06", ether(mac(0x01, 0x5C, 0xE2, 0, 0, 6), kInnerSrc, 0x0026), EFMP_PKT_GVRP},
        {"lldp", ether(mac(0x01, 0x80, 0xC2, 0, 0, 0x0E), kInnerSrc, 0x88CC), EFMP_PKT_LLDP},
        {"cdp", snap(mac(0x01, 0x00, 0x0C, 0xCC, 0xCC, 0xCC), 0x2000), EFMP_PKT_CDP},
        {"0788", ether(any, kInnerSrc, 0x0788), EFMP_PKT_TYPE_0788},
        {"01:5c:e2:00:00:07", ether(mac(0x01, 0x5C, 0xE2, 0, 0, 7), kInnerSrc, 0x0026), EFMP_PKT_DST_5CE2_07},
        {"ipv4 to the bridge group", ether(mac(0x01, 0x80, 0xC2, 0, 0, 0), kInnerSrc, EF_ETHERTYPE_IPV4), EFMP_PKT_IPV4},
        {"ipv4 in snap", snap(any, EF_ETHERTYPE_IPV4), EFMP_PKT_IPV4},
        {"tagged lldp", tagged(ether(mac(0x01, 0x80, 0xC2, 0, 0, 0x0E), kInnerSrc, 0x88CC), 0x0064), EFMP_PKT_LLDP},
        {"lldp type elsewhere", ether(any, kInnerSrc, 0x88CC), EFMP_PKT_UNCLASSIFIED},
        {"cdp address, other snap protocol", snap(mac(0x01, 0x00, 0x0C, 0xCC, 0xCC, 0xCC), 0x2001), EFMP_PKT_UNCLASSIFIED},
        {"snap 2000 elsewhere", snap(any, 0x2000), EFMP_PKT_UNCLASSIFIED},
        {"unknown type", ether(any, kInnerSrc, 0x1234), EFMP_PKT_UNCLASSIFIED},
    };
    for (const Case &c : cases) {
        efmp_buff_t *b = receive(c.frame, kTunnel4);
        vxlan_ef_pkt_l2header_parse(b);
        EXPECT_EQ(b->pkt_type, c.type) << c.what;
        EXPECT_EQ(b->unclassified, c.type == 0 ? 1 : 0) << c.what;
    }
}

TEST_F(L2HeaderTest, OneTagGoesIntoTheOuterTagWord)
{
    start_parser();
    const Bytes plain = inner_ipv4();
    efmp_buff_t *b = receive(tagged(plain, 0xA064), kTunnel4);
    const uint16_t start = b->data_off;
    const uint32_t len = b->len;
    b->src_ifx = 0;

    vxlan_ef_pkt_l2header_parse(b);

    EXPECT_EQ(frame_of(b), plain);
    EXPECT_EQ(b->data_off, start + 4);
    EXPECT_EQ(b->len, len - 4);
    EXPECT_EQ(tag_word(b), 0x0000A064u);
    EXPECT_EQ(b->inner_tag, 0u);
    EXPECT_EQ(b->l2_len, 14u);
    EXPECT_EQ(b->l3_off, start + 4 + 14);
    EXPECT_EQ(b->src_ifx, kTunnel4);
}

TEST_F(L2HeaderTest, SecondTagGoesIntoTheInnerTagByteKeepingItsUpperBits)
{
    start_parser();
    const Bytes plain = inner_ipv4();
    efmp_buff_t *b = receive(tagged(tagged(plain, 0x612C), 0x00C8), kTunnel4);
    const uint16_t start = b->data_off;
    b->inner_tag = 0x5F;

    vxlan_ef_pkt_l2header_parse(b);

    EXPECT_EQ(frame_of(b), plain);
    EXPECT_EQ(b->data_off, start + 8);
    EXPECT_EQ(tag_word(b), 0x000000C8u);
    EXPECT_EQ(b->inner_tag, 0x71);  // 0x50 kept, 0x61 from the tag
    EXPECT_EQ(b->pkt_type, 1u);
}

TEST_F(L2HeaderTest, AThirdTagStaysInTheFrame)
{
    start_parser();
    const Bytes third = tagged(inner_ipv4(), 0x0003);
    efmp_buff_t *b = receive(tagged(tagged(third, 0x0002), 0x0001), kTunnel4);
    vxlan_ef_pkt_l2header_parse(b);
    EXPECT_EQ(frame_of(b), third);
    EXPECT_EQ(tag_word(b), 0x00000001u);
    EXPECT_EQ(b->unclassified, 1u);  // 0x8100 is no packet type
}

TEST_F(L2HeaderTest, TagTypeInAFrameTooShortForATagIsLeftAlone)
{
    start_parser();
    Bytes frame = ether(kInnerDst, kInnerSrc, 0x8100, 3);  // 17 bytes
    efmp_buff_t *b = receive(frame, kTunnel4);
    vxlan_ef_pkt_l2header_parse(b);
    EXPECT_EQ(frame_of(b), frame);
    EXPECT_EQ(tag_word(b), 0u);
    EXPECT_EQ(b->l2_len, 14u);
    EXPECT_EQ(b->pkt_type, 0u);
}

TEST_F(L2HeaderTest, NothingHappensWithoutBufferOrReceivingInterface)
{
    start_parser();
    vxlan_ef_pkt_l2header_parse(nullptr);
    const Bytes frame = tagged(inner_ipv4(), 0x0064);
    efmp_buff_t *b = receive(frame, 999);
    vxlan_ef_pkt_l2header_parse(b);
    EXPECT_EQ(frame_of(b), frame);
    EXPECT_EQ(b->l2_len, 0u);
}

}  // namespace
}  // namespace vxtest
