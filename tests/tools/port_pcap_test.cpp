// The capture port: every input frame reaches the handler in order, frames
// sent land in the output capture unchanged, and unusable files are refused
// with a message naming them.
#include <gtest/gtest.h>
#include <pcap/pcap.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "port.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes test_frame(size_t len, uint8_t seed)
{
    Bytes f(len);
    for (size_t i = 0; i < len; ++i) f[i] = static_cast<uint8_t>(seed + i * 13);
    return f;
}

void write_capture(const std::string &path, int linktype, const std::vector<Bytes> &frames)
{
    pcap_t *dead = pcap_open_dead(linktype, 65535);
    ASSERT_NE(dead, nullptr);
    pcap_dumper_t *d = pcap_dump_open(dead, path.c_str());
    ASSERT_NE(d, nullptr) << pcap_geterr(dead);
    for (size_t i = 0; i < frames.size(); ++i) {
        pcap_pkthdr h{};
        h.ts.tv_sec = 1700000000 + static_cast<long>(i);
        h.caplen = h.len = static_cast<bpf_u_int32>(frames[i].size());
        pcap_dump(reinterpret_cast<u_char *>(d), &h, frames[i].data());
    }
    pcap_dump_close(d);
    pcap_close(dead);
}

std::vector<Bytes> read_capture(const std::string &path, int &linktype)
{
    char err[PCAP_ERRBUF_SIZE] = {};
    pcap_t *p = pcap_open_offline(path.c_str(), err);
    std::vector<Bytes> out;
    EXPECT_NE(p, nullptr) << err;
    if (p == nullptr) return out;
    linktype = pcap_datalink(p);
    pcap_pkthdr *h = nullptr;
    const u_char *data = nullptr;
    while (pcap_next_ex(p, &h, &data) == 1) {
        EXPECT_EQ(h->caplen, h->len);
        out.emplace_back(data, data + h->caplen);
    }
    pcap_close(p);
    return out;
}

class PcapPortTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string tmpl = (std::filesystem::temp_directory_path() / "pcapport.XXXXXX").string();
        ASSERT_NE(mkdtemp(tmpl.data()), nullptr) << "cannot create a temporary directory";
        dir_ = tmpl;
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }
    std::string path(const char *name) const { return (std::filesystem::path(dir_) / name).string(); }

    std::string dir_;
};

TEST_F(PcapPortTest, EveryInputFrameReachesTheHandlerInOrderThenInputIsDone)
{
    const std::vector<Bytes> input = {test_frame(60, 1), test_frame(1514, 2), test_frame(64, 3),
                                      test_frame(9018, 4), test_frame(61, 5)};
    write_capture(path("in.pcap"), DLT_EN10MB, input);
    auto port = efhost::make_pcap_port(path("in.pcap"), path("out.pcap"));
    std::string error;
    ASSERT_TRUE(port->open(error)) << error;
    EXPECT_FALSE(port->input_done());
    std::mutex m;
    std::vector<Bytes> got;
    port->start([&](const uint8_t *f, size_t len) {
        std::lock_guard<std::mutex> lock(m);
        got.emplace_back(f, f + len);
    });
    // Waits for the reader; the bound only keeps a broken port from hanging the suite.
    for (int i = 0; i < 1000 && !port->input_done(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_TRUE(port->input_done());
    port->stop();
    EXPECT_EQ(got, input);
    EXPECT_EQ(port->rx_frames(), input.size());
    EXPECT_EQ(port->tx_frames(), 0u);
}

TEST_F(PcapPortTest, EmptyInputIsDoneWithoutFrames)
{
    write_capture(path("in.pcap"), DLT_EN10MB, {});
    auto port = efhost::make_pcap_port(path("in.pcap"), path("out.pcap"));
    std::string error;
    ASSERT_TRUE(port->open(error)) << error;
    size_t calls = 0;
    port->start([&](const uint8_t *, size_t) { ++calls; });
    for (int i = 0; i < 1000 && !port->input_done(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_TRUE(port->input_done());
    port->stop();
    EXPECT_EQ(calls, 0u);
}

TEST_F(PcapPortTest, SentFramesAppearInTheOutputByteForByte)
{
    write_capture(path("in.pcap"), DLT_EN10MB, {});
    auto port = efhost::make_pcap_port(path("in.pcap"), path("out.pcap"));
    std::string error;
    ASSERT_TRUE(port->open(error)) << error;
    const std::vector<Bytes> sent = {test_frame(60, 9), test_frame(1518, 8), test_frame(65000, 7)};
    for (const Bytes &f : sent) EXPECT_TRUE(port->send(f.data(), f.size()));
    port->stop();
    port->stop();
    EXPECT_EQ(port->tx_frames(), sent.size());
    EXPECT_FALSE(port->send(sent[0].data(), sent[0].size()));
    int linktype = -1;
    EXPECT_EQ(read_capture(path("out.pcap"), linktype), sent);
    EXPECT_EQ(linktype, DLT_EN10MB);
}

TEST_F(PcapPortTest, MissingInputIsRefusedNamingTheFile)
{
    auto port = efhost::make_pcap_port(path("absent.pcap"), path("out.pcap"));
    std::string error;
    EXPECT_FALSE(port->open(error));
    EXPECT_EQ(error.rfind("pcap_in '" + path("absent.pcap") + "': cannot open: ", 0), 0u) << error;
}

TEST_F(PcapPortTest, NonEthernetInputIsRefusedNamingTheFileAndLinkType)
{
    write_capture(path("raw.pcap"), DLT_RAW, {test_frame(40, 1)});
    auto port = efhost::make_pcap_port(path("raw.pcap"), path("out.pcap"));
    std::string error;
    EXPECT_FALSE(port->open(error));
    EXPECT_EQ(error, "pcap_in '" + path("raw.pcap") + "': link type " + std::to_string(DLT_RAW) +
                         " (RAW) is not Ethernet (EN10MB)");
}

TEST_F(PcapPortTest, UncreatableOutputIsRefusedNamingTheFile)
{
    write_capture(path("in.pcap"), DLT_EN10MB, {});
    const std::string out = path("no-such-dir/out.pcap");
    auto port = efhost::make_pcap_port(path("in.pcap"), out);
    std::string error;
    EXPECT_FALSE(port->open(error));
    EXPECT_EQ(error.rfind("pcap_out '" + out + "': cannot create: ", 0), 0u) << error;
}

}  // namespace
