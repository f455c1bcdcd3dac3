// efhost's configuration reader: a complete file read into every field of
// the record, the defaults, and one refusal of each kind with its exact
// message (file, line, field, what was wrong, what is allowed).
#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

#include "config.h"

namespace {

using efhost::Config;
using efhost::IpPrefix;

IpPrefix prefix(const char *addr, uint8_t len)
{
    IpPrefix p;
    p.family = std::string(addr).find(':') == std::string::npos ? AF_INET : AF_INET6;
    EXPECT_EQ(inet_pton(p.family, addr, p.addr.data()), 1) << addr;
    p.len = len;
    return p;
}

void expect_prefix(const IpPrefix &got, const char *addr, uint8_t len)
{
    const IpPrefix want = prefix(addr, len);
    EXPECT_EQ(got.family, want.family) << addr;
    EXPECT_EQ(got.addr, want.addr) << addr;
    EXPECT_EQ(got.len, want.len) << addr;
}

using Mac = std::array<uint8_t, 6>;

constexpr const char *kFullExample = R"(instance: 1
tmpdir: /tmp/efh1
control_socket: /tmp/efh1/ctl.sock
syslog_file: /tmp/efh1/syslog.log
module: /opt/ef/libtq_vxlan_ef.so
capabilities:
  CAP_VXLAN_BASE: true
  CAP_FWDMODE_SOFT: true
  CAP_VXLAN_OUTSIDECENTER: false
  g_feature_spec/dcn/CAP_VXLAN_L2VNIMAPPING: false
  CAP_VXLAN_OR_NO_ICMP: true
mlag: {peerlink: 2}
mac_age_seconds: 120
mac_table_capacity: 1000
packet_workers: 2
interfaces:
  - index: 1
    name: access1
    short_name: ac1
    type: 2
    stack: bridge
    mac: 02:00:00:00:00:0a
    mtu: 1500
    link_up: true
    pvid: 10
    vlans: [10, 20-22]
    attach: {device: veth0}
  - index: 2
    name: uplink
    stack: tcpip
    mac: 02:AA:bb:cc:dd:EE
    mtu: 9000
    link_up: false
    addresses: [192.0.2.1/24, 2001:db8::1/64]
    attach: {pcap_in: in.pcap, pcap_out: out.pcap}
  - index: 300
    name: access1.100
    type: 32
    stack: 0
    parent: 1
    subif_mode: 3
  - {index: 4096, name: tunnel1, type: 45, stack: raw}
routes:
  - {prefix: 0.0.0.0/0, via: 192.0.2.254, interface: 2}
  - {prefix: 198.51.100.0/24, interface: 2}
  - {prefix: "2001:db8:1::/48", via: "2001:db8::fe", interface: 2}
neighbours:
  - {ip: 192.0.2.2, mac: 02:00:00:00:00:09, interface: 2}
  - {ip: "2001:db8::2", mac: 02:00:00:00:00:0b, interface: 2}
)";

