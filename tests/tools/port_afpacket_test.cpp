// The AF_PACKET port on a real device: a veth pair made for each test, the
// port on one end and a raw packet socket (or the kernel's own UDP) on the
// other.
//
//     raw socket / UDP ---> [ eft<pid>b ]====veth====[ eft<pid>a ] ---> port rx
//     raw socket      <---                                         <--- port.send
//
// Needs root (or CAP_NET_ADMIN and CAP_NET_RAW) and the ip command; without
// them the tests fail saying so.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ef_wire.h"
#include "frame_fixup.h"
#include "port.h"
#include "tcp_frames.h"
#include "tx_batch.h"
#include "vnet_header.h"

namespace {

using Bytes = std::vector<uint8_t>;

const std::array<uint8_t, 6> kPeerMac = {0x02, 0xEF, 0x70, 0x00, 0x00, 0x01};
constexpr auto kWaitLimit = std::chrono::seconds(5);

bool run(const std::string &command) { return std::system((command + " >/dev/null 2>&1").c_str()) == 0; }

std::string read_line(const std::string &path)
{
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    return line;
}

// Frames the port hands over, kept for the test thread.
class Collector {
public:
    void add(const uint8_t *f, size_t len, const std::function<bool(const Bytes &)> &wanted)
    {
        Bytes b(f, f + len);
        if (!wanted(b)) return;  // the kernel's own traffic
        std::lock_guard<std::mutex> lock(m_);
        frames_.push_back(std::move(b));
        cv_.notify_all();
    }
    // The bound only keeps a broken port from hanging the suite.
    std::vector<Bytes> wait_for(size_t count)
    {
        std::unique_lock<std::mutex> lock(m_);
        cv_.wait_for(lock, kWaitLimit, [&] { return frames_.size() >= count; });
        return frames_;
    }

private:
    std::mutex m_;
    std::condition_variable cv_;
    std::vector<Bytes> frames_;
};

bool from_peer(const Bytes &f) { return f.size() >= 12 && std::equal(kPeerMac.begin(), kPeerMac.end(), f.begin() + 6); }

class AfPacketPortTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        const std::string pid = std::to_string(getpid());
        a_ = "eft" + pid + "a";
        b_ = "eft" + pid + "b";
        ASSERT_EQ(geteuid(), 0u) << "these tests need root to create a veth pair and open AF_PACKET sockets";
        ASSERT_TRUE(run("ip link add " + a_ + " type veth peer name " + b_))
            << "cannot create a veth pair with 'ip link add " << a_ << " type veth peer name " << b_
            << "' (needs the ip command and veth support)";
        created_ = true;
        for (const std::string &dev : {a_, b_}) {
            std::ofstream("/proc/sys/net/ipv6/conf/" + dev + "/disable_ipv6") << "1";  // less noise
            ASSERT_TRUE(run("ip link set " + dev + " up")) << "cannot bring " << dev << " up";
        }
        wait_until_up();
    }

    void TearDown() override
    {
        if (created_) run("ip link del " + a_);
    }

    // Frames sent before the link is up would be dropped by the queueing layer.
    void wait_until_up()
    {
        const auto limit = std::chrono::steady_clock::now() + kWaitLimit;
        while (std::chrono::steady_clock::now() < limit &&
               (read_line("/sys/class/net/" + a_ + "/operstate") != "up" ||
                read_line("/sys/class/net/" + b_ + "/operstate") != "up"))
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        ASSERT_EQ(read_line("/sys/class/net/" + a_ + "/operstate"), "up") << "veth did not come up";
    }

    // A raw packet socket on the peer end, receiving only what comes in.
    int peer_socket()
    {
        const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_ALL));
        EXPECT_GE(fd, 0) << "cannot open an AF_PACKET socket";
        const int one = 1;
        setsockopt(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, &one, sizeof one);
        timeval tv{1, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        sockaddr_ll addr{};
        addr.sll_family = AF_PACKET;
        addr.sll_protocol = htons(ETH_P_ALL);
        addr.sll_ifindex = static_cast<int>(if_nametoindex(b_.c_str()));
        EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
        fds_.push_back(fd);
        return fd;
    }

    // A peer socket whose frames carry a virtio-net header each way.
    int peer_offload_socket()
    {
        const int fd = peer_socket();
        const int one = 1;
        EXPECT_EQ(setsockopt(fd, SOL_PACKET, PACKET_VNET_HDR, &one, sizeof one), 0)
            << "the kernel gives packet sockets no virtio-net headers";
        return fd;
    }

    std::unique_ptr<efhost::Port> open_port(Collector &got, const std::function<bool(const Bytes &)> &wanted,
                                            unsigned workers = 1)
    {
        auto port = efhost::make_afpacket_port(a_, workers);
        std::string error;
        EXPECT_TRUE(port->open(error)) << error;
        port->start([&got, wanted](const uint8_t *f, size_t len) { got.add(f, len, wanted); });
        return port;
    }

    ~AfPacketPortTest() override
    {
        for (int fd : fds_) close(fd);
    }

    std::string a_;
    std::string b_;
    bool created_ = false;
    std::vector<int> fds_;
};

