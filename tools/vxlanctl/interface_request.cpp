// The tunnel-intf and counters verbs and the request they share with the
// EVPN follower; see interface_request.h.
#include "interface_request.h"

#include <unistd.h>

#include <chrono>

#include "ctl_wire.h"
#include "field_text.h"
#include "request.h"

namespace vxlanctl {

std::optional<std::string> interface_request_text(const std::vector<std::string> &args, std::string &error)
{
    const std::string usage = "usage: tunnel-intf create IFX NAME | remove IFX | list | tunnels";
    const std::string prefix = "vxlanctl: tunnel-intf: ";
    if (args.empty()) {
        error = prefix + usage;
        return std::nullopt;
    }
    const std::string &verb = args[0];
    const size_t want = verb == "create" ? 3 : verb == "remove" ? 2 : verb == "list" || verb == "tunnels" ? 1 : 0;
    if (want == 0) {
        error = prefix + "unknown action '" + verb + "'; " + usage;
        return std::nullopt;
    }
    if (args.size() != want) {
        error = prefix + verb + " takes " + std::to_string(want - 1) + " argument(s); " + usage;
        return std::nullopt;
    }
    if (want >= 2) {
        const auto ifx = parse_unsigned(args[1]);
        if (!ifx || *ifx == 0 || *ifx > 0xFFFFFFFFull) {
            error = prefix + "'" + args[1] + "' is not an interface index 1..4294967295";
            return std::nullopt;
        }
    }
    if (want == 3 && (args[2].size() >= 64 || args[2].find_first_of(" \t\n") != std::string::npos)) {
        error = prefix + "interface name '" + args[2] + "' must be 1..63 characters without spaces";
        return std::nullopt;
    }
    std::string text = verb;
    for (size_t i = 1; i < args.size(); ++i)
        text += " " + args[i];
    return text;
}

InterfaceAnswer interface_request(const std::string &socket_path, const std::string &text, double timeout_s,
                                  uint32_t module)
{
    InterfaceAnswer answer;
    const int fd = ctl::connect_socket(socket_path, answer.error);
    if (fd < 0) {
        answer.code = kExitConnection;
        return answer;
    }
    ctl::Envelope request{1, ctl::kFlagReplyWhenDone, module, {text.begin(), text.end()}};
    if (!ctl::send_envelope(fd, request, answer.error)) {
        close(fd);
        answer.code = kExitConnection;
        return answer;
    }
    using Clock = std::chrono::steady_clock;
    const auto deadline =
        Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(timeout_s));
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        ctl::Envelope env;
        const int got = left <= 0 ? 0 : ctl::recv_envelope(fd, env, static_cast<int>(left), answer.error);
        if (got <= 0) {
            answer.code = got == 0 ? kExitTimeout : kExitConnection;
            if (got == 0)
                answer.error = "no answer from efhost within the timeout";
            break;
        }
        if (env.module == ctl::kModuleShowLine) {
            answer.lines.emplace_back(env.payload.begin(), env.payload.end());
        } else if (env.module == ctl::kModuleDone) {
            answer.status.assign(env.payload.begin(), env.payload.end());
            answer.ok = answer.status.rfind("ok", 0) == 0;
            answer.code = answer.ok ? kExitOk : kExitRefused;
            break;
        }
    }
    close(fd);
    return answer;
}

namespace {

// Prints what efhost answered: the listed lines as data, its status line
// beside vxlanctl's own; the exit code of the answer.
int print_answer(const InterfaceAnswer &answer, std::ostream &out, std::ostream &err)
{
    if (answer.code == kExitConnection || answer.code == kExitTimeout) {
        err << "vxlanctl: " << answer.error << '\n';
        return answer.code;
    }
    for (const std::string &line : answer.lines)
        out << line << '\n';
    err << "vxlanctl: " << answer.status << '\n';
    return answer.code;
}

}  // namespace

int run_counters_verb(const std::string &socket_path, double timeout_s, std::ostream &out, std::ostream &err)
{
    return print_answer(interface_request(socket_path, "counters", timeout_s, ctl::kModuleCountersRequest), out,
                        err);
}

int run_table_verb(const std::string &socket_path, uint32_t module, const std::vector<std::string> &words,
                   double timeout_s, std::ostream &out, std::ostream &err)
{
    std::string text;
    for (const std::string &w : words)
        text += (text.empty() ? "" : " ") + w;
    return print_answer(interface_request(socket_path, text, timeout_s, module), out, err);
}

int run_interface_verb(const std::string &socket_path, const std::vector<std::string> &args, double timeout_s,
                       std::ostream &out, std::ostream &err)
{
    std::string error;
    const auto text = interface_request_text(args, error);
    if (!text) {
        err << error << '\n';
        return kExitUsage;
    }
    return print_answer(interface_request(socket_path, *text, timeout_s), out, err);
}

}  // namespace vxlanctl
