// Neighbour suppression requests; see neighbour_request.h. Each request form
// is a row of one table: its leading words, how many words follow and the
// function that answers it. Every word is checked before the table changes,
// so a refused request changes nothing.
#include "neighbour_request.h"

#include <arpa/inet.h>

#include <array>
#include <string_view>
#include <vector>

#include "efrt.h"
#include "neighbour_wire.h"
#include "request_words.h"
#include "suppress.h"

namespace efhost {

namespace {

using Words = std::vector<std::string>;

// ---- words (the shared ones are in request_words.h) ----

std::optional<uint32_t> vni_word(const std::string &text, std::string &error)
{
    const std::optional<uint32_t> vni = parse_vni(text);
    if (!vni)
        error = not_a_vni(text);
    return vni;
}

bool ip_is_host(const efrt::NeighbourIp &ip)
{
    if (ip.v6)
        return !efrt::nwire::ipv6_all_zero(ip.bytes) && !efrt::nwire::ipv6_multicast(ip.bytes);
    return efrt::nwire::ipv4_host({ip.bytes[0], ip.bytes[1], ip.bytes[2], ip.bytes[3]});
}

std::optional<efrt::NeighbourIp> ip_word(const std::string &text, std::string &error)
{
    efrt::NeighbourIp ip;
    if (inet_pton(AF_INET, text.c_str(), ip.bytes.data()) == 1) {
        ip.v6 = false;
    } else if (inet_pton(AF_INET6, text.c_str(), ip.bytes.data()) == 1) {
        ip.v6 = true;
    } else {
        error = "'" + text + "' is not an IPv4 or IPv6 address";
        return std::nullopt;
    }
    if (!ip_is_host(ip)) {
        error = "'" + text + "' is not a host's address (all-zero, multicast or broadcast)";
        return std::nullopt;
    }
    return ip;
}

// A binding answers ARP and ND with its MAC as the sender: a group address
// there would be answered to every host at once.
std::optional<efrt::MacAddr> host_mac_word(const std::string &text, std::string &error)
{
    const std::optional<Mac> mac = parse_mac(text);
    if (!mac) {
        error = not_a_mac(text);
        return std::nullopt;
    }
    if (!efrt::nwire::host_mac(*mac)) {
        error = "'" + text + "' is not a host's MAC address (a group or all-zero address)";
        return std::nullopt;
    }
    return *mac;
}

std::string ip_text(const efrt::NeighbourIp &ip)
{
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(ip.v6 ? AF_INET6 : AF_INET, ip.bytes.data(), text, sizeof text);
    return text;
}

std::string kind_text(efrt::BindingKind kind) { return kind == efrt::BindingKind::Local ? "local" : "remote"; }

// ---- the forms ----

struct Form {
    std::array<std::string_view, 2> keywords;  // the second may be empty
    size_t min_args;
    size_t max_args;
    std::string_view usage;
    RequestReply (*answer)(const Words &args, std::string_view usage);
};

RequestReply expected(std::string_view usage) { return refuse("expected '" + std::string(usage) + "'"); }

RequestReply list(const Words &args, std::string_view usage)
{
    std::optional<uint32_t> only;
    if (!args.empty()) {
        if (args[0] != "vni")
            return expected(usage);
        std::string error;
        only = vni_word(args[1], error);
        if (!only)
            return refuse(error);
    }
    const uint64_t now = efrt::clock_now_ms();
    RequestReply reply{true, "", {}};
    for (const efrt::SuppressBinding &b : efrt::suppress_bindings()) {
        if (only && b.vni != *only)
            continue;
        const bool local = b.kind == efrt::BindingKind::Local;
        const std::string age = local ? std::to_string((now - b.seen_ms) / 1000) : "-";
        reply.lines.push_back(std::to_string(b.vni) + " " + ip_text(b.ip) + " " + mac_text(b.mac.data()) + " " +
                              kind_text(b.kind) + " " + age);
    }
    reply.text = "ok " + std::to_string(reply.lines.size()) + " bindings";
    return reply;
}

RequestReply remote_add(const Words &args, std::string_view)
{
    std::string error;
    const auto vni = vni_word(args[0], error);
    const auto ip = vni ? ip_word(args[1], error) : std::nullopt;
    const auto mac = ip ? host_mac_word(args[2], error) : std::nullopt;
    if (!mac)
        return refuse(error);
    const std::string binding = std::to_string(*vni) + " " + ip_text(*ip) + " " + mac_text(mac->data());
    const std::optional<efrt::SuppressBinding> before = efrt::suppress_add_remote(*vni, *ip, *mac);
    if (!before)
        return {true, "ok added remote binding " + binding, {}};
    if (before->kind == efrt::BindingKind::Remote && before->mac == *mac)
        return {true, "ok remote binding " + binding + " exists", {}};
    const std::string replaced = kind_text(before->kind) + " " + mac_text(before->mac.data());
    return {true, "ok remote binding " + binding + " replaces " + replaced, {}};
}

RequestReply remote_remove(const Words &args, std::string_view)
{
    std::string error;
    const auto vni = vni_word(args[0], error);
    const auto ip = vni ? ip_word(args[1], error) : std::nullopt;
    if (!ip)
        return refuse(error);
    const std::string binding = std::to_string(*vni) + " " + ip_text(*ip);
    if (efrt::suppress_remove_remote(*vni, *ip))
        return {true, "ok removed remote binding " + binding, {}};
    return {true, "ok no remote binding " + binding, {}};
}

RequestReply local(const Words &args, std::string_view usage)
{
    std::optional<uint64_t> since;
    if (!args.empty()) {
        if (args[0] != "since")
            return expected(usage);
        if (!(since = parse_generation(args[1])))
            return refuse(not_a_generation(args[1]));
    }
    uint64_t generation = 0;
    std::vector<std::string> lines;
    for (const efrt::SuppressBinding &b : efrt::suppress_local_bindings(generation))
        lines.push_back(std::to_string(b.vni) + " " + ip_text(b.ip) + " " + mac_text(b.mac.data()));
    return changes_since(since, generation, std::move(lines), "local bindings");
}

RequestReply set_switch(const Words &args, std::string_view)
{
    std::string error;
    const auto vni = vni_word(args[0], error);
    if (!vni)
        return refuse(error);
    if (args[1] != "arp" && args[1] != "nd")
        return refuse("'" + args[1] + "' is not arp or nd");
    if (args[2] != "on" && args[2] != "off")
        return refuse("'" + args[2] + "' is not on or off");
    const auto proto = args[1] == "arp" ? efrt::SuppressProto::Arp : efrt::SuppressProto::Nd;
    efrt::suppress_set_switch(*vni, proto, args[2] == "on");
    return {true, "ok VNI " + std::to_string(*vni) + " " + args[1] + " suppression " + args[2], {}};
}

std::string on_off(bool on) { return on ? "on" : "off"; }

RequestReply switches(const Words &, std::string_view)
{
    RequestReply reply{true, "", {}};
    for (const efrt::SuppressSwitches &s : efrt::suppress_switches())
        reply.lines.push_back(std::to_string(s.vni) + " arp " + on_off(s.arp) + " nd " + on_off(s.nd));
    reply.text = "ok " + std::to_string(reply.lines.size()) + " VNIs with suppression on";
    return reply;
}

constexpr std::array<Form, 6> kForms{{
    {{"list", ""}, 0, 2, "list [vni V]", list},
    {{"remote", "add"}, 3, 3, "remote add VNI IP MAC", remote_add},
    {{"remote", "remove"}, 2, 2, "remote remove VNI IP", remote_remove},
    {{"local", ""}, 0, 2, "local [since G]", local},
    {{"switch", ""}, 3, 3, "switch VNI arp|nd on|off", set_switch},
    {{"switches", ""}, 0, 0, "switches", switches},
}};

bool starts_with(const Words &words, const Form &form)
{
    const size_t n = form.keywords[1].empty() ? 1 : 2;
    return words.size() >= n && words[0] == form.keywords[0] && (n == 1 || words[1] == form.keywords[1]);
}

std::string known_forms()
{
    std::string text;
    for (const Form &f : kForms)
        text += (text.empty() ? "" : ", ") + std::string(f.usage);
    return text;
}

}  // namespace

RequestReply neighbour_request(const std::string &request)
{
    const Words words = request_words(request);
    for (const Form &form : kForms) {
        if (!starts_with(words, form))
            continue;
        const size_t keywords = form.keywords[1].empty() ? 1 : 2;
        const Words args(words.begin() + static_cast<std::ptrdiff_t>(keywords), words.end());
        // Optional arguments come in pairs (a word and its value).
        if (args.size() < form.min_args || args.size() > form.max_args || (args.size() - form.min_args) % 2 != 0)
            return expected(form.usage);
        return form.answer(args, form.usage);
    }
    return refuse("unknown request '" + request + "'; known: " + known_forms());
}

}  // namespace efhost
