// The apply file: the TLV sequence of a full resynchronisation from a
// complete example, and the located message of each kind of bad input, for
// which nothing is produced.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <fstream>

#include "apply_config.h"
#include "request.h"

namespace {

using namespace vxlanctl;
using Bytes = std::vector<uint8_t>;

const char *kExample = R"(udp_port: 4789
switches:
  suppress_arp: false
  suppress_nd: false
  copy_dscp: false
  remote_arp_learn: true
  remote_nd_learn: true
anycast_mac: 00:00:5e:00:01:01
vnis:
  - vni: 1000
    vlans: [10, 20-22]
    router: {interface: 300, vrf: 1, anycast: true}
    map_vni: 2000
    arp_suppress: false
    nd_suppress: false
    protected: false
  - vni: 2000
tunnels:
  - interface: 100
    source: 10.0.0.1
    destination: 10.0.0.2
    vnis: [1000]
    outside_center: false
    mac_learn: true
    route_learn: false
vrfs:
  - {id: 1, l3vni: 5000, l3_interface: 301}
subinterfaces:
  - {interface: 201, parent: 1, vni: 1000, svid: 30, cvid: 0}
)";

// Values written at explicit offsets, independently of the catalogue.
template <typename T>
void put(Bytes &v, size_t at, T x)
{
    std::memcpy(v.data() + at, &x, sizeof x);
}

Tlv value_tlv(uint16_t type, size_t len, std::initializer_list<std::pair<size_t, uint32_t>> u32s,
              std::initializer_list<std::pair<size_t, uint8_t>> u8s)
{
    Bytes v(len, 0);
    for (auto [at, x] : u32s)
        put(v, at, x);
    for (auto [at, x] : u8s)
        v[at] = x;
    return Tlv{type, v};
}

Tlv vlan_tlv(uint32_t vni, std::initializer_list<uint16_t> vids)
{
    Bytes v(528, 0);
    put(v, 0, vni);
    v[6] = 1;
    for (uint16_t vid : vids)
        v[16 + vid / 8] |= static_cast<uint8_t>(1u << (vid % 8));
    return Tlv{9, v};
}

Tlv vtep_tlv(uint32_t ifx, std::array<uint8_t, 4> sip, std::array<uint8_t, 4> dip)
{
    Bytes v(69, 0);
    put(v, 4, ifx);
    put(v, 8, uint32_t{2});
    std::memcpy(&v[12], sip.data(), 4);
    put(v, 28, uint32_t{2});
    std::memcpy(&v[32], dip.data(), 4);
    v[68] = 1;
    return Tlv{14, v};
}

Tlv subif_tlv(uint32_t ifx, uint32_t parent, uint32_t vni, uint16_t svid, uint16_t cvid)
{
    Bytes v(18, 0);
    put(v, 0, ifx);
    put(v, 4, parent);
    put(v, 8, vni);
    put(v, 12, svid);
    put(v, 14, cvid);
    v[17] = 1;
    return Tlv{90, v};
}

std::vector<Tlv> tlvs_of(const std::string &text)
{
    std::string error;
    const auto config = read_apply_text(text, "t.yaml", error);
    EXPECT_TRUE(config.has_value()) << error;
    return config ? apply_tlvs(*config) : std::vector<Tlv>{};
}

std::string error_of(const std::string &text)
{
    std::string error;
    const auto config = read_apply_text(text, "t.yaml", error);
    EXPECT_FALSE(config.has_value());
    return error;
}

