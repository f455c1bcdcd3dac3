// Reading efhost's YAML configuration: the file, its top-level fields and
// capabilities, and the checks across interfaces. The interfaces and the
// underlay are read in config_interface.cpp and config_underlay.cpp.
#include "config.h"
#include "read_file.h"


#include <arpa/inet.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>

#include "config_sections.h"

namespace efhost {

namespace {

using config_detail::ConfigError;
using config_detail::Field;
using config_detail::MapReader;

struct CapabilityName {
    std::string_view short_name;
    std::string_view path;
};
constexpr CapabilityName kCapabilities[] = {
    {"CAP_VXLAN_BASE", "g_feature_spec/dcn/CAP_VXLAN_BASE"},
    {"CAP_FWDMODE_SOFT", "g_feature_spec/product_platform_spec/CAP_FWDMODE_SOFT"},
    {"CAP_VXLAN_OUTSIDECENTER", "g_feature_spec/dcn/CAP_VXLAN_OUTSIDECENTER"},
    {"CAP_VXLAN_L2VNIMAPPING", "g_feature_spec/dcn/CAP_VXLAN_L2VNIMAPPING"},
    {"CAP_VXLAN_OR_NO_ICMP", "g_feature_spec/dcn/CAP_VXLAN_OR_NO_ICMP"},
};
constexpr std::string_view kCapabilityRoot = "g_feature_spec/";

// The full path a capability key names, or "" when it names none.
std::string capability_path(const std::string &key)
{
    for (const CapabilityName &c : kCapabilities)
        if (key == c.short_name || key == c.path)
            return std::string(c.path);
    // Capabilities beyond the known ones may be set by their full path.
    if (key.starts_with(kCapabilityRoot) && key.size() > kCapabilityRoot.size() && !key.ends_with('/'))
        return key;
    return "";
}

std::vector<std::pair<std::string, bool>> read_capabilities(const Field &f)
{
    std::string allowed = "a short name (";
    for (const CapabilityName &c : kCapabilities)
        allowed += std::string(c.short_name) + (&c == std::end(kCapabilities) - 1 ? ")" : ", ");
    allowed += " or a full path such as g_feature_spec/dcn/CAP_VXLAN_BASE";
    if (!f.node.IsMap())
        f.fail_not("a map", "capability names with true or false");
    std::vector<std::pair<std::string, bool>> caps;
    std::map<std::string, int> lines;
    for (auto it = f.node.begin(); it != f.node.end(); ++it) {
        const int key_line = config_detail::line_of(it->first, f.line);
        const std::string key = it->first.IsScalar() ? it->first.Scalar() : "";
        const Field value = f.child(it->second, f.path + "." + key, key_line);
        const std::string path = capability_path(key);
        if (path.empty())
            throw ConfigError(key_line, value.subject() + " is not a known capability (" + allowed + ")");
        if (lines.count(path))
            throw ConfigError(key_line, value.subject() + " is given twice (first on line " +
                                            std::to_string(lines[path]) + ")");
        lines[path] = key_line;
        caps.emplace_back(path, config_detail::read_bool(value));
    }
    return caps;
}

// Indexes and names must each be unique; a parent must be another interface.
std::vector<InterfaceConfig> read_interfaces(const Field &f)
{
    std::vector<config_detail::InterfaceRead> reads;
    for (const Field &item : config_detail::list_items(f, "a list of at least one interface"))
        reads.push_back(config_detail::read_interface(item));
    if (reads.empty())
        f.fail("the list is empty", "at least one interface");
    std::map<uint32_t, size_t> by_index;
    std::map<std::string, size_t> by_name;
    for (size_t i = 0; i < reads.size(); ++i) {
        const auto [at, fresh] = by_index.emplace(reads[i].config.index, i);
        if (!fresh)
            reads[i].index.fail(reads[i].index.found() + " is already the index of interfaces[" +
                                    std::to_string(at->second) + "]",
                                "each interface needs its own index");
        const auto [nat, nfresh] = by_name.emplace(reads[i].config.name, i);
        if (!nfresh)
            reads[i].name.fail(reads[i].name.found() + " is already the name of interfaces[" +
                                   std::to_string(nat->second) + "]",
                               "each interface needs its own name");
    }
    std::set<uint32_t> indexes;
    for (const auto &[index, at] : by_index)
        indexes.insert(index);
    std::vector<InterfaceConfig> out;
    for (config_detail::InterfaceRead &r : reads) {
        if (r.parent && r.config.parent == r.config.index)
            r.parent->fail(r.parent->found() + " is the interface itself",
                           "0 for none, or the index of another interface in this file");
        if (r.parent)
            config_detail::read_interface_ref(*r.parent, indexes, true);
        out.push_back(std::move(r.config));
    }
    return out;
}

uint32_t read_peerlink(const Field &f, const std::set<uint32_t> &indexes)
{
    const MapReader m(f, {"peerlink"}, "a map with peerlink");
    const Field *peerlink = m.find("peerlink");
    return peerlink ? config_detail::read_interface_ref(*peerlink, indexes, true) : 0;
}

// "ADDRESS:PORT" or "[IPV6]:PORT" into host and port.
void read_metrics(const Field &f, Config &c)
{
    const char *allowed = "ADDRESS:PORT with an IPv4 address or a bracketed IPv6 one and a port from 1 to 65535, "
                          "e.g. 127.0.0.1:9464 or [::1]:9464";
    const std::string text = config_detail::read_string(f, 0, allowed);
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos)
        f.fail(f.found() + " has no port", allowed);
    std::string host = text.substr(0, colon);
    const std::string port = text.substr(colon + 1);
    const bool bracketed = host.size() >= 2 && host.front() == '[' && host.back() == ']';
    if (bracketed)
        host = host.substr(1, host.size() - 2);
    unsigned char addr[16];
    const bool v4 = !bracketed && inet_pton(AF_INET, host.c_str(), addr) == 1;
    const bool v6 = bracketed && inet_pton(AF_INET6, host.c_str(), addr) == 1;
    if (!v4 && !v6)
        f.fail(f.found() + " has no IP address before its port", allowed);
    char *end = nullptr;
    const unsigned long n = port.empty() ? 0 : std::strtoul(port.c_str(), &end, 10);
    if (port.empty() || *end != '\0' || n < 1 || n > 65535)
        f.fail(f.found() + " has no port from 1 to 65535", allowed);
    c.metrics_host = host;
    c.metrics_port = static_cast<uint16_t>(n);
}

void read_files(const MapReader &m, Config &c)
{
    const Field &socket = m.require("control_socket", "a socket path shorter than 108 bytes");
    // The socket address holds at most 107 bytes of path and its NUL.
    c.control_socket = config_detail::read_string(socket, 108, "a socket path shorter than 108 bytes");
    if (const Field *f = m.find("tmpdir"))
        c.tmpdir = config_detail::read_string(*f, 0, "a directory path");
    if (const Field *f = m.find("syslog_file"))
        c.syslog_file = config_detail::read_string(*f, 0, "a file path");
    if (const Field *f = m.find("module"))
        c.module_path = config_detail::read_string(*f, 0, "the path of libtq_vxlan_ef.so");
    if (const Field *f = m.find("overlay"))
        c.overlay = config_detail::read_string(*f, 0, "the path of an apply file");
    if (const Field *f = m.find("metrics"))
        read_metrics(*f, c);
}

Config read_config(const Field &root)
{
    const MapReader m(root,
                      {"instance", "tmpdir", "control_socket", "syslog_file", "module", "overlay", "metrics", "capabilities",
                       "mlag", "mac_age_seconds", "mac_table_capacity", "packet_workers", "interfaces",
                       "routes", "neighbours"},
                      "a map with at least control_socket and interfaces");
    Config c;
    if (const Field *f = m.find("instance"))
        c.instance = static_cast<int>(config_detail::read_int(*f, 0, 15, "an integer from 0 to 15"));
    read_files(m, c);
    if (const Field *f = m.find("capabilities"))
        c.capabilities = read_capabilities(*f);
    if (const Field *f = m.find("mac_age_seconds"))
        c.mac_age_seconds =
            static_cast<uint32_t>(config_detail::read_int(*f, 1, 1000000, "an integer from 1 to 1000000"));
    if (const Field *f = m.find("mac_table_capacity"))
        c.mac_table_capacity = static_cast<uint32_t>(
            config_detail::read_int(*f, 1, 16777216, "an integer from 1 to 16777216"));
    if (const Field *f = m.find("packet_workers"))
        c.packet_workers = static_cast<uint32_t>(config_detail::read_int(*f, 1, 16, "an integer from 1 to 16"));
    c.interfaces = read_interfaces(m.require("interfaces", "a list of at least one interface"));
    std::set<uint32_t> indexes;
    for (const InterfaceConfig &ic : c.interfaces)
        indexes.insert(ic.index);
    if (const Field *f = m.find("mlag"))
        c.mlag_peerlink = read_peerlink(*f, indexes);
    if (const Field *f = m.find("routes"))
        c.routes = config_detail::read_routes(*f, indexes);
    if (const Field *f = m.find("neighbours"))
        c.neighbours = config_detail::read_neighbours(*f, indexes);
    return c;
}

}  // namespace

bool parse_config(const std::string &text, const std::string &name, Config &out, std::string &error)
{
    try {
        const YAML::Node root = YAML::Load(text);
        Config c = read_config(Field{root, "", config_detail::line_of(root, 1)});
        out = std::move(c);
        return true;
    } catch (const ConfigError &e) {
        error = name + ":" + std::to_string(e.line()) + ": " + e.what();
    } catch (const YAML::Exception &e) {
        const bool marked = !e.mark.is_null() && e.mark.line >= 0;
        error = name + ":" + std::to_string(marked ? e.mark.line + 1 : 1) + ": not valid YAML: " + e.msg +
                (marked ? " (column " + std::to_string(e.mark.column + 1) + ")" : "");
    }
    return false;
}

bool load_config(const std::string &path, Config &out, std::string &error)
{
    std::string text;
    if (!toolfiles::read_file(path, text)) {
        error = path + ": cannot read: " + std::strerror(errno);
        return false;
    }
    if (!parse_config(text, path, out, error))
        return false;
    if (!out.overlay.empty() && out.overlay.front() != '/')
        out.overlay = (std::filesystem::path(path).parent_path() / out.overlay).string();
    return true;
}

}  // namespace efhost
