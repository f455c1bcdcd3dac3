// The verbs end to end against a fake efhost: a thread on the other end of
// a socket pair records the envelopes it receives and answers with show
// lines, module messages, done or data ready.
//
//   vxlanctl session (fd[0]) <== SOCK_SEQPACKET ==> fake efhost thread (fd[1])
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <sstream>
#include <thread>

#include "apply_config.h"
#include "ctl_wire.h"
#include "session.h"

namespace {

using namespace vxlanctl;
using Bytes = std::vector<uint8_t>;

ctl::Envelope reply(uint32_t module, const Bytes &payload) { return ctl::Envelope{0, 0, module, payload}; }
ctl::Envelope show_line(const std::string &text) { return reply(ctl::kModuleShowLine, Bytes(text.begin(), text.end())); }
ctl::Envelope done(const std::string &status = "")
{
    return reply(ctl::kModuleDone, Bytes(status.begin(), status.end()));
}
ctl::Envelope error_line(const std::string &text)
{
    return reply(ctl::kModuleErrorLine, Bytes(text.begin(), text.end()));
}
ctl::Envelope data_ready() { return reply(ctl::kModuleVxlan, {1, 8, 0, 1, 68, 0, 0, 0}); }

class VxlanctlSessionTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fd_), 0); }

    void TearDown() override
    {
        if (efhost_.joinable())
            efhost_.join();
        close(fd_[0]);
        if (fd_[1] >= 0)
            close(fd_[1]);
    }

    // The fake efhost: takes envelopes until one asks for a done report,
    // then sends the replies; closes its end afterwards when asked to.
    void serve(std::vector<ctl::Envelope> replies, bool hang_up = false)
    {
        efhost_ = std::thread([this, replies, hang_up] {
            for (;;) {
                ctl::Envelope env;
                std::string error;
                if (ctl::recv_envelope(fd_[1], env, 10000, error) != 1)
                    return;
                received_.push_back(env);
                if (env.flags & ctl::kFlagReplyWhenDone)
                    break;
            }
            for (const ctl::Envelope &r : replies) {
                std::string error;
                ctl::send_envelope(fd_[1], r, error);
            }
            if (hang_up) {
                close(fd_[1]);
                fd_[1] = -1;
            }
        });
    }

    int run(const Request &request, double timeout_s = 10)
    {
        const int code = run_request(fd_[0], request, timeout_s, out_, err_);
        efhost_.join();
        return code;
    }

    int fd_[2] = {-1, -1};
    std::thread efhost_;
    std::vector<ctl::Envelope> received_;
    std::ostringstream out_;
    std::ostringstream err_;
};

TEST_F(VxlanctlSessionTest, ShowPrintsEveryLineUntilDone)
{
    std::string error;
    const auto request = show_request({"entry", "1000"}, error);
    ASSERT_TRUE(request.has_value());
    serve({show_line("VXLAN 1000(Normal)\n"), show_line("  Anycast Flags          : FALSE"), done(),
           show_line("late\n")});
    EXPECT_EQ(run(*request), kExitOk);
    ASSERT_EQ(received_.size(), 1u);
    EXPECT_EQ(received_[0].module, ctl::kModuleVxlan);
    EXPECT_EQ(received_[0].flags, ctl::kFlagReplyWhenDone);
    EXPECT_EQ(received_[0].payload, (Bytes{1, 16, 0, 1, 65, 0, 8, 0, 1, 0, 0, 0, 0xE8, 0x03, 0, 0}));
    EXPECT_EQ(out_.str(), "VXLAN 1000(Normal)\n  Anycast Flags          : FALSE\n");
    EXPECT_EQ(err_.str(), "");
}

TEST_F(VxlanctlSessionTest, SendPrintsModuleTlvsThatArriveBeforeDone)
{
    std::string error;
    const auto request = send_request("SYNC_DATA_REQ", {}, error);
    ASSERT_TRUE(request.has_value());
    serve({reply(ctl::kModuleVxlan, {1, 13, 0, 2, 0, 0, 0, 0, 90, 0, 1, 0, 7}), done()});
    EXPECT_EQ(run(*request), kExitOk);
    ASSERT_EQ(received_.size(), 1u);
    EXPECT_EQ(received_[0].payload, (Bytes{1, 8, 0, 1, 0, 0, 0, 0}));
    EXPECT_EQ(out_.str(), "recv tlv SYNC_DATA_REQ len 0\nrecv tlv unknown len 1\n");
}

