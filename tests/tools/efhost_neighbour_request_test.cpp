// efhost's neighbour suppression requests: every form with its exact answer
// lines and status, the generation a control process asks with, and every
// refusal, each of which leaves the table as it was.
#include <gtest/gtest.h>

#include "efrt.h"
#include "neighbour_request.h"
#include "suppress.h"

namespace {

using efhost::neighbour_request;
using efhost::RequestReply;

constexpr efrt::MacAddr kHost{0x02, 0, 0, 0, 0x01, 0x0a};

class NeighbourRequest : public ::testing::Test {
protected:
    void SetUp() override { efrt::reset(); }
    void TearDown() override { efrt::reset(); }

    static RequestReply ok(const std::string &request)
    {
        RequestReply r = neighbour_request(request);
        EXPECT_TRUE(r.ok) << request << ": " << r.text;
        return r;
    }

    static std::string generation() { return std::to_string(efrt::suppress_generation()); }
};

TEST_F(NeighbourRequest, ListShowsEveryBindingWithItsKindAndAgeOrderedByVniThenAddress)
{
    ok("remote add 200 10.1.1.2 02:00:00:00:02:0B");
    ok("remote add 100 2001:db8::0:2 02:00:00:00:02:0c");
    efrt::suppress_learn_local(100, efrt::NeighbourIp{false, {10, 1, 1, 1}}, kHost);
    efrt::clock_advance(7500);
    const RequestReply r = ok("list");
    EXPECT_EQ(r.text, "ok 3 bindings");
    EXPECT_EQ(r.lines, (std::vector<std::string>{"100 10.1.1.1 02:00:00:00:01:0a local 7",
                                                 "100 2001:db8::2 02:00:00:00:02:0c remote -",
                                                 "200 10.1.1.2 02:00:00:00:02:0b remote -"}));
    const RequestReply one = ok("list vni 200");
    EXPECT_EQ(one.text, "ok 1 bindings");
    EXPECT_EQ(one.lines, (std::vector<std::string>{"200 10.1.1.2 02:00:00:00:02:0b remote -"}));
    EXPECT_EQ(ok("list vni 300").text, "ok 0 bindings");
}

TEST_F(NeighbourRequest, RemoteAddIsIdempotentAndSaysWhatItReplaced)
{
    EXPECT_EQ(ok("remote add 100 10.1.1.2 02:00:00:00:02:0b").text,
              "ok added remote binding 100 10.1.1.2 02:00:00:00:02:0b");
    EXPECT_EQ(ok("remote add 100 10.1.1.2 02:00:00:00:02:0b").text,
              "ok remote binding 100 10.1.1.2 02:00:00:00:02:0b exists");
    EXPECT_EQ(ok("remote add 100 10.1.1.2 02:00:00:00:02:0c").text,
              "ok remote binding 100 10.1.1.2 02:00:00:00:02:0c replaces remote 02:00:00:00:02:0b");
    efrt::suppress_learn_local(100, efrt::NeighbourIp{false, {10, 1, 1, 1}}, kHost);
    EXPECT_EQ(ok("remote add 100 10.1.1.1 02:00:00:00:02:0d").text,
              "ok remote binding 100 10.1.1.1 02:00:00:00:02:0d replaces local 02:00:00:00:01:0a");
    EXPECT_EQ(ok("list").lines, (std::vector<std::string>{"100 10.1.1.1 02:00:00:00:02:0d remote -",
                                                          "100 10.1.1.2 02:00:00:00:02:0c remote -"}));
}

TEST_F(NeighbourRequest, RemoteRemoveTakesOnlyARemoteBindingAndAcceptsAnUnknownOne)
{
    ok("remote add 100 10.1.1.2 02:00:00:00:02:0b");
    efrt::suppress_learn_local(100, efrt::NeighbourIp{false, {10, 1, 1, 1}}, kHost);
    EXPECT_EQ(ok("remote remove 100 10.1.1.1").text, "ok no remote binding 100 10.1.1.1");
    EXPECT_EQ(ok("remote remove 100 10.9.9.9").text, "ok no remote binding 100 10.9.9.9");
    EXPECT_EQ(ok("remote remove 100 10.1.1.2").text, "ok removed remote binding 100 10.1.1.2");
    EXPECT_EQ(ok("list").lines, (std::vector<std::string>{"100 10.1.1.1 02:00:00:00:01:0a local 0"}));
}

TEST_F(NeighbourRequest, LocalListsSnoopedBindingsUnlessTheGenerationIsStillTheOneGiven)
{
    ok("remote add 100 10.1.1.2 02:00:00:00:02:0b");
    efrt::suppress_learn_local(100, efrt::NeighbourIp{false, {10, 1, 1, 1}}, kHost);
    const std::string g = generation();
    const RequestReply all = ok("local");
    EXPECT_EQ(all.text, "ok generation " + g + " 1 local bindings");
    EXPECT_EQ(all.lines, (std::vector<std::string>{"100 10.1.1.1 02:00:00:00:01:0a"}));
    const RequestReply same = ok("local since " + g);
    EXPECT_EQ(same.text, "ok unchanged generation " + g);
    EXPECT_TRUE(same.lines.empty());
    efrt::clock_advance(300000);
    efrt::suppress_age_run();
    const RequestReply aged = ok("local since " + g);
    EXPECT_EQ(aged.text, "ok generation " + generation() + " 0 local bindings");
    EXPECT_NE(generation(), g);
    EXPECT_TRUE(aged.lines.empty());
    EXPECT_EQ(ok("local since 0").text.rfind("ok generation ", 0), 0u) << "a number from elsewhere";
}

TEST_F(NeighbourRequest, SwitchesAreSetPerVniAndListedWhileAnyIsOn)
{
    EXPECT_EQ(ok("switch 100 arp on").text, "ok VNI 100 arp suppression on");
    EXPECT_EQ(ok("switch 200 nd on").text, "ok VNI 200 nd suppression on");
    EXPECT_TRUE(efrt::suppress_switch_on(100, efrt::SuppressProto::Arp));
    EXPECT_FALSE(efrt::suppress_switch_on(100, efrt::SuppressProto::Nd));
    RequestReply r = ok("switches");
    EXPECT_EQ(r.text, "ok 2 VNIs with suppression on");
    EXPECT_EQ(r.lines, (std::vector<std::string>{"100 arp on nd off", "200 arp off nd on"}));
    EXPECT_EQ(ok("switch 100 arp off").text, "ok VNI 100 arp suppression off");
    r = ok("switches");
    EXPECT_EQ(r.lines, (std::vector<std::string>{"200 arp off nd on"}));
}

TEST_F(NeighbourRequest, RefusalsSayWhatWasWrongAndChangeNothing)
{
    ok("remote add 100 10.1.1.2 02:00:00:00:02:0b");
    ok("switch 100 arp on");
    const std::string g = generation();
    struct Case {
        const char *request;
        const char *reason;
    };
    const Case cases[] = {
        {"remote add 100 10.1.1.300 02:00:00:00:02:0b", "'10.1.1.300' is not an IPv4 or IPv6 address"},
        {"remote add 0 10.1.1.3 02:00:00:00:02:0b", "'0' is not a VNI 1..16777215"},
        {"remote add 16777216 10.1.1.3 02:00:00:00:02:0b", "'16777216' is not a VNI 1..16777215"},
        {"remote add 100 10.1.1.3 02:00:00:00:02", "'02:00:00:00:02' is not a MAC address aa:bb:cc:dd:ee:ff"},
        {"remote add 100 10.1.1.3 01:00:5e:00:00:01",
         "'01:00:5e:00:00:01' is not a host's MAC address (a group or all-zero address)"},
        {"remote add 100 0.0.0.0 02:00:00:00:02:0b",
         "'0.0.0.0' is not a host's address (all-zero, multicast or broadcast)"},
        {"remote add 100 ff02::1 02:00:00:00:02:0b",
         "'ff02::1' is not a host's address (all-zero, multicast or broadcast)"},
        {"remote add 100 10.1.1.3", "expected 'remote add VNI IP MAC'"},
        {"remote add 100 10.1.1.3 02:00:00:00:02:0b extra", "expected 'remote add VNI IP MAC'"},
        {"remote remove 100 10.1.1.2 02:00:00:00:02:0b", "expected 'remote remove VNI IP'"},
        {"remote remove 100 bad", "'bad' is not an IPv4 or IPv6 address"},
        {"remote flip 100 10.1.1.2",
         "unknown request 'remote flip 100 10.1.1.2'; known: list [vni V], remote add VNI IP MAC, remote remove VNI IP, "
         "local [since G], switch VNI arp|nd on|off, switches"},
        {"list vni", "expected 'list [vni V]'"},
        {"list mac 02:00:00:00:02:0b", "expected 'list [vni V]'"},
        {"list vni x", "'x' is not a VNI 1..16777215"},
        {"local since", "expected 'local [since G]'"},
        {"local since -1", "'-1' is not a generation number"},
        {"local after 5", "expected 'local [since G]'"},
        {"switch 100 dhcp on", "'dhcp' is not arp or nd"},
        {"switch 100 nd maybe", "'maybe' is not on or off"},
        {"switch 0 nd on", "'0' is not a VNI 1..16777215"},
        {"switches all", "expected 'switches'"},
        {"", "unknown request ''; known: list [vni V], remote add VNI IP MAC, remote remove VNI IP, "
             "local [since G], switch VNI arp|nd on|off, switches"},
    };
    for (const Case &c : cases) {
        const RequestReply r = neighbour_request(c.request);
        EXPECT_FALSE(r.ok) << c.request;
        EXPECT_EQ(r.text, c.reason) << c.request;
        EXPECT_TRUE(r.lines.empty()) << c.request;
    }
    EXPECT_EQ(ok("list").lines, (std::vector<std::string>{"100 10.1.1.2 02:00:00:00:02:0b remote -"}));
    EXPECT_EQ(ok("switches").lines, (std::vector<std::string>{"100 arp on nd off"}));
    EXPECT_EQ(generation(), g);
}

}  // namespace