Bytes peer_frame(const std::vector<uint8_t> &tags_and_type, size_t payload)
{
    Bytes f;
    f.reserve(12 + tags_and_type.size() + payload);
    for (uint8_t b : {0x02, 0xEF, 0x70, 0x00, 0x00, 0x02}) f.push_back(b);
    for (uint8_t b : kPeerMac) f.push_back(b);
    for (uint8_t b : tags_and_type) f.push_back(b);
    for (size_t i = 0; i < payload; ++i) f.push_back(static_cast<uint8_t>(i * 3 + 1));
    return f;
}

TEST_F(AfPacketPortTest, FramesFromThePeerReachTheHandlerWithTheirTags)
{
    Collector got;
    auto port = open_port(got, from_peer);
    const int fd = peer_socket();
    const std::vector<Bytes> sent = {
        peer_frame({0x88, 0xB5}, 50),
        peer_frame({0x81, 0x00, 0x20, 0x64, 0x88, 0xB5}, 60),
        peer_frame({0x88, 0xA8, 0x01, 0x23, 0x81, 0x00, 0x00, 0x64, 0x88, 0xB5}, 71),
    };
    for (const Bytes &f : sent)
        ASSERT_EQ(send(fd, f.data(), f.size(), 0), static_cast<ssize_t>(f.size()));
    EXPECT_EQ(got.wait_for(sent.size()), sent);
    port->stop();
    EXPECT_EQ(port->rx_frames(), sent.size());
}

// An IPv4/UDP frame from the peer whose source port names its flow.
Bytes flow_frame(uint16_t flow)
{
    Bytes f = peer_frame({0x08, 0x00}, 0);
    const uint8_t ip[20] = {0x45, 0, 0, 28, 0, 0, 0x40, 0, 64, 17, 0, 0, 10, 0, 0, 1, 10, 0, 0, 2};
    f.insert(f.end(), ip, ip + 20);
    const uint8_t udp[8] = {static_cast<uint8_t>(flow >> 8), static_cast<uint8_t>(flow), 0x13, 0x88, 0, 8, 0, 0};
    f.insert(f.end(), udp, udp + 8);
    f.resize(60, 0);
    return f;
}

TEST_F(AfPacketPortTest, FanoutWorkersShareTheFramesFlowByFlowAndLoseNone)
{
    std::mutex m;
    std::map<std::thread::id, std::set<uint16_t>> flows_by_worker;
    Collector got;
    auto port = open_port(got, [&](const Bytes &f) {
        if (!(f.size() >= 42 && f[12] == 0x08 && f[23] == 17 && f[36] == 0x13 && f[37] == 0x88))
            return false;
        std::lock_guard<std::mutex> lock(m);
        flows_by_worker[std::this_thread::get_id()].insert(static_cast<uint16_t>(f[34] << 8 | f[35]));
        return true;
    }, 2);
    const int fd = peer_socket();
    constexpr uint16_t kFlows = 64;
    constexpr int kRounds = 4;
    for (int round = 0; round < kRounds; ++round)
        for (uint16_t flow = 1000; flow < 1000 + kFlows; ++flow) {
            const Bytes f = flow_frame(flow);
            ASSERT_EQ(send(fd, f.data(), f.size(), 0), static_cast<ssize_t>(f.size()));
        }
    EXPECT_EQ(got.wait_for(kFlows * kRounds).size(), size_t{kFlows} * kRounds);
    port->stop();
    std::lock_guard<std::mutex> lock(m);
    EXPECT_EQ(flows_by_worker.size(), 2u) << "64 flows all hashed to one worker";
    size_t seen = 0;
    for (const auto &[worker, flows] : flows_by_worker)
        seen += flows.size();
    EXPECT_EQ(seen, size_t{kFlows}) << "a flow reached more than one worker";
}

bool ipv4_udp_to(const Bytes &f, uint16_t port)
{
    return f.size() >= 42 && f[12] == 0x08 && f[13] == 0x00 && f[23] == 17 && f[36] * 256 + f[37] == port;
}

