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

}  // namespace

int run_request(int fd, const Request &request, double timeout_s, std::ostream &out, std::ostream &err)
{
    if (!send_all(fd, request, err))
        return kExitConnection;
    if (request.report_sent)
        out << "vxlanctl: sent " << request.tlv_count << " TLVs in " << request.messages.size() << " messages\n";
    const auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                             std::chrono::duration<double>(timeout_s));
    for (;;) {
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
        bool finished = false;
        if (env.module == ctl::kModuleShowLine)
            print_show_line(env.payload, out);
        else if (env.module == ctl::kModuleVxlan)
            finished = take_module_message(env.payload, request.until_data_ready, out, err) &&
                       request.until_data_ready;
        else if (env.module == ctl::kModuleDone && refused(env.payload, err))
            return kExitRefused;
        else if (env.module == ctl::kModuleDone)
            finished = !request.until_data_ready;
        if (finished) {
            if (!request.finish_line.empty())
                out << request.finish_line << '\n';
            return kExitOk;
        }
    }
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
