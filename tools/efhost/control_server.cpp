// The control socket served on efhost's channel thread.
#include "control_server.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "efrt.h"
#include "runtime_interfaces.h"
#include "vxlan_ef_tlv_catalogue.h"

namespace efhost {

namespace {

constexpr const char *kShowPrefix = "VXLAN-EF-SHOW:";
// A message delivered now is processed by the task run after the one that
// may be under way; how long to wait for that is generous for a busy host.
constexpr int kProcessTimeoutMs = 10000;

bool has_tlv(const uint8_t *p, uint32_t len, uint16_t type)
{
    for (uint32_t off = 4; off + 4 <= len;) {
        uint16_t t, l;
        std::memcpy(&t, p + off, 2);
        std::memcpy(&l, p + off + 2, 2);
        if (t == type)
            return true;
        off += 4u + l;
    }
    return false;
}

// Requests about efhost itself are answered at once, here: show lines, then
// the status line in the done envelope.
void answer(int fd, uint32_t seq, const std::vector<std::string> &lines, const std::string &status,
            std::mutex &client_lock)
{
    std::lock_guard<std::mutex> g(client_lock);
    std::string error;
    for (const std::string &line : lines)
        ctl::send_envelope(fd, {seq, 0, ctl::kModuleShowLine, {line.begin(), line.end()}}, error);
    ctl::send_envelope(fd, {seq, 0, ctl::kModuleDone, {status.begin(), status.end()}}, error);
}

void answer_interface_request(int fd, const ctl::Envelope &env, std::mutex &client_lock)
{
    const RuntimeReply reply =
        runtime_interface_request(std::string(env.payload.begin(), env.payload.end()));
    answer(fd, env.seq, reply.lines, reply.ok ? reply.text : "error: " + reply.text, client_lock);
}

}  // namespace

bool ControlServer::start(const std::string &path, std::string &error)
{
    listen_fd_ = ctl::listen_socket(path, error);
    if (listen_fd_ < 0)
        return false;
    path_ = path;
    efrt::msg_set_sink(&ControlServer::sink, this);
    efrt::syslog_set_listener(&ControlServer::on_syslog, this);
    run_ = true;
    thread_ = std::thread([this] { serve(); });
    return true;
}

void ControlServer::stop()
{
    if (!run_.exchange(false))
        return;
    thread_.join();
    efrt::msg_set_sink(nullptr, nullptr);
    efrt::syslog_set_listener(nullptr, nullptr);
    close(listen_fd_);
    listen_fd_ = -1;
    unlink(path_.c_str());
    ready_cv_.notify_all();
}

bool ControlServer::wait_data_ready(const std::atomic<bool> &stop_flag)
{
    std::unique_lock<std::mutex> g(ready_lock_);
    while (!data_ready_.load() && !stop_flag.load())
        ready_cv_.wait_for(g, std::chrono::milliseconds(100));
    return data_ready_.load();
}

// The module's outgoing messages (called on its task's thread).
int ControlServer::sink(const ef_msg_t *msg, void *ctx)
{
    auto *self = static_cast<ControlServer *>(ctx);
    self->note_data_ready(msg->data, msg->len);
    std::lock_guard<std::mutex> g(self->client_lock_);
    if (self->client_fd_ < 0)
        return 0;
    ctl::Envelope env{0, 0, ctl::kModuleVxlan, std::vector<uint8_t>(msg->data, msg->data + msg->len)};
    std::string error;
    ctl::send_envelope(self->client_fd_, env, error);
    return 0;
}

void ControlServer::note_data_ready(const uint8_t *payload, uint32_t len)
{
    if (!has_tlv(payload, len, vxlan_ef::tlv::kEfDataReady))
        return;
    std::lock_guard<std::mutex> g(ready_lock_);
    data_ready_ = true;
    ready_cv_.notify_all();
}

void ControlServer::on_syslog(const std::string &text, void *ctx)
{
    auto *self = static_cast<ControlServer *>(ctx);
    if (text.rfind(kShowPrefix, 0) != 0)
        return;
    std::lock_guard<std::mutex> g(self->show_lock_);
    if (self->collecting_)
        self->show_lines_.push_back(text);
}

void ControlServer::serve()
{
    while (run_.load()) {
        pollfd p{listen_fd_, POLLIN, 0};
        if (poll(&p, 1, 100) <= 0)
            continue;
        const int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0)
            serve_client(fd);
    }
}

void ControlServer::serve_client(int fd)
{
    {
        std::lock_guard<std::mutex> g(client_lock_);
        client_fd_ = fd;
    }
    efrt::msg_connect(EF_MSG_MODULE_VXLAN, true);
    while (run_.load()) {
        ctl::Envelope env;
        std::string error;
        const int r = ctl::recv_envelope(fd, env, 100, error);
        if (r < 0)
            break;
        if (r == 1)
            handle(fd, env);
    }
    efrt::msg_connect(EF_MSG_MODULE_VXLAN, false);
    std::lock_guard<std::mutex> g(client_lock_);
    client_fd_ = -1;
    close(fd);
}

void ControlServer::handle(int fd, const ctl::Envelope &env)
{
    if (env.module == ctl::kModuleInterfaceRequest) {
        answer_interface_request(fd, env, client_lock_);
        return;
    }
    if (env.module == ctl::kModuleCountersRequest) {
        answer(fd, env.seq, counters_ ? counters_() : std::vector<std::string>{}, "ok", client_lock_);
        return;
    }
    if (env.module != ctl::kModuleVxlan)
        return;
    const bool reply = (env.flags & ctl::kFlagReplyWhenDone) != 0;
    if (reply) {
        std::lock_guard<std::mutex> g(show_lock_);
        show_lines_.clear();
        collecting_ = true;
    }
    const uint64_t processed = efrt::tasks_completed_runs() + 2;
    efrt::msg_deliver(EF_MSG_MODULE_VXLAN, env.payload);
    if (!reply)
        return;
    efrt::tasks_wait_runs(processed, kProcessTimeoutMs);
    std::vector<std::string> lines;
    {
        std::lock_guard<std::mutex> g(show_lock_);
        collecting_ = false;
        lines.swap(show_lines_);
    }
    std::lock_guard<std::mutex> g(client_lock_);
    std::string error;
    for (const std::string &line : lines)
        ctl::send_envelope(fd, {env.seq, 0, ctl::kModuleShowLine, {line.begin(), line.end()}}, error);
    ctl::send_envelope(fd, {env.seq, 0, ctl::kModuleDone, {}}, error);
}

}  // namespace efhost