TEST(EfhostConfigTest, FullExampleFillsEveryField)
{
    Config c;
    std::string error;
    ASSERT_TRUE(efhost::parse_config(kFullExample, "full.yaml", c, error)) << error;
    EXPECT_EQ(c.instance, 1);
    EXPECT_EQ(c.tmpdir, "/tmp/efh1");
    EXPECT_EQ(c.control_socket, "/tmp/efh1/ctl.sock");
    EXPECT_EQ(c.syslog_file, "/tmp/efh1/syslog.log");
    EXPECT_EQ(c.module_path, "/opt/ef/libtq_vxlan_ef.so");
    const std::vector<std::pair<std::string, bool>> caps = {
        {"g_feature_spec/dcn/CAP_VXLAN_BASE", true},
        {"g_feature_spec/product_platform_spec/CAP_FWDMODE_SOFT", true},
        {"g_feature_spec/dcn/CAP_VXLAN_OUTSIDECENTER", false},
        {"g_feature_spec/dcn/CAP_VXLAN_L2VNIMAPPING", false},
        {"g_feature_spec/dcn/CAP_VXLAN_OR_NO_ICMP", true},
    };
    EXPECT_EQ(c.capabilities, caps);
    EXPECT_EQ(c.mlag_peerlink, 2u);
    EXPECT_EQ(c.mac_age_seconds, 120u);
    EXPECT_EQ(c.mac_table_capacity, 1000u);
    EXPECT_EQ(c.packet_workers, 2u);
    ASSERT_EQ(c.interfaces.size(), 4u);

    const efhost::InterfaceConfig &a = c.interfaces[0];
    EXPECT_EQ(a.index, 1u);
    EXPECT_EQ(a.name, "access1");
    EXPECT_EQ(a.short_name, "ac1");
    EXPECT_EQ(a.type, 2u);
    EXPECT_EQ(a.stack, 5);
    EXPECT_EQ(a.mac, (Mac{0x02, 0, 0, 0, 0, 0x0a}));
    EXPECT_EQ(a.mtu, 1500u);
    EXPECT_TRUE(a.link_up);
    EXPECT_EQ(a.pvid, 10);
    EXPECT_EQ(a.vlans, (std::vector<uint16_t>{10, 20, 21, 22}));
    EXPECT_EQ(a.parent, 0u);
    EXPECT_EQ(a.subif_mode, 0);
    EXPECT_TRUE(a.addresses.empty());
    EXPECT_EQ(a.attach.device, "veth0");
    EXPECT_FALSE(a.attach.is_pcap());

    const efhost::InterfaceConfig &u = c.interfaces[1];
    EXPECT_EQ(u.index, 2u);
    EXPECT_EQ(u.name, "uplink");
    EXPECT_EQ(u.short_name, "uplink");
    EXPECT_EQ(u.type, 2u);
    EXPECT_EQ(u.stack, 6);
    EXPECT_EQ(u.mac, (Mac{0x02, 0xaa, 0xbb, 0xcc, 0xdd, 0xee}));
    EXPECT_EQ(u.mtu, 9000u);
    EXPECT_FALSE(u.link_up);
    EXPECT_EQ(u.pvid, 0);
    EXPECT_TRUE(u.vlans.empty());
    ASSERT_EQ(u.addresses.size(), 2u);
    expect_prefix(u.addresses[0], "192.0.2.1", 24);
    expect_prefix(u.addresses[1], "2001:db8::1", 64);
    EXPECT_EQ(u.attach.device, "");
    EXPECT_EQ(u.attach.pcap_in, "in.pcap");
    EXPECT_EQ(u.attach.pcap_out, "out.pcap");

    const efhost::InterfaceConfig &s = c.interfaces[2];
    EXPECT_EQ(s.index, 300u);
    EXPECT_EQ(s.name, "access1.100");
    EXPECT_EQ(s.type, 32u);
    EXPECT_EQ(s.stack, 0);
    EXPECT_EQ(s.mac, (Mac{0x02, 0, 0, 0, 0x01, 0x2c}));
    EXPECT_EQ(s.parent, 1u);
    EXPECT_EQ(s.subif_mode, 3);
    EXPECT_FALSE(s.attach.present());

    const efhost::InterfaceConfig &t = c.interfaces[3];
    EXPECT_EQ(t.index, 4096u);
    EXPECT_EQ(t.type, 45u);
    EXPECT_EQ(t.stack, 0);
    EXPECT_EQ(t.mac, (Mac{0x02, 0, 0, 0, 0x10, 0x00}));

    ASSERT_EQ(c.routes.size(), 3u);
    expect_prefix(c.routes[0].prefix, "0.0.0.0", 0);
    ASSERT_TRUE(c.routes[0].via.has_value());
    expect_prefix(*c.routes[0].via, "192.0.2.254", 32);
    EXPECT_EQ(c.routes[0].interface, 2u);
    expect_prefix(c.routes[1].prefix, "198.51.100.0", 24);
    EXPECT_FALSE(c.routes[1].via.has_value());
    expect_prefix(c.routes[2].prefix, "2001:db8:1::", 48);
    ASSERT_TRUE(c.routes[2].via.has_value());
    expect_prefix(*c.routes[2].via, "2001:db8::fe", 128);

    ASSERT_EQ(c.neighbours.size(), 2u);
    expect_prefix(c.neighbours[0].ip, "192.0.2.2", 32);
    EXPECT_EQ(c.neighbours[0].mac, (Mac{0x02, 0, 0, 0, 0, 0x09}));
    EXPECT_EQ(c.neighbours[0].interface, 2u);
    expect_prefix(c.neighbours[1].ip, "2001:db8::2", 128);
    EXPECT_EQ(c.neighbours[1].mac, (Mac{0x02, 0, 0, 0, 0, 0x0b}));
}

