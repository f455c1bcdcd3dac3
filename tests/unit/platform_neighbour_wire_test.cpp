// The suppression step's readers and writers of ARP and ICMPv6 neighbour
// messages, against frames built by the tests' own builders: every field
// read, every check that refuses a message, and the written frames byte for
// byte with a checksum computed apart from the platform's.
#include "ef_wire.h"
#include "neighbour_wire.h"
#include "suppress_fixture.h"

namespace vxtest {
namespace {

namespace nwire = efrt::nwire;

const Ip6 kSrc = v6("2001:db8:1::1");
const Ip6 kTarget = v6("2001:db8:1::2");

// The IPv6 packet of a frame (its Ethernet header cut off).
Bytes packet_of(const Bytes &frame) { return Bytes(frame.begin() + 14, frame.end()); }

Bytes solicitation_packet(Bytes msg, const Ip6 &src = kSrc, uint8_t hop_limit = 255)
{
    return packet_of(ipv6_icmp_frame(kBcastMac, kHostA, src, solicited_node(kTarget), std::move(msg), hop_limit));
}

TEST(NeighbourWireTest, ArpReaderTakesEveryFieldOfAnEthernetIpv4Body)
{
    const Bytes f = arp_frame(EF_ARP_REPLY, kHostA, v4("10.1.1.1"), kHostB, v4("10.1.1.2"));
    const std::optional<nwire::ArpMessage> m = nwire::read_arp(f.data() + 14, f.size() - 14);
    ASSERT_TRUE(m);
    EXPECT_EQ(m->op, 2);
    EXPECT_EQ(m->sender_mac, mac_of(kHostA));
    EXPECT_EQ(m->sender_ip, v4("10.1.1.1"));
    EXPECT_EQ(m->target_mac, mac_of(kHostB));
    EXPECT_EQ(m->target_ip, v4("10.1.1.2"));
}

TEST(NeighbourWireTest, ArpReaderRefusesShortOrOtherBodies)
{
    const Bytes f = arp_frame(EF_ARP_REQUEST, kHostA, v4("10.1.1.1"), kHostB, v4("10.1.1.2"));
    EXPECT_FALSE(nwire::read_arp(f.data() + 14, 27));
    EXPECT_FALSE(nwire::read_arp(nullptr, 28));
    for (size_t at : {0u, 1u, 2u, 3u, 4u, 5u}) {
        Bytes other = f;
        other[14 + at] ^= 0x40;
        EXPECT_FALSE(nwire::read_arp(other.data() + 14, other.size() - 14)) << "byte " << at;
    }
}

TEST(NeighbourWireTest, ArpReplyIsWrittenByteForByte)
{
    uint8_t frame[nwire::kArpFrameLen];
    nwire::write_arp_reply(frame, mac_of(kHostB), v4("10.1.1.2"), mac_of(kHostA), v4("10.1.1.1"));
    EXPECT_EQ(Bytes(frame, frame + sizeof frame), arp_frame(EF_ARP_REPLY, kHostB, v4("10.1.1.2"), kHostA, v4("10.1.1.1"), kHostA));
}

TEST(NeighbourWireTest, NdTypeIsIcmpv6RightAfterTheHeaderOfTypes133To137)
{
    for (uint8_t type : {132, 133, 135, 137, 138}) {
        Bytes p = solicitation_packet(Bytes{type, 0, 0, 0});
        EXPECT_EQ(nwire::nd_type(p.data(), p.size()), type >= 133 && type <= 137 ? type : 0) << int{type};
    }
    Bytes p = solicitation_packet(ns_message(kTarget, kHostA));
    p[6] = 0;  // a hop-by-hop header first
    EXPECT_EQ(nwire::nd_type(p.data(), p.size()), 0);
    EXPECT_EQ(nwire::nd_type(p.data(), 40), 0) << "no type byte";
}

TEST(NeighbourWireTest, SolicitationReaderTakesItsFieldsAndSourceOptionAmongOthers)
{
    Bytes msg = nd_message(EF_ND_NEIGHBOUR_SOLICIT, 0, kTarget);
    msg.insert(msg.end(), {14, 1, 1, 2, 3, 4, 5, 6});  // a nonce option first
    msg.insert(msg.end(), {1, 1});
    append(msg, kHostC, 6);
    const Bytes p = solicitation_packet(msg);
    const std::optional<nwire::NdMessage> m = nwire::read_nd(p.data(), p.size());
    ASSERT_TRUE(m);
    EXPECT_EQ(m->type, 135);
    EXPECT_EQ(m->src, kSrc);
    EXPECT_EQ(m->dst, solicited_node(kTarget));
    EXPECT_EQ(m->target, kTarget);
    EXPECT_EQ(m->link_addr, mac_of(kHostC));
    EXPECT_FALSE(m->solicited);
}

TEST(NeighbourWireTest, AdvertisementReaderTakesItsFlagAndTargetOption)
{
    const Bytes p = packet_of(ipv6_icmp_frame(kHostA, kHostB, kTarget, kSrc, na_message(EF_ND_NA_SOLICITED, kTarget, kHostB)));
    const std::optional<nwire::NdMessage> m = nwire::read_nd(p.data(), p.size());
    ASSERT_TRUE(m);
    EXPECT_EQ(m->type, 136);
    EXPECT_TRUE(m->solicited);
    EXPECT_EQ(m->link_addr, mac_of(kHostB));
    const Bytes with_source_option =
        packet_of(ipv6_icmp_frame(kHostA, kHostB, kTarget, kSrc, nd_message(EF_ND_NEIGHBOUR_ADVERT, 0, kTarget, EF_ND_OPT_SOURCE_LINK_ADDR, kHostB)));
    const std::optional<nwire::NdMessage> other = nwire::read_nd(with_source_option.data(), with_source_option.size());
    ASSERT_TRUE(other);
    EXPECT_FALSE(other->link_addr) << "an advertisement's own option is the target's";
}

TEST(NeighbourWireTest, NeighbourReaderRefusesWhatANodeMustDiscard)
{
    const Bytes good = solicitation_packet(ns_message(kTarget, kHostA));
    ASSERT_TRUE(nwire::read_nd(good.data(), good.size()));
    struct Case {
        const char *what;
        Bytes packet;
    };
    std::vector<Case> cases;
    cases.push_back({"hop limit 254", solicitation_packet(ns_message(kTarget, kHostA), kSrc, 254)});
    cases.push_back({"multicast target", solicitation_packet(ns_message(v6("ff02::1"), kHostA))});
    cases.push_back({"multicast source", solicitation_packet(ns_message(kTarget, kHostA), v6("ff02::5"))});
    cases.push_back({"option from the all-zero address", solicitation_packet(ns_message(kTarget, kHostA), v6("::"))});
    cases.push_back({"router solicitation", solicitation_packet(Bytes{133, 0, 0, 0, 0, 0, 0, 0})});
    Bytes c = good;
    c[40 + 1] = 1;
    cases.push_back({"code 1", c});
    c = good;
    c[40 + 2] ^= 0x80;
    cases.push_back({"checksum", c});
    c = good;
    c[0] = 0x40;
    cases.push_back({"version 4", c});
    c = good;
    c[5] += 8;
    cases.push_back({"payload longer than the packet", c});
    c = good;
    c[5] = 16;
    cases.push_back({"payload shorter than the body", c});
    c = good;
    c[40 + 24 + 1] = 2;
    cases.push_back({"option beyond the payload", c});
    for (const Case &k : cases)
        EXPECT_FALSE(nwire::read_nd(k.packet.data(), k.packet.size())) << k.what;
    EXPECT_FALSE(nwire::read_nd(good.data(), 39));
    EXPECT_FALSE(nwire::read_nd(nullptr, 100));
}

TEST(NeighbourWireTest, AdvertisementIsWrittenByteForByteWithItsChecksum)
{
    uint8_t frame[nwire::kNaFrameLen];
    nwire::write_na(frame, mac_of(kHostB), kTarget, mac_of(kHostA), kSrc);
    const Bytes expected = ipv6_icmp_frame(kHostA, kHostB, kTarget, kSrc, na_message(EF_ND_NA_SOLICITED | EF_ND_NA_OVERRIDE, kTarget, kHostB));
    EXPECT_EQ(Bytes(frame, frame + sizeof frame), expected);
    EXPECT_EQ(nwire::icmpv6_checksum(kTarget, kSrc, frame + 54, 32), 0);
}

TEST(NeighbourWireTest, AddressKindsTellHostsFromTheRest)
{
    EXPECT_TRUE(nwire::host_mac(mac_of(kHostA)));
    EXPECT_FALSE(nwire::host_mac({0x01, 0, 0x5e, 0, 0, 1}));
    EXPECT_FALSE(nwire::host_mac({}));
    EXPECT_TRUE(nwire::ipv4_host(v4("10.0.0.1")));
    EXPECT_TRUE(nwire::ipv4_host(v4("223.255.255.255")));
    EXPECT_FALSE(nwire::ipv4_host(v4("0.0.0.0")));
    EXPECT_FALSE(nwire::ipv4_host(v4("224.0.0.1")));
    EXPECT_FALSE(nwire::ipv4_host(v4("255.255.255.255")));
    EXPECT_TRUE(nwire::ipv6_all_zero(v6("::")));
    EXPECT_FALSE(nwire::ipv6_all_zero(v6("::1")));
    EXPECT_TRUE(nwire::ipv6_multicast(v6("ff02::1")));
    EXPECT_FALSE(nwire::ipv6_multicast(kSrc));
}

}  // namespace
}  // namespace vxtest
