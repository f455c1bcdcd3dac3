// efhost's L3 engine on two underlay ports: ARP and neighbour-discovery
// answers, next-hop resolution with waiting packets, longest-prefix routing
// and the worker draining the platform's hand-off queue. Frames are checked
// byte for byte against bytes written out here, and ICMPv6 checksums
// against this file's own sum.
//
//        10.1.0.0/24, 2001:db8:1::/64           10.2.0.0/24
//   [gw 10.1.0.254] --- port 1 [ engine ] port 2 --- [gw 10.2.0.254]
//                     02:00:00:00:00:01   02:00:00:00:00:02
//   10.9.0.0/16 via 10.1.0.254       10.9.5.0/24 via 10.2.0.254
//   10.8.0.0/16 via 10.7.0.1 on port 2; port 2 also holds 10.3.0.1/24
//   static neighbour 10.2.0.77 at 02:aa:00:00:00:77 on port 2
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <cstring>
#include <string>
#include <vector>

#include "efmp.h"
#include "efrt.h"
#include "efrt_l3.h"
#include "efrt_services.h"
#include "l3_clock.h"
#include "counters.h"
#include "l3_engine.h"
#include "recording_port.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes hex(const std::string &text)
{
    Bytes out;
    std::string digits;
    for (char c : text)
        if (c != ' ')
            digits += c;
    for (size_t i = 0; i + 1 < digits.size(); i += 2)
        out.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    return out;
}

Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes &p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

// The Internet checksum of the IPv6 pseudo-header and an ICMPv6 body,
// written independently of the engine's.
uint16_t reference_icmpv6_sum(const Bytes &src, const Bytes &dst, const Bytes &body)
{
    Bytes all = cat({src, dst});
    const uint32_t n = static_cast<uint32_t>(body.size());
    all.push_back(static_cast<uint8_t>(n >> 24));
    all.push_back(static_cast<uint8_t>(n >> 16));
    all.push_back(static_cast<uint8_t>(n >> 8));
    all.push_back(static_cast<uint8_t>(n));
    all.insert(all.end(), {0, 0, 0, 58});
    all.insert(all.end(), body.begin(), body.end());
    if (all.size() % 2 != 0)
        all.push_back(0);
    uint64_t sum = 0;
    for (size_t i = 0; i < all.size(); i += 2)
        sum += static_cast<uint32_t>(all[i] << 8 | all[i + 1]);
    while (sum > 0xffff)
        sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<uint16_t>(~sum & 0xffff);
}

// Writes the checksum of an Ethernet+IPv6+ICMPv6 frame in place.
void fill_icmpv6_sum(Bytes &frame)
{
    frame[56] = frame[57] = 0;
    const Bytes src(frame.begin() + 22, frame.begin() + 38);
    const Bytes dst(frame.begin() + 38, frame.begin() + 54);
    const Bytes body(frame.begin() + 54, frame.end());
    const uint16_t sum = reference_icmpv6_sum(src, dst, body);
    frame[56] = static_cast<uint8_t>(sum >> 8);
    frame[57] = static_cast<uint8_t>(sum);
}

bool icmpv6_sum_ok(const Bytes &frame)
{
    const Bytes src(frame.begin() + 22, frame.begin() + 38);
    const Bytes dst(frame.begin() + 38, frame.begin() + 54);
    const Bytes body(frame.begin() + 54, frame.end());
    return reference_icmpv6_sum(src, dst, body) == 0;
}

efhost::IpPrefix prefix(const char *text, uint8_t len)
{
    efhost::IpPrefix p;
    p.family = std::strchr(text, ':') != nullptr ? AF_INET6 : AF_INET;
    inet_pton(p.family, text, p.addr.data());
    p.len = len;
    return p;
}

efhost::IpPrefix host(const char *text)
{
    return prefix(text, std::strchr(text, ':') != nullptr ? 128 : 32);
}

// An IPv4 packet of 24 bytes whose last byte is tag.
Bytes ipv4_packet(const char *dst, uint8_t tag = 0)
{
    Bytes p = hex("45000018 00010000 4011 0000 0a010001 00000000 00000000");
    inet_pton(AF_INET, dst, &p[16]);
    p[23] = tag;
    return p;
}

