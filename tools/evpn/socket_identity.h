// Which socket file stands at efhost's control socket path: a restarted
// efhost creates its socket anew, and with it every table the follower had
// told or asked the one before.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>

namespace evpn {

class SocketIdentity {
public:
    enum class Seen {
        Gone,      // no socket at the path
        First,     // a socket, the first one looked at
        Same,      // the socket of the last look
        Replaced,  // another socket than at the last look: efhost restarted
    };

    Seen look(const std::string &path)
    {
        struct stat st{};
        if (stat(path.c_str(), &st) != 0 || !S_ISSOCK(st.st_mode))
            return Seen::Gone;
        const int64_t ctime_ns = static_cast<int64_t>(st.st_ctim.tv_sec) * 1000000000 + st.st_ctim.tv_nsec;
        if (st.st_ino == inode_ && ctime_ns == ctime_ns_)
            return Seen::Same;
        const bool first = inode_ == 0;
        inode_ = st.st_ino;
        ctime_ns_ = ctime_ns;
        return first ? Seen::First : Seen::Replaced;
    }

private:
    ino_t inode_ = 0;
    int64_t ctime_ns_ = 0;
};

}  // namespace evpn