TEST(EfhostConfigTest, OmittedFieldsTakeTheirDefaults)
{
    Config c;
    std::string error;
    ASSERT_TRUE(efhost::parse_config("control_socket: /tmp/s\ninterfaces:\n  - {index: 258, name: p1}\n",
                                     "min.yaml", c, error))
        << error;
    EXPECT_FALSE(c.instance.has_value());
    EXPECT_EQ(c.tmpdir, "");
    EXPECT_EQ(c.syslog_file, "");
    EXPECT_EQ(c.module_path, "");
    EXPECT_TRUE(c.capabilities.empty());
    EXPECT_EQ(c.mlag_peerlink, 0u);
    EXPECT_EQ(c.mac_age_seconds, 300u);
    EXPECT_EQ(c.mac_table_capacity, 65536u);
    EXPECT_EQ(c.packet_workers, 0u);
    EXPECT_TRUE(c.routes.empty());
    EXPECT_TRUE(c.neighbours.empty());
    ASSERT_EQ(c.interfaces.size(), 1u);
    const efhost::InterfaceConfig &i = c.interfaces[0];
    EXPECT_EQ(i.short_name, "p1");
    EXPECT_EQ(i.type, 2u);
    EXPECT_EQ(i.stack, 5);
    EXPECT_EQ(i.mac, (Mac{0x02, 0, 0, 0, 0x01, 0x02}));
    EXPECT_EQ(i.mtu, 1500u);
    EXPECT_TRUE(i.link_up);
    EXPECT_EQ(i.pvid, 0);
    EXPECT_TRUE(i.vlans.empty());
    EXPECT_EQ(i.parent, 0u);
    EXPECT_EQ(i.subif_mode, 0);
    EXPECT_TRUE(i.addresses.empty());
    EXPECT_FALSE(i.attach.present());
}

// The message for text, which must be refused; the record must stay as it was.
std::string refusal(const std::string &text)
{
    Config c;
    c.control_socket = "untouched";
    c.mac_age_seconds = 7;
    std::string error;
    EXPECT_FALSE(efhost::parse_config(text, "cfg.yaml", c, error));
    EXPECT_EQ(c.control_socket, "untouched");
    EXPECT_EQ(c.mac_age_seconds, 7u);
    EXPECT_TRUE(c.interfaces.empty());
    return error;
}

// A valid head: the socket, then interfaces 1 (line 3) and 2 (line 4).
const std::string kHead = "control_socket: /tmp/s\n"
                          "interfaces:\n"
                          "  - {index: 1, name: a}\n"
                          "  - {index: 2, name: b}\n";

TEST(EfhostConfigTest, RefusesYamlSyntaxErrorAtItsLine)
{
    EXPECT_EQ(refusal("control_socket: /tmp/s\ninterfaces: [1, 2\nroutes: []\n"),
              "cfg.yaml:3: not valid YAML: end of sequence flow not found (column 7)");
}

