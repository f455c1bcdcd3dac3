// efhost's start-up overlay: the apply file its configuration names
// (`overlay`), applied through its own control socket once forwarding has
// started and again on every SIGHUP, exactly as `vxlanctl apply` would, so
// that a restarted efhost comes back configured. The application runs on a
// thread of its own; its outcome is logged.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace efhost {

// Whether the overlay file can be read and is a valid apply file; false
// with error set to the located fault ("FILE:LINE: field ...").
bool check_overlay(const std::string &path, std::string &error);

class OverlayApplier {
public:
    ~OverlayApplier() { stop(); }
    // Starts the thread and asks for the first application.
    void start(const std::string &socket_path, const std::string &overlay_path);
    // Asks for one more application (once the current one has ended).
    void reapply();
    // Lets an application under way end (the control socket going down
    // ends it at once) and joins the thread.
    void stop();

private:
    void run();
    void apply_once();

    std::string socket_;
    std::string path_;
    std::thread thread_;
    std::mutex lock_;
    std::condition_variable wake_;
    bool pending_ = false;
    bool stopping_ = false;
};

}  // namespace efhost
