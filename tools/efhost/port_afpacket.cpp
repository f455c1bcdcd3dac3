// The AF_PACKET port: a packet socket bound to one Linux network device in
// promiscuous mode, a TPACKET_V3 receive ring drained by a thread of its own,
// and plain send() for transmission. What the device leaves to offloads
// (stripped tags, pending checksums, TCP super-frames) is resolved through
// frame_fixup.h before a frame reaches the handler.
#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "frame_fixup.h"
#include "port.h"

namespace efhost {

namespace {

// Each ring block holds at least one 64 KiB GSO frame with its headers.
constexpr unsigned kBlockSize = 1u << 17;
constexpr unsigned kBlockCount = 32;
constexpr unsigned kFrameSize = 1u << 11;
constexpr unsigned kBlockRetireMs = 10;
// Short enough that stop() does not wait long for the receive thread.
constexpr int kPollTimeoutMs = 100;
constexpr int kSendAttempts = 50;
constexpr auto kSendRetryPause = std::chrono::microseconds(200);
constexpr size_t kEthernetHeader = 14;

class AfPacketPort final : public Port {
public:
    explicit AfPacketPort(std::string device) : device_(std::move(device)) {}
    ~AfPacketPort() override;

    bool open(std::string &error) override;
    void start(RxHandler rx) override;
    bool send(const uint8_t *frame, size_t len) override;
    void stop() override;
    bool input_done() const override { return false; }
    uint64_t rx_frames() const override { return rx_.load(std::memory_order_relaxed); }
    uint64_t tx_frames() const override { return tx_.load(std::memory_order_relaxed); }

private:
    bool fail(std::string &error, const std::string &what, int err);
    bool read_mtu(std::string &error);
    bool set_up_ring(std::string &error);
    bool attach(std::string &error, int ifindex);
    void release();
    void receive_loop();
    void wait_for_frames();
    void deliver_block(tpacket_block_desc *block);
    void deliver(const tpacket3_hdr *hdr);