TEST(EfhostConfigTest, RefusesUnknownTopLevelKey)
{
    EXPECT_EQ(refusal(kHead + "mac_age: 5\n"),
              "cfg.yaml:5: field 'mac_age' is not known (allowed: instance, tmpdir, control_socket, "
              "syslog_file, module, overlay, metrics, capabilities, mlag, mac_age_seconds, mac_table_capacity, packet_workers, "
              "interfaces, routes, neighbours)");
}

TEST(EfhostConfigTest, MetricsAddressIsReadForBothFamilies)
{
    Config c;
    std::string error;
    ASSERT_TRUE(parse_config(kHead + "metrics: 127.0.0.1:9464\n", "cfg.yaml", c, error)) << error;
    EXPECT_EQ(c.metrics_host, "127.0.0.1");
    EXPECT_EQ(c.metrics_port, 9464u);
    ASSERT_TRUE(parse_config(kHead + "metrics: \"[::1]:80\"\n", "cfg.yaml", c, error)) << error;
    EXPECT_EQ(c.metrics_host, "::1");
    EXPECT_EQ(c.metrics_port, 80u);
    Config none;
    ASSERT_TRUE(parse_config(kHead, "cfg.yaml", none, error)) << error;
    EXPECT_EQ(none.metrics_port, 0u);
}

TEST(EfhostConfigTest, RefusesAMetricsAddressWithoutAddressOrPort)
{
    const std::string allowed = " (ADDRESS:PORT with an IPv4 address or a bracketed IPv6 one and a port from 1 to "
                                "65535, e.g. 127.0.0.1:9464 or [::1]:9464)";
    const std::pair<std::string, std::string> cases[] = {
        {"localhost:9464", "'localhost:9464' has no IP address before its port"},
        {"127.0.0.1", "'127.0.0.1' has no port"},
        {"127.0.0.1:0", "'127.0.0.1:0' has no port from 1 to 65535"},
        {"127.0.0.1:65536", "'127.0.0.1:65536' has no port from 1 to 65535"},
        {"::1:80", "'::1:80' has no IP address before its port"},
    };
    for (const auto &[bad, problem] : cases)
        EXPECT_EQ(refusal(kHead + "metrics: \"" + bad + "\"\n"), "cfg.yaml:5: field 'metrics': " + problem + allowed);
}

TEST(EfhostConfigTest, RefusesUnknownKeyInsideAnAttachment)
{
    EXPECT_EQ(refusal("control_socket: /tmp/s\ninterfaces:\n  - index: 1\n    name: a\n"
                      "    attach:\n      device: eth0\n      speed: 10\n"),
              "cfg.yaml:7: field 'interfaces[0].attach.speed' is not known (allowed: device, pcap_in, pcap_out)");
}

TEST(EfhostConfigTest, RefusesKeyGivenTwice)
{
    EXPECT_EQ(refusal(kHead + "mac_age_seconds: 5\nmac_age_seconds: 6\n"),
              "cfg.yaml:6: field 'mac_age_seconds' is given twice (first on line 5)");
}

TEST(EfhostConfigTest, RefusesMissingControlSocket)
{
    EXPECT_EQ(refusal("instance: 1\ninterfaces:\n  - {index: 1, name: a}\n"),
              "cfg.yaml:1: field 'control_socket' is missing (a socket path shorter than 108 bytes)");
}

TEST(EfhostConfigTest, RefusesMissingInterfaces)
{
    EXPECT_EQ(refusal("control_socket: /tmp/s\n"),
              "cfg.yaml:1: field 'interfaces' is missing (a list of at least one interface)");
}

TEST(EfhostConfigTest, RefusesInterfaceWithoutName)
{
    EXPECT_EQ(refusal(kHead + "  - index: 3\n    mtu: 1400\n"),
              "cfg.yaml:5: field 'interfaces[2].name' is missing (a name shorter than 64 bytes)");
}

TEST(EfhostConfigTest, RefusesEmptyInterfaceList)
{
    EXPECT_EQ(refusal("control_socket: /tmp/s\ninterfaces: []\n"),
              "cfg.yaml:2: field 'interfaces': the list is empty (at least one interface)");
}