TEST(VxlanctlApplyTest, ExampleBecomesTheFullResyncSequence)
{
    const std::vector<Tlv> expected = {
        Tlv{1, {}},
        Tlv{12, {0xB5, 0x12}},
        Tlv{28, {0}},
        Tlv{87, {0}},
        Tlv{29, {0}},
        Tlv{67, {1}},
        Tlv{86, {1}},
        Tlv{18, {0x00, 0x00, 0x5e, 0x00, 0x01, 0x01, 0x01}},
        value_tlv(8, 5, {{0, 1000}}, {{4, 1}}),
        vlan_tlv(1000, {10, 20, 21, 22}),
        value_tlv(13, 22, {{0, 1000}, {4, 300}, {8, 1}}, {{20, 1}, {21, 1}}),
        value_tlv(79, 5, {{0, 1000}}, {{4, 0}}),
        value_tlv(88, 5, {{0, 1000}}, {{4, 0}}),
        value_tlv(42, 5, {{0, 1000}}, {{4, 0}}),
        value_tlv(8, 5, {{0, 2000}}, {{4, 1}}),
        value_tlv(77, 9, {{0, 1000}, {4, 2000}}, {{8, 1}}),  // once VNI 2000 exists
        vtep_tlv(100, {10, 0, 0, 1}, {10, 0, 0, 2}),
        value_tlv(15, 17, {{0, 1000}, {4, 100}}, {{16, 1}}),
        value_tlv(37, 5, {{0, 100}}, {{4, 0}}),
        value_tlv(80, 25, {{0, 100}}, {{24, 1}}),
        value_tlv(81, 25, {{0, 100}}, {{24, 0}}),
        value_tlv(78, 13, {{0, 1}, {4, 5000}, {8, 301}}, {{12, 1}}),
        subif_tlv(201, 1, 1000, 30, 0),
        Tlv{2, {}},
    };
    const std::vector<Tlv> got = tlvs_of(kExample);
    ASSERT_EQ(got.size(), expected.size());
    for (size_t i = 0; i < got.size(); ++i)
        EXPECT_EQ(got[i], expected[i]) << "TLV " << i << " of type " << got[i].type;
}

TEST(VxlanctlApplyTest, MapToAnEarlierVniIsSentInItsOwnBlock)
{
    const auto got = tlvs_of("vnis:\n  - vni: 7\n  - vni: 8\n    map_vni: 7\n    protected: true\n");
    const std::vector<Tlv> expected = {
        Tlv{1, {}},
        value_tlv(8, 5, {{0, 7}}, {{4, 1}}),
        value_tlv(8, 5, {{0, 8}}, {{4, 1}}),
        value_tlv(77, 9, {{0, 8}, {4, 7}}, {{8, 1}}),
        value_tlv(42, 5, {{0, 8}}, {{4, 1}}),
        Tlv{2, {}},
    };
    EXPECT_EQ(got, expected);
}

TEST(VxlanctlApplyTest, EmptyFileResynchronisesToNothing)
{
    EXPECT_EQ(tlvs_of(""), (std::vector<Tlv>{Tlv{1, {}}, Tlv{2, {}}}));
    EXPECT_EQ(tlvs_of("vnis:\ntunnels: []\n"), (std::vector<Tlv>{Tlv{1, {}}, Tlv{2, {}}}));
}

TEST(VxlanctlApplyTest, IPv6TunnelCarriesFamilyTenAndSixteenBytes)
{
    const auto got = tlvs_of("tunnels:\n  - {interface: 9, source: 'fd00::1', destination: 'fd00::2'}\n");
    ASSERT_EQ(got.size(), 3u);
    Bytes v(69, 0);
    put(v, 4, uint32_t{9});
    put(v, 8, uint32_t{10});
    v[12] = 0xfd;
    v[27] = 1;
    put(v, 28, uint32_t{10});
    v[32] = 0xfd;
    v[47] = 2;
    v[68] = 1;
    EXPECT_EQ(got[1], (Tlv{14, v}));
}

TEST(VxlanctlApplyTest, UnknownKeyIsNamedWithWhatIsAllowed)
{
    EXPECT_EQ(error_of("vnis:\n  - vni: 1000\n    vlan: [10]\n"),
              "t.yaml:3: field 'vnis[0].vlan': unknown key; allowed here: vni, vlans, router, map_vni, "
              "arp_suppress, nd_suppress, protected");
    EXPECT_EQ(error_of("udp_port: 1\nvni: 3\n"),
              "t.yaml:2: field 'vni': unknown key; allowed here: udp_port, switches, anycast_mac, vnis, tunnels, "
              "vrfs, subinterfaces");
}

TEST(VxlanctlApplyTest, WrongTypesAreRefused)
{
    EXPECT_EQ(error_of("udp_port: [1]\n"), "t.yaml:1: field 'udp_port': expected an integer, found a list");
    EXPECT_EQ(error_of("udp_port: abc\n"), "t.yaml:1: field 'udp_port': expected an integer, found 'abc'");
    EXPECT_EQ(error_of("switches:\n  copy_dscp: 1\n"),
              "t.yaml:2: field 'switches.copy_dscp': expected true or false, found '1'");
    EXPECT_EQ(error_of("vnis: 5\n"), "t.yaml:1: field 'vnis': expected a list, found '5'");
    EXPECT_EQ(error_of("vnis:\n  - vni: 5\n    router: 300\n"),
              "t.yaml:3: field 'vnis[0].router': expected a mapping with keys interface, vrf, anycast, found '300'");
    EXPECT_EQ(error_of("- 1\n"),
              "t.yaml:1: expected a mapping with keys udp_port, switches, anycast_mac, vnis, tunnels, vrfs, "
              "subinterfaces, found a list");
}