TEST_F(VxlanctlSessionTest, RawGoesOutByteForByte)
{
    std::string error;
    const auto request = raw_request({"02 08 00 01 00 00 00 00"}, error);
    ASSERT_TRUE(request.has_value());
    serve({done()});
    EXPECT_EQ(run(*request), kExitOk);
    ASSERT_EQ(received_.size(), 1u);
    EXPECT_EQ(received_[0].payload, (Bytes{2, 8, 0, 1, 0, 0, 0, 0}));
    EXPECT_EQ(out_.str(), "");
}

TEST_F(VxlanctlSessionTest, TechdumpPrintsThePathEfhostReports)
{
    serve({done("ok: tech-support dump written to /tmp/vsd/3//dc/vxlan/.vxlan_ef_dump.txt")});
    EXPECT_EQ(run(techdump_request()), kExitOk);
    ASSERT_EQ(received_.size(), 1u);
    EXPECT_EQ(received_[0].payload, (Bytes{1, 13, 0, 1, 66, 0, 5, 0, 4, 0, 0, 0, 1}));
    EXPECT_EQ(out_.str(), "");
    EXPECT_EQ(err_.str(), "vxlanctl: tech-support dump written to /tmp/vsd/3//dc/vxlan/.vxlan_ef_dump.txt\n");
}

TEST_F(VxlanctlSessionTest, TechdumpThatWroteNothingFails)
{
    serve({done("error: the module wrote no tech-support dump to /tmp/vsd/3//dc/vxlan/.vxlan_ef_dump.txt")});
    EXPECT_EQ(run(techdump_request()), kExitRefused);
    EXPECT_EQ(err_.str(), "vxlanctl: efhost: error: the module wrote no tech-support dump to "
                          "/tmp/vsd/3//dc/vxlan/.vxlan_ef_dump.txt\n");
}

TEST_F(VxlanctlSessionTest, ModuleErrorLinesArePrintedAndFailTheSend)
{
    std::string error;
    const auto request = send_request("SET_ENTRY", {"vni=0", "oper=1"}, error);
    ASSERT_TRUE(request.has_value()) << error;
    serve({error_line("VXLAN-EF-ERR: [vsd 0 vxlan_ef_entry_alloc] ERROR VNI: 0\n"), done()});
    EXPECT_EQ(run(*request), kExitModuleError);
    EXPECT_EQ(out_.str(), "");
    EXPECT_EQ(err_.str(), "vxlanctl: module: VXLAN-EF-ERR: [vsd 0 vxlan_ef_entry_alloc] ERROR VNI: 0\n"
                          "vxlanctl: the module refused part of what was sent (its error lines are above)\n");
}

TEST_F(VxlanctlSessionTest, ShowOfAMissingVniSaysSoAndExitsOne)
{
    std::string error;
    const auto request = show_request({"entry", "5"}, error);
    ASSERT_TRUE(request.has_value()) << error;
    serve({error_line("VXLAN-EF-ERR: [vsd 0 vxlan_ef_entry_show] can't find vxlan ef entry by vni 5\n"), done()});
    EXPECT_EQ(run(*request), kExitNotFound);
    EXPECT_EQ(kExitNotFound, 1);
    EXPECT_EQ(err_.str(), "vxlanctl: module: VXLAN-EF-ERR: [vsd 0 vxlan_ef_entry_show] can't find vxlan ef entry "
                          "by vni 5\nvxlanctl: show: no VNI 5 in the module\n");
}

TEST_F(VxlanctlSessionTest, ApplyFinishesOnDataReadyAndDoneInEitherOrder)
{
    std::string error;
    const auto config = read_apply_text("vnis:\n  - vni: 1000\n    vlans: [10]\n", "t.yaml", error);
    ASSERT_TRUE(config.has_value()) << error;
    Request request;
    request.messages = *pack_messages(apply_tlvs(*config), error);
    request.tlv_count = 4;
    request.until_data_ready = true;
    request.report_sent = true;
    request.finish_line = "vxlanctl: data ready";
    serve({done(), data_ready()});
    EXPECT_EQ(run(request), kExitOk);
    ASSERT_EQ(received_.size(), 1u);
    EXPECT_EQ(received_[0].payload.size(), 4u + 4 + 9 + 532 + 4);
    EXPECT_EQ(out_.str(), "");
    EXPECT_EQ(err_.str(), "vxlanctl: sent 4 TLVs in 1 messages\nvxlanctl: data ready\n");
}