TEST(EfhostConfigTest, RefusesEmptyFile)
{
    EXPECT_EQ(refusal(""), "cfg.yaml:1: the configuration: no value is given "
                           "(a map with at least control_socket and interfaces)");
}

TEST(EfhostConfigTest, RefusesListWhereMapOfInterfacesExpected)
{
    EXPECT_EQ(refusal("control_socket: /tmp/s\ninterfaces:\n  a: 1\n"),
              "cfg.yaml:3: field 'interfaces': a map is not a list (a list of at least one interface)");
}

TEST(EfhostConfigTest, RefusesTextWhereIntegerExpected)
{
    EXPECT_EQ(refusal("control_socket: /tmp/s\ninterfaces:\n  - {index: 1, name: a, mtu: big}\n"),
              "cfg.yaml:3: field 'interfaces[0].mtu': 'big' is not an integer (an integer from 68 to 65535)");
}

TEST(EfhostConfigTest, RefusesQuotedNumberWhereIntegerExpected)
{
    EXPECT_EQ(refusal(kHead + "mac_age_seconds: \"60\"\n"),
              "cfg.yaml:5: field 'mac_age_seconds': the quoted string '60' is not an integer "
              "(an integer from 1 to 1000000)");
}

TEST(EfhostConfigTest, RefusesNonBooleanLinkState)
{
    EXPECT_EQ(refusal("control_socket: /tmp/s\ninterfaces:\n  - {index: 1, name: a, link_up: up}\n"),
              "cfg.yaml:3: field 'interfaces[0].link_up': 'up' is not true or false (true or false)");
}

TEST(EfhostConfigTest, RefusesFieldWithoutValue)
{
    EXPECT_EQ(refusal(kHead + "tmpdir:\n"), "cfg.yaml:5: field 'tmpdir': no value is given (a directory path)");
}

TEST(EfhostConfigTest, RefusesInstanceOutOfRange)
{
    EXPECT_EQ(refusal("instance: 16\n" + kHead),
              "cfg.yaml:1: field 'instance': '16' is out of range (an integer from 0 to 15)");
}

TEST(EfhostConfigTest, RefusesIndexZero)
{
    EXPECT_EQ(refusal("control_socket: /tmp/s\ninterfaces:\n  - {index: 0, name: a}\n"),
              "cfg.yaml:3: field 'interfaces[0].index': '0' is out of range (an integer from 1 to 4294967295)");
}

TEST(EfhostConfigTest, RefusesIndexBeyondThirtyTwoBits)
{
    EXPECT_EQ(refusal("control_socket: /tmp/s\ninterfaces:\n  - {index: 4294967296, name: a}\n"),
              "cfg.yaml:3: field 'interfaces[0].index': '4294967296' is out of range "
              "(an integer from 1 to 4294967295)");
}

TEST(EfhostConfigTest, RefusesVlanOutOfRange)
{
    EXPECT_EQ(refusal("control_socket: /tmp/s\ninterfaces:\n  - index: 1\n    name: a\n    vlans:\n"
                      "      - 10\n      - 4090-4095\n"),
              "cfg.yaml:7: field 'interfaces[0].vlans[1]': '4090-4095' is out of range "
              "(a VLAN from 1 to 4094, or a range such as 20-22)");
}

TEST(EfhostConfigTest, RefusesDescendingVlanRange)
{
    EXPECT_EQ(refusal("control_socket: /tmp/s\ninterfaces:\n  - {index: 1, name: a, vlans: [22-20]}\n"),
              "cfg.yaml:3: field 'interfaces[0].vlans[0]': '22-20' is not an ascending range "
              "(a VLAN from 1 to 4094, or a range such as 20-22)");
}

TEST(EfhostConfigTest, RefusesVlanListedTwice)
{
    EXPECT_EQ(refusal("control_socket: /tmp/s\ninterfaces:\n  - {index: 1, name: a, vlans: [10-12, 11]}\n"),
              "cfg.yaml:3: field 'interfaces[0].vlans[1]': VLAN 11 is already in the list (each VLAN once)");
}

