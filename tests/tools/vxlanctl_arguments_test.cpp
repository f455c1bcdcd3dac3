// Command-line arguments of the send, raw, show, debug and techdump verbs:
// what they encode and the message naming each bad argument (then nothing
// is built to send).
#include <gtest/gtest.h>

#include "apply_config.h"
#include "request.h"

namespace {

using namespace vxlanctl;
using Bytes = std::vector<uint8_t>;

std::string send_error(const std::string &type, const std::vector<std::string> &fields)
{
    std::string error;
    EXPECT_FALSE(send_request(type, fields, error).has_value());
    return error;
}

TEST(VxlanctlArgumentsTest, SendRefusesUnknownTypeNamingIt)
{
    const std::string known =
        "; known types (or their numbers): SYNC_DATA_REQ, SYNC_DATA_BEGIN, SYNC_DATA_OVER, SET_ENTRY, SET_VLAN, "
        "SET_UDP_PORT, SET_ROUTER, SET_VTEP, ASSO_VTEP, SET_ANYCAST_MAC, SET_SUPPRESS_ARP, SET_COPY_DSCP, "
        "SET_OUTSIDE_CENTER_TUNNEL, SET_SWITCH_PROTECTED, EF_DBG, EF_SHOW, EF_CTRL, SET_REMOTE_LEARN, SET_VNI_MAP, "
        "SET_VRF, SET_VNI_ARP_SUPPRESS, SET_TUNNEL_MAC_LEARN, SET_TUNNEL_ROUTE_LEARN, SET_REMOTE_ND_LEARN, "
        "SET_SUPPRESS_ND, SET_VNI_ND_SUPPRESS, SET_VXLAN_SUB_INTF_90";
    EXPECT_EQ(send_error("SET_NOTHING", {}), "vxlanctl: send: unknown TLV type 'SET_NOTHING'" + known);
    EXPECT_EQ(send_error("46", {}), "vxlanctl: send: unknown TLV type '46'" + known);
}

TEST(VxlanctlArgumentsTest, SendRefusesUnknownFieldListingTheTypesFields)
{
    EXPECT_EQ(send_error("SET_ENTRY", {"vni=1", "vn=2"}),
              "vxlanctl: send: SET_ENTRY has no field 'vn'; its fields: vni, oper");
    EXPECT_EQ(send_error("SYNC_DATA_BEGIN", {"x=1"}),
              "vxlanctl: send: SYNC_DATA_BEGIN has no field 'x'; it has no fields");
}

TEST(VxlanctlArgumentsTest, SendRefusesMalformedRepeatedAndOversizedValues)
{
    EXPECT_EQ(send_error("SET_ENTRY", {"vni"}), "vxlanctl: send: argument 'vni' is not field=value");
    EXPECT_EQ(send_error("SET_ENTRY", {"vni=1", "vni=2"}), "vxlanctl: send: field 'vni' is given twice");
    EXPECT_EQ(send_error("SET_ENTRY", {"vni=12x"}),
              "vxlanctl: send: field 'vni' (u32): '12x' is not a number (decimal or 0x hex)");
    EXPECT_EQ(send_error("SET_ENTRY", {"vni="}),
              "vxlanctl: send: field 'vni' (u32): '' is not a number (decimal or 0x hex)");
    EXPECT_EQ(send_error("SET_ENTRY", {"vni=4294967296"}),
              "vxlanctl: send: field 'vni' (u32): 4294967296 does not fit 0..4294967295");
    EXPECT_EQ(send_error("SET_ENTRY", {"oper=0x100"}), "vxlanctl: send: field 'oper' (u8): 0x100 does not fit 0..255");
    EXPECT_EQ(send_error("SET_ENTRY", {"oper=-1"}), "vxlanctl: send: field 'oper' (u8): -1 does not fit 0..255");
    EXPECT_EQ(send_error("SET_UDP_PORT", {"port=65536"}),
              "vxlanctl: send: field 'port' (u16): 65536 does not fit 0..65535");
    EXPECT_EQ(send_error("SET_VRF", {"vrf_id=2147483648"}),
              "vxlanctl: send: field 'vrf_id' (i32): 2147483648 does not fit -2147483648..2147483647");
    EXPECT_EQ(send_error("SET_VTEP", {"sip=10.0.0"}),
              "vxlanctl: send: field 'sip' (ip): '10.0.0' is not an IPv4 or IPv6 address");
    EXPECT_EQ(send_error("SET_ANYCAST_MAC", {"mac=00:00:5e:00:01:1g"}),
              "vxlanctl: send: field 'mac' (mac): '00:00:5e:00:01:1g' is not a MAC address such as "
              "00:00:5e:00:01:01");
    EXPECT_EQ(send_error("SET_VLAN", {"vlans=10,4096"}),
              "vxlanctl: send: field 'vlans' (vlan bitmap): VLAN 4096 is outside 1..4094");
    EXPECT_EQ(send_error("SET_VLAN", {"vlans=10,,12"}),
              "vxlanctl: send: field 'vlans' (vlan bitmap): '' is not a VLAN id or a range such as 20-22");
}

TEST(VxlanctlArgumentsTest, SendRefusesTheVlansTheModuleNeverLooksAt)
{
    EXPECT_EQ(send_error("SET_VLAN", {"vlans=0"}),
              "vxlanctl: send: field 'vlans' (vlan bitmap): VLAN 0 is outside 1..4094");
    EXPECT_EQ(send_error("SET_VLAN", {"vlans=4090-4095"}),
              "vxlanctl: send: field 'vlans' (vlan bitmap): VLAN 4095 is outside 1..4094");
    std::string error;
    EXPECT_TRUE(send_request("SET_VLAN", {"vlans=1,4094"}, error).has_value()) << error;
}

// A VLAN refused by send is refused by apply in the same words, and the other
// way round, so that what one accepts the other does too.
TEST(VxlanctlArgumentsTest, SendAndApplyRefuseTheSameVlansInTheSameWords)
{
    for (const std::string vlans : {"0", "4095", "1-4095", "x"}) {
        SCOPED_TRACE(vlans);
        const std::string sent = send_error("SET_VLAN", {"vlans=" + vlans});
        std::string error;
        EXPECT_FALSE(read_apply_text("vnis:\n  - {vni: 5, vlans: ['" + vlans + "']}\n", "t.yaml", error));
        const std::string send_prefix = "vxlanctl: send: field 'vlans' (vlan bitmap): ";
        const std::string apply_prefix = "t.yaml:2: field 'vnis[0].vlans[0]': ";
        ASSERT_EQ(sent.rfind(send_prefix, 0), 0u) << sent;
        ASSERT_EQ(error.rfind(apply_prefix, 0), 0u) << error;
        EXPECT_EQ(sent.substr(send_prefix.size()), error.substr(apply_prefix.size()));
    }
}

TEST(VxlanctlArgumentsTest, SendAcceptsEveryMacSpelling)
{
    for (const char *mac : {"00:1b:5e:00:01:a2", "00-1B-5E-00-01-A2", "001b.5e00.01a2"}) {
        std::string error;
        const auto r = send_request("SET_ANYCAST_MAC", {std::string("mac=") + mac}, error);
        ASSERT_TRUE(r.has_value()) << error;
        EXPECT_EQ(Bytes(r->messages[0].begin() + 8, r->messages[0].end()),
                  (Bytes{0x00, 0x1b, 0x5e, 0x00, 0x01, 0xa2, 0x00}))
            << mac;
    }
}

TEST(VxlanctlArgumentsTest, HexIgnoresSpacesAndColons)
{
    std::string error;
    EXPECT_EQ(*parse_hex("01 08:00 01  0000Ab cd", error), (Bytes{0x01, 0x08, 0x00, 0x01, 0x00, 0x00, 0xab, 0xcd}));
    EXPECT_EQ(*parse_hex("", error), Bytes{});
}

TEST(VxlanctlArgumentsTest, HexRefusesOddDigitCountAndOtherCharacters)
{
    std::string error;
    EXPECT_FALSE(parse_hex("01 080", error).has_value());
    EXPECT_EQ(error, "odd number of hex digits (5)");
    EXPECT_FALSE(parse_hex("01-08", error).has_value());
    EXPECT_EQ(error, "'-' at position 3 is not a hex digit, a space or a colon");
    EXPECT_FALSE(raw_request({"01", "0g"}, error).has_value());
    EXPECT_EQ(error, "vxlanctl: raw: 'g' at position 5 is not a hex digit, a space or a colon");
}

TEST(VxlanctlArgumentsTest, RawSendsTheBytesAsOneMessage)
{
    std::string error;
    const auto r = raw_request({"01 07 00", "01:00:00"}, error);
    ASSERT_TRUE(r.has_value()) << error;
    EXPECT_EQ(r->messages, (std::vector<Message>{{1, 7, 0, 1, 0, 0}}));
    EXPECT_FALSE(r->until_data_ready);
}

TEST(VxlanctlArgumentsTest, ShowMapsTablesToShowIds)
{
    const std::vector<std::pair<std::vector<std::string>, Bytes>> cases = {
        {{"status"}, {3, 0, 0, 0, 0, 0, 0, 0}}, {{"entry"}, {1, 0, 0, 0, 0, 0, 0, 0}},
        {{"entry", "0x10203"}, {1, 0, 0, 0, 3, 2, 1, 0}}, {{"intf"}, {4, 0, 0, 0, 0, 0, 0, 0}},
        {{"vrf"}, {5, 0, 0, 0, 0, 0, 0, 0}}, {{"subif"}, {6, 0, 0, 0, 0, 0, 0, 0}},
    };
    for (const auto &[args, value] : cases) {
        std::string error;
        const auto r = show_request(args, error);
        ASSERT_TRUE(r.has_value()) << error;
        Bytes expected = {1, 16, 0, 1, 65, 0, 8, 0};
        expected.insert(expected.end(), value.begin(), value.end());
        EXPECT_EQ(r->messages, std::vector<Message>{expected}) << args[0];
    }
}

TEST(VxlanctlArgumentsTest, ShowRefusesUnknownTableAndStrayArguments)
{
    std::string error;
    EXPECT_FALSE(show_request({"tunnels"}, error));
    EXPECT_EQ(error, "vxlanctl: show: unknown table 'tunnels'; choose status, entry [VNI], intf, vrf or subif");
    EXPECT_FALSE(show_request({"vrf", "1"}, error));
    EXPECT_EQ(error, "vxlanctl: show: 'vrf' takes no argument, got '1'");
    EXPECT_FALSE(show_request({"entry", "1", "2"}, error));
    EXPECT_EQ(error, "vxlanctl: show: 'entry' takes at most one VNI, got '2'");
    EXPECT_FALSE(show_request({"entry", "-1"}, error));
    EXPECT_EQ(error, "vxlanctl: show: VNI '-1' is not a number in 0..16777215");
}

TEST(VxlanctlArgumentsTest, ShowRefusesAVniWiderThanTwentyFourBits)
{
    std::string error;
    EXPECT_FALSE(show_request({"entry", "16777216"}, error));
    EXPECT_EQ(error, "vxlanctl: show: VNI '16777216' is not a number in 0..16777215");
    EXPECT_FALSE(show_request({"entry", "4294967295"}, error));
    EXPECT_EQ(error, "vxlanctl: show: VNI '4294967295' is not a number in 0..16777215");
    const auto r = show_request({"entry", "16777215"}, error);
    ASSERT_TRUE(r.has_value()) << error;
    EXPECT_EQ(r->messages[0], (Message{1, 16, 0, 1, 65, 0, 8, 0, 1, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0}));
}

TEST(VxlanctlArgumentsTest, ShowTakesAnUnambiguousPrefixOfATable)
{
    std::string error;
    auto r = show_request({"st"}, error);
    ASSERT_TRUE(r.has_value()) << error;
    EXPECT_EQ(r->messages[0], (Message{1, 16, 0, 1, 65, 0, 8, 0, 3, 0, 0, 0, 0, 0, 0, 0}));
    r = show_request({"e", "100"}, error);
    ASSERT_TRUE(r.has_value()) << error;
    EXPECT_EQ(r->messages[0], (Message{1, 16, 0, 1, 65, 0, 8, 0, 1, 0, 0, 0, 100, 0, 0, 0}));
    EXPECT_FALSE(show_request({"i", "1"}, error));
    EXPECT_EQ(error, "vxlanctl: show: 'intf' takes no argument, got '1'");
}

TEST(VxlanctlArgumentsTest, ShowRefusesAnAmbiguousTablePrefixNamingTheCandidates)
{
    std::string error;
    EXPECT_FALSE(show_request({"s"}, error));
    EXPECT_EQ(error, "vxlanctl: show: ambiguous table 's'; it could be status or subif");
    EXPECT_FALSE(show_request({}, error));
    EXPECT_EQ(error, "vxlanctl: show: unknown table ''; choose status, entry [VNI], intf, vrf or subif");
}

TEST(VxlanctlArgumentsTest, DebugSetsMaskTraceInterfaceAndBudget)
{
    std::string error;
    auto r = debug_request({"0x3"}, error);
    ASSERT_TRUE(r.has_value()) << error;
    EXPECT_EQ(r->messages[0], (Message{1, 20, 0, 1, 64, 0, 12, 0, 3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    r = debug_request({"65535", "7", "0x100"}, error);
    ASSERT_TRUE(r.has_value()) << error;
    EXPECT_EQ(r->messages[0], (Message{1, 20, 0, 1, 64, 0, 12, 0, 0xFF, 0xFF, 0, 0, 7, 0, 0, 0, 0, 1, 0, 0}));
}

TEST(VxlanctlArgumentsTest, DebugRefusesWrongCountAndOversizedMask)
{
    std::string error;
    EXPECT_FALSE(debug_request({"1", "2"}, error));
    EXPECT_EQ(error, "vxlanctl: debug: give MASK alone or MASK IFX BUDGET, got 2 arguments");
    EXPECT_FALSE(debug_request({"0x10000"}, error));
    EXPECT_EQ(error, "vxlanctl: debug: MASK '0x10000' is not a number in 0..65535 (decimal or 0x hex)");
    EXPECT_FALSE(debug_request({"1", "x", "2"}, error));
    EXPECT_EQ(error, "vxlanctl: debug: IFX 'x' is not a number in 0..4294967295 (decimal or 0x hex)");
}

TEST(VxlanctlArgumentsTest, TechdumpAsksForTheDumpBitWithOperOne)
{
    const Request r = techdump_request();
    EXPECT_EQ(r.messages, (std::vector<Message>{{1, 13, 0, 1, 66, 0, 5, 0, 4, 0, 0, 0, 1}}));
    EXPECT_EQ(r.finish_line, "");  // efhost's done envelope names the file
}

}  // namespace
