// The follower's log lines: on standard error, whole, time-stamped, and with
// the journal's priority in front only when standard error is the journal.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <regex>
#include <string>

#include "follower_log.h"

namespace {

// Runs log with standard error sent to a file of its own, named as the
// journal's stream when journal is true; returns what reached it.
template <typename Log>
std::string standard_error_of(bool journal, Log log)
{
    const char *old_env = std::getenv("JOURNAL_STREAM");
    const std::string saved = old_env != nullptr ? old_env : "";
    FILE *capture = std::tmpfile();
    EXPECT_NE(capture, nullptr);
    std::fflush(stderr);
    const int old_fd = dup(2);
    dup2(fileno(capture), 2);
    struct stat st{};
    fstat(fileno(capture), &st);
    if (journal)
        setenv("JOURNAL_STREAM", (std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino)).c_str(), 1);
    else
        unsetenv("JOURNAL_STREAM");
    log();
    std::fflush(stderr);
    dup2(old_fd, 2);
    close(old_fd);
    if (old_env != nullptr)
        setenv("JOURNAL_STREAM", saved.c_str(), 1);
    else
        unsetenv("JOURNAL_STREAM");
    std::string text;
    std::rewind(capture);
    for (int c; (c = std::fgetc(capture)) != EOF;) text.push_back(static_cast<char>(c));
    std::fclose(capture);
    return text;
}

const std::string kStamp = R"(evpn-follower \d\d:\d\d:\d\d\.\d\d\d )";

TEST(EvpnFollowerLogTest, LinesGoToStandardErrorWithoutPriorityOutsideTheJournal)
{
    const std::string text = standard_error_of(false, [] {
        evpn::follower_log("full resynchronisation: 1 VNIs");
        evpn::follower_log("efhost: sending failed: timeout", tools::Priority::Error);
    });
    EXPECT_TRUE(std::regex_match(text, std::regex(kStamp + "full resynchronisation: 1 VNIs\n" + kStamp +
                                                  "efhost: sending failed: timeout\n")))
        << text;
}

TEST(EvpnFollowerLogTest, EachLineCarriesItsPriorityInTheJournal)
{
    const std::string text = standard_error_of(true, [] {
        evpn::follower_log("full resynchronisation: 1 VNIs");
        evpn::follower_log("efhost: no control socket at /run/efhost/efhost.sock; waiting for it",
                           tools::Priority::Warning);
        evpn::follower_log("efhost: sending failed: timeout", tools::Priority::Error);
    });
    EXPECT_TRUE(std::regex_match(
        text, std::regex("<6>" + kStamp + "full resynchronisation: 1 VNIs\n<4>" + kStamp +
                         "efhost: no control socket at /run/efhost/efhost.sock; waiting for it\n<3>" + kStamp +
                         "efhost: sending failed: timeout\n")))
        << text;
}

}  // namespace