TEST(EfhostConfigTest, RefusesNameOfSixtyFourBytes)
{
    const std::string name(64, 'n');
    EXPECT_EQ(refusal("control_socket: /tmp/s\ninterfaces:\n  - {index: 1, name: " + name + "}\n"),
              "cfg.yaml:3: field 'interfaces[0].name': '" + name +
                  "' is too long (a name shorter than 64 bytes)");
}

TEST(EfhostConfigTest, RefusesControlSocketPathTooLongForASocketAddress)
{
    const std::string path = "/" + std::string(107, 's');
    EXPECT_EQ(refusal("control_socket: " + path + "\ninterfaces:\n  - {index: 1, name: a}\n"),
              "cfg.yaml:1: field 'control_socket': '" + path +
                  "' is too long (a socket path shorter than 108 bytes)");
}

TEST(EfhostConfigTest, RefusesUnknownStack)
{
    EXPECT_EQ(refusal("control_socket: /tmp/s\ninterfaces:\n  - {index: 1, name: a, stack: 4}\n"),
              "cfg.yaml:3: field 'interfaces[0].stack': '4' is not a protocol stack (raw, bridge, tcpip, or 0, 5, 6)");
}

TEST(EfhostConfigTest, RefusesDuplicateIndex)
{
    EXPECT_EQ(refusal(kHead + "  - {index: 1, name: c}\n"),
              "cfg.yaml:5: field 'interfaces[2].index': '1' is already the index of interfaces[0] "
              "(each interface needs its own index)");
}

TEST(EfhostConfigTest, RefusesDuplicateName)
{
    EXPECT_EQ(refusal(kHead + "  - {index: 3, name: b}\n"),
              "cfg.yaml:5: field 'interfaces[2].name': 'b' is already the name of interfaces[1] "
              "(each interface needs its own name)");
}

TEST(EfhostConfigTest, RefusesBadMac)
{
    EXPECT_EQ(refusal(kHead + "  - index: 3\n    name: c\n    mac: zz\n"),
              "cfg.yaml:7: field 'interfaces[2].mac': 'zz' is not a MAC address "
              "(six hex pairs such as 02:00:00:00:00:01)");
}

TEST(EfhostConfigTest, RefusesAddressWithoutSubnetLength)
{
    EXPECT_EQ(refusal("control_socket: /tmp/s\ninterfaces:\n  - {index: 1, name: a, addresses: [192.0.2.1]}\n"),
              "cfg.yaml:3: field 'interfaces[0].addresses[0]': '192.0.2.1' is not an address with its subnet "
              "length (an IPv4 or IPv6 address with its subnet length, such as 192.0.2.1/24 or 2001:db8::1/64)");
}

TEST(EfhostConfigTest, RefusesPrefixLengthBeyondTheFamily)
{
    EXPECT_EQ(refusal(kHead + "routes:\n  - {prefix: 10.0.0.0/33, interface: 1}\n"),
              "cfg.yaml:6: field 'routes[0].prefix': '10.0.0.0/33' is not a network "
              "(a network such as 192.0.2.0/24 or 2001:db8::/32)");
}

TEST(EfhostConfigTest, RefusesRoutePrefixWithHostBits)
{
    EXPECT_EQ(refusal(kHead + "routes:\n  - {prefix: 192.0.2.1/24, interface: 1}\n"),
              "cfg.yaml:6: field 'routes[0].prefix': '192.0.2.1/24' has bits set beyond its length "
              "(a network such as 192.0.2.0/24)");
}

TEST(EfhostConfigTest, RefusesGatewayWithLength)
{
    EXPECT_EQ(refusal(kHead + "routes:\n  - {prefix: 0.0.0.0/0, via: 192.0.2.254/24, interface: 1}\n"),
              "cfg.yaml:6: field 'routes[0].via': '192.0.2.254/24' is not an IP address "
              "(an IPv4 or IPv6 address without a length, such as 192.0.2.254)");
}

