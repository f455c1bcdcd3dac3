// The shared library exports the module's own names and nothing else.
#include <algorithm>
#include <cstdio>
#include <sys/wait.h>

#include "module_fixture.h"

namespace {

bool module_name(const std::string &name)
{
    return name.rfind("vxlan_ef_", 0) == 0 || name.rfind("g_vxlan_", 0) == 0;
}

TEST(ExportedSymbolsTest, LibraryDefinesOnlyVxlanEfAndGVxlanDynamicSymbols)
{
    const std::string cmd = std::string("'") + VXLAN_EF_NM + "' -D --defined-only '" + VXLAN_EF_LIBRARY_PATH + "' 2>&1";
    FILE *pipe = popen(cmd.c_str(), "r");
    ASSERT_NE(pipe, nullptr) << "cannot run: " << cmd;
    std::string output;
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, pipe)) > 0)
        output.append(buf, n);
    const int status = pclose(pipe);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << "nm could not be run (status " << status << "): " << cmd << "\n" << output;

    std::vector<std::string> names;
    std::istringstream lines(output);
    std::string line;
    while (std::getline(lines, line)) {
        const size_t blank = line.find_last_of(' ');
        names.push_back(blank == std::string::npos ? line : line.substr(blank + 1));
    }
    std::vector<std::string> foreign;
    for (const std::string &name : names)
        if (!module_name(name))
            foreign.push_back(name);
    EXPECT_TRUE(foreign.empty()) << "foreign exported symbols: " << ::testing::PrintToString(foreign);
    // The listing is real: the module's entry points are in it.
    EXPECT_NE(std::find(names.begin(), names.end(), "vxlan_ef_init"), names.end()) << output;
    EXPECT_NE(std::find(names.begin(), names.end(), "g_vxlan_vsd"), names.end()) << output;
    // The counters leave the module through this one function.
    EXPECT_NE(std::find(names.begin(), names.end(), "vxlan_ef_counters_read"), names.end()) << output;
    std::vector<std::string> counter_names;
    for (const std::string &name : names)
        if (name.find("counter") != std::string::npos)
            counter_names.push_back(name);
    EXPECT_EQ(counter_names, std::vector<std::string>{"vxlan_ef_counters_read"});
}

}  // namespace