TEST_F(VxlanctlSessionTest, ApplyOfManyTlvsFlagsOnlyTheLastMessage)
{
    ApplyConfig config;
    for (uint32_t vni = 1; vni <= 300; ++vni)
        config.vnis.push_back(VniConf{vni, {}, {}, {}, {}, {}, {}});
    std::string error;
    Request request;
    request.messages = *pack_messages(apply_tlvs(config), error);
    request.tlv_count = 302;
    request.until_data_ready = true;
    request.report_sent = true;
    request.finish_line = "vxlanctl: data ready";
    serve({data_ready(), done()});
    EXPECT_EQ(run(request), kExitOk);
    ASSERT_EQ(received_.size(), 2u);
    EXPECT_EQ(received_[0].flags, 0u);
    EXPECT_EQ(received_[0].payload[3], 255);
    EXPECT_EQ(received_[1].flags, ctl::kFlagReplyWhenDone);
    EXPECT_EQ(received_[1].payload[3], 47);
    EXPECT_EQ(received_[1].payload.back(), 0);  // ends with SYNC_DATA_OVER's empty TLV
    EXPECT_EQ(err_.str(), "vxlanctl: sent 302 TLVs in 2 messages\nvxlanctl: data ready\n");
}

TEST_F(VxlanctlSessionTest, ApplyWithoutDataReadyTimesOut)
{
    Request request;
    request.messages = {{1, 8, 0, 1, 1, 0, 0, 0}};
    request.until_data_ready = true;
    serve({done()});
    EXPECT_EQ(run(request, 0.2), kExitTimeout);
    EXPECT_EQ(err_.str(), "vxlanctl: no data ready from efhost within 0.2 s\n");
}

TEST_F(VxlanctlSessionTest, SilentEfhostTimesOut)
{
    serve({});
    EXPECT_EQ(run(techdump_request(), 0.2), kExitTimeout);
    EXPECT_EQ(out_.str(), "");
    EXPECT_EQ(err_.str(), "vxlanctl: no answer from efhost within 0.2 s\n");
}

TEST_F(VxlanctlSessionTest, EfhostHangingUpIsAConnectionFailure)
{
    serve({}, true);
    EXPECT_EQ(run(techdump_request()), kExitConnection);
    EXPECT_EQ(err_.str(), "vxlanctl: the peer closed the connection\n");
}

TEST(VxlanctlConnectTest, MissingSocketIsAConnectionFailure)
{
    std::ostringstream out, err;
    EXPECT_EQ(connect_and_run("/nonexistent/efhost.sock", techdump_request(), 1, out, err), kExitConnection);
    EXPECT_EQ(err.str(), "vxlanctl: cannot connect to /nonexistent/efhost.sock: No such file or directory\n");
}

TEST(VxlanctlConnectTest, RequestRunsOverAListeningSocket)
{
    char dir[] = "/tmp/vxlanctl_sock_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string path = std::string(dir) + "/efhost.sock";
    std::string error;
    const int listener = ctl::listen_socket(path, error);
    ASSERT_GE(listener, 0) << error;
    std::vector<ctl::Envelope> got;
    std::thread efhost([&] {
        const int fd = accept(listener, nullptr, nullptr);
        ctl::Envelope env;
        std::string e;
        if (ctl::recv_envelope(fd, env, 10000, e) == 1) {
            got.push_back(env);
            ctl::send_envelope(fd, show_line("Total VRF Count: 0\n"), e);
            ctl::send_envelope(fd, done(), e);
        }
        close(fd);
    });
    std::ostringstream out, err;
    const auto request = show_request({"vrf"}, error);
    EXPECT_EQ(connect_and_run(path, *request, 10, out, err), kExitOk);
    efhost.join();
    close(listener);
    unlink(path.c_str());
    rmdir(dir);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].payload, (Bytes{1, 16, 0, 1, 65, 0, 8, 0, 5, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(out.str(), "Total VRF Count: 0\n");
    EXPECT_EQ(err.str(), "");
}

}  // namespace