Bytes ipv6_packet(const char *dst)
{
    Bytes p = hex("60000000 0004 11 40 20010db8000100000000000000000001");
    p.resize(40);
    Bytes d(16);
    inet_pton(AF_INET6, dst, d.data());
    std::copy(d.begin(), d.end(), p.begin() + 24);
    p.insert(p.end(), {1, 2, 3, 4});
    return p;
}

const Bytes kMac1 = hex("020000000001");
const Bytes kMac2 = hex("020000000002");
const Bytes kPeer = hex("020000000099");
const Bytes kGw = hex("0200000000fe");

class L3EngineTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        efrt::reset();
        efhost::l3::set_clock([this] { return now_.load(); });
        std::vector<efhost::L3Port> ports(2);
        ports[0].ifindex = 1;
        ports[0].port = &port1_;
        ports[0].mac = {2, 0, 0, 0, 0, 1};
        ports[0].addresses = {prefix("10.1.0.1", 24), prefix("2001:db8:1::1", 64)};
        ports[1].ifindex = 2;
        ports[1].port = &port2_;
        ports[1].mac = {2, 0, 0, 0, 0, 2};
        ports[1].addresses = {prefix("10.2.0.1", 24), prefix("10.3.0.1", 24)};
        std::vector<efhost::RouteConfig> routes(3);
        routes[0].prefix = prefix("10.9.0.0", 16);
        routes[0].via = host("10.1.0.254");
        routes[0].interface = 1;
        routes[1].prefix = prefix("10.9.5.0", 24);
        routes[1].via = host("10.2.0.254");
        routes[1].interface = 2;
        routes[2].prefix = prefix("10.8.0.0", 16);
        routes[2].via = host("10.7.0.1");
        routes[2].interface = 2;
        std::vector<efhost::NeighbourConfig> neighbours(1);
        neighbours[0].ip = host("10.2.0.77");
        neighbours[0].mac = {2, 0xaa, 0, 0, 0, 0x77};
        neighbours[0].interface = 2;
        engine_ = std::make_unique<efhost::L3Engine>(ports, routes, neighbours);
    }
    void TearDown() override
    {
        engine_.reset();
        efhost::l3::set_clock({});
        efrt::reset();
    }

    void send(const Bytes &packet) { engine_->send_ip(packet.data(), packet.size()); }
    bool rx(uint32_t ifindex, const Bytes &frame)
    {
        return engine_->handle_rx(ifindex, frame.data(), frame.size());
    }
    void advance(uint64_t ms)
    {
        now_ += ms;
        engine_->poll();
    }

    std::atomic<uint64_t> now_{1000000};
    vxtest::RecordingPort port1_, port2_;
    std::unique_ptr<efhost::L3Engine> engine_;
};

Bytes arp_frame(const Bytes &eth_dst, const Bytes &eth_src, const char *op, const Bytes &sha,
                const char *spa, const Bytes &tha, const char *tpa)
{
    Bytes f = cat({eth_dst, eth_src, hex("0806 0001 0800 06 04"), hex(op), sha, hex("00000000"),
                   tha, hex("00000000")});
    inet_pton(AF_INET, spa, &f[28]);
    inet_pton(AF_INET, tpa, &f[38]);
    return f;
}

const Bytes kBroadcast = hex("ffffffffffff");
const Bytes kZeroMac = hex("000000000000");

TEST_F(L3EngineTest, ArpRequestForOwnAddressIsAnsweredFromThePortMac)
{
    EXPECT_TRUE(rx(1, arp_frame(kBroadcast, kPeer, "0001", kPeer, "10.1.0.9", kZeroMac, "10.1.0.1")));
    const std::vector<Bytes> sent = port1_.take();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0], hex("020000000099 020000000001 0806 0001 0800 06 04 0002"
                           "020000000001 0a010001 020000000099 0a010009"));
    EXPECT_TRUE(port2_.take().empty());
    EXPECT_EQ(engine_->stats().arp_replies, 1u);
}

TEST_F(L3EngineTest, ArpRequestForAnotherAddressIsNotAnsweredNorConsumed)
{
    EXPECT_FALSE(rx(1, arp_frame(kBroadcast, kPeer, "0001", kPeer, "10.1.0.9", kZeroMac, "10.1.0.7")));
    EXPECT_TRUE(port1_.take().empty());
    EXPECT_EQ(engine_->stats().arp_replies, 0u);
}