TEST(EfhostConfigTest, RefusesGatewayOfOtherFamily)
{
    EXPECT_EQ(refusal(kHead + "routes:\n  - prefix: 0.0.0.0/0\n    via: 2001:db8::1\n    interface: 1\n"),
              "cfg.yaml:7: field 'routes[0].via': '2001:db8::1' is IPv6 but the prefix is IPv4 "
              "(an IPv4 gateway)");
}

TEST(EfhostConfigTest, RefusesRouteOnUnknownInterface)
{
    EXPECT_EQ(refusal(kHead + "routes:\n  - {prefix: 0.0.0.0/0, interface: 9}\n"),
              "cfg.yaml:6: field 'routes[0].interface': '9' is not the index of an interface in this file "
              "(one of: 1, 2)");
}

TEST(EfhostConfigTest, RefusesNeighbourOnUnknownInterface)
{
    EXPECT_EQ(refusal(kHead + "neighbours:\n  - {ip: 192.0.2.2, mac: 02:00:00:00:00:09, interface: 3}\n"),
              "cfg.yaml:6: field 'neighbours[0].interface': '3' is not the index of an interface in this file "
              "(one of: 1, 2)");
}

TEST(EfhostConfigTest, RefusesNeighbourWithoutMac)
{
    EXPECT_EQ(refusal(kHead + "neighbours:\n  - {ip: 192.0.2.2, interface: 1}\n"),
              "cfg.yaml:6: field 'neighbours[0].mac' is missing (six hex pairs such as 02:00:00:00:00:01)");
}

TEST(EfhostConfigTest, RefusesParentNotAmongInterfaces)
{
    EXPECT_EQ(refusal(kHead + "  - {index: 3, name: c, parent: 7}\n"),
              "cfg.yaml:5: field 'interfaces[2].parent': '7' is not the index of an interface in this file "
              "(0 for none, or one of: 1, 2, 3)");
}

TEST(EfhostConfigTest, RefusesInterfaceThatIsItsOwnParent)
{
    EXPECT_EQ(refusal(kHead + "  - {index: 3, name: c, parent: 3}\n"),
              "cfg.yaml:5: field 'interfaces[2].parent': '3' is the interface itself "
              "(0 for none, or the index of another interface in this file)");
}

TEST(EfhostConfigTest, RefusesPeerLinkNotAmongInterfaces)
{
    EXPECT_EQ(refusal(kHead + "mlag: {peerlink: 5}\n"),
              "cfg.yaml:5: field 'mlag.peerlink': '5' is not the index of an interface in this file "
              "(0 for none, or one of: 1, 2)");
}

TEST(EfhostConfigTest, RefusesAttachmentToBothDeviceAndCaptures)
{
    EXPECT_EQ(refusal("control_socket: /tmp/s\ninterfaces:\n  - index: 1\n    name: a\n"
                      "    attach: {device: eth0, pcap_in: i.pcap, pcap_out: o.pcap}\n"),
              "cfg.yaml:5: field 'interfaces[0].attach': both a device and captures are given "
              "(either device, or pcap_in with pcap_out)");
}

TEST(EfhostConfigTest, RefusesInputCaptureWithoutOutputCapture)
{
    EXPECT_EQ(refusal("control_socket: /tmp/s\ninterfaces:\n  - index: 1\n    name: a\n"
                      "    attach: {pcap_in: i.pcap}\n"),
              "cfg.yaml:5: field 'interfaces[0].attach': pcap_in is given without pcap_out "
              "(either device, or pcap_in with pcap_out)");
}

TEST(EfhostConfigTest, RefusesOutputCaptureWithoutInputCapture)
{
    EXPECT_EQ(refusal("control_socket: /tmp/s\ninterfaces:\n  - index: 1\n    name: a\n"
                      "    attach: {pcap_out: o.pcap}\n"),
              "cfg.yaml:5: field 'interfaces[0].attach': pcap_out is given without pcap_in "
              "(either device, or pcap_in with pcap_out)");
}

