// The metrics endpoint of metrics_server.h.
#include "metrics_server.h"

#include <httplib.h>

namespace efhost {

namespace {
constexpr const char *kContentType = "text/plain; version=0.0.4; charset=utf-8";
}

MetricsServer::MetricsServer() = default;
MetricsServer::~MetricsServer() { stop(); }

bool MetricsServer::start(const std::string &host, uint16_t port, std::function<std::string()> body,
                          std::string &error)
{
    auto server = std::make_unique<httplib::Server>();
    server->Get("/metrics", [body](const httplib::Request &, httplib::Response &res) {
        res.set_content(body(), kContentType);
    });
    // A scraper asking anything else learns where the figures are.
    server->set_error_handler([](const httplib::Request &, httplib::Response &res) {
        if (res.status == 404)
            res.set_content("efhost serves its counters at /metrics\n", "text/plain");
    });
    if (!server->bind_to_port(host, port)) {
        error = "cannot listen for metrics on " + host + " port " + std::to_string(port);
        return false;
    }
    server_ = std::move(server);
    httplib::Server *s = server_.get();
    thread_ = std::thread([s] { s->listen_after_bind(); });
    return true;
}

void MetricsServer::stop()
{
    if (!server_)
        return;
    server_->stop();
    if (thread_.joinable())
        thread_.join();
    server_.reset();
}

}  // namespace efhost