TEST_F(L3EngineTest, ArpRequestForTheOtherPortsAddressIsNotAnswered)
{
    EXPECT_FALSE(rx(1, arp_frame(kBroadcast, kPeer, "0001", kPeer, "10.1.0.9", kZeroMac, "10.2.0.1")));
    EXPECT_TRUE(port1_.take().empty());
}

TEST_F(L3EngineTest, AskerOfAnArpRequestIsLearnt)
{
    rx(1, arp_frame(kBroadcast, kPeer, "0001", kPeer, "10.1.0.9", kZeroMac, "10.1.0.1"));
    port1_.take();
    const Bytes packet = ipv4_packet("10.1.0.9");
    send(packet);
    const std::vector<Bytes> sent = port1_.take();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0], cat({kPeer, kMac1, hex("0800"), packet}));
}

TEST_F(L3EngineTest, LearntNeighbourIsAskedForAgainAfterItsLifetime)
{
    rx(1, arp_frame(kBroadcast, kPeer, "0001", kPeer, "10.1.0.9", kZeroMac, "10.1.0.1"));
    port1_.take();
    now_ += 299999;
    send(ipv4_packet("10.1.0.9"));
    ASSERT_EQ(port1_.take().size(), 1u);
    EXPECT_EQ(engine_->stats().queued, 0u);
    now_ += 1;
    send(ipv4_packet("10.1.0.9"));
    const std::vector<Bytes> sent = port1_.take();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(Bytes(sent[0].begin() + 12, sent[0].begin() + 14), hex("0806"));
    EXPECT_EQ(engine_->stats().queued, 1u);
}

// An NS from 2001:db8:1::9 to the solicited-node group of 2001:db8:1::1.
Bytes ns_frame(const char *src, bool with_option)
{
    Bytes f = cat({hex("3333ff000001"), kPeer, hex("86dd 60000000"),
                   hex(with_option ? "0020" : "0018"), hex("3a ff"), Bytes(16),
                   hex("ff0200000000000000000001ff000001"),
                   hex("87 00 0000 00000000 20010db8000100000000000000000001")});
    inet_pton(AF_INET6, src, &f[22]);
    if (with_option)
        f = cat({f, hex("01 01"), kPeer});
    fill_icmpv6_sum(f);
    return f;
}

TEST_F(L3EngineTest, NeighbourSolicitationForOwnAddressGetsSolicitedOverrideAdvertisement)
{
    EXPECT_TRUE(rx(1, ns_frame("2001:db8:1::9", true)));
    const std::vector<Bytes> sent = port1_.take();
    ASSERT_EQ(sent.size(), 1u);
    Bytes expected = hex("020000000099 020000000001 86dd 60000000 0020 3a ff"
                         "20010db8000100000000000000000001 20010db8000100000000000000000009"
                         "88 00 0000 60000000 20010db8000100000000000000000001 02 01 020000000001");
    fill_icmpv6_sum(expected);
    EXPECT_EQ(sent[0], expected);
    EXPECT_TRUE(icmpv6_sum_ok(sent[0]));
    EXPECT_EQ(engine_->stats().arp_replies, 1u);
}

TEST_F(L3EngineTest, SolicitationFromUnspecifiedSourceIsAnsweredToAllNodes)
{
    EXPECT_TRUE(rx(1, ns_frame("::", false)));
    const std::vector<Bytes> sent = port1_.take();
    ASSERT_EQ(sent.size(), 1u);
    Bytes expected = hex("333300000001 020000000001 86dd 60000000 0020 3a ff"
                         "20010db8000100000000000000000001 ff020000000000000000000000000001"
                         "88 00 0000 20000000 20010db8000100000000000000000001 02 01 020000000001");
    fill_icmpv6_sum(expected);
    EXPECT_EQ(sent[0], expected);
}

TEST_F(L3EngineTest, SolicitationWithWrongChecksumIsIgnored)
{
    Bytes f = ns_frame("2001:db8:1::9", true);
    f[57] ^= 1;
    EXPECT_FALSE(rx(1, f));
    EXPECT_TRUE(port1_.take().empty());
}

TEST_F(L3EngineTest, SolicitationForAnotherAddressIsNotAnswered)
{
    Bytes f = ns_frame("2001:db8:1::9", true);
    f[54 + 8 + 15] = 0x07;
    fill_icmpv6_sum(f);
    EXPECT_FALSE(rx(1, f));
    EXPECT_TRUE(port1_.take().empty());
}

