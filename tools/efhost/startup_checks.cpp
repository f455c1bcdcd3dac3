// efhost's checks before start; see startup_checks.h.
#include "startup_checks.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <net/if.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "module_loader.h"

namespace efhost {

namespace {

bool readable(const std::string &path, std::string &why)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        why = std::strerror(errno);
        return false;
    }
    ::close(fd);
    return true;
}

bool check_attachment(const InterfaceConfig &ic, std::string &error)
{
    const Attachment &a = ic.attach;
    std::string why;
    if (a.is_pcap() && !readable(a.pcap_in, why)) {
        error = "interface " + ic.name + ": cannot read capture file '" + a.pcap_in + "': " + why;
        return false;
    }
    if (!a.is_pcap() && !a.device.empty() && if_nametoindex(a.device.c_str()) == 0) {
        error = "interface " + ic.name + ": no network device '" + a.device + "'";
        return false;
    }
    return true;
}

// Loading the module once and letting it go again finds what dlopen would
// refuse later (not a shared object, a symbol efhost lacks) without running
// the module's start-up entry.
bool check_module(const std::string &path, std::string &error)
{
    std::string why;
    if (!readable(path, why)) {
        error = "module '" + path + "': " + why;
        return false;
    }
    void *handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        const char *what = dlerror();
        error = "module '" + path + "': cannot be loaded: " + (what != nullptr ? what : "unknown error");
        return false;
    }
    dlclose(handle);
    return true;
}

}  // namespace

bool check_startup(const Config &cfg, std::string &error)
{
    for (const InterfaceConfig &ic : cfg.interfaces)
        if (!check_attachment(ic, error))
            return false;
    return check_module(module_path(cfg.module_path), error);
}

}  // namespace efhost
