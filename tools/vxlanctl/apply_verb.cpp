// The apply verb; see apply_verb.h.
#include "apply_verb.h"

#include "interface_request.h"
#include "module_state.h"
#include "session.h"
#include "yaml_fields.h"

namespace vxlanctl {

namespace {

std::string listed(const TunnelInterfaces &tunnels)
{
    std::string out;
    for (const auto &[ifx, name] : tunnels)
        out += (out.empty() ? "" : ", ") + std::to_string(ifx);
    return out.empty() ? "none" : out;
}

}  // namespace

std::optional<Request> resync_request(const ApplyConfig &config, const VlanOwners &owners, std::string &error)
{
    const std::vector<Tlv> tlvs = apply_tlvs(config, owners);
    auto messages = pack_messages(tlvs, error);
    if (!messages) {
        error = "vxlanctl: " + error;
        return std::nullopt;
    }
    Request request;
    request.messages = std::move(*messages);
    request.tlv_count = tlvs.size();
    request.until_data_ready = true;
    request.report_sent = true;
    request.finish_line = "vxlanctl: data ready";
    return request;
}

std::string missing_tunnel_interface(const ApplyConfig &config, const TunnelInterfaces &tunnels,
                                     const std::string &file)
{
    for (size_t i = 0; i < config.tunnels.size(); ++i) {
        const TunnelConf &t = config.tunnels[i];
        if (tunnels.contains(t.interface))
            continue;
        return file + ":" + std::to_string(t.line) + ": field '" + key_path(item_path("tunnels", i), "interface") +
               "': efhost has no tunnel interface " + std::to_string(t.interface) + " (its tunnel interfaces: " +
               listed(tunnels) + "; type 45 in its configuration, or made by 'vxlanctl tunnel-intf create')";
    }
    return "";
}

std::string follower_warning(const TunnelInterfaces &tunnels)
{
    for (const auto &[ifx, name] : tunnels)
        if (name.rfind(kFollowerTunnelPrefix, 0) == 0)
            return "vxlanctl: warning: efhost has the EVPN follower's tunnel interfaces (" + name +
                   "); this apply replaces the follower's configuration until the follower's next change";
    return "";
}

int run_apply_verb(const std::string &socket_path, const std::string &file, double timeout_s, std::ostream &out,
                   std::ostream &err)
{
    std::string error;
    const auto config = read_apply_file(file, error);
    if (!config) {
        err << error << '\n';
        return kExitUsage;
    }
    int code = kExitOk;
    const auto tunnels = read_tunnel_interfaces(socket_path, timeout_s, err, code);
    if (!tunnels)
        return code;
    if (const std::string missing = missing_tunnel_interface(*config, *tunnels, file); !missing.empty()) {
        err << missing << '\n';
        return kExitUsage;
    }
    if (const std::string warning = follower_warning(*tunnels); !warning.empty())
        err << warning << '\n';
    const auto owners = read_vlan_owners(socket_path, timeout_s, err, code);
    if (!owners)
        return code;
    const auto request = resync_request(*config, *owners, error);
    if (!request) {
        err << error << '\n';
        return kExitUsage;
    }
    return connect_and_run(socket_path, *request, timeout_s, out, err);
}

}  // namespace vxlanctl