TEST_F(L3EngineTest, OrdinaryIpFrameIsLeftToTheCaller)
{
    const Bytes frame = cat({kMac1, kPeer, hex("0800"), ipv4_packet("10.1.0.1")});
    EXPECT_FALSE(rx(1, frame));
    EXPECT_FALSE(rx(7, arp_frame(kBroadcast, kPeer, "0001", kPeer, "10.1.0.9", kZeroMac, "10.1.0.1")));
    EXPECT_TRUE(port1_.take().empty());
}

TEST_F(L3EngineTest, Ipv4PacketToUnknownNextHopWaitsForTheArpReply)
{
    const Bytes packet = ipv4_packet("10.1.0.9");
    send(packet);
    std::vector<Bytes> sent = port1_.take();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0], hex("ffffffffffff 020000000001 0806 0001 0800 06 04 0001"
                           "020000000001 0a010001 000000000000 0a010009"));
    EXPECT_EQ(engine_->stats().queued, 1u);
    EXPECT_FALSE(engine_->idle());

    EXPECT_TRUE(rx(1, arp_frame(kMac1, kPeer, "0002", kPeer, "10.1.0.9", kMac1, "10.1.0.1")));
    sent = port1_.take();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0], cat({kPeer, kMac1, hex("0800"), packet}));
    EXPECT_EQ(engine_->stats().queued, 0u);
    EXPECT_EQ(engine_->stats().sent, 1u);
    EXPECT_TRUE(engine_->idle());
}

TEST_F(L3EngineTest, Ipv6PacketToUnknownNextHopWaitsForTheNeighbourAdvertisement)
{
    const Bytes packet = ipv6_packet("2001:db8:1::9");
    send(packet);
    std::vector<Bytes> sent = port1_.take();
    ASSERT_EQ(sent.size(), 1u);
    Bytes expected = hex("3333ff000009 020000000001 86dd 60000000 0020 3a ff"
                         "20010db8000100000000000000000001 ff0200000000000000000001ff000009"
                         "87 00 0000 00000000 20010db8000100000000000000000009 01 01 020000000001");
    fill_icmpv6_sum(expected);
    EXPECT_EQ(sent[0], expected);
    EXPECT_TRUE(icmpv6_sum_ok(sent[0]));
    EXPECT_EQ(engine_->stats().queued, 1u);

    Bytes na = cat({kMac1, kPeer, hex("86dd 60000000 0020 3a ff"),
                    hex("20010db8000100000000000000000009 20010db8000100000000000000000001"),
                    hex("88 00 0000 60000000 20010db8000100000000000000000009 02 01"), kPeer});
    fill_icmpv6_sum(na);
    EXPECT_TRUE(rx(1, na));
    sent = port1_.take();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0], cat({kPeer, kMac1, hex("86dd"), packet}));
    EXPECT_EQ(engine_->stats().queued, 0u);
}

TEST_F(L3EngineTest, StaticNeighbourIsSentToAtOnce)
{
    const Bytes packet = ipv4_packet("10.2.0.77");
    send(packet);
    const std::vector<Bytes> sent = port2_.take();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0], cat({hex("02aa00000077"), kMac2, hex("0800"), packet}));
    EXPECT_TRUE(port1_.take().empty());
}

TEST_F(L3EngineTest, StaticNeighbourIsNotReplacedByWhatIsHeard)
{
    rx(2, arp_frame(kMac2, kPeer, "0002", kPeer, "10.2.0.77", kMac2, "10.2.0.1"));
    send(ipv4_packet("10.2.0.77"));
    const std::vector<Bytes> sent = port2_.take();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(Bytes(sent[0].begin(), sent[0].begin() + 6), hex("02aa00000077"));
}

