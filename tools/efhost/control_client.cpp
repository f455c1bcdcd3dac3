// A control-socket client's thread and outbox; see control_client.h.
#include "control_client.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace efhost {

namespace {

constexpr int kPollMs = 100;

bool would_block(int err) { return err == EAGAIN || err == EWOULDBLOCK || err == EINTR; }

std::string seconds(std::chrono::milliseconds ms)
{
    char text[32];
    std::snprintf(text, sizeof text, "%g s", static_cast<double>(ms.count()) / 1000.0);
    return text;
}

}  // namespace

ControlClient::ControlClient(int fd, uint64_t id, const ControlLimits &limits)
    : fd_(fd), wake_fd_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)), id_(id), limits_(limits),
      last_progress_(Clock::now()), last_heard_(Clock::now())
{
}

ControlClient::~ControlClient()
{
    close();
    join();
    if (wake_fd_ >= 0)
        ::close(wake_fd_);
}

void ControlClient::start(Handler handler)
{
    thread_ = std::thread([this, handler = std::move(handler)] { run(handler); });
}

bool ControlClient::wake()
{
    const uint64_t one = 1;
    return wake_fd_ >= 0 && write(wake_fd_, &one, sizeof one) == sizeof one;
}

// What the socket takes now is sent at once; the rest waits, in order, for
// the client's thread to send it when the client reads again.
bool ControlClient::send(const ctl::Envelope &env)
{
    std::vector<uint8_t> bytes = ctl::encode(env);
    std::lock_guard<std::mutex> g(out_lock_);
    if (closed_ || overflowed_)
        return false;
    if (outbox_.empty()) {
        const ssize_t n = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n == static_cast<ssize_t>(bytes.size()))
            return true;
        if (n < 0 && !would_block(errno))
            return false;  // the client is gone; its thread sees the hang-up
        last_progress_ = Clock::now();  // the stall clock runs from the first wait
    }
    if (outbox_bytes_ + bytes.size() > limits_.outbox_bytes) {
        overflowed_ = true;
        wake();
        return false;
    }
    outbox_bytes_ += bytes.size();
    outbox_.push_back(std::move(bytes));
    wake();
    return true;
}

void ControlClient::request_started() { requests_under_way_.fetch_add(1); }

void ControlClient::request_finished()
{
    requests_under_way_.fetch_sub(1);
    std::lock_guard<std::mutex> g(out_lock_);
    last_heard_ = Clock::now();  // the idle time runs from the answer
}

void ControlClient::close()
{
    stop_.store(true);
    wake();
}

void ControlClient::join()
{
    if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id())
        thread_.join();
}

// Sends what waits in the outbox until the socket is full; false when the
// client is gone.
bool ControlClient::flush()
{
    std::lock_guard<std::mutex> g(out_lock_);
    while (!outbox_.empty()) {
        const std::vector<uint8_t> &bytes = outbox_.front();
        const ssize_t n = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0)
            return would_block(errno);
        outbox_bytes_ -= bytes.size();
        outbox_.pop_front();
        last_progress_ = Clock::now();
    }
    return true;
}

// Waits for the client, for room to send or for a wake-up; false when the
// client hung up.
bool ControlClient::poll_once(bool &readable, bool &writable)
{
    bool waiting;
    {
        std::lock_guard<std::mutex> g(out_lock_);
        waiting = !outbox_.empty();
    }
    pollfd p[2] = {{fd_, static_cast<short>(POLLIN | (waiting ? POLLOUT : 0)), 0}, {wake_fd_, POLLIN, 0}};
    if (poll(p, 2, kPollMs) < 0)
        return errno == EINTR;
    if ((p[1].revents & POLLIN) != 0) {
        uint64_t count;
        [[maybe_unused]] const ssize_t n = read(wake_fd_, &count, sizeof count);
    }
    readable = (p[0].revents & POLLIN) != 0;
    writable = (p[0].revents & POLLOUT) != 0;
    return readable || (p[0].revents & (POLLHUP | POLLERR | POLLNVAL)) == 0;
}

// Reads one envelope and hands it over; false when the connection is to
// end (the client closed it, or sent something that is not an envelope).
bool ControlClient::receive(const Handler &handler)
{
    std::vector<uint8_t> &buf = receive_buffer_;
    std::string error;
    const ctl::DatagramRead got = ctl::read_datagram(fd_, buf, MSG_DONTWAIT, error);
    if (got == ctl::DatagramRead::None)
        return true;
    if (got == ctl::DatagramRead::Closed)
        return false;
    {
        std::lock_guard<std::mutex> g(out_lock_);
        last_heard_ = Clock::now();
    }
    ctl::Envelope env;
    if (got == ctl::DatagramRead::TooLong || !ctl::decode(buf.data(), buf.size(), env, error)) {
        const std::string status = "error: " + error;
        send(ctl::Envelope{0, 0, ctl::kModuleDone, {status.begin(), status.end()}});
        say_closed("sent a datagram that is not an envelope: " + error);
        return false;
    }
    handler(*this, env);
    return true;
}

bool ControlClient::timed_out(Clock::time_point now)
{
    std::string why;
    {
        std::lock_guard<std::mutex> g(out_lock_);
        if (overflowed_)
            why = "more than " + std::to_string(limits_.outbox_bytes) + " bytes wait for it: it does not read";
        else if (!outbox_.empty() && now - last_progress_ > limits_.stall_timeout)
            why = "it read nothing for " + seconds(limits_.stall_timeout);
        else if (outbox_.empty() && requests_under_way_.load() == 0 && now - last_heard_ > limits_.idle_timeout)
            why = "idle for " + seconds(limits_.idle_timeout);
    }
    if (why.empty())
        return false;
    say_closed(why);
    return true;
}

void ControlClient::say_closed(const std::string &why)
{
    std::fprintf(stderr, "efhost: control client %llu closed: %s\n", static_cast<unsigned long long>(id_),
                 why.c_str());
}

void ControlClient::run(const Handler &handler)
{
    while (!stop_.load()) {
        bool readable = false, writable = false;
        if (!poll_once(readable, writable))
            break;
        if (writable && !flush())
            break;
        if (readable && !receive(handler))
            break;
        if (timed_out(Clock::now()))
            break;
    }
    {
        std::lock_guard<std::mutex> g(out_lock_);
        closed_ = true;
        outbox_.clear();
        ::close(fd_);
    }
    finished_.store(true);
}

}  // namespace efhost