TEST(EfhostConfigTest, RefusesUnknownCapability)
{
    EXPECT_EQ(refusal(kHead + "capabilities:\n  CAP_VXLAN_BASE: true\n  CAP_FOO: true\n"),
              "cfg.yaml:7: field 'capabilities.CAP_FOO' is not a known capability (a short name "
              "(CAP_VXLAN_BASE, CAP_FWDMODE_SOFT, CAP_VXLAN_OUTSIDECENTER, CAP_VXLAN_L2VNIMAPPING, "
              "CAP_VXLAN_OR_NO_ICMP) or a full path such as g_feature_spec/dcn/CAP_VXLAN_BASE)");
}

TEST(EfhostConfigTest, RefusesCapabilityByShortNameAndFullPathBoth)
{
    EXPECT_EQ(refusal(kHead + "capabilities:\n  CAP_VXLAN_BASE: true\n"
                              "  g_feature_spec/dcn/CAP_VXLAN_BASE: false\n"),
              "cfg.yaml:7: field 'capabilities.g_feature_spec/dcn/CAP_VXLAN_BASE' is given twice "
              "(first on line 6)");
}

TEST(EfhostConfigTest, AcceptsCapabilityOutsideTheKnownOnesByFullPath)
{
    Config c;
    std::string error;
    ASSERT_TRUE(efhost::parse_config(kHead + "capabilities: {g_feature_spec/dcn/CAP_OTHER: true}\n", "c.yaml",
                                     c, error))
        << error;
    EXPECT_EQ(c.capabilities, (std::vector<std::pair<std::string, bool>>{{"g_feature_spec/dcn/CAP_OTHER", true}}));
}

TEST(EfhostConfigTest, LoadsFromAFile)
{
    char path[] = "/tmp/efhost_config_testXXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    std::ofstream(path) << kFullExample;
    Config c;
    std::string error;
    const bool ok = efhost::load_config(path, c, error);
    std::remove(path);
    ASSERT_TRUE(ok) << error;
    EXPECT_EQ(c.interfaces.size(), 4u);
    EXPECT_EQ(c.control_socket, "/tmp/efh1/ctl.sock");
}

TEST(EfhostConfigTest, ErrorsFromAFileNameTheFile)
{
    char path[] = "/tmp/efhost_config_testXXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    std::ofstream(path) << "control_socket: /tmp/s\ninterfaces: 3\n";
    Config c;
    std::string error;
    EXPECT_FALSE(efhost::load_config(path, c, error));
    std::remove(path);
    EXPECT_EQ(error, std::string(path) + ":2: field 'interfaces': '3' is not a list (a list of at least one interface)");
}

TEST(EfhostConfigTest, RefusesMissingFile)
{
    Config c;
    c.control_socket = "untouched";
    std::string error;
    EXPECT_FALSE(efhost::load_config("/nonexistent/efhost.yaml", c, error));
    EXPECT_EQ(error, "/nonexistent/efhost.yaml: cannot read: No such file or directory");
    EXPECT_EQ(c.control_socket, "untouched");
}

TEST(EfhostConfigTest, RefusesDirectoryAsFile)
{
    Config c;
    std::string error;
    EXPECT_FALSE(efhost::load_config("/tmp", c, error));
    EXPECT_EQ(error, "/tmp: cannot read: Is a directory");
}

}  // namespace

TEST(EfhostConfigTest, RefusesMacTableCapacityAndPacketWorkersOutOfRange)
{
    EXPECT_EQ(refusal(kHead + "mac_table_capacity: 0\n"),
              "cfg.yaml:5: field 'mac_table_capacity': '0' is out of range (an integer from 1 to 16777216)");
    EXPECT_EQ(refusal(kHead + "packet_workers: 17\n"),
              "cfg.yaml:5: field 'packet_workers': '17' is out of range (an integer from 1 to 16)");
}
