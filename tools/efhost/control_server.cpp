// The control socket's listener and its clients; see control_server.h.
#include "control_server.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>

#include "efrt.h"
#include "mac_request.h"
#include "neighbour_request.h"
#include "rcu.h"
#include "runtime_interfaces.h"

namespace efhost {

namespace {

constexpr int kPollMs = 100;
// Interface blocks and table shards (a few kB each) waiting to be freed.
constexpr long kMaxRetiredBlocks = 256;

void answer(ControlClient &client, uint32_t seq, const std::vector<std::string> &lines, const std::string &status)
{
    for (const std::string &line : lines)
        client.send({seq, 0, ctl::kModuleShowLine, {line.begin(), line.end()}});
    client.send({seq, 0, ctl::kModuleDone, {status.begin(), status.end()}});
}

std::string hex(uint32_t value)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%X", value);
    return text;
}

// Creating and removing interfaces runs the module's interface events,
// and the tables' requests name interfaces: all of them read interface blocks.
void answer_text_request(ControlClient &client, const ctl::Envelope &env,
                         RequestReply (*carry_out)(const std::string &))
{
    efrt::rcu::ReadSection reading;
    const RequestReply reply = carry_out(std::string(env.payload.begin(), env.payload.end()));
    answer(client, env.seq, reply.lines, reply.ok ? reply.text : "error: " + reply.text);
}

}  // namespace

bool ControlServer::start(const std::string &path, std::string &error)
{
    listen_fd_ = ctl::listen_socket(path, error);
    if (listen_fd_ < 0)
        return false;
    wake_fd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    path_ = path;
    channel_.start();
    run_ = true;
    thread_ = std::thread([this] { accept_loop(); });
    return true;
}

void ControlServer::stop()
{
    if (!run_.exchange(false))
        return;
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t n = write(wake_fd_, &one, sizeof one);
    thread_.join();
    channel_.stop();
    reap(true);
    close(listen_fd_);
    close(wake_fd_);
    listen_fd_ = wake_fd_ = -1;
    unlink(path_.c_str());
}

size_t ControlServer::clients() const
{
    std::lock_guard<std::mutex> g(clients_lock_);
    return clients_.size();
}

void ControlServer::accept_loop()
{
    while (run_.load()) {
        pollfd p[2] = {{listen_fd_, POLLIN, 0}, {wake_fd_, POLLIN, 0}};
        if (poll(p, 2, kPollMs) > 0 && (p[0].revents & POLLIN) != 0) {
            const int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0)
                admit(fd);
        }
        reap(false);
    }
}

// Serves a new client, or tells it that there are too many.
void ControlServer::admit(int fd)
{
    std::unique_lock<std::mutex> g(clients_lock_);
    if (clients_.size() >= limits_.max_clients) {
        g.unlock();
        std::fprintf(stderr, "efhost: control client refused: %zu clients are served already\n",
                     limits_.max_clients);
        std::string error;
        const std::string status = "error: efhost serves at most " + std::to_string(limits_.max_clients) +
                                   " control clients at once; try again later";
        ctl::send_envelope(fd, {0, 0, ctl::kModuleDone, {status.begin(), status.end()}}, error);
        close(fd);
        return;
    }
    auto client = std::make_shared<ControlClient>(fd, next_id_++, limits_);
    clients_.push_back(client);
    const bool first = clients_.size() == 1;
    g.unlock();
    if (first)
        channel_.connection(true);
    client->start([this](ControlClient &c, const ctl::Envelope &env) { handle(c, env); });
}

// Joins the clients that ended (every client when all is set); the module
// hears that the channel is down when the last one has gone.
void ControlServer::reap(bool all)
{
    std::vector<std::shared_ptr<ControlClient>> gone;
    bool none_left;
    {
        std::lock_guard<std::mutex> g(clients_lock_);
        for (auto it = clients_.begin(); it != clients_.end();) {
            if (all || (*it)->finished()) {
                gone.push_back(*it);
                it = clients_.erase(it);
            } else {
                ++it;
            }
        }
        none_left = clients_.empty();
    }
    for (const auto &client : gone) {
        client->close();
        client->join();
    }
    if (!gone.empty() && none_left)
        channel_.connection(false);
}

// On the client's own thread.
void ControlServer::handle(ControlClient &client, const ctl::Envelope &env)
{
    if (env.module == ctl::kModuleVxlan) {
        channel_.submit(client.shared_from_this(), env);
        return;
    }
    if (env.module == ctl::kModuleCountersRequest) {
        const std::string asked(env.payload.begin(), env.payload.end());
        if (asked == ctl::kCountersJsonRequest) {
            answer(client, env.seq, {counters_json_ ? counters_json_() : std::string("{}")}, "ok");
            return;
        }
        answer(client, env.seq, counters_ ? counters_() : std::vector<std::string>{}, "ok");
        return;
    }
    if (env.module == ctl::kModuleInterfaceRequest) {
        answer_text_request(client, env, runtime_interface_request);
        // A client creating and removing interfaces without pause waits
        // here while retired blocks pile up, so that efhost's memory stays
        // flat under any churn.
        efrt::rcu::catch_up(kMaxRetiredBlocks);
        return;
    }
    if (env.module == ctl::kModuleMacRequest) {
        answer_text_request(client, env, mac_request);
        return;
    }
    if (env.module == ctl::kModuleNeighbourRequest) {
        answer_text_request(client, env, neighbour_request);
        return;
    }
    if (env.module == ctl::kModuleHostRequest) {
        answer_host_request(client, env);
        return;
    }
    answer(client, env.seq, {}, "error: unknown request module " + hex(env.module));
}

void ControlServer::answer_host_request(ControlClient &client, const ctl::Envelope &env) const
{
    const std::string text(env.payload.begin(), env.payload.end());
    if (text != "overlay")
        answer(client, env.seq, {}, "error: unknown request '" + text + "'; known: overlay");
    else
        answer(client, env.seq, {}, overlay_.empty() ? "ok no overlay" : "ok overlay " + overlay_);
}

}  // namespace efhost
