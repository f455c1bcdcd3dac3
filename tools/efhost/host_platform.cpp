// The reference platform brought up for efhost.
#include "host_platform.h"

#include <cstdlib>
#include <filesystem>

#include "efrt.h"
#include "efrt_bcast.h"
#include "efrt_services.h"
#include "rcu.h"
#include "run_effects.h"
#include "suppress.h"

namespace efhost {

namespace {

constexpr const char *kLogDir = "/dc/vxlan";

lsm_intfcb_t control_block(const InterfaceConfig &ic)
{
    lsm_intfcb_t intf = efrt::make_intf(ic.index, ic.type, ic.stack, ic.name);
    std::snprintf(intf.sname, sizeof intf.sname, "%s",
                  (ic.short_name.empty() ? ic.name : ic.short_name).c_str());
    std::copy(ic.mac.begin(), ic.mac.end(), intf.mac);
    intf.mtu = ic.mtu;
    intf.link_up = ic.link_up ? 1 : 0;
    intf.parent_ifx = ic.parent;
    intf.subif_mode = ic.subif_mode;
    return intf;
}

bool make_directory(const std::string &path, std::string &error)
{
    std::error_code ec;
    std::filesystem::create_directories(path, ec);
    if (ec)
        error = "cannot create " + path + ": " + ec.message();
    return !ec;
}

// The module writes its tech-support dump below /tmp/vsd/ID and its log file
// below TMPDIR, and creates neither directory itself.
bool prepare_environment(const Config &cfg, std::string &error)
{
    if (cfg.instance)
        setenv("VSDID", std::to_string(*cfg.instance).c_str(), 1);
    else
        unsetenv("VSDID");
    if (!make_directory(tech_dump_dir(cfg.instance.value_or(-1)), error))
        return false;
    if (cfg.tmpdir.empty())
        return true;
    setenv("TMPDIR", cfg.tmpdir.c_str(), 1);
    return make_directory(cfg.tmpdir + kLogDir, error);
}

}  // namespace

std::string capability_path(const std::string &name)
{
    if (name.find('/') != std::string::npos)
        return name;
    if (name == "CAP_FWDMODE_SOFT")
        return "g_feature_spec/product_platform_spec/" + name;
    return "g_feature_spec/dcn/" + name;
}

bool prepare_platform(const Config &cfg, std::string &error)
{
    if (!prepare_environment(cfg, error))
        return false;
    if (!cfg.syslog_file.empty() && !efrt::syslog_set_file(cfg.syslog_file)) {
        error = "cannot open syslog file " + cfg.syslog_file;
        return false;
    }
    // A long-running process keeps no in-memory captures.
    efrt::syslog_set_keep(false);
    efrt::bcast_set_recording(false);
    for (const auto &[name, on] : cfg.capabilities)
        efrt::cap_define(capability_path(name), on);
    efrt::bridge_set_age_time(static_cast<uint64_t>(cfg.mac_age_seconds) * 1000);
    // A snooped IP binding lives as long as its host's MAC would.
    efrt::suppress_set_age_time(static_cast<uint64_t>(cfg.mac_age_seconds) * 1000);
    efrt::bridge_set_mac_capacity(cfg.mac_table_capacity);
    efrt::bridge_publish_all();
    return true;
}

void create_interfaces(const Config &cfg)
{
    for (const InterfaceConfig &ic : cfg.interfaces) {
        efrt::lsm_create(control_block(ic));
        if (ic.pvid != 0)
            efrt::bridge_set_pvid(ic.index, ic.pvid);
        for (uint16_t vid : ic.vlans)
            efrt::bridge_add_vlan(ic.index, vid);
    }
}

void connect_appdb(const Config &cfg)
{
    efrt::mom_connect();
    if (cfg.mlag_peerlink != 0)
        efrt::mom_set_mlag_peerlink(cfg.mlag_peerlink);
    efrt::mom_run();
}

void Housekeeper::start()
{
    if (run_.exchange(true))
        return;
    thread_ = std::thread([this] {
        unsigned ticks = 0;
        while (run_.load()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            efrt::rcu::ReadSection reading;  // the module's database callbacks read interfaces
            efrt::mom_run();
            if (++ticks % 10 == 0) {
                efrt::bridge_age_run();
                efrt::suppress_age_run();
            }
        }
    });
}

void Housekeeper::stop()
{
    if (!run_.exchange(false))
        return;
    thread_.join();
}

}  // namespace efhost