TEST_F(L3EngineTest, LongestPrefixWinsAndTheGatewayIsResolvedNotTheDestination)
{
    send(ipv4_packet("10.9.5.3"));
    std::vector<Bytes> sent = port2_.take();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0], hex("ffffffffffff 020000000002 0806 0001 0800 06 04 0001"
                           "020000000002 0a020001 000000000000 0a0200fe"));
    EXPECT_TRUE(port1_.take().empty());

    send(ipv4_packet("10.9.1.3"));
    sent = port1_.take();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0], hex("ffffffffffff 020000000001 0806 0001 0800 06 04 0001"
                           "020000000001 0a010001 000000000000 0a0100fe"));

    const Bytes packet = ipv4_packet("10.9.1.3");
    rx(1, arp_frame(kMac1, kGw, "0002", kGw, "10.1.0.254", kMac1, "10.1.0.1"));
    sent = port1_.take();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0], cat({kGw, kMac1, hex("0800"), packet}));
}

TEST_F(L3EngineTest, ArpRequestIsSentFromTheAddressOfTheNextHopsSubnetElseTheFirst)
{
    send(ipv4_packet("10.3.0.9"));
    send(ipv4_packet("10.8.1.1"));
    const std::vector<Bytes> sent = port2_.take();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0], hex("ffffffffffff 020000000002 0806 0001 0800 06 04 0001"
                           "020000000002 0a030001 000000000000 0a030009"));
    EXPECT_EQ(sent[1], hex("ffffffffffff 020000000002 0806 0001 0800 06 04 0001"
                           "020000000002 0a020001 000000000000 0a070001"));
}

TEST_F(L3EngineTest, PacketWithoutRouteIsDroppedAndCounted)
{
    send(ipv4_packet("192.0.2.1"));
    send(ipv6_packet("2001:db8:99::1"));
    EXPECT_TRUE(port1_.take().empty());
    EXPECT_TRUE(port2_.take().empty());
    EXPECT_EQ(engine_->stats().no_route, 2u);
    EXPECT_TRUE(engine_->idle());
}

TEST_F(L3EngineTest, SeventeenthWaitingPacketIsDroppedAndTheRestLeaveInOrder)
{
    for (uint8_t i = 0; i < 17; ++i)
        send(ipv4_packet("10.1.0.9", i));
    EXPECT_EQ(port1_.take().size(), 1u);  // one question, not one per packet
    EXPECT_EQ(engine_->stats().queued, 16u);
    EXPECT_EQ(engine_->stats().queue_full, 1u);

    rx(1, arp_frame(kMac1, kPeer, "0002", kPeer, "10.1.0.9", kMac1, "10.1.0.1"));
    const std::vector<Bytes> sent = port1_.take();
    ASSERT_EQ(sent.size(), 16u);
    for (uint8_t i = 0; i < 16; ++i)
        EXPECT_EQ(sent[i], cat({kPeer, kMac1, hex("0800"), ipv4_packet("10.1.0.9", i)}));
}

TEST_F(L3EngineTest, UnansweredResolutionIsAskedEverySecondThenGivenUp)
{
    send(ipv4_packet("10.1.0.9", 1));
    send(ipv4_packet("10.1.0.9", 2));
    EXPECT_EQ(port1_.take().size(), 1u);
    advance(999);
    EXPECT_TRUE(port1_.take().empty());
    advance(1);
    EXPECT_EQ(port1_.take().size(), 1u);
    advance(1000);
    const std::vector<Bytes> again = port1_.take();
    ASSERT_EQ(again.size(), 1u);
    EXPECT_EQ(again[0], hex("ffffffffffff 020000000001 0806 0001 0800 06 04 0001"
                            "020000000001 0a010001 000000000000 0a010009"));
    EXPECT_EQ(engine_->stats().queued, 2u);
    advance(999);
    EXPECT_EQ(engine_->stats().unresolved, 0u);
    advance(1);
    EXPECT_TRUE(port1_.take().empty());
    EXPECT_EQ(engine_->stats().unresolved, 2u);
    EXPECT_EQ(engine_->stats().queued, 0u);
    EXPECT_TRUE(engine_->idle());

    // A late answer finds nothing waiting.
    rx(1, arp_frame(kMac1, kPeer, "0002", kPeer, "10.1.0.9", kMac1, "10.1.0.1"));
    EXPECT_TRUE(port1_.take().empty());
}