TEST(VxlanctlApplyTest, VniOutsideItsRangeIsRefused)
{
    EXPECT_EQ(error_of("vnis:\n  - vni: 16777216\n"),
              "t.yaml:2: field 'vnis[0].vni': VNI 16777216 is outside 1..16777215");
    EXPECT_EQ(error_of("vnis:\n  - vni: 0\n"), "t.yaml:2: field 'vnis[0].vni': VNI 0 is outside 1..16777215");
}

TEST(VxlanctlApplyTest, VlanOutsideItsRangeOrTakenTwiceIsRefused)
{
    EXPECT_EQ(error_of("vnis:\n  - vni: 5\n    vlans: [10, 4095]\n"),
              "t.yaml:3: field 'vnis[0].vlans[1]': VLAN 4095 is outside 1..4094");
    EXPECT_EQ(error_of("vnis:\n  - vni: 5\n    vlans: [0]\n"),
              "t.yaml:3: field 'vnis[0].vlans[0]': VLAN 0 is outside 1..4094");
    EXPECT_EQ(error_of("vnis:\n  - vni: 5\n    vlans: [22-20]\n"),
              "t.yaml:3: field 'vnis[0].vlans[0]': VLAN range 22-20 runs backwards");
    EXPECT_EQ(error_of("vnis:\n  - vni: 5\n    vlans: [10-12]\n  - vni: 6\n    vlans:\n      - 12\n"),
              "t.yaml:6: field 'vnis[1].vlans[0]': VLAN 12 is already extended into VNI 5 at line 3");
}

TEST(VxlanctlApplyTest, BadAddressesAndMacsAreRefused)
{
    EXPECT_EQ(error_of("tunnels:\n  - interface: 1\n    source: 10.0.0.256\n    destination: 10.0.0.2\n"),
              "t.yaml:3: field 'tunnels[0].source': '10.0.0.256' is not an IPv4 or IPv6 address");
    EXPECT_EQ(error_of("tunnels:\n  - interface: 1\n    source: 10.0.0.1\n    destination: 'fd00::2'\n"),
              "t.yaml:4: field 'tunnels[0].destination': IPv6 address but the source is IPv4; both must be of "
              "the same family");
    EXPECT_EQ(error_of("anycast_mac: 00:00:5e:00:01\n"),
              "t.yaml:1: field 'anycast_mac': '00:00:5e:00:01' is not a MAC address such as 00:00:5e:00:01:01");
}

TEST(VxlanctlApplyTest, DuplicatesPointAtTheFirstDefinition)
{
    EXPECT_EQ(error_of("vnis:\n  - vni: 1000\n  - vni: 1000\n"),
              "t.yaml:3: field 'vnis[1].vni': VNI 1000 is already defined at line 2");
    EXPECT_EQ(error_of("tunnels:\n  - {interface: 7, source: 1.1.1.1, destination: 2.2.2.2}\n"
                       "  - {interface: 7, source: 1.1.1.1, destination: 3.3.3.3}\n"),
              "t.yaml:3: field 'tunnels[1].interface': tunnel interface 7 is already defined at line 2");
    EXPECT_EQ(error_of("vrfs:\n  - {id: -3, l3vni: 5, l3_interface: 1}\n  - {id: -3, l3vni: 6, l3_interface: 2}\n"),
              "t.yaml:3: field 'vrfs[1].id': VRF -3 is already defined at line 2");
    EXPECT_EQ(error_of("udp_port: 1\nudp_port: 2\n"), "t.yaml:2: field 'udp_port': given twice (first at line 1)");
}