// The sum of a UDP datagram over IPv4 with its pseudo-header; 0xFFFF when
// the checksum is right.
uint16_t udp_sum(const Bytes &f)
{
    Bytes all(f.begin() + 26, f.begin() + 34);  // addresses
    all.push_back(0);
    all.push_back(17);
    all.insert(all.end(), f.begin() + 38, f.begin() + 40);  // UDP length
    all.insert(all.end(), f.begin() + 34, f.end());
    uint32_t s = 0;
    for (size_t i = 0; i < all.size(); i += 2) {
        s += all[i] * 256u + (i + 1 < all.size() ? all[i + 1] : 0u);
        if (s > 0xFFFF) s -= 0xFFFF;
    }
    return static_cast<uint16_t>(s);
}

TEST_F(AfPacketPortTest, ChecksumLeftToTheDeviceByALocalSenderIsCompleted)
{
    // A /30 of the benchmarking range unique to this process.
    const uint32_t base = (198u << 24 | 18u << 16) + (static_cast<uint32_t>(getpid()) % 16384) * 4;
    auto dotted = [](uint32_t a) {
        return std::to_string(a >> 24) + "." + std::to_string(a >> 16 & 255) + "." +
               std::to_string(a >> 8 & 255) + "." + std::to_string(a & 255);
    };
    const std::string mac_a = read_line("/sys/class/net/" + a_ + "/address");
    ASSERT_TRUE(run("ip addr add " + dotted(base + 1) + "/30 dev " + b_)) << "cannot address " << b_;
    ASSERT_TRUE(run("ip neigh replace " + dotted(base + 2) + " lladdr " + mac_a + " dev " + b_ +
                    " nud permanent"))
        << "cannot add a neighbour on " << b_;
    constexpr uint16_t kPort = 9999;
    Collector got;
    auto port = open_port(got, [](const Bytes &f) { return ipv4_udp_to(f, kPort); });
    const int udp = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(udp, 0);
    fds_.push_back(udp);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(kPort);
    to.sin_addr.s_addr = htonl(base + 2);
    const Bytes payload = peer_frame({}, 89);  // any 101 bytes: an odd length
    ASSERT_EQ(sendto(udp, payload.data(), payload.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to),
              static_cast<ssize_t>(payload.size()));
    const std::vector<Bytes> frames = got.wait_for(1);
    ASSERT_EQ(frames.size(), 1u);
    ASSERT_EQ(frames[0].size(), 14u + 20 + 8 + payload.size());
    EXPECT_NE(frames[0][40] * 256 + frames[0][41], 0);
    EXPECT_EQ(udp_sum(frames[0]), 0xFFFF);
    EXPECT_EQ(Bytes(frames[0].begin() + 42, frames[0].end()), payload);
}

TEST_F(AfPacketPortTest, SentFramesArriveAtThePeer)
{
    Collector got;
    auto port = open_port(got, from_peer);
    const int fd = peer_socket();
    Bytes frame = {0x02, 0xEF, 0x70, 0x00, 0x00, 0x03, 0x02, 0xEF, 0x70, 0x00, 0x00, 0x04, 0x88, 0xB5};
    for (int i = 0; i < 100; ++i) frame.push_back(static_cast<uint8_t>(0xA0 + i));
    ASSERT_TRUE(port->send(frame.data(), frame.size()));
    Bytes received;
    for (int i = 0; i < 5 && received != frame; ++i) {
        Bytes buf(2048);
        const ssize_t n = recv(fd, buf.data(), buf.size(), 0);
        if (n > 0) received.assign(buf.begin(), buf.begin() + n);
    }
    EXPECT_EQ(received, frame);
    EXPECT_EQ(port->tx_frames(), 1u);
    port->stop();
    EXPECT_FALSE(port->send(frame.data(), frame.size()));
}

bool tcp_from_the_test(const Bytes &f)
{
    const bool v4 = f.size() > 14 + 20 + 32 && f[12] == 0x08 && f[13] == 0x00 && f[23] == 6;
    const bool v6 = f.size() > 14 + 40 + 32 && f[12] == 0x86 && f[13] == 0xDD && f[20] == 6;
    return f[11] == 0x0A && (v4 || v6);
}

// One message of a socket with virtio-net headers: the header and the frame.
std::pair<efhost::VnetHeader, Bytes> receive_with_header(int fd)
{
    Bytes buf(sizeof(efhost::VnetHeader) + 70000);
    efhost::VnetHeader header{};
    for (int i = 0; i < 5; ++i) {
        const ssize_t n = recv(fd, buf.data(), buf.size(), 0);
        if (n < static_cast<ssize_t>(sizeof header)) continue;
        Bytes frame(buf.begin() + sizeof header, buf.begin() + n);
        if (!tcp_from_the_test(frame)) continue;  // the kernel's own traffic
        std::memcpy(&header, buf.data(), sizeof header);
        return {header, frame};
    }
    return {header, {}};
}

