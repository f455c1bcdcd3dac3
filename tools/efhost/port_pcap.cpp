// The capture port: frames received are read in order from one Ethernet
// capture file by a thread of its own; frames sent are appended to another,
// stamped with the time they were sent.
#include <pcap/pcap.h>
#include <sys/time.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <mutex>
#include <thread>

#include "port.h"
#include "rcu.h"

namespace efhost {

namespace {

constexpr int kOutputSnaplen = 262144;

class PcapPort final : public Port {
public:
    PcapPort(std::string in, std::string out) : in_path_(std::move(in)), out_path_(std::move(out))
    {
    }
    ~PcapPort() override { stop(); }

    bool open(std::string &error) override;
    void start(RxHandler rx) override;
    bool send(const uint8_t *frame, size_t len) override;
    void stop() override;
    bool input_done() const override { return done_.load(std::memory_order_acquire); }
    uint64_t rx_frames() const override { return rx_.load(std::memory_order_relaxed); }
    uint64_t tx_frames() const override { return tx_.load(std::memory_order_relaxed); }
    PortCounters counters() const override
    {
        PortCounters c;
        c.rx = rx_frames();
        c.tx = tx_frames();
        return c;
    }

private:
    bool open_input(std::string &error);
    bool open_output(std::string &error);
    void read_input(const RxHandler &rx);
    void close_files();

    std::string in_path_;
    std::string out_path_;
    pcap_t *in_ = nullptr;
    pcap_t *dead_ = nullptr;
    std::mutex out_mutex_;  // guards dumper_
    pcap_dumper_t *dumper_ = nullptr;
    std::thread thread_;
    std::atomic<bool> stopping_{false};
    std::atomic<bool> done_{false};
    std::atomic<uint64_t> rx_{0};
    std::atomic<uint64_t> tx_{0};
};

bool PcapPort::open_input(std::string &error)
{
    char errbuf[PCAP_ERRBUF_SIZE] = {};
    in_ = pcap_open_offline(in_path_.c_str(), errbuf);
    if (in_ == nullptr) {
        error = "pcap_in '" + in_path_ + "': cannot open: " + errbuf;
        return false;
    }
    const int link = pcap_datalink(in_);
    if (link != DLT_EN10MB) {
        const char *name = pcap_datalink_val_to_name(link);
        error = "pcap_in '" + in_path_ + "': link type " + std::to_string(link) + " (" +
                (name != nullptr ? name : "unknown") + ") is not Ethernet (EN10MB)";
        return false;
    }
    return true;
}

bool PcapPort::open_output(std::string &error)
{
    dead_ = pcap_open_dead(DLT_EN10MB, kOutputSnaplen);
    if (dead_ == nullptr) {
        error = "pcap_out '" + out_path_ + "': cannot prepare an Ethernet capture";
        return false;
    }
    dumper_ = pcap_dump_open(dead_, out_path_.c_str());
    if (dumper_ == nullptr) {
        error = "pcap_out '" + out_path_ + "': cannot create: " + pcap_geterr(dead_);
        return false;
    }
    return true;
}

bool PcapPort::open(std::string &error)
{
    if (open_input(error) && open_output(error)) return true;
    close_files();
    return false;
}

void PcapPort::start(RxHandler rx)
{
    if (in_ == nullptr || thread_.joinable()) return;
    thread_ = std::thread([this, rx = std::move(rx)] { read_input(rx); });
}

// Input is done at the end of the file, or at the first record that cannot
// be read, which is reported since what follows it is lost. The reader is a
// packet worker: between two frames it holds nothing of the platform's
// published tables.
void PcapPort::read_input(const RxHandler &rx)
{
    pcap_pkthdr *hdr = nullptr;
    const u_char *data = nullptr;
    int status = 0;
    efrt::rcu::ReadSection reading;
    while (!stopping_.load(std::memory_order_relaxed) &&
           (status = pcap_next_ex(in_, &hdr, &data)) == 1) {
        rx_.fetch_add(1, std::memory_order_relaxed);
        rx(data, hdr->caplen);
        efrt::rcu::quiescent();
    }
    if (status == PCAP_ERROR)
        std::fprintf(stderr, "efhost: pcap_in '%s': read error after %llu frames: %s\n",
                     in_path_.c_str(), static_cast<unsigned long long>(rx_frames()),
                     pcap_geterr(in_));
    if (status != 1) done_.store(true, std::memory_order_release);
}

bool PcapPort::send(const uint8_t *frame, size_t len)
{
    std::lock_guard<std::mutex> lock(out_mutex_);
    if (dumper_ == nullptr) return false;
    pcap_pkthdr hdr{};
    gettimeofday(&hdr.ts, nullptr);
    hdr.len = static_cast<bpf_u_int32>(len);
    hdr.caplen = static_cast<bpf_u_int32>(std::min<size_t>(len, kOutputSnaplen));
    pcap_dump(reinterpret_cast<u_char *>(dumper_), &hdr, frame);
    tx_.fetch_add(1, std::memory_order_relaxed);
    return true;
}

void PcapPort::close_files()
{
    std::lock_guard<std::mutex> lock(out_mutex_);
    if (dumper_ != nullptr) {
        pcap_dump_flush(dumper_);
        pcap_dump_close(dumper_);
        dumper_ = nullptr;
    }
    if (dead_ != nullptr) pcap_close(dead_);
    dead_ = nullptr;
    if (in_ != nullptr) pcap_close(in_);
    in_ = nullptr;
}

void PcapPort::stop()
{
    stopping_.store(true);
    if (thread_.joinable()) thread_.join();
    close_files();
}

}  // namespace

std::unique_ptr<Port> make_pcap_port(const std::string &pcap_in, const std::string &pcap_out)
{
    return std::make_unique<PcapPort>(pcap_in, pcap_out);
}

}  // namespace efhost
