// The counters verb; see counters_verb.h.
#include "counters_verb.h"

#include <chrono>
#include <cstdio>
#include <set>
#include <thread>

#include "interface_request.h"
#include "request.h"

namespace vxlanctl {

namespace {

using Json = nlohmann::ordered_json;
using Clock = std::chrono::steady_clock;

// Figures that are levels, not counts: no rate.
const std::set<std::string> kGauges = {"entries", "waiting", "buffers_in_use"};
// Members that name an array's element rather than count anything.
const std::set<std::string> kNames = {"ifindex", "name", "vni"};

// The counters document efhost answers; false with err written on failure.
bool fetch(const std::string &socket_path, double timeout_s, Json &doc, int &code, std::ostream &err)
{
    const InterfaceAnswer a =
        interface_request(socket_path, ctl::kCountersJsonRequest, timeout_s, ctl::kModuleCountersRequest);
    code = a.code;
    if (a.code == kExitConnection || a.code == kExitTimeout) {
        err << "vxlanctl: " << a.error << '\n';
        return false;
    }
    if (!a.ok || a.lines.size() != 1) {
        err << "vxlanctl: " << (a.ok ? "efhost answered no counters document" : a.status) << '\n';
        code = kExitRefused;
        return false;
    }
    doc = Json::parse(a.lines.front(), nullptr, false);
    if (doc.is_discarded() || !doc.is_object()) {
        err << "vxlanctl: efhost's counters document is not JSON\n";
        code = kExitRefused;
        return false;
    }
    return true;
}

std::string rate_text(double per_second)
{
    char text[64];
    std::snprintf(text, sizeof text, "%.1f", per_second);
    return text;
}

// "key R/s, ..." for the counting members of one object.
std::string object_rates(const Json &before, const Json &after, double seconds)
{
    std::string out;
    for (const auto &[key, value] : after.items()) {
        if (!value.is_number_integer() || kGauges.count(key) || kNames.count(key))
            continue;
        // A row new since the last sample counts from zero.
        const uint64_t was = before.contains(key) ? before.at(key).get<uint64_t>() : 0;
        const uint64_t now = value.get<uint64_t>();
        out += (out.empty() ? "" : ", ") + key + " " + rate_text(now >= was ? (now - was) / seconds : 0);
    }
    return out;
}

// The label of an array element: its ifindex and name, or its VNI.
std::string element_label(const std::string &group, const Json &e)
{
    std::string label = group;
    if (e.contains("vni"))
        label += " " + std::to_string(e.at("vni").get<uint64_t>());
    if (e.contains("ifindex"))
        label += " " + std::to_string(e.at("ifindex").get<uint64_t>());
    if (e.contains("name"))
        label += " " + e.at("name").get<std::string>();
    return label;
}

const Json *matching(const Json &list, const Json &e)
{
    for (const Json &candidate : list) {
        bool same = true;
        for (const char *key : {"vni", "ifindex"})
            if (e.contains(key) && (!candidate.contains(key) || candidate.at(key) != e.at(key)))
                same = false;
        if (same)
            return &candidate;
    }
    return nullptr;
}

void array_rates(const std::string &group, const Json &before, const Json &after, double seconds,
                 std::vector<std::string> &lines)
{
    static const Json kEmpty = Json::object();
    for (const Json &e : after) {
        const Json *was = before.is_array() ? matching(before, e) : nullptr;
        lines.push_back(element_label(group, e) + ": " + object_rates(was ? *was : kEmpty, e, seconds));
    }
}

void group_rates(const std::string &group, const Json &before, const Json &after, double seconds,
                 std::vector<std::string> &lines)
{
    static const Json kEmpty = Json::object();
    const std::string text = object_rates(before.is_object() ? before : kEmpty, after, seconds);
    if (!text.empty())
        lines.push_back(group + ": " + text);
}

// The drops line: the total rate, then the reasons that dropped anything.
void drop_rates(const Json &before, const Json &after, double seconds, std::vector<std::string> &lines)
{
    double total = 0;
    std::string reasons;
    for (const auto &[reason, value] : after.items()) {
        const uint64_t was = before.contains(reason) ? before.at(reason).get<uint64_t>() : 0;
        const uint64_t now = value.get<uint64_t>();
        if (now <= was)
            continue;
        total += (now - was) / seconds;
        reasons += ", " + reason + " " + rate_text((now - was) / seconds);
    }
    lines.push_back("module drops: total " + rate_text(total) + reasons);
}

int print_rates(const std::string &socket_path, double timeout_s, const CountersOptions &options, std::ostream &out,
                std::ostream &err)
{
    Json before;
    int code = kExitOk;
    if (!fetch(socket_path, timeout_s, before, code, err))
        return code;
    auto taken = Clock::now();
    for (unsigned n = 0; options.count == 0 || n < options.count; n++) {
        std::this_thread::sleep_until(taken + std::chrono::duration_cast<Clock::duration>(
                                                  std::chrono::duration<double>(options.interval)));
        Json after;
        if (!fetch(socket_path, timeout_s, after, code, err))
            return code;
        const auto now = Clock::now();
        const double seconds = std::chrono::duration<double>(now - taken).count();
        out << "rates per second over " << rate_text(seconds) << " s:\n";
        for (const std::string &line : rate_lines(before, after, seconds))
            out << line << '\n';
        out << std::flush;
        before = std::move(after);
        taken = now;
    }
    return kExitOk;
}

}  // namespace

std::vector<std::string> rate_lines(const Json &before, const Json &after, double seconds)
{
    std::vector<std::string> lines;
    if (seconds <= 0)
        return lines;
    static const Json kEmpty = Json::object();
    auto member = [](const Json &doc, const char *key) -> const Json & {
        return doc.contains(key) ? doc.at(key) : kEmpty;
    };
    for (const auto &[key, value] : after.items()) {
        if (key == "ports")
            array_rates("port", member(before, "ports"), value, seconds, lines);
        else if (key == "module") {
            const Json &was = member(before, "module");
            drop_rates(member(was, "drops"), value.at("drops"), seconds, lines);
            array_rates("vni", member(was, "vnis"), value.at("vnis"), seconds, lines);
            array_rates("tunnel", member(was, "tunnels"), value.at("tunnels"), seconds, lines);
        } else if (value.is_object())
            group_rates(key, member(before, key.c_str()), value, seconds, lines);
    }
    return lines;
}

std::string lines_document(const std::string &command, const std::vector<std::string> &lines)
{
    return Json{{"command", command}, {"lines", lines}}.dump(2);
}

int run_counters(const std::string &socket_path, double timeout_s, const CountersOptions &options,
                 std::ostream &out, std::ostream &err)
{
    if (options.interval > 0)
        return print_rates(socket_path, timeout_s, options, out, err);
    if (!options.json)
        return run_counters_verb(socket_path, timeout_s, out, err);
    Json doc;
    int code = kExitOk;
    if (!fetch(socket_path, timeout_s, doc, code, err))
        return code;
    out << doc.dump(2) << '\n';
    err << "vxlanctl: ok\n";
    return kExitOk;
}

}  // namespace vxlanctl
