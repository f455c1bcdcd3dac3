// efhost's opt-in metrics endpoint: an HTTP server on its own thread that
// answers GET /metrics with the counters in the Prometheus text format
// (metrics_text.h), on the local address the configuration's `metrics`
// names. Built on cpp-httplib.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <thread>

namespace httplib {
class Server;
}

namespace efhost {

class MetricsServer {
public:
    MetricsServer();
    ~MetricsServer();
    // Binds host:port and starts serving; body is called on the server's
    // thread for every scrape. False with error set when the address
    // cannot be bound (nothing left running).
    bool start(const std::string &host, uint16_t port, std::function<std::string()> body, std::string &error);
    // Stops serving and joins the thread (idempotent).
    void stop();

private:
    std::unique_ptr<httplib::Server> server_;
    std::thread thread_;
};

}  // namespace efhost
