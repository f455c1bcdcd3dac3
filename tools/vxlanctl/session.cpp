// The send-and-wait loop of a request; see session.h.
#include "session.h"

#include <unistd.h>

#include <chrono>
#include <sstream>

#include "ctl_wire.h"

namespace vxlanctl {

namespace {

using Clock = std::chrono::steady_clock;

std::string seconds_text(double s)
{
    std::ostringstream out;
    out << s;
    return out.str();
}

bool send_all(int fd, const Request &request, std::ostream &err)
{
    for (size_t i = 0; i < request.messages.size(); ++i) {
        ctl::Envelope env;
        env.seq = static_cast<uint32_t>(i + 1);
        env.flags = i + 1 == request.messages.size() ? ctl::kFlagReplyWhenDone : 0;
        env.module = ctl::kModuleVxlan;
        env.payload = request.messages[i];
        std::string error;
        if (!ctl::send_envelope(fd, env, error)) {
            err << "vxlanctl: " << error << '\n';
            return false;
        }
    }
    return true;
}

void print_show_line(const std::vector<uint8_t> &payload, std::ostream &out)
{
    out.write(reinterpret_cast<const char *>(payload.data()), static_cast<std::streamsize>(payload.size()));
    if (payload.empty() || payload.back() != '\n')
        out << '\n';
}

// Handles one module message; true when it carries EF_DATA_READY.
bool take_module_message(const std::vector<uint8_t> &payload, bool quiet, std::ostream &out, std::ostream &err)
{
    std::string error;
    const auto tlvs = unpack_message(payload, error);
    if (!tlvs) {
        err << "vxlanctl: ignoring a malformed message from efhost: " << error << '\n';
        return false;
    }
    bool ready = false;
    for (const Tlv &tlv : *tlvs) {
        ready = ready || tlv.type == kEfDataReady;
        if (!quiet)
            out << "recv tlv " << tlv_code_name(tlv.type) << " len " << tlv.value.size() << '\n';
    }
    return ready;
}

// A done envelope whose text starts with "error: " (efhost refused the
// connection, or the module did not take the request) is printed.
bool refused(const std::vector<uint8_t> &payload, std::ostream &err)
{
    const std::string status(payload.begin(), payload.end());
    if (status.rfind("error: ", 0) != 0)
        return false;
    err << "vxlanctl: efhost: " << status << '\n';
    return true;
}

// What has come back so far for one request.
struct Progress {
    bool ready = false;  // EF_DATA_READY
    bool done = false;   // efhost's done envelope
    std::string status;  // its text
    bool printed = false;
    std::vector<std::string> errors;  // the module's error lines
};

std::string without_line_end(const std::vector<uint8_t> &payload)
{
    std::string text(payload.begin(), payload.end());
    while (!text.empty() && text.back() == '\n')
        text.pop_back();
    return text;
}

// Takes one envelope; false when it ends the request with a failure code.
bool take(const ctl::Envelope &env, const Request &request, Progress &p, int &code, std::ostream &out,
          std::ostream &err)
{
    if (env.module == ctl::kModuleShowLine) {
        print_show_line(env.payload, out);
        p.printed = true;
    } else if (env.module == ctl::kModuleErrorLine) {
        p.errors.push_back(without_line_end(env.payload));
    } else if (env.module == ctl::kModuleVxlan) {
        p.ready = take_module_message(env.payload, request.until_data_ready, out, err) || p.ready;
    } else if (env.module == ctl::kModuleDone) {
        if (refused(env.payload, err)) {
            code = kExitRefused;
            return false;
        }
        p.done = true;
        p.status = without_line_end(env.payload);
    }
    return true;
}

// The outcome once everything awaited has come: the module's refusals
// first, then what the request prints when it succeeded.
int finish(const Request &request, const Progress &p, std::ostream &err)
{
    for (const std::string &line : p.errors)
        err << "vxlanctl: module: " << line << '\n';
    if (!p.errors.empty() && !request.not_found_line.empty() && !p.printed) {
        err << request.not_found_line << '\n';
        return kExitNotFound;
    }
    if (!p.errors.empty()) {
        err << "vxlanctl: the module refused part of what was sent (its error lines are above)\n";
        return kExitModuleError;
    }
    if (p.status.rfind("ok: ", 0) == 0)
        err << "vxlanctl: " << p.status.substr(4) << '\n';
    if (!request.finish_line.empty())
        err << request.finish_line << '\n';
    return kExitOk;
}

}  // namespace

int run_request(int fd, const Request &request, double timeout_s, std::ostream &out, std::ostream &err)
{
    if (!send_all(fd, request, err))
        return kExitConnection;
    if (request.report_sent)
        err << "vxlanctl: sent " << request.tlv_count << " TLVs in " << request.messages.size() << " messages\n";
    const auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                             std::chrono::duration<double>(timeout_s));
    Progress progress;
    while (!progress.done || (request.until_data_ready && !progress.ready)) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        ctl::Envelope env;
        std::string error;
        const int got = left <= 0 ? 0 : ctl::recv_envelope(fd, env, static_cast<int>(left), error);
        if (got == 0) {
            err << "vxlanctl: " << (request.until_data_ready ? "no data ready" : "no answer") << " from efhost within "
                << seconds_text(timeout_s) << " s\n";
            return kExitTimeout;
        }
        if (got < 0) {
            err << "vxlanctl: " << error << '\n';
            return kExitConnection;
        }
        int code = kExitOk;
        if (!take(env, request, progress, code, out, err))
            return code;
    }
    return finish(request, progress, err);
}

int connect_and_run(const std::string &socket_path, const Request &request, double timeout_s, std::ostream &out,
                    std::ostream &err)
{
    std::string error;
    const int fd = ctl::connect_socket(socket_path, error);
    if (fd < 0) {
        err << "vxlanctl: " << error << '\n';
        return kExitConnection;
    }
    const int code = run_request(fd, request, timeout_s, out, err);
    close(fd);
    return code;
}

}  // namespace vxlanctl
