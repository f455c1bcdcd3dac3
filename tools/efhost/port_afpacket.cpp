// The AF_PACKET port: packet sockets bound to one Linux network device in
// promiscuous mode, one per receive worker, joined in a fanout group that
// keeps each flow on one worker. Each worker takes every frame that is there
// with one recvmmsg call (waiting only while none is) and hands them on as
// one batch;
// what the handler sends meanwhile leaves in batches too (tx_batch.h), with
// sendmmsg. A frame is handed on as soon as it arrives: nothing waits for a
// batch to fill. What the device leaves to offloads (stripped tags, pending
// checksums, TCP super-frames), reported in each frame's auxiliary data and
// virtio-net header, is resolved through frame_fixup.h before a frame
// reaches the handler. Every frame sent carries a virtio-net header too: when
// the device takes TCP segmentation, the segments of one flow that a batch
// sends in order leave joined into one super-frame (tcp_join.h).
#include <arpa/inet.h>
#include <linux/ethtool.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "ef_wire.h"
#include "frame_fixup.h"
#include "port.h"
#include "rcu.h"
#include "tcp_join.h"
#include "tx_batch.h"
#include "vnet_header.h"

namespace efhost {

namespace {

// Room for a 64 KiB GSO frame with its headers in every receive slot.
constexpr size_t kRxSlot = (64u << 10) + 512;
constexpr unsigned kRxBatch = 64;
constexpr int kSocketBuffer = 8 << 20;
// Short enough that stop() does not wait long for the receive thread.
constexpr int kPollTimeoutMs = 100;
constexpr int kSendAttempts = 50;
constexpr auto kSendRetryPause = std::chrono::microseconds(200);
constexpr size_t kVnetHeader = sizeof(VnetHeader);
// What goes before a frame sent as it is: no offload asked for.
const VnetHeader kPlainHeader{};

class AfPacketPort final : public Port, public BatchSink {
public:
    AfPacketPort(std::string device, unsigned workers) : device_(std::move(device)), workers_(workers) {}
    ~AfPacketPort() override;

    bool open(std::string &error) override;
    void start(RxHandler rx) override;
    bool send(const uint8_t *frame, size_t len) override;
    size_t send_batch(const std::vector<uint8_t> *frames, size_t count) override;
    void stop() override;
    bool input_done() const override { return false; }
    uint64_t rx_frames() const override { return rx_.load(std::memory_order_relaxed); }
    uint64_t tx_frames() const override { return tx_.load(std::memory_order_relaxed); }
    PortCounters counters() const override;

private:
    // The receive slots of one recvmmsg call and their auxiliary data.
    struct RxSlots {
        std::vector<uint8_t> data;
        std::vector<mmsghdr> msgs;
        std::vector<iovec> iovs;
        std::vector<uint8_t> control;
        size_t control_len = 0;
    };

    bool fail(std::string &error, const std::string &what, int err);
    bool read_mtu(std::string &error);
    void read_segmentation_offload();
    bool set_up_socket(int fd, std::string &error);
    bool bind_to(int fd, std::string &error, int ifindex);
    bool join_fanout(int fd, std::string &error, int ifindex);
    bool open_socket(std::string &error, int ifindex);
    void release();
    void receive_loop(int fd);
    bool wait_for_frames(int fd);
    void prepare(RxSlots &slots);
    void deliver(const uint8_t *data, size_t len, size_t wire_len, const msghdr &msg);
    bool send_one(const uint8_t *frame, size_t len);
    void send_units(std::vector<mmsghdr> &msgs);

