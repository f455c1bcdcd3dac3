// efhost's control socket with several clients at once, against the module
// run by the platform's timer thread as efhost runs it: each client gets its
// own answers and only those, no client can hold another up, misbehaving
// clients are closed after the limits, and the module's channel is up while
// any client is connected.
//
//   client A --+
//   client B --+-- control socket --> ControlServer --> module's channel
//   client C --+                      (short limits)    (timer thread)
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "control_server.h"
#include "ctl_wire.h"
#include "efrt.h"
#include "table_fixture.h"
#include "vxlan_ef_tlv_catalogue.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr uint16_t kShowEntries = 1;
constexpr uint16_t kShowStatus = 3;
constexpr int kAnswerMs = 5000;

struct Answer {
    std::vector<std::string> lines;
    std::vector<Bytes> module_messages;
    std::string status;
    bool done = false;
};

// Messages of at most 200 TLVs each, as a control process packs them.
std::vector<Bytes> make_msgs(const std::vector<vxtest::Tlv> &tlvs)
{
    constexpr size_t kPerMessage = 200;
    std::vector<Bytes> msgs;
    for (size_t at = 0; at < tlvs.size(); at += kPerMessage) {
        const auto end = tlvs.begin() + static_cast<long>(std::min(tlvs.size(), at + kPerMessage));
        msgs.push_back(vxtest::make_msg({tlvs.begin() + static_cast<long>(at), end}));
    }
    return msgs;
}

class ControlServerTest : public vxtest::ModuleTest {
protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        start("1");
        set_mask(VXLAN_EF_DBG_EVENT);  // the connection callback's lines show the channel's state
        efrt::tasks_start_timer_thread();
        path_ = "/tmp/efhost-ctl-test-" + std::to_string(getpid()) + ".sock";
    }

    void TearDown() override
    {
        for (int fd : fds_)
            close(fd);
        if (server_)
            server_->stop();
        server_.reset();
        efrt::tasks_stop_timer_thread();
        ModuleTest::TearDown();
    }

    void serve(efhost::ControlLimits limits = {})
    {
        server_ = std::make_unique<efhost::ControlServer>(limits);
        server_->set_counters([] { return std::vector<std::string>{"counters: 1"}; });
        std::string error;
        ASSERT_TRUE(server_->start(path_, error)) << error;
    }

    int connect_client()
    {
        std::string error;
        const int fd = ctl::connect_socket(path_, error);
        EXPECT_GE(fd, 0) << error;
        fds_.push_back(fd);
        return fd;
    }

    static void send(int fd, uint32_t module, const Bytes &payload, uint32_t seq = 1,
                     uint32_t flags = ctl::kFlagReplyWhenDone)
    {
        std::string error;
        ASSERT_TRUE(ctl::send_envelope(fd, ctl::Envelope{seq, flags, module, payload}, error)) << error;
    }

    // What efhost sends the client until the done envelope of seq.
    static Answer answer(int fd, uint32_t seq = 1)
    {
        Answer a;
        const auto give_up = Clock::now() + std::chrono::milliseconds(kAnswerMs);
        while (Clock::now() < give_up) {
            ctl::Envelope env;
            std::string error;
            if (ctl::recv_envelope(fd, env, 100, error) < 0)
                break;
            if (env.module == ctl::kModuleShowLine)
                a.lines.emplace_back(env.payload.begin(), env.payload.end());
            else if (env.module == ctl::kModuleVxlan)
                a.module_messages.push_back(env.payload);
            else if (env.module == ctl::kModuleDone && env.seq == seq) {
                a.status.assign(env.payload.begin(), env.payload.end());
                a.done = true;
                break;
            }
        }
        return a;
    }

    // True once the client's end sees efhost close the connection.
    static bool closed_by_efhost(int fd, int within_ms)
    {
        const auto give_up = Clock::now() + std::chrono::milliseconds(within_ms);
        while (Clock::now() < give_up) {
            ctl::Envelope env;
            std::string error;
            if (ctl::recv_envelope(fd, env, 50, error) < 0)
                return error == "the peer closed the connection";
        }
        return false;
    }

    static bool eventually(const std::function<bool()> &condition, int within_ms = 2000)
    {
        const auto give_up = Clock::now() + std::chrono::milliseconds(within_ms);
        while (!condition()) {
            if (Clock::now() >= give_up)
                return false;
            std::this_thread::sleep_for(10ms);
        }
        return true;
    }

    // What the module said of its channel, in order: its connection
    // callback's log lines, shortened to "up" and "down".
    static std::vector<std::string> channel_events()
    {
        std::vector<std::string> out;
        for (const std::string &text : efrt::syslog_texts()) {
            if (text.find("Connect to VXLAN EF success") != std::string::npos)
                out.push_back("up");
            else if (text.find("Connect to VXLAN EF failed") != std::string::npos)
                out.push_back("down");
        }
        return out;
    }

    // Configures count VNIs, so that the entry show has lines for each.
    void configure_vnis(int count)
    {
        using namespace vxtest;
        std::vector<Tlv> tlvs{sync_begin()};
        for (int i = 0; i < count; ++i)
            tlvs.push_back(set_entry(static_cast<uint32_t>(10000 + i)));
        tlvs.push_back(sync_over());
        const int fd = connect_client();
        for (const Bytes &msg : make_msgs(tlvs))
            send(fd, ctl::kModuleVxlan, msg, 1, 0);
        send(fd, ctl::kModuleVxlan, vxtest::make_msg({show(kShowStatus)}), 2);
        ASSERT_TRUE(answer(fd, 2).done);
        close(fd);
        fds_.pop_back();
        ASSERT_TRUE(eventually([&] { return server_->clients() == 0; }));
    }

    std::string path_;
    std::unique_ptr<efhost::ControlServer> server_;
    std::vector<int> fds_;
};

