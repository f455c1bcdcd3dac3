// Loading and unloading the VXLAN module with the dynamic linker.
#include "module_loader.h"

#include <dlfcn.h>
#include <unistd.h>

#include <filesystem>

namespace efhost {

namespace {
constexpr const char *kLibrary = "libtq_vxlan_ef.so";
}

ModuleLoader::~ModuleLoader() { unload(); }

bool ModuleLoader::load(const std::string &path, std::string &error)
{
    // RTLD_NOW: a platform symbol the module needs and efhost lacks is an
    // error at load time, not a crash at first use.
    void *handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        const char *why = dlerror();
        error = "cannot load module " + path + ": " + (why != nullptr ? why : "unknown error");
        return false;
    }
    auto init = reinterpret_cast<int (*)()>(dlsym(handle, "vxlan_ef_init"));
    auto exit_fn = reinterpret_cast<void (*)()>(dlsym(handle, "vxlan_ef_exit"));
    if (init == nullptr || exit_fn == nullptr) {
        error = "module " + path + " does not export vxlan_ef_init and vxlan_ef_exit";
        dlclose(handle);
        return false;
    }
    if (init() != 0) {
        error = "vxlan_ef_init of " + path + " failed (see the module log file and syslog)";
        dlclose(handle);
        return false;
    }
    handle_ = handle;
    exit_fn_ = exit_fn;
    counters_fn_ = reinterpret_cast<int (*)(vxlan_ef_counters_t *)>(dlsym(handle, "vxlan_ef_counters_read"));
    return true;
}

void ModuleLoader::unload()
{
    if (handle_ == nullptr)
        return;
    exit_fn_();
    dlclose(handle_);
    handle_ = nullptr;
    exit_fn_ = nullptr;
    counters_fn_ = nullptr;
}

vxlan_ef_vsd_t *ModuleLoader::instance() const
{
    if (handle_ == nullptr)
        return nullptr;
    auto *global = static_cast<vxlan_ef_vsd_t **>(dlsym(handle_, "g_vxlan_vsd"));
    return global != nullptr ? *global : nullptr;
}

bool ModuleLoader::read_counters(vxlan_ef_counters_t &out) const
{
    return handle_ != nullptr && counters_fn_ != nullptr && counters_fn_(&out) == 0;
}

std::string default_module_path()
{
    std::error_code ec;
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", ec);
    if (ec)
        return kLibrary;
    const std::filesystem::path dir = self.parent_path();
    for (const auto &candidate : {dir / ".." / "src" / kLibrary, dir / kLibrary})
        if (std::filesystem::exists(candidate, ec))
            return candidate.lexically_normal().string();
    return (dir / kLibrary).string();
}

}  // namespace efhost
