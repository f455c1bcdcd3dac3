// The control socket between vxlanctl and efhost: a Unix-domain
// SOCK_SEQPACKET socket whose every datagram is one EF channel envelope (20
// framework bytes, module id, payload length, payload). Module 31 carries
// VXLAN messages both ways; efhost's own replies use the console modules.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace ctl {

constexpr uint32_t kMagic = 0x45464D31;          // "EFM1"
constexpr uint32_t kModuleVxlan = 31;            // VXLAN TLV messages
constexpr uint32_t kModuleShowLine = 0xEF01;     // efhost -> client: one show line
constexpr uint32_t kModuleDone = 0xEF02;         // efhost -> client: request processed
// efhost -> client: one error line the module logged while it processed the
// client's messages (what it refused, since it answers nothing itself).
constexpr uint32_t kModuleErrorLine = 0xEF03;
constexpr uint32_t kFlagReplyWhenDone = 0x1;     // client asks for kModuleDone
// client -> efhost: a run-time tunnel interface request as text; answered by
// one show line per listed interface and a done envelope whose payload is
// "ok ..." or "error: ...".
constexpr uint32_t kModuleInterfaceRequest = 0xEF10;
// client -> efhost: efhost's counters; answered by one show line per
// counter group and a done envelope whose payload is "ok". With the payload
// kCountersJsonRequest the one show line is the counters as a JSON document.
constexpr uint32_t kModuleCountersRequest = 0xEF11;
constexpr const char *kCountersJsonRequest = "counters json";
// client -> efhost: a bridge MAC table request as text (list, remote
// entries, efhost's locally learned MACs); answered as an interface request.
constexpr uint32_t kModuleMacRequest = 0xEF12;
// client -> efhost: a neighbour suppression request as text (list, remote
// bindings, snooped local bindings, per-VNI switches); answered the same way.
constexpr uint32_t kModuleNeighbourRequest = 0xEF13;
// client -> efhost: a question about efhost itself as text; "overlay" is
// answered "ok overlay PATH" or "ok no overlay" (the apply file efhost
// applies itself at start and on SIGHUP).
constexpr uint32_t kModuleHostRequest = 0xEF14;
constexpr uint32_t kMaxPayload = 8196;           // largest VXLAN message
constexpr size_t kHeaderLen = 28;
// The longest datagram either end reads; a longer one is refused whole.
constexpr size_t kMaxDatagram = kHeaderLen + 65536;

struct Envelope {
    uint32_t seq = 0;
    uint32_t flags = 0;
    uint32_t module = 0;
    std::vector<uint8_t> payload;
};

// Serialises an envelope: framework header (magic, seq, src, dst, flags),
// module id, length, payload; integers in host order.
std::vector<uint8_t> encode(const Envelope &env);
// Parses one datagram; false (with a reason) when it is not an envelope.
bool decode(const uint8_t *data, size_t len, Envelope &env, std::string &error);

// Connects to efhost's socket; -1 with error set on failure.
int connect_socket(const std::string &path, std::string &error);
// True when a listener may take the path: nothing is there, or a socket
// file nobody answers on (left by a process that is gone). A socket that
// another process answers on, or anything that is not a socket, is not free
// (error says which).
bool socket_path_free(const std::string &path, std::string &error);
// Creates, binds and listens on the socket path; -1 with error set on
// failure. A path that is not free (socket_path_free) is refused and left
// as it is; a leftover socket file is replaced.
int listen_socket(const std::string &path, std::string &error);

// Sends one envelope as one datagram; false with error set on failure.
bool send_envelope(int fd, const Envelope &env, std::string &error);
// What reading one datagram found.
enum class DatagramRead {
    Whole,    // buf holds the datagram
    None,     // nothing waits (non-blocking socket)
    TooLong,  // longer than kMaxDatagram; it is consumed, error says so
    Closed,   // the peer closed the connection, or the read failed (error)
};
// Reads one datagram into buf (resized to its length), without waiting
// when the socket or flags say so.
DatagramRead read_datagram(int fd, std::vector<uint8_t> &buf, int flags, std::string &error);

// Waits up to timeout_ms (-1 forever) for one envelope. Returns 1 with env
// filled, 0 on timeout, -1 on error or a closed peer (error says which).
int recv_envelope(int fd, Envelope &env, int timeout_ms, std::string &error);

}  // namespace ctl
