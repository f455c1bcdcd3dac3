// Bringing the reference platform up for efhost from its configuration:
// environment, syslog file, capabilities, bridge, interfaces, application
// database, and the threads of threaded mode that are not ports.
#pragma once

#include <atomic>
#include <string>
#include <thread>

#include "config.h"

namespace efhost {

// Before the module loads: VSDID and TMPDIR (with the module's log
// directory below it), the syslog file, capabilities, the bridge's services
// and ageing time (which snooped IP bindings share). False with a message on
// failure.
bool prepare_platform(const Config &cfg, std::string &error);

// After the module started: creates every configured interface (creation
// events reach the module), sets port VLANs and memberships, connects the
// application database and publishes the MLAG system record.
void create_interfaces(const Config &cfg);
void connect_appdb(const Config &cfg);

// Periodic platform work of threaded mode: application-database
// notifications, MAC ageing and the ageing of snooped IP bindings.
class Housekeeper {
public:
    void start();
    void stop();
    ~Housekeeper() { stop(); }

private:
    std::atomic<bool> run_{false};
    std::thread thread_;
};

// Capability paths by short name (CAP_VXLAN_BASE ...); a full path is
// returned unchanged.
std::string capability_path(const std::string &name);

}  // namespace efhost