TEST_F(ControlServerTest, TheModuleChannelIsUpWhileAtLeastOneClientIsConnected)
{
    using Events = std::vector<std::string>;
    serve();
    EXPECT_EQ(channel_events(), Events{});
    const int a = connect_client();
    const int b = connect_client();
    EXPECT_TRUE(eventually([&] { return server_->clients() == 2; }));
    EXPECT_EQ(channel_events(), Events{"up"});
    close(a);
    fds_.erase(fds_.begin());
    EXPECT_TRUE(eventually([&] { return server_->clients() == 1; }));
    EXPECT_EQ(channel_events(), Events{"up"});
    close(b);
    fds_.clear();
    EXPECT_TRUE(eventually([] { return channel_events() == Events{"up", "down"}; }));
    EXPECT_EQ(server_->clients(), 0u);
    connect_client();
    EXPECT_TRUE(eventually([] { return channel_events() == Events{"up", "down", "up"}; }));
}

TEST_F(ControlServerTest, ClientsAskingAtOnceEachGetTheirOwnShowAndNothingElse)
{
    serve();
    configure_vnis(40);
    const int a = connect_client();
    const int b = connect_client();
    send(a, ctl::kModuleVxlan, vxtest::make_msg({vxtest::show(kShowEntries)}));
    const Answer entries_alone = answer(a);
    send(b, ctl::kModuleVxlan, vxtest::make_msg({vxtest::show(kShowStatus)}));
    const Answer status_alone = answer(b);
    ASSERT_TRUE(entries_alone.done && status_alone.done);
    ASSERT_GT(entries_alone.lines.size(), 40u);

    send(a, ctl::kModuleVxlan, vxtest::make_msg({vxtest::show(kShowEntries)}), 7);
    send(b, ctl::kModuleVxlan, vxtest::make_msg({vxtest::show(kShowStatus)}), 9);
    const Answer entries = answer(a, 7);
    const Answer status = answer(b, 9);
    EXPECT_TRUE(entries.done);
    EXPECT_TRUE(status.done);
    EXPECT_EQ(entries.lines, entries_alone.lines);
    EXPECT_EQ(status.lines, status_alone.lines);
}

TEST_F(ControlServerTest, TheModulesAnswerGoesToTheClientWhoseMessageItProcessed)
{
    serve();
    const int a = connect_client();
    const int b = connect_client();
    send(a, ctl::kModuleVxlan, vxtest::make_msg({vxtest::sync_begin(), vxtest::sync_over()}));
    send(b, ctl::kModuleVxlan, vxtest::make_msg({vxtest::show(kShowStatus)}));
    const Answer resync = answer(a);
    const Answer show = answer(b);
    ASSERT_TRUE(resync.done);
    ASSERT_TRUE(show.done);
    ASSERT_EQ(resync.module_messages.size(), 1u);
    const Bytes &ready = resync.module_messages[0];
    ASSERT_EQ(ready.size(), 8u);
    EXPECT_EQ(ready[4] | ready[5] << 8, vxlan_ef::tlv::kEfDataReady);
    EXPECT_TRUE(show.module_messages.empty());
    EXPECT_FALSE(show.lines.empty());
}

