// Reading the module's VLAN owners and efhost's tunnel interfaces; see
// module_state.h.
#include "module_state.h"

#include <sstream>

#include "interface_request.h"
#include "request.h"
#include "session.h"

namespace vxlanctl {

namespace {

constexpr std::string_view kShowPrefix = "VXLAN-EF-SHOW: [vsd ";
constexpr std::string_view kEntryHead = "VXLAN ";
constexpr std::string_view kVlanLabel = "  Extend Vlan            : ";

std::string_view without_show_prefix(std::string_view line)
{
    if (line.substr(0, kShowPrefix.size()) != kShowPrefix)
        return line;
    const size_t end = line.find("] ");
    return end == std::string_view::npos ? line : line.substr(end + 2);
}

std::optional<uint32_t> number_at(std::string_view text)
{
    uint32_t value = 0;
    size_t digits = 0;
    for (; digits < text.size() && text[digits] >= '0' && text[digits] <= '9'; ++digits)
        value = value * 10 + static_cast<uint32_t>(text[digits] - '0');
    return digits == 0 ? std::nullopt : std::optional<uint32_t>(value);
}

// "10,20-22" into owners; "NA" and anything unreadable add nothing.
void add_ranges(std::string_view items, uint32_t vni, VlanOwners &owners)
{
    while (!items.empty()) {
        const size_t comma = items.find(',');
        const std::string_view item = items.substr(0, comma);
        const size_t dash = item.find('-');
        const auto first = number_at(item);
        const auto last = dash == std::string_view::npos ? first : number_at(item.substr(dash + 1));
        if (first && last)
            for (uint32_t vid = *first; vid <= *last && vid <= 4095; ++vid)
                owners[static_cast<uint16_t>(vid)] = vni;
        if (comma == std::string_view::npos)
            break;
        items.remove_prefix(comma + 1);
    }
}

}  // namespace

VlanOwners vlan_owners_from_show(const std::string &text)
{
    VlanOwners owners;
    std::optional<uint32_t> vni;
    std::istringstream in(text);
    for (std::string raw; std::getline(in, raw);) {
        const std::string_view line = without_show_prefix(raw);
        if (line.substr(0, kEntryHead.size()) == kEntryHead)
            vni = number_at(line.substr(kEntryHead.size()));
        else if (vni && line.substr(0, kVlanLabel.size()) == kVlanLabel)
            add_ranges(line.substr(kVlanLabel.size()), *vni, owners);
    }
    return owners;
}

std::optional<VlanOwners> read_vlan_owners(const std::string &socket_path, double timeout_s, std::ostream &err,
                                           int &code)
{
    std::string unused;
    const auto request = show_request({"entry"}, unused);
    std::ostringstream lines;
    code = connect_and_run(socket_path, *request, timeout_s, lines, err);
    if (code != kExitOk)
        return std::nullopt;
    return vlan_owners_from_show(lines.str());
}

std::optional<TunnelInterfaces> read_tunnel_interfaces(const std::string &socket_path, double timeout_s,
                                                       std::ostream &err, int &code)
{
    const InterfaceAnswer answer = interface_request(socket_path, "tunnels", timeout_s);
    code = answer.code;
    if (!answer.ok) {
        err << "vxlanctl: " << (answer.error.empty() ? "efhost: " + answer.status : answer.error) << '\n';
        return std::nullopt;
    }
    TunnelInterfaces tunnels;
    for (const std::string &line : answer.lines) {
        const size_t blank = line.find(' ');
        if (const auto ifx = number_at(line); ifx && blank != std::string::npos)
            tunnels[*ifx] = line.substr(blank + 1);
    }
    return tunnels;
}

}  // namespace vxlanctl
