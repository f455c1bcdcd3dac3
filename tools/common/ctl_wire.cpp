// Envelope framing and socket plumbing of the control socket.
#include "ctl_wire.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace ctl {

namespace {

void put32(std::vector<uint8_t> &out, size_t at, uint32_t v) { std::memcpy(&out[at], &v, 4); }

uint32_t get32(const uint8_t *p)
{
    uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
}

bool make_address(const std::string &path, sockaddr_un &addr, std::string &error)
{
    std::memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof addr.sun_path) {
        error = "socket path '" + path + "' is empty or longer than " +
                std::to_string(sizeof addr.sun_path - 1) + " bytes";
        return false;
    }
    std::memcpy(addr.sun_path, path.c_str(), path.size());
    return true;
}

std::string errno_text(const std::string &what, const std::string &path)
{
    return what + " " + path + ": " + std::strerror(errno);
}

}  // namespace

std::vector<uint8_t> encode(const Envelope &env)
{
    std::vector<uint8_t> out(kHeaderLen + env.payload.size());
    put32(out, 0, kMagic);
    put32(out, 4, env.seq);
    put32(out, 8, 0);
    put32(out, 12, 0);
    put32(out, 16, env.flags);
    put32(out, 20, env.module);
    put32(out, 24, static_cast<uint32_t>(env.payload.size()));
    if (!env.payload.empty())
        std::memcpy(&out[kHeaderLen], env.payload.data(), env.payload.size());
    return out;
}

bool decode(const uint8_t *data, size_t len, Envelope &env, std::string &error)
{
    if (len < kHeaderLen) {
        error = "envelope of " + std::to_string(len) + " bytes is shorter than its 28-byte header";
        return false;
    }
    if (get32(data) != kMagic) {
        error = "envelope does not start with the EF magic";
        return false;
    }
    const uint32_t plen = get32(data + 24);
    if (plen != len - kHeaderLen) {
        error = "envelope says " + std::to_string(plen) + " payload bytes but carries " +
                std::to_string(len - kHeaderLen);
        return false;
    }
    env.seq = get32(data + 4);
    env.flags = get32(data + 16);
    env.module = get32(data + 20);
    env.payload.assign(data + kHeaderLen, data + len);
    return true;
}

namespace {

// A SOCK_SEQPACKET socket and the address of path, or -1 with error set.
int new_socket(const std::string &path, sockaddr_un &addr, std::string &error)
{
    if (!make_address(path, addr, error))
        return -1;
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0)
        error = errno_text("cannot create a socket for", path);
    return fd;
}

}  // namespace

int connect_socket(const std::string &path, std::string &error)
{
    sockaddr_un addr;
    const int fd = new_socket(path, addr, error);
    if (fd < 0)
        return -1;
    if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        error = errno_text("cannot connect to", path);
        close(fd);
        return -1;
    }
    return fd;
}

bool socket_path_free(const std::string &path, std::string &error)
{
    struct stat st{};
    if (lstat(path.c_str(), &st) != 0)
        return true;
    if (!S_ISSOCK(st.st_mode)) {
        error = path + " exists and is not a socket; efhost does not replace it";
        return false;
    }
    std::string unused;
    const int fd = connect_socket(path, unused);
    if (fd < 0)
        return true;
    close(fd);
    error = "another process answers on " + path + " (is another efhost running?)";
    return false;
}

int listen_socket(const std::string &path, std::string &error)
{
    sockaddr_un addr;
    const int fd = new_socket(path, addr, error);
    if (fd < 0)
        return -1;
    if (!socket_path_free(path, error)) {
        close(fd);
        return -1;
    }
    unlink(path.c_str());
    // Clients arriving together wait in the backlog, not in connect().
    if (bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 || listen(fd, SOMAXCONN) != 0) {
        error = errno_text("cannot listen on", path);
        close(fd);
        return -1;
    }
    return fd;
}

bool send_envelope(int fd, const Envelope &env, std::string &error)
{
    const std::vector<uint8_t> bytes = encode(env);
    for (;;) {
        const ssize_t n = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (n == static_cast<ssize_t>(bytes.size()))
            return true;
        if (n < 0 && errno == EINTR)
            continue;
        error = n < 0 ? std::string("send failed: ") + std::strerror(errno)
                      : "send wrote only part of the envelope";
        return false;
    }
}

int recv_envelope(int fd, Envelope &env, int timeout_ms, std::string &error)
{
    pollfd p{fd, POLLIN, 0};
    int r;
    do {
        r = poll(&p, 1, timeout_ms);
    } while (r < 0 && errno == EINTR);
    if (r == 0)
        return 0;
    if (r < 0) {
        error = std::string("poll failed: ") + std::strerror(errno);
        return -1;
    }
    std::vector<uint8_t> buf;
    if (read_datagram(fd, buf, 0, error) != DatagramRead::Whole)
        return -1;
    return decode(buf.data(), buf.size(), env, error) ? 1 : -1;
}

// MSG_TRUNC makes recv tell the datagram's real length, so that one longer
// than the buffer is refused rather than cut to a shorter envelope.
DatagramRead read_datagram(int fd, std::vector<uint8_t> &buf, int flags, std::string &error)
{
    buf.resize(kMaxDatagram);
    ssize_t n;
    do {
        n = recv(fd, buf.data(), buf.size(), flags | MSG_TRUNC);
    } while (n < 0 && errno == EINTR);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
        return DatagramRead::None;
    if (n <= 0) {
        error = n == 0 ? "the peer closed the connection" : std::string("receive failed: ") + std::strerror(errno);
        return DatagramRead::Closed;
    }
    if (static_cast<size_t>(n) > kMaxDatagram) {
        error = "datagram of " + std::to_string(n) + " bytes is longer than the largest envelope (" +
                std::to_string(kMaxDatagram) + " bytes)";
        return DatagramRead::TooLong;
    }
    buf.resize(static_cast<size_t>(n));
    return DatagramRead::Whole;
}

}  // namespace ctl