    std::string device_;
    int fd_ = -1;
    uint8_t *ring_ = nullptr;
    size_t ring_size_ = 0;
    uint32_t mtu_ = 0;
    RxHandler rx_handler_;
    std::thread thread_;
    std::atomic<bool> running_{false};
    std::atomic<bool> stopped_{false};
    std::atomic<uint64_t> rx_{0};
    std::atomic<uint64_t> tx_{0};
    std::atomic<uint64_t> rx_dropped_{0};
    std::atomic<uint64_t> tx_failed_{0};
};

AfPacketPort::~AfPacketPort()
{
    stop();
    release();
}

// Fills error with a message naming the device and releases what was set up.
bool AfPacketPort::fail(std::string &error, const std::string &what, int err)
{
    error = "device '" + device_ + "': " + what;
    if (err == EPERM || err == EACCES)
        error += ": not permitted (AF_PACKET needs root or CAP_NET_RAW)";
    else if (err != 0)
        error += std::string(": ") + std::strerror(err);
    release();
    return false;
}

void AfPacketPort::release()
{
    if (ring_ != nullptr) munmap(ring_, ring_size_);
    ring_ = nullptr;
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
}

bool AfPacketPort::read_mtu(std::string &error)
{
    ifreq req{};
    std::strncpy(req.ifr_name, device_.c_str(), IFNAMSIZ - 1);
    if (ioctl(fd_, SIOCGIFMTU, &req) != 0) return fail(error, "cannot read the MTU", errno);
    mtu_ = static_cast<uint32_t>(req.ifr_mtu);
    return true;
}

bool AfPacketPort::set_up_ring(std::string &error)
{
    const int version = TPACKET_V3;
    if (setsockopt(fd_, SOL_PACKET, PACKET_VERSION, &version, sizeof version) != 0)
        return fail(error, "cannot select TPACKET_V3", errno);
    tpacket_req3 req{};
    req.tp_block_size = kBlockSize;
    req.tp_block_nr = kBlockCount;
    req.tp_frame_size = kFrameSize;
    req.tp_frame_nr = kBlockSize / kFrameSize * kBlockCount;
    req.tp_retire_blk_tov = kBlockRetireMs;
    if (setsockopt(fd_, SOL_PACKET, PACKET_RX_RING, &req, sizeof req) != 0)
        return fail(error, "cannot set up the receive ring", errno);
    ring_size_ = size_t{kBlockSize} * kBlockCount;
    void *ring = mmap(nullptr, ring_size_, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0);
    if (ring == MAP_FAILED) return fail(error, "cannot map the receive ring", errno);
    ring_ = static_cast<uint8_t *>(ring);
    return true;
}

// Binds to the device only once the ring exists, so that no frame is taken
// before there is room for it; our own transmissions are not looped back.
bool AfPacketPort::attach(std::string &error, int ifindex)
{
    const int one = 1;
    if (setsockopt(fd_, SOL_PACKET, PACKET_IGNORE_OUTGOING, &one, sizeof one) != 0)
        return fail(error, "cannot ignore outgoing frames", errno);
    sockaddr_ll addr{};
    addr.sll_family = AF_PACKET;
    addr.sll_protocol = htons(ETH_P_ALL);
    addr.sll_ifindex = ifindex;
    if (bind(fd_, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) != 0)
        return fail(error, "cannot bind a packet socket", errno);
    packet_mreq mreq{};
    mreq.mr_ifindex = ifindex;
    mreq.mr_type = PACKET_MR_PROMISC;
    if (setsockopt(fd_, SOL_PACKET, PACKET_ADD_MEMBERSHIP, &mreq, sizeof mreq) != 0)
        return fail(error, "cannot enter promiscuous mode", errno);
    return true;
}

bool AfPacketPort::open(std::string &error)
{
    if (device_.empty() || device_.size() >= IFNAMSIZ)
        return fail(error, "not a network device name (1 to 15 characters)", 0);
    const unsigned ifindex = if_nametoindex(device_.c_str());
    if (ifindex == 0) return fail(error, "no such network device", errno == ENODEV ? 0 : errno);
    fd_ = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
    if (fd_ < 0) return fail(error, "cannot open a packet socket", errno);
    return read_mtu(error) && set_up_ring(error) && attach(error, static_cast<int>(ifindex));
}

void AfPacketPort::start(RxHandler rx)
{
    if (fd_ < 0 || running_.exchange(true)) return;
    rx_handler_ = std::move(rx);
    thread_ = std::thread([this] { receive_loop(); });
}

void AfPacketPort::receive_loop()
{
    unsigned index = 0;
    while (running_.load(std::memory_order_relaxed)) {
        auto *block = reinterpret_cast<tpacket_block_desc *>(ring_ + size_t{index} * kBlockSize);
        if ((__atomic_load_n(&block->hdr.bh1.block_status, __ATOMIC_ACQUIRE) & TP_STATUS_USER) ==
            0) {
            wait_for_frames();
            continue;
        }
        deliver_block(block);
        __atomic_store_n(&block->hdr.bh1.block_status, TP_STATUS_KERNEL, __ATOMIC_RELEASE);
        index = (index + 1) % kBlockCount;
    }
}

// A pending socket error (the device went down or away) is read and so
// cleared; left set it would wake every poll at once.
void AfPacketPort::wait_for_frames()
{
    pollfd pfd{fd_, POLLIN | POLLERR, 0};
    if (poll(&pfd, 1, kPollTimeoutMs) > 0 && (pfd.revents & POLLERR) != 0) {
        int err = 0;
        socklen_t len = sizeof err;
        getsockopt(fd_, SOL_SOCKET, SO_ERROR, &err, &len);
    }
}

void AfPacketPort::deliver_block(tpacket_block_desc *block)
{
    const uint8_t *at = reinterpret_cast<const uint8_t *>(block) + block->hdr.bh1.offset_to_first_pkt;
    for (uint32_t i = 0; i < block->hdr.bh1.num_pkts; ++i) {
        const auto *hdr = reinterpret_cast<const tpacket3_hdr *>(at);
        deliver(hdr);
        at += hdr->tp_next_offset;
    }
}

// Frames needing no fix-up go to the handler straight from the ring.
void AfPacketPort::deliver(const tpacket3_hdr *hdr)
{
    const uint8_t *data = reinterpret_cast<const uint8_t *>(hdr) + hdr->tp_mac;
    const size_t len = hdr->tp_snaplen;
    if (hdr->tp_snaplen < hdr->tp_len) {  // did not fit a ring block
        rx_dropped_.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    RxOffloadInfo info;
    info.vlan_stripped = (hdr->tp_status & TP_STATUS_VLAN_VALID) != 0;
    info.vlan_tci = hdr->hv1.tp_vlan_tci;
    if (hdr->tp_status & TP_STATUS_VLAN_TPID_VALID) info.vlan_tpid = hdr->hv1.tp_vlan_tpid;
    info.checksum_pending = (hdr->tp_status & TP_STATUS_CSUMNOTREADY) != 0;
    if (!info.vlan_stripped && !info.checksum_pending && len <= mtu_ + kEthernetHeader) {
        rx_.fetch_add(1, std::memory_order_relaxed);
        rx_handler_(data, len);
        return;
    }
    const FixupResult fixed = fix_up_received_frame(data, len, info, mtu_);
    if (fixed.dropped) rx_dropped_.fetch_add(1, std::memory_order_relaxed);
    for (const Frame &f : fixed.frames) {
        rx_.fetch_add(1, std::memory_order_relaxed);
        rx_handler_(f.data(), f.size());
    }
}

// A full device queue is transient; anything else is reported to the caller.
bool AfPacketPort::send(const uint8_t *frame, size_t len)
{
    if (fd_ < 0 || stopped_.load(std::memory_order_relaxed)) return false;
    for (int attempt = 0; attempt < kSendAttempts; ++attempt) {
        const ssize_t n = ::send(fd_, frame, len, 0);
        if (n == static_cast<ssize_t>(len)) {
            tx_.fetch_add(1, std::memory_order_relaxed);
            return true;
        }
        if (n >= 0 || (errno != ENOBUFS && errno != EAGAIN && errno != EINTR)) break;
        if (errno != EINTR) std::this_thread::sleep_for(kSendRetryPause);
    }
    tx_failed_.fetch_add(1, std::memory_order_relaxed);
    return false;
}

// The socket stays open until destruction so that a send() racing with
// stop() never meets a closed or reused descriptor.
void AfPacketPort::stop()
{
    stopped_.store(true);
    running_.store(false);
    if (thread_.joinable()) thread_.join();
}

}  // namespace

std::unique_ptr<Port> make_afpacket_port(const std::string &device)
{
    return std::make_unique<AfPacketPort>(device);
}

}  // namespace efhost
