// The module's own log file below TMPDIR: one time-stamped line per call,
// ended by CR LF, rotated once to the previous-log name past 1 MiB. The file
// is opened and closed for every line, so callers on any thread need no lock.
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/core_private.h"

namespace {

constexpr const char *kLogSuffix = "/dc/vxlan/vxlan_ef_log_dump.text";
constexpr const char *kOldLogSuffix = "/dc/vxlan/vxlan_ef_log_dump_old.text";
constexpr std::size_t kLineLen = 1024;
constexpr std::size_t kPathLen = 108;
constexpr int kStampLen = 64;
constexpr off_t kRotateSize = 0x100000;
constexpr int kOpenFlags = O_WRONLY | O_CREAT | O_APPEND;
constexpr mode_t kMode = 0777;

// Every message of the log file's own failures prints 0 and this name.
#define LOG_DUMP_ERR(fmt, ...) \
    VXLAN_EF_LOG_AS(VXLAN_EF_DBG_ERR, 0, "vxlan_ef_log_dump", fmt, ##__VA_ARGS__)

bool make_path(char (&path)[kPathLen], const char *suffix)
{
    const char *dir = std::getenv("TMPDIR");
    if (dir == nullptr || std::strlen(dir) + std::strlen(suffix) >= kPathLen) {
        LOG_DUMP_ERR("VXLAN-EF-ERR: [vsd %d %s] fail to make tmp path for %s\n", suffix);
        return false;
    }
    const std::size_t dir_len = std::strlen(dir);
    std::memcpy(path, dir, dir_len);
    std::strcpy(path + dir_len, suffix);
    return true;
}

// Moves an oversized log aside and opens a fresh one; -1 when the line must
// be dropped.
int rotate(int fd, const char *path, const char *old_path, off_t size)
{
    LOG_DUMP_ERR("VXLAN-EF-ERR: [vsd %d %s] [%s] size is %d > %d, copy to [%s]\n", path,
                 static_cast<int>(size), static_cast<int>(kRotateSize), old_path);
    close(fd);
    unlink(old_path);
    if (rename(path, old_path) != 0) {
        LOG_DUMP_ERR("VXLAN-EF-ERR: [vsd %d %s] fail to rename the path\n");
        return -1;
    }
    fd = open(path, kOpenFlags, kMode);
    if (fd < 0) {
        LOG_DUMP_ERR("VXLAN-EF-ERR: [vsd %d %s] vxlan-log: open file [%s] fail, err:%s\n", path,
                     std::strerror(errno));
        return -1;
    }
    if (ftruncate(fd, 0) != 0) {
        // The renamed-away name left a new, empty file behind: nothing to cut.
    }
    return fd;
}

void write_all(int fd, const void *data, std::size_t len)
{
    const auto *p = static_cast<const char *>(data);
    while (len > 0) {
        ssize_t n = write(fd, p, len);
        if (n <= 0)
            return;
        p += n;
        len -= static_cast<std::size_t>(n);
    }
}

}  // namespace

void vxlan_ef_log_dump(const char *format, ...)
{
    char line[kLineLen] = {};
    syslog_get_current_time(line, kStampLen, 0);
    std::size_t used = std::strlen(line);
    if (used + 1 < kLineLen) {
        line[used++] = ' ';
        va_list ap;
        va_start(ap, format);
        std::vsnprintf(line + used, kLineLen - used, format, ap);
        va_end(ap);
    }

    char path[kPathLen];
    char old_path[kPathLen];
    if (!make_path(path, kLogSuffix) || !make_path(old_path, kOldLogSuffix))
        return;

    int fd = open(path, kOpenFlags, kMode);
    if (fd < 0) {
        if (errno == ENOENT)
            return;
        LOG_DUMP_ERR("VXLAN-EF-ERR: [vsd %d %s] open file [%s] fail, err:%s\n", path,
                     std::strerror(errno));
        LOG_DUMP_ERR("VXLAN-EF-ERR: [vsd %d %s] vxlan-log: %s\n", line);
        return;
    }
    struct stat st {};
    if (fstat(fd, &st) == 0 && st.st_size > kRotateSize) {
        fd = rotate(fd, path, old_path, st.st_size);
        if (fd < 0)
            return;
    }
    // Line and CR LF leave in one write, so that concurrent writers appending
    // to the same file never split a line.
    const std::size_t len = std::strlen(line);
    char record[kLineLen + 2];
    std::memcpy(record, line, len);
    std::memcpy(record + len, "\r\n", 2);
    write_all(fd, record, len + 2);
    fsync(fd);
    close(fd);
}