TEST_F(AfPacketPortTest, SegmentsOfOneFlowSentInOneBatchLeaveAsOneSuperFrame)
{
    Collector got;
    auto port = open_port(got, from_peer);
    const int fd = peer_offload_socket();
    const std::vector<Bytes> segs = tcp_frames::segments_of(false, 20000, EF_TCP_ACK | EF_TCP_PSH);
    ASSERT_EQ(segs.size(), 15u);
    {
        efhost::TxBatch batch;
        for (const Bytes &s : segs) ASSERT_TRUE(port->send(s.data(), s.size()));
    }
    auto [header, frame] = receive_with_header(fd);
    ASSERT_FALSE(frame.empty()) << "nothing reached the peer";
    EXPECT_EQ(header.gso_type, efhost::kVnetGsoTcpv4) << "the segments did not leave joined";
    EXPECT_EQ(header.gso_size, 1450 - 20 - 32);
    EXPECT_EQ(frame.size(), 14u + 20 + 32 + 20000);
    ASSERT_TRUE(efhost::complete_checksum_at(frame, header.csum_start, header.csum_offset));
    EXPECT_EQ(efhost::segment_tcp(frame, 65535, header.gso_size), segs);
    EXPECT_EQ(port->tx_frames(), segs.size());
}

TEST_F(AfPacketPortTest, SegmentsLeaveAsTheyAreWhenTheDeviceDoesNotSegment)
{
    ASSERT_TRUE(run("ethtool -K " + a_ + " tso off")) << "cannot turn TSO off on " << a_ << " with ethtool";
    Collector got;
    auto port = open_port(got, from_peer);
    const int fd = peer_offload_socket();
    const std::vector<Bytes> segs = tcp_frames::segments_of(true, 5000, EF_TCP_ACK);
    {
        efhost::TxBatch batch;
        for (const Bytes &s : segs) ASSERT_TRUE(port->send(s.data(), s.size()));
    }
    std::vector<Bytes> received;
    for (size_t i = 0; i < segs.size(); ++i) {
        auto [header, frame] = receive_with_header(fd);
        EXPECT_EQ(header.gso_type, efhost::kVnetGsoNone);
        received.push_back(frame);
    }
    EXPECT_EQ(received, segs);
}

TEST_F(AfPacketPortTest, ASuperFrameIsCutAtItsSendersSegmentSize)
{
    Collector got;
    auto port = open_port(got, tcp_from_the_test);
    const int fd = peer_offload_socket();
    constexpr uint16_t kSegment = 1000;  // below what the 1500-byte MTU allows
    const Bytes super = tcp_frames::super_frame(false, 5500, EF_TCP_ACK);
    const std::vector<Bytes> want = efhost::segment_tcp(super, 1500, kSegment);
    ASSERT_EQ(want.size(), 6u);
    // As a local sender hands it to a device: the TCP checksum field holds
    // the pseudo-header's sum; the ones' complement of a segment's sum with
    // its own checksum folded back out gives that.
    Bytes partial = super;
    efhost::VnetHeader header{};
    header.flags = efhost::kVnetNeedsChecksum;
    header.gso_type = efhost::kVnetGsoTcpv4;
    header.hdr_len = 14 + 20 + 32;
    header.gso_size = kSegment;
    header.csum_start = 14 + 20;
    header.csum_offset = 16;
    const uint32_t l4 = static_cast<uint32_t>(partial.size() - 34);
    uint32_t sum = 0x0A00 + 0x0001 + 0x0A00 + 0x0002 + 6 + (l4 >> 16) + (l4 & 0xFFFF);
    while (sum > 0xFFFF) sum = (sum & 0xFFFF) + (sum >> 16);
    partial[34 + 16] = static_cast<uint8_t>(sum >> 8);
    partial[34 + 17] = static_cast<uint8_t>(sum);
    Bytes message(sizeof header);
    std::memcpy(message.data(), &header, sizeof header);
    message.insert(message.end(), partial.begin(), partial.end());
    ASSERT_EQ(send(fd, message.data(), message.size(), 0), static_cast<ssize_t>(message.size()))
        << "the kernel refused a TCP super-frame from a packet socket";
    EXPECT_EQ(got.wait_for(want.size()), want);
}

TEST(AfPacketPortOpenTest, MissingDeviceIsRefusedNamingIt)
{
    const std::string name = "eftnone" + std::to_string(getpid());
    auto port = efhost::make_afpacket_port(name);
    std::string error;
    EXPECT_FALSE(port->open(error));
    EXPECT_EQ(error, "device '" + name + "': no such network device");
}

}  // namespace
