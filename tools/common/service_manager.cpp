// See service_manager.h.
#include "service_manager.h"

#include <sys/stat.h>
#include <systemd/sd-daemon.h>

#include <cstdio>
#include <cstdlib>

namespace tools {

// systemd sets $JOURNAL_STREAM to "DEVICE:INODE" of the stream it connected;
// a child whose standard error was redirected elsewhere inherits the
// variable, hence the comparison.
bool is_journal_stream(int fd)
{
    const char *stream = std::getenv("JOURNAL_STREAM");
    if (stream == nullptr)
        return false;
    unsigned long long dev = 0, ino = 0;
    if (std::sscanf(stream, "%llu:%llu", &dev, &ino) != 2)
        return false;
    struct stat st{};
    return fstat(fd, &st) == 0 && st.st_dev == dev && st.st_ino == ino;
}

void notify_service_manager(const char *state) { (void)sd_notify(0, state); }

const char *priority_prefix(Priority priority)
{
    if (!is_journal_stream(2))
        return "";
    switch (priority) {
    case Priority::Error: return SD_ERR;
    case Priority::Warning: return SD_WARNING;
    case Priority::Info: break;
    }
    return SD_INFO;
}

const char *error_priority_prefix()
{
    static const char *const prefix = priority_prefix(Priority::Error);
    return prefix;
}

}  // namespace tools
