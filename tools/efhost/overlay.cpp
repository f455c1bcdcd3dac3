// efhost's start-up overlay; see overlay.h.
#include "overlay.h"

#include <cstdio>
#include <sstream>

#include "apply_config.h"
#include "apply_verb.h"
#include "request.h"

namespace efhost {

namespace {

// A large overlay on a busy module takes a few seconds; this is what one
// application may take at most.
constexpr double kApplyTimeoutS = 60;

// vxlanctl's lines, told as efhost's.
void log_lines(const std::string &text, const std::string &path)
{
    std::istringstream in(text);
    const std::string tool = "vxlanctl: ";
    for (std::string line; std::getline(in, line);) {
        if (line.rfind(tool, 0) == 0)
            line.erase(0, tool.size());
        std::fprintf(stderr, "efhost: overlay %s: %s\n", path.c_str(), line.c_str());
    }
}

}  // namespace

bool check_overlay(const std::string &path, std::string &error)
{
    if (path.empty())
        return true;
    if (vxlanctl::read_apply_file(path, error))
        return true;
    if (error.rfind("vxlanctl: ", 0) == 0)
        error.erase(0, 10);
    error = "overlay: " + error;
    return false;
}

void OverlayApplier::start(const std::string &socket_path, const std::string &overlay_path)
{
    socket_ = socket_path;
    path_ = overlay_path;
    pending_ = true;
    thread_ = std::thread([this] { run(); });
}

void OverlayApplier::reapply()
{
    {
        std::lock_guard<std::mutex> g(lock_);
        pending_ = true;
    }
    wake_.notify_all();
}

void OverlayApplier::stop()
{
    {
        std::lock_guard<std::mutex> g(lock_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable())
        thread_.join();
}

void OverlayApplier::run()
{
    std::unique_lock<std::mutex> g(lock_);
    for (;;) {
        wake_.wait(g, [this] { return pending_ || stopping_; });
        if (stopping_)
            return;
        pending_ = false;
        g.unlock();
        apply_once();
        g.lock();
    }
}

void OverlayApplier::apply_once()
{
    std::ostringstream out, err;
    const int code = vxlanctl::run_apply_verb(socket_, path_, kApplyTimeoutS, out, err);
    log_lines(out.str() + err.str(), path_);
    if (code == vxlanctl::kExitModuleError)
        std::fprintf(stderr, "efhost: overlay %s: applied; the module refused what is named above\n", path_.c_str());
    else if (code != vxlanctl::kExitOk)
        std::fprintf(stderr, "efhost: overlay %s: not applied\n", path_.c_str());
}

}  // namespace efhost
