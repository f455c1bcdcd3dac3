// The follower's log lines: on standard error, whole, time-stamped, and with
// the journal's priority in front only when standard error is the journal.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
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

// Each line's time stamp, "evpn-follower HH:MM:SS.mmm ", becomes "evpn-follower T "
// so the rest can be compared exactly; a malformed stamp is left as it is.
// (std::regex is avoided: g++ 12 warns inside it under the sanitizers.)
std::string without_stamps(const std::string &text)
{
    static const std::string kPrefix = "evpn-follower ";
    static const std::string kShape = "00:00:00.000 ";
    std::string out;
    for (std::size_t i = 0; i < text.size();) {
        if (text.compare(i, kPrefix.size(), kPrefix) == 0 && i + kPrefix.size() + kShape.size() <= text.size()) {
            bool stamp = true;
            for (std::size_t k = 0; k < kShape.size() && stamp; ++k) {
                const char c = text[i + kPrefix.size() + k];
                stamp = kShape[k] == '0' ? (c >= '0' && c <= '9') : c == kShape[k];
            }
            if (stamp) {
                out += kPrefix + "T ";
                i += kPrefix.size() + kShape.size();
                continue;
            }
        }
        out.push_back(text[i++]);
    }
    return out;
}

const std::string kStamp = "evpn-follower T ";

TEST(EvpnFollowerLogTest, LinesGoToStandardErrorWithoutPriorityOutsideTheJournal)
{
    const std::string text = standard_error_of(false, [] {
        evpn::follower_log("full resynchronisation: 1 VNIs");
        evpn::follower_log("efhost: sending failed: timeout", tools::Priority::Error);
    });
    EXPECT_EQ(without_stamps(text),
              kStamp + "full resynchronisation: 1 VNIs\n" + kStamp + "efhost: sending failed: timeout\n");
}

TEST(EvpnFollowerLogTest, EachLineCarriesItsPriorityInTheJournal)
{
    const std::string text = standard_error_of(true, [] {
        evpn::follower_log("full resynchronisation: 1 VNIs");
        evpn::follower_log("efhost: no control socket at /run/efhost/efhost.sock; waiting for it",
                           tools::Priority::Warning);
        evpn::follower_log("efhost: sending failed: timeout", tools::Priority::Error);
    });
    EXPECT_EQ(without_stamps(text),
              "<6>" + kStamp + "full resynchronisation: 1 VNIs\n<4>" + kStamp +
                  "efhost: no control socket at /run/efhost/efhost.sock; waiting for it\n<3>" + kStamp +
                  "efhost: sending failed: timeout\n");
}

}  // namespace
