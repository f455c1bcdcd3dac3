#include "read_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace toolfiles {

bool read_file(const std::string &path, std::string &text)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    char buf[4096];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0)
        text.append(buf, static_cast<size_t>(n));
    const int saved = errno;
    close(fd);
    errno = saved;
    return n == 0;
}

}  // namespace toolfiles