// Puts a copy of packet on a CPU's hand-off slot as the module does.
void hand_off(uint32_t cpu, const Bytes &packet)
{
    efmp_buff_t *b = efmp_buff_alloc_sw_user(EFMP_REASON_SW_USER, static_cast<uint32_t>(packet.size()));
    ASSERT_NE(b, nullptr);
    std::memcpy(b->head + b->data_off, packet.data(), packet.size());
    efmp_skip_slot_t &slot = efmp_skip_top.slots[cpu];
    pthread_spin_lock(&slot.lock);
    b->next = nullptr;
    if (slot.tail != nullptr)
        slot.tail->next = b;
    else
        slot.head = b;
    slot.tail = b;
    slot.count++;
    pthread_spin_unlock(&slot.lock);
}

TEST_F(L3EngineTest, PollSendsAndFreesEveryBufferOfEveryCpuSlot)
{
    const long live = efrt::buff_live_total();
    hand_off(0, ipv4_packet("10.2.0.77", 1));
    hand_off(3, ipv4_packet("10.2.0.77", 2));
    hand_off(3, ipv4_packet("10.2.0.77", 3));
    EXPECT_FALSE(engine_->idle());
    engine_->poll();
    const std::vector<Bytes> sent = port2_.take();
    ASSERT_EQ(sent.size(), 3u);
    for (uint8_t i = 0; i < 3; ++i)
        EXPECT_EQ(sent[i], cat({hex("02aa00000077"), kMac2, hex("0800"), ipv4_packet("10.2.0.77", i + 1)}));
    EXPECT_EQ(efrt::buff_live_total(), live);
    EXPECT_TRUE(engine_->idle());
}

// What the module gives up when the hand-off queue is full it frees itself;
// every encapsulated packet freed beyond those the engine took is such a loss.
TEST_F(L3EngineTest, EncapsulatedPacketsFreedBeforeTheEngineTookThemAreCountedAsHandOffLosses)
{
    hand_off(0, ipv4_packet("10.2.0.77", 1));
    efmp_skip_top.slots[0].tail->flags |= EFMP_F_VXLAN_ENCAP;
    engine_->poll();
    EXPECT_EQ(engine_->stats().taken, 1u);
    for (int i = 0; i < 2; ++i) {  // refused by a full queue: freed by the module
        efmp_buff_t *b = efmp_buff_alloc_sw_user(EFMP_REASON_SW_USER, 64);
        ASSERT_NE(b, nullptr);
        b->flags |= EFMP_F_VXLAN_ENCAP;
        efmp_buff_free_sw_user(EFMP_REASON_SW_USER, b);
    }
    EXPECT_EQ(efrt::buff_encapsulated_freed(), 3u);
    const std::vector<std::string> lines = efhost::counter_lines(efhost::CounterSources{nullptr, nullptr, nullptr, engine_.get()});
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines[0], "l3: sent 1, no route 0, unresolved 0, replies 0, waiting 0, waiting queue full 0, "
                        "hand-off queue full 2");
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[1], "neighbours: 1 entries, 0 refused");  // the fixture's static one
}

TEST_F(L3EngineTest, WorkerDrainsTheHandOffQueueWhenWokenAndOnStop)
{
    const long live = efrt::buff_live_total();
    engine_->start();
    hand_off(1, ipv4_packet("10.2.0.77", 1));
    hand_off(1, ipv4_packet("10.9.5.3", 2));
    efmp_vth_active_async(efmp_skip_top.worker, 1);
    engine_->stop();
    EXPECT_EQ(efrt::buff_live_total(), live);
    const std::vector<Bytes> sent = port2_.take();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0], cat({hex("02aa00000077"), kMac2, hex("0800"), ipv4_packet("10.2.0.77", 1)}));
    EXPECT_EQ(Bytes(sent[1].begin() + 12, sent[1].begin() + 14), hex("0806"));
    EXPECT_EQ(engine_->stats().queued, 1u);
    EXPECT_EQ(efrt::l3_queued(1), 0u);
}

TEST_F(L3EngineTest, SendersOnSeveralThreadsAllGetThrough)
{
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([this] {
            for (int i = 0; i < 200; ++i)
                send(ipv4_packet("10.2.0.77"));
        });
    for (int i = 0; i < 50; ++i)
        rx(1, arp_frame(kBroadcast, kPeer, "0001", kPeer, "10.1.0.9", kZeroMac, "10.1.0.1"));
    for (std::thread &t : threads)
        t.join();
    EXPECT_EQ(port2_.take().size(), 800u);
    EXPECT_EQ(port1_.take().size(), 50u);
    EXPECT_EQ(engine_->stats().sent, 800u);
}

}  // namespace
