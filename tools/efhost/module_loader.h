// Loading the VXLAN module into efhost: dlopen, then its start-up entry;
// its shut-down entry, then dlclose.
#pragma once

#include <string>

#include "vxlan_ef.h"
#include "vxlan_ef_counters.h"

namespace efhost {

class ModuleLoader {
public:
    ~ModuleLoader();
    // Loads the shared object and runs vxlan_ef_init; false with a message
    // when the file cannot be loaded, lacks an entry point, or start fails.
    bool load(const std::string &path, std::string &error);
    // Runs vxlan_ef_exit and unloads (idempotent).
    void unload();
    bool loaded() const { return handle_ != nullptr; }
    // The loaded module's instance record; nullptr when none.
    vxlan_ef_vsd_t *instance() const;
    // The module's packet counters through vxlan_ef_counters_read; false
    // when no module is loaded or it does not export the function.
    bool read_counters(vxlan_ef_counters_t &out) const;

private:
    void *handle_ = nullptr;
    void (*exit_fn_)() = nullptr;  // vxlan_ef_exit returns nothing
    int (*counters_fn_)(vxlan_ef_counters_t *) = nullptr;  // optional
};

// The default module path: libtq_vxlan_ef.so in the build tree beside efhost
// (../src/ relative to the executable), else next to it.
std::string default_module_path();
// The module a configuration loads: its `module`, else the default.
inline std::string module_path(const std::string &configured)
{
    return configured.empty() ? default_module_path() : configured;
}

}  // namespace efhost