TEST_F(ControlServerTest, AClientBeyondTheCapIsToldWhyAndClosed)
{
    efhost::ControlLimits limits;
    limits.max_clients = 2;
    serve(limits);
    connect_client();
    connect_client();
    ASSERT_TRUE(eventually([&] { return server_->clients() == 2; }));
    const int third = connect_client();
    const Answer refused = answer(third, 0);
    EXPECT_EQ(refused.status, "error: efhost serves at most 2 control clients at once; try again later");
    EXPECT_TRUE(closed_by_efhost(third, 1000));
    EXPECT_EQ(server_->clients(), 2u);
}

TEST_F(ControlServerTest, AnIdleClientIsClosedAfterTheIdleTimeoutWhileOthersAreServed)
{
    efhost::ControlLimits limits;
    limits.idle_timeout = 300ms;
    serve(limits);
    const int idle = connect_client();
    const int busy = connect_client();
    send(busy, ctl::kModuleCountersRequest, {});
    const Answer counters = answer(busy);
    EXPECT_EQ(counters.lines, std::vector<std::string>{"counters: 1"});
    EXPECT_EQ(counters.status, "ok");
    EXPECT_TRUE(closed_by_efhost(idle, 2000));
}

TEST_F(ControlServerTest, AClientThatStopsReadingALongShowIsClosedAndHoldsNobodyUp)
{
    efhost::ControlLimits limits;
    limits.stall_timeout = 300ms;
    serve(limits);
    configure_vnis(2000);
    const int stalled = connect_client();
    send(stalled, ctl::kModuleVxlan, vxtest::make_msg({vxtest::show(kShowEntries)}));
    const int other = connect_client();
    send(other, ctl::kModuleVxlan, vxtest::make_msg({vxtest::show(kShowStatus)}));
    EXPECT_TRUE(answer(other).done);
    send(other, ctl::kModuleCountersRequest, {}, 2);
    EXPECT_TRUE(answer(other, 2).done);
    EXPECT_TRUE(eventually([&] { return server_->clients() == 1; }, 5000));
}

TEST_F(ControlServerTest, ADatagramThatIsNoEnvelopeIsAnsweredWithTheReasonAndClosed)
{
    serve();
    const int fd = connect_client();
    const Bytes ten(10, 0);
    ASSERT_EQ(::send(fd, ten.data(), ten.size(), 0), 10);
    const Answer a = answer(fd, 0);
    EXPECT_EQ(a.status, "error: envelope of 10 bytes is shorter than its 28-byte header");
    EXPECT_TRUE(closed_by_efhost(fd, 1000));
}

// A longer datagram used to be cut to the room efhost reads and then taken
// for the shorter envelope its header described.
TEST_F(ControlServerTest, ADatagramLongerThanAnyEnvelopeIsRefusedWholeAndClosed)
{
    serve();
    const int fd = connect_client();
    Bytes big = ctl::encode(ctl::Envelope{1, 0, ctl::kModuleCountersRequest, Bytes(65536, 0)});
    big.resize(70000, 0xAB);
    ASSERT_EQ(::send(fd, big.data(), big.size(), 0), 70000);
    const Answer a = answer(fd, 0);
    EXPECT_EQ(a.status, "error: datagram of 70000 bytes is longer than the largest envelope (65564 bytes)");
    EXPECT_TRUE(a.lines.empty());
    EXPECT_TRUE(closed_by_efhost(fd, 1000));
}

TEST_F(ControlServerTest, ARequestForAnUnknownModuleIsAnsweredWithAnError)
{
    serve();
    const int fd = connect_client();
    send(fd, 0xEF99, {}, 4);
    EXPECT_EQ(answer(fd, 4).status, "error: unknown request module 0xEF99");
}

TEST_F(ControlServerTest, StoppingClosesEveryClientAtOnceWhateverTheyDo)
{
    serve();
    configure_vnis(2000);
    const int idle = connect_client();
    const int stalled = connect_client();
    send(stalled, ctl::kModuleVxlan, vxtest::make_msg({vxtest::show(kShowEntries)}));
    const int half = connect_client();
    const Bytes part(14, 0);
    ASSERT_EQ(::send(half, part.data(), part.size(), 0), 14);
    std::this_thread::sleep_for(200ms);
    const auto before = Clock::now();
    server_->stop();
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - before);
    std::printf("stopped in %lld ms with an idle, a stalled and a broken client\n",
                static_cast<long long>(took.count()));
    EXPECT_LT(took.count(), 1000);
    EXPECT_TRUE(closed_by_efhost(idle, 100));
    const std::vector<std::string> events = channel_events();
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(events.back(), "down");
}

}  // namespace