TEST(VxlanctlApplyTest, ReferencesToVnisNotInTheFileAreRefused)
{
    EXPECT_EQ(error_of("vnis:\n  - vni: 1000\ntunnels:\n  - interface: 1\n    source: 1.1.1.1\n"
                       "    destination: 2.2.2.2\n    vnis: [1000, 3000]\n"),
              "t.yaml:7: field 'tunnels[0].vnis[1]': VNI 3000 is not defined under vnis");
    EXPECT_EQ(error_of("vnis:\n  - vni: 1000\n    map_vni: 2000\n"),
              "t.yaml:3: field 'vnis[0].map_vni': VNI 2000 is not defined under vnis");
    EXPECT_EQ(error_of("vnis:\n  - vni: 1000\n    map_vni: 1000\n"),
              "t.yaml:3: field 'vnis[0].map_vni': VNI 1000 cannot be mapped to itself");
    EXPECT_EQ(error_of("subinterfaces:\n  - {interface: 201, parent: 1, vni: 1000, svid: 30}\n"),
              "t.yaml:2: field 'subinterfaces[0].vni': VNI 1000 is not defined under vnis");
}

TEST(VxlanctlApplyTest, SubInterfaceKeysAreCheckedAndUsedOnce)
{
    const std::string vni = "vnis:\n  - vni: 1000\n";
    EXPECT_EQ(error_of(vni + "subinterfaces:\n  - {interface: 201, parent: 1, vni: 1000, svid: 0}\n"),
              "t.yaml:4: field 'subinterfaces[0].svid': VLAN 0 is outside 1..4094");
    EXPECT_EQ(error_of(vni + "subinterfaces:\n  - {interface: 201, parent: 1, vni: 1000, svid: 30}\n"
                             "  - {interface: 202, parent: 1, vni: 1000, svid: 30, cvid: 0}\n"),
              "t.yaml:5: field 'subinterfaces[1].svid': parent 1 with svid 30 and cvid 0 is already used by "
              "sub-interface 201 at line 4");
}

TEST(VxlanctlApplyTest, MissingRequiredKeyIsNamed)
{
    EXPECT_EQ(error_of("tunnels:\n  - interface: 100\n    source: 10.0.0.1\n"),
              "t.yaml:2: field 'tunnels[0].destination': missing; it is required");
    EXPECT_EQ(error_of("vnis:\n  - vlans: [10]\n"), "t.yaml:2: field 'vnis[0].vni': missing; it is required");
}

TEST(VxlanctlApplyTest, YamlSyntaxErrorGivesItsLine)
{
    EXPECT_EQ(error_of("udp_port: 1\nvnis: [1000\n"), "t.yaml:3: not valid YAML: end of sequence flow not found");
}

class VxlanctlApplyFileTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        char dir[] = "/tmp/vxlanctl_apply_XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        dir_ = dir;
    }
    void TearDown() override
    {
        std::remove((dir_ + "/conf.yaml").c_str());
        rmdir(dir_.c_str());
    }
    std::string write(const std::string &text)
    {
        const std::string path = dir_ + "/conf.yaml";
        std::ofstream(path) << text;
        return path;
    }
    std::string dir_;
};

TEST_F(VxlanctlApplyFileTest, BadFileYieldsNoRequest)
{
    const std::string path = write("vnis:\n  - vni: 0\n");
    std::string error;
    EXPECT_FALSE(apply_request(path, error).has_value());
    EXPECT_EQ(error, path + ":2: field 'vnis[0].vni': VNI 0 is outside 1..16777215");
}

TEST_F(VxlanctlApplyFileTest, MissingFileIsNamed)
{
    std::string error;
    EXPECT_FALSE(apply_request(dir_ + "/absent.yaml", error).has_value());
    EXPECT_EQ(error, "vxlanctl: cannot read " + dir_ + "/absent.yaml: No such file or directory");
}

// A directory must not read as an empty file: that would be a resynchronisation
// to nothing, removing the whole configuration.
TEST_F(VxlanctlApplyFileTest, DirectoryIsRefusedNotReadAsAnEmptyConfiguration)
{
    std::string error;
    EXPECT_FALSE(apply_request(dir_, error).has_value());
    EXPECT_EQ(error, "vxlanctl: cannot read " + dir_ + ": Is a directory");
}

TEST_F(VxlanctlApplyFileTest, GoodFileBecomesOneMessageWaitingForDataReady)
{
    std::string error;
    const auto request = apply_request(write(kExample), error);
    ASSERT_TRUE(request.has_value()) << error;
    EXPECT_EQ(request->tlv_count, 24u);
    ASSERT_EQ(request->messages.size(), 1u);
    EXPECT_EQ(request->messages[0][3], 24);
    EXPECT_TRUE(request->until_data_ready);
}

}  // namespace