    std::string device_;
    unsigned workers_;
    std::vector<int> fds_;  // one per worker; the first also sends
    int fd_ = -1;
    uint32_t mtu_ = 0;
    bool join_tcp_ = false;  // the device takes TCP super-frames
    RxHandler rx_handler_;
    std::vector<std::thread> threads_;
    std::atomic<bool> running_{false};
    std::atomic<bool> stopped_{false};
    std::atomic<uint64_t> rx_{0};
    std::atomic<uint64_t> tx_{0};
    std::atomic<uint64_t> rx_dropped_{0};
    std::atomic<uint64_t> tx_failed_{0};
    mutable std::atomic<uint64_t> kernel_drops_{0};
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
    for (int fd : fds_) close(fd);
    fds_.clear();
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

// Whether the device segments TCP itself, read once: a later change by
// ethtool is not followed.
void AfPacketPort::read_segmentation_offload()
{
    ethtool_value value{};
    value.cmd = ETHTOOL_GTSO;
    ifreq req{};
    std::strncpy(req.ifr_name, device_.c_str(), IFNAMSIZ - 1);
    req.ifr_data = reinterpret_cast<char *>(&value);
    join_tcp_ = ioctl(fd_, SIOCETHTOOL, &req) == 0 && value.data != 0;
}

// Every frame comes with its auxiliary data (stripped tag) and its
// virtio-net header (pending checksum, super-frame segment size); the
// buffers absorb bursts while the thread is busy.
bool AfPacketPort::set_up_socket(int fd, std::string &error)
{
    const int one = 1;
    if (setsockopt(fd, SOL_PACKET, PACKET_AUXDATA, &one, sizeof one) != 0)
        return fail(error, "cannot ask for auxiliary data", errno);
    if (setsockopt(fd, SOL_PACKET, PACKET_VNET_HDR, &one, sizeof one) != 0)
        return fail(error, "cannot ask for virtio-net headers", errno);
    for (int opt : {SO_RCVBUFFORCE, SO_SNDBUFFORCE}) {
        if (setsockopt(fd, SOL_SOCKET, opt, &kSocketBuffer, sizeof kSocketBuffer) != 0) {
            const int fallback = opt == SO_RCVBUFFORCE ? SO_RCVBUF : SO_SNDBUF;
            setsockopt(fd, SOL_SOCKET, fallback, &kSocketBuffer, sizeof kSocketBuffer);
        }
    }
    return true;
}

// Binds to the device only once the socket is set up, so that no frame is
// taken without its auxiliary data; our own transmissions are not looped back.
bool AfPacketPort::bind_to(int fd, std::string &error, int ifindex)
{
    const int one = 1;
    if (setsockopt(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, &one, sizeof one) != 0)
        return fail(error, "cannot ignore outgoing frames", errno);
    sockaddr_ll addr{};
    addr.sll_family = AF_PACKET;
    addr.sll_protocol = htons(ETH_P_ALL);
    addr.sll_ifindex = ifindex;
    if (bind(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) != 0)
        return fail(error, "cannot bind a packet socket", errno);
    return true;
}

// The kernel hashes each flow to one socket of the group, so that a flow's
// frames keep their order. Fragments are not reassembled on the way (the
// group's defragmenting mode would hand over packets larger than the
// device's MTU): the hash of a fragment leaves out the ports, so all the
// fragments of one packet meet in one worker. The group is named after the
// device, which no other port of this process uses.
bool AfPacketPort::join_fanout(int fd, std::string &error, int ifindex)
{
    const int arg = (ifindex & 0xFFFF) | PACKET_FANOUT_HASH << 16;
    if (setsockopt(fd, SOL_PACKET, PACKET_FANOUT, &arg, sizeof arg) != 0)
        return fail(error, "cannot join a fanout group of " + std::to_string(workers_) + " workers", errno);
    return true;
}

bool AfPacketPort::open_socket(std::string &error, int ifindex)
{
    // The protocol stays 0 until bind, so that nothing is queued before then.
    const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return fail(error, "cannot open a packet socket", errno);
    fds_.push_back(fd);
    return set_up_socket(fd, error) && bind_to(fd, error, ifindex) &&
           (workers_ == 1 || join_fanout(fd, error, ifindex));
}

bool AfPacketPort::open(std::string &error)
{
    if (device_.empty() || device_.size() >= IFNAMSIZ)
        return fail(error, "not a network device name (1 to 15 characters)", 0);
    const unsigned ifindex = if_nametoindex(device_.c_str());
    if (ifindex == 0) return fail(error, "no such network device", errno == ENODEV ? 0 : errno);
    for (unsigned i = 0; i < workers_; ++i)
        if (!open_socket(error, static_cast<int>(ifindex))) return false;
    fd_ = fds_.front();
    packet_mreq mreq{};
    mreq.mr_ifindex = static_cast<int>(ifindex);
    mreq.mr_type = PACKET_MR_PROMISC;
    if (setsockopt(fd_, SOL_PACKET, PACKET_ADD_MEMBERSHIP, &mreq, sizeof mreq) != 0)
        return fail(error, "cannot enter promiscuous mode", errno);
    read_segmentation_offload();
    return read_mtu(error);
}

void AfPacketPort::start(RxHandler rx)
{
    if (fd_ < 0 || running_.exchange(true)) return;
    rx_handler_ = std::move(rx);
    for (int fd : fds_)
        threads_.emplace_back([this, fd] { receive_loop(fd); });
}

void AfPacketPort::prepare(RxSlots &slots)
{
    slots.control_len = CMSG_SPACE(sizeof(tpacket_auxdata));
    slots.data.resize(kRxSlot * kRxBatch);
    slots.msgs.resize(kRxBatch);
    slots.iovs.resize(kRxBatch);
    slots.control.resize(slots.control_len * kRxBatch);
}

// A packet worker: it reads the platform's published tables for its whole
// life and holds none of their pointers between batches, which is where it
// lets retired blocks go; it is offline while it waits for frames.
void AfPacketPort::receive_loop(int fd)
{
    RxSlots slots;
    prepare(slots);
    efrt::rcu::ReadSection reading;
    while (running_.load(std::memory_order_relaxed)) {
        for (unsigned i = 0; i < kRxBatch; ++i) {
            slots.iovs[i] = iovec{slots.data.data() + i * kRxSlot, kRxSlot};
            msghdr &m = slots.msgs[i].msg_hdr;
            m = msghdr{};
            m.msg_iov = &slots.iovs[i];
            m.msg_iovlen = 1;
            m.msg_control = slots.control.data() + i * slots.control_len;
            m.msg_controllen = slots.control_len;
        }
        const int n = recvmmsg(fd, slots.msgs.data(), kRxBatch, MSG_TRUNC, nullptr);
        if (n <= 0) {
            efrt::rcu::Offline waiting;
            wait_for_frames(fd);
            continue;
        }
        {
            TxBatch batch;
            for (int i = 0; i < n; ++i) {
                const mmsghdr &mm = slots.msgs[static_cast<size_t>(i)];
                deliver(static_cast<const uint8_t *>(mm.msg_hdr.msg_iov->iov_base),
                        std::min<size_t>(mm.msg_len, kRxSlot), mm.msg_len, mm.msg_hdr);
                TxBatch::flush_full();
            }
        }
        efrt::rcu::quiescent();
    }
}

// Waits until a frame is there. A pending socket error (the device went
// down or away) is read and so cleared; left set it would wake every poll at
// once.
bool AfPacketPort::wait_for_frames(int fd)
{
    pollfd pfd{fd, POLLIN | POLLERR, 0};
    if (poll(&pfd, 1, kPollTimeoutMs) <= 0)
        return false;
    if ((pfd.revents & POLLERR) != 0) {
        int err = 0;
        socklen_t len = sizeof err;
        getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
    }
    return (pfd.revents & POLLIN) != 0;
}

// Frames needing no fix-up go to the handler straight from the slot, behind
// their virtio-net header.
void AfPacketPort::deliver(const uint8_t *data, size_t len, size_t wire_len, const msghdr &msg)
{
    if (len < wire_len || len < kVnetHeader) {  // did not fit a slot
        rx_dropped_.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    VnetHeader vnet;
    std::memcpy(&vnet, data, kVnetHeader);
    data += kVnetHeader;
    len -= kVnetHeader;
    RxOffloadInfo info;
    if ((vnet.flags & kVnetNeedsChecksum) != 0) {
        info.checksum_pending = true;
        info.checksum_start = vnet.csum_start;
        info.checksum_offset = vnet.csum_offset;
    }
    if ((vnet.gso_type & ~kVnetGsoEcn) != kVnetGsoNone) info.gso_size = vnet.gso_size;
    for (const cmsghdr *c = CMSG_FIRSTHDR(&msg); c != nullptr;
         c = CMSG_NXTHDR(const_cast<msghdr *>(&msg), const_cast<cmsghdr *>(c))) {
        if (c->cmsg_level != SOL_PACKET || c->cmsg_type != PACKET_AUXDATA)
            continue;
        tpacket_auxdata aux;
        std::memcpy(&aux, CMSG_DATA(c), sizeof aux);
        info.vlan_stripped = (aux.tp_status & TP_STATUS_VLAN_VALID) != 0;
        info.vlan_tci = aux.tp_vlan_tci;
        if (aux.tp_status & TP_STATUS_VLAN_TPID_VALID) info.vlan_tpid = aux.tp_vlan_tpid;
        info.checksum_pending |= (aux.tp_status & TP_STATUS_CSUMNOTREADY) != 0;
    }
    if (!info.vlan_stripped && !info.checksum_pending && info.gso_size == 0 &&
        len <= mtu_ + EF_ETH_HLEN) {
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

// Inside a batch the frame waits for the batch's end; otherwise it leaves now.
bool AfPacketPort::send(const uint8_t *frame, size_t len)
{
    if (fd_ < 0 || stopped_.load(std::memory_order_relaxed)) return false;
    if (tx_batch_queue(this, frame, len)) return true;
    return send_one(frame, len);
}

// A full device queue is transient; anything else is counted as a failure.
bool AfPacketPort::send_one(const uint8_t *frame, size_t len)
{
    iovec iov[2] = {{const_cast<VnetHeader *>(&kPlainHeader), kVnetHeader},
                    {const_cast<uint8_t *>(frame), len}};
    msghdr msg{};
    msg.msg_iov = iov;
    msg.msg_iovlen = 2;
    for (int attempt = 0; attempt < kSendAttempts; ++attempt) {
        const ssize_t n = ::sendmsg(fd_, &msg, 0);
        if (n == static_cast<ssize_t>(kVnetHeader + len)) {
            tx_.fetch_add(1, std::memory_order_relaxed);
            return true;
        }
        if (n >= 0 || (errno != ENOBUFS && errno != EAGAIN && errno != EINTR)) break;
        if (errno != EINTR) std::this_thread::sleep_for(kSendRetryPause);
    }
    tx_failed_.fetch_add(1, std::memory_order_relaxed);
    return false;
}

// One sendmmsg for the whole batch, each frame behind its virtio-net
// header; joined TCP segments count as the frames they stand for.
size_t AfPacketPort::send_batch(const std::vector<uint8_t> *frames, size_t count)
{
    if (fd_ < 0 || stopped_.load(std::memory_order_relaxed)) {
        tx_failed_.fetch_add(count, std::memory_order_relaxed);
        return 0;
    }
    // Without joining, each frame is its own message behind a plain header.
    std::vector<TxUnit> units;
    if (join_tcp_) units = join_tcp_segments(frames, count);
    const size_t n = join_tcp_ ? units.size() : count;
    std::vector<mmsghdr> msgs(n);
    std::vector<iovec> iovs(2 * n);
    for (size_t u = 0; u < n; ++u) {
        const TxUnit *unit = join_tcp_ ? &units[u] : nullptr;
        const std::vector<uint8_t> &bytes =
            unit == nullptr ? frames[u] : unit->count > 1 ? unit->joined : frames[unit->first];
        const VnetHeader *header = unit == nullptr ? &kPlainHeader : &unit->header;
        iovs[2 * u] = iovec{const_cast<VnetHeader *>(header), kVnetHeader};
        iovs[2 * u + 1] = iovec{const_cast<uint8_t *>(bytes.data()), bytes.size()};
        msgs[u].msg_hdr.msg_iov = &iovs[2 * u];
        msgs[u].msg_hdr.msg_iovlen = 2;
    }
    send_units(msgs);
    size_t sent = 0;
    for (size_t u = 0; u < n; ++u)
        if (msgs[u].msg_len != 0) sent += join_tcp_ ? units[u].count : 1;
    tx_.fetch_add(sent, std::memory_order_relaxed);
    if (sent < count) tx_failed_.fetch_add(count - sent, std::memory_order_relaxed);
    return sent;
}

// What a full device queue leaves is tried again after a pause; a message
// the kernel refuses for good is skipped. A message that left has its
// msg_len set, one that did not keeps 0.
void AfPacketPort::send_units(std::vector<mmsghdr> &msgs)
{
    const size_t count = msgs.size();
    size_t done = 0;
    for (int attempt = 0; done < count && attempt < kSendAttempts;) {
        const int n = sendmmsg(fd_, msgs.data() + done, static_cast<unsigned>(count - done), 0);
        if (n > 0) {
            done += static_cast<size_t>(n);
            continue;
        }
        if (errno == ENOBUFS || errno == EAGAIN) {
            attempt++;
            std::this_thread::sleep_for(kSendRetryPause);
        } else if (errno != EINTR) {
            done++;  // refused for good: skip it, send the rest
        }
    }
}

PortCounters AfPacketPort::counters() const
{
    PortCounters c;
    c.rx = rx_.load(std::memory_order_relaxed);
    c.tx = tx_.load(std::memory_order_relaxed);
    c.rx_dropped = rx_dropped_.load(std::memory_order_relaxed);
    c.tx_dropped = tx_failed_.load(std::memory_order_relaxed);
    // The kernel's count of frames it had no room for; reading resets it.
    for (int fd : fds_) {
        tpacket_stats stats{};
        socklen_t len = sizeof stats;
        if (getsockopt(fd, SOL_PACKET, PACKET_STATISTICS, &stats, &len) == 0)
            kernel_drops_.fetch_add(stats.tp_drops, std::memory_order_relaxed);
    }
    c.rx_dropped += kernel_drops_.load(std::memory_order_relaxed);
    return c;
}

// The socket stays open until destruction so that a send() racing with
// stop() never meets a closed or reused descriptor.
void AfPacketPort::stop()
{
    stopped_.store(true);
    running_.store(false);
    for (std::thread &t : threads_)
        if (t.joinable()) t.join();
    threads_.clear();
}

}  // namespace

std::unique_ptr<Port> make_afpacket_port(const std::string &device, unsigned workers)
{
    return std::make_unique<AfPacketPort>(device, workers == 0 ? 1 : workers);
}

}  // namespace efhost
