// efhost's configuration as read from its YAML file: the instance, the
// files and socket it uses, the capabilities, the MLAG peer-link, the
// interfaces with their attachments, and the underlay's routes and static
// neighbours.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace efhost {

// An IPv4 or IPv6 address with a prefix length (32/128 for a host).
struct IpPrefix {
    int family = 0;                  // AF_INET or AF_INET6
    std::array<uint8_t, 16> addr{};  // network order, IPv4 in the first 4
    uint8_t len = 0;
};

// What a port is attached to: a Linux network device or a pair of captures.
struct Attachment {
    std::string device;    // AF_PACKET
    std::string pcap_in;   // pcap mode: frames received on the port
    std::string pcap_out;  // pcap mode: frames sent on the port
    bool is_pcap() const { return !pcap_in.empty(); }
    bool present() const { return !device.empty() || is_pcap(); }
};

struct InterfaceConfig {
    uint32_t index = 0;
    std::string name;
    std::string short_name;          // defaults to name
    uint32_t type = 2;
    uint8_t stack = 5;
    std::array<uint8_t, 6> mac{};
    uint32_t mtu = 1500;
    bool link_up = true;
    uint16_t pvid = 0;
    std::vector<uint16_t> vlans;     // VLAN membership in the bridge
    uint32_t parent = 0;             // sub-interface: its main port
    uint8_t subif_mode = 0;          // sub-interface mode byte of the control block
    std::vector<IpPrefix> addresses; // the port's own (VTEP) addresses
    Attachment attach;
};

struct RouteConfig {
    IpPrefix prefix;
    std::optional<IpPrefix> via;     // gateway; none for a connected route
    uint32_t interface = 0;
};

struct NeighbourConfig {
    IpPrefix ip;                     // host address
    std::array<uint8_t, 6> mac{};
    uint32_t interface = 0;
};

struct Config {
    std::optional<int> instance;     // exported as VSDID; unset leaves VSDID unset
    std::string tmpdir;              // exported as TMPDIR
    std::string control_socket;
    std::string syslog_file;
    // An apply file applied once forwarding starts and on SIGHUP; a relative
    // path is taken from the configuration file's directory. Empty: none.
    std::string overlay;
    // Capabilities by their full path, e.g. g_feature_spec/dcn/CAP_VXLAN_BASE.
    std::vector<std::pair<std::string, bool>> capabilities;
    uint32_t mlag_peerlink = 0;      // 0: no MLAG system record is published
    uint32_t mac_age_seconds = 300;
    uint32_t mac_table_capacity = 65536;  // learned MACs beyond it are refused
    uint32_t packet_workers = 0;     // receive threads per port; 0: from the CPUs
    std::string module_path;         // libtq_vxlan_ef.so; empty: next to efhost
    // The metrics endpoint's address (an IPv4 or IPv6 address) and TCP port;
    // port 0: no endpoint.
    std::string metrics_host;
    uint16_t metrics_port = 0;
    std::vector<InterfaceConfig> interfaces;
    std::vector<RouteConfig> routes;
    std::vector<NeighbourConfig> neighbours;
};

// Reads and checks a configuration file. On error returns false and sets
// error to a message naming the file, the line and the field.
bool load_config(const std::string &path, Config &out, std::string &error);
// The same from text (name is used in messages).
bool parse_config(const std::string &text, const std::string &name, Config &out, std::string &error);

}  // namespace efhost
