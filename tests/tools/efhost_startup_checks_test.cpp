// efhost's checks before it starts: a missing device, an unreadable capture
// and a missing or unloadable module are each named with what is wrong.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "startup_checks.h"

namespace {

using efhost::Config;
using efhost::InterfaceConfig;

efhost::Attachment device(const std::string &name)
{
    efhost::Attachment a;
    a.device = name;
    return a;
}

efhost::Attachment capture(const std::string &in, const std::string &out)
{
    efhost::Attachment a;
    a.pcap_in = in;
    a.pcap_out = out;
    return a;
}

Config one_port(const efhost::Attachment &attach)
{
    Config cfg;
    InterfaceConfig ic;
    ic.index = 1;
    ic.name = "p1";
    ic.attach = attach;
    cfg.interfaces.push_back(ic);
    return cfg;
}

std::string problem(const Config &cfg)
{
    std::string error;
    EXPECT_FALSE(efhost::check_startup(cfg, error));
    return error;
}

// A file of text, nothing the dynamic linker or libpcap would take.
std::string text_file()
{
    const std::string path = testing::TempDir() + "efhost_startup_checks_text";
    std::ofstream(path) << "not a shared object\n";
    return path;
}

TEST(EfhostStartupChecksTest, MissingDeviceIsNamedWithItsInterface)
{
    EXPECT_EQ(problem(one_port(device("veth-nowhere9"))), "interface p1: no network device 'veth-nowhere9'");
}

TEST(EfhostStartupChecksTest, MissingCaptureIsNamedWithTheSystemsReason)
{
    EXPECT_EQ(problem(one_port(capture("/nonexistent/in.pcap", "/tmp/out.pcap"))),
              "interface p1: cannot read capture file '/nonexistent/in.pcap': No such file or directory");
}

TEST(EfhostStartupChecksTest, MissingModuleFileIsNamed)
{
    Config cfg = one_port(device("lo"));
    cfg.module_path = "/nonexistent/libtq_vxlan_ef.so";
    EXPECT_EQ(problem(cfg), "module '/nonexistent/libtq_vxlan_ef.so': No such file or directory");
}

TEST(EfhostStartupChecksTest, ModuleTheLinkerRefusesIsNamedWithItsReason)
{
    Config cfg = one_port(device("lo"));
    cfg.module_path = text_file();
    const std::string error = problem(cfg);
    const std::string head = "module '" + cfg.module_path + "': cannot be loaded: ";
    EXPECT_EQ(error.rfind(head, 0), 0u) << error;
    EXPECT_GT(error.size(), head.size()) << error;
}

TEST(EfhostStartupChecksTest, PresentDeviceReadableCaptureAndDefaultModulePass)
{
    Config cfg = one_port(device("lo"));
    InterfaceConfig replay;
    replay.index = 2;
    replay.name = "p2";
    replay.attach = capture(text_file(), testing::TempDir() + "out.pcap");
    cfg.interfaces.push_back(replay);
    InterfaceConfig unattached;
    unattached.index = 3;
    unattached.name = "unattached";
    cfg.interfaces.push_back(unattached);
    std::string error;
    EXPECT_TRUE(efhost::check_startup(cfg, error)) << error;
    EXPECT_FALSE(std::filesystem::exists(testing::TempDir() + "out.pcap"));
}

}  // namespace
