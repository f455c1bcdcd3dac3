// The run-time tunnel interfaces of efhost; see runtime_interfaces.h.
#include "runtime_interfaces.h"

#include <charconv>
#include <cstdio>
#include <map>
#include <mutex>
#include <sstream>

#include "efrt.h"
#include "efrt_services.h"
#include "lsm.h"

namespace efhost {

namespace {

constexpr uint32_t kTypeOverlayTunnel = 45;

struct Registry {
    std::mutex lock;
    std::map<uint32_t, std::string> made;  // by index: what create made
};

Registry &registry()
{
    static Registry r;
    return r;
}

bool parse_index(const std::string &text, uint32_t &ifx)
{
    const char *end = text.data() + text.size();
    auto [p, ec] = std::from_chars(text.data(), end, ifx);
    return ec == std::errc() && p == end && ifx != 0;
}

RequestReply create(uint32_t ifx, const std::string &name)
{
    if (name.empty() || name.size() >= LSM_IF_NAME_LEN)
        return refuse("interface name must have 1.." + std::to_string(LSM_IF_NAME_LEN - 1) + " characters");
    Registry &r = registry();
    std::lock_guard<std::mutex> g(r.lock);
    auto it = r.made.find(ifx);
    if (it != r.made.end()) {
        if (it->second == name)
            return {true, "ok tunnel interface " + std::to_string(ifx) + " " + name + " exists", {}};
        return refuse("interface " + std::to_string(ifx) + " exists as " + it->second);
    }
    if (lsm_get_intfcb(ifx) != nullptr)
        return refuse("interface " + std::to_string(ifx) + " belongs to the configuration file");
    efrt::lsm_create(efrt::make_intf(ifx, kTypeOverlayTunnel, LSM_IF_STACK_BRIDGE, name));
    r.made.emplace(ifx, name);
    return {true, "ok created tunnel interface " + std::to_string(ifx) + " " + name, {}};
}

RequestReply remove(uint32_t ifx)
{
    Registry &r = registry();
    std::lock_guard<std::mutex> g(r.lock);
    auto it = r.made.find(ifx);
    if (it == r.made.end()) {
        if (lsm_get_intfcb(ifx) != nullptr)
            return refuse("interface " + std::to_string(ifx) + " belongs to the configuration file");
        return {true, "ok no interface " + std::to_string(ifx), {}};
    }
    efrt::lsm_destroy(ifx);
    r.made.erase(it);
    return {true, "ok removed tunnel interface " + std::to_string(ifx), {}};
}

RequestReply list()
{
    Registry &r = registry();
    std::lock_guard<std::mutex> g(r.lock);
    RequestReply reply{true, "ok " + std::to_string(r.made.size()) + " run-time tunnel interfaces", {}};
    for (const auto &[ifx, name] : r.made)
        reply.lines.push_back(std::to_string(ifx) + " " + name);
    return reply;
}

// lsm's walk passes no context, so the walk's collector is the calling
// thread's own.
thread_local std::vector<std::string> *walk_lines = nullptr;

int note_tunnel(lsm_intfcb_t *intf)
{
    if (intf->type == kTypeOverlayTunnel)
        walk_lines->push_back(std::to_string(intf->ifindex) + " " + intf->name);
    return 0;
}

// Every overlay tunnel interface, the configuration file's and run-time ones.
RequestReply tunnels()
{
    RequestReply reply{true, "", {}};
    walk_lines = &reply.lines;
    lsm_walk_through_ex(&note_tunnel, 0, 0);
    walk_lines = nullptr;
    reply.text = "ok " + std::to_string(reply.lines.size()) + " tunnel interfaces";
    return reply;
}

}  // namespace

RequestReply runtime_interface_request(const std::string &request)
{
    std::istringstream in(request);
    std::string verb, index, name, extra;
    in >> verb >> index >> name >> extra;
    if (!extra.empty())
        return refuse("too many words in '" + request + "'");
    if (verb == "list" && index.empty())
        return list();
    if (verb == "tunnels" && index.empty())
        return tunnels();
    uint32_t ifx = 0;
    if ((verb == "create" || verb == "remove") && !parse_index(index, ifx))
        return refuse("'" + index + "' is not an interface index 1..4294967295");
    if (verb == "create")
        return create(ifx, name);
    if (verb == "remove" && name.empty())
        return remove(ifx);
    return refuse("unknown request '" + request + "'; known: create IFX NAME, remove IFX, list, tunnels");
}

void runtime_interfaces_reset()
{
    Registry &r = registry();
    std::lock_guard<std::mutex> g(r.lock);
    r.made.clear();
}

}  // namespace efhost
