// What efhost tells systemd: sd_notify datagrams on $NOTIFY_SOCKET, and
// whether a stream is the one $JOURNAL_STREAM names.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "service_manager.h"

namespace {

// Restores an environment variable as the test found it.
class SavedEnv {
public:
    explicit SavedEnv(const char *name) : name_(name)
    {
        if (const char *v = std::getenv(name))
            old_ = v, had_ = true;
    }
    ~SavedEnv()
    {
        if (had_)
            setenv(name_, old_.c_str(), 1);
        else
            unsetenv(name_);
    }

private:
    const char *name_;
    std::string old_;
    bool had_ = false;
};

std::string stream_id(int fd)
{
    struct stat st{};
    EXPECT_EQ(fstat(fd, &st), 0);
    return std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino);
}

TEST(ServiceManagerTest, NotifySendsTheStateToTheNotifySocket)
{
    SavedEnv saved("NOTIFY_SOCKET");
    char dir[] = "/tmp/vxnotify.XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string path = std::string(dir) + "/notify";
    const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    ASSERT_GE(fd, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    setenv("NOTIFY_SOCKET", path.c_str(), 1);

    tools::notify_service_manager("READY=1");
    char buf[64] = {};
    const ssize_t n = recv(fd, buf, sizeof buf - 1, MSG_DONTWAIT);
    close(fd);
    unlink(path.c_str());
    rmdir(dir);
    ASSERT_EQ(n, 7);
    EXPECT_EQ(std::string(buf, n), "READY=1");
}

TEST(ServiceManagerTest, NotifyWithoutANotifySocketDoesNothing)
{
    SavedEnv saved("NOTIFY_SOCKET");
    unsetenv("NOTIFY_SOCKET");
    tools::notify_service_manager("STOPPING=1");  // must neither fail nor block
}

TEST(ServiceManagerTest, OnlyTheStreamJournalStreamNamesIsTheJournal)
{
    SavedEnv saved("JOURNAL_STREAM");
    FILE *journal = std::tmpfile();
    FILE *other = std::tmpfile();
    ASSERT_NE(journal, nullptr);
    ASSERT_NE(other, nullptr);
    setenv("JOURNAL_STREAM", stream_id(fileno(journal)).c_str(), 1);
    EXPECT_TRUE(tools::is_journal_stream(fileno(journal)));
    EXPECT_FALSE(tools::is_journal_stream(fileno(other)));
    setenv("JOURNAL_STREAM", "not a stream", 1);
    EXPECT_FALSE(tools::is_journal_stream(fileno(journal)));
    unsetenv("JOURNAL_STREAM");
    EXPECT_FALSE(tools::is_journal_stream(fileno(journal)));
    std::fclose(journal);
    std::fclose(other);
}

}  // namespace
