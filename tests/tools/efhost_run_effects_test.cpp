// What efhost watches for around the module's processing of a client's run:
// the module's error flag switched on for the run and put back after, left
// alone for a run that prints the mask or sets it; the tech-support dump's
// path and whether it was written; and the start-up overlay's key and check.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "config.h"
#include "overlay.h"
#include "run_effects.h"
#include "tlv_message.h"
#include "tlv_writer.h"
#include "vxlan_ef_requests.h"

namespace {

using namespace vxlanctl;

std::vector<uint8_t> message(const Tlv &tlv)
{
    std::string error;
    return pack_messages({tlv}, error)->front();
}

std::vector<uint8_t> set_entry() { return message(TlvWriter(kSetEntry).number("vni", 0).number("oper", 1).tlv()); }
std::vector<uint8_t> show(vxlan_ef::tlv::ShowId id)
{
    return message(TlvWriter(kEfShow).number("show_id", static_cast<uint16_t>(id)).tlv());
}
std::vector<uint8_t> tech_dump()
{
    return message(TlvWriter(kEfCtrl).number("ctrl", vxlan_ef::tlv::kCtrlTechDump).number("oper", 1).tlv());
}

TEST(EfhostRunEffectsTest, TheErrorFlagIsOnForTheRunAndPutBackAfter)
{
    vxlan_ef_vsd_t vsd{};
    vsd.debug_mask = VXLAN_EF_DBG_EVENT;
    efhost::ModuleErrorFlag flag;
    flag.bind(&vsd);
    flag.run_started(set_entry());
    EXPECT_EQ(vsd.debug_mask, VXLAN_EF_DBG_EVENT | VXLAN_EF_DBG_ERR);
    flag.run_continued(set_entry());
    flag.run_ended();
    EXPECT_EQ(vsd.debug_mask, VXLAN_EF_DBG_EVENT);
}

TEST(EfhostRunEffectsTest, AFlagTheUserSetStaysSet)
{
    vxlan_ef_vsd_t vsd{};
    vsd.debug_mask = VXLAN_EF_DBG_ERR;
    efhost::ModuleErrorFlag flag;
    flag.bind(&vsd);
    flag.run_started(set_entry());
    flag.run_ended();
    EXPECT_EQ(vsd.debug_mask, VXLAN_EF_DBG_ERR);
}

TEST(EfhostRunEffectsTest, ARunThatSetsTheMaskKeepsWhatItSet)
{
    vxlan_ef_vsd_t vsd{};
    efhost::ModuleErrorFlag flag;
    flag.bind(&vsd);
    flag.run_started(set_entry());
    flag.run_continued(message(TlvWriter(kEfDbg).number("mask", 3).tlv()));
    vsd.debug_mask = 3;  // as the module stores it
    flag.run_ended();
    EXPECT_EQ(vsd.debug_mask, 3);
}

TEST(EfhostRunEffectsTest, RunsThatPrintTheMaskLeaveItAlone)
{
    vxlan_ef_vsd_t vsd{};
    efhost::ModuleErrorFlag flag;
    flag.bind(&vsd);
    for (const auto &payload : {show(vxlan_ef::tlv::ShowId::Status), tech_dump()}) {
        flag.run_started(payload);
        EXPECT_EQ(vsd.debug_mask, 0);
        flag.run_ended();
    }
    flag.run_started(show(vxlan_ef::tlv::ShowId::Entry));
    EXPECT_EQ(vsd.debug_mask, VXLAN_EF_DBG_ERR);
    flag.run_ended();
    EXPECT_EQ(vsd.debug_mask, 0);
}

TEST(EfhostRunEffectsTest, ErrorLinesAreTheModulesErrorCategory)
{
    EXPECT_TRUE(efhost::is_module_error_line("VXLAN-EF-ERR: [vsd 0 f] ERROR VNI: 0\n"));
    EXPECT_FALSE(efhost::is_module_error_line("VXLAN-EF-EVENT: [vsd 0 f] try to set entry\n"));
    EXPECT_FALSE(efhost::is_module_error_line("VXLAN-EF-SHOW: [vsd 0] VXLAN-EF-ERR:\n"));
}

TEST(EfhostRunEffectsTest, TheDumpPathKeepsTheModulesDoubledSlash)
{
    EXPECT_EQ(efhost::tech_dump_path(3), "/tmp/vsd/3//dc/vxlan/.vxlan_ef_dump.txt");
    EXPECT_EQ(efhost::tech_dump_path(-1), "/tmp/vsd/-1//dc/vxlan/.vxlan_ef_dump.txt");
    EXPECT_EQ(efhost::tech_dump_dir(3), "/tmp/vsd/3//dc/vxlan");
}

TEST(EfhostRunEffectsTest, ADumpIsReportedWrittenOnlyWhenTheFileChanged)
{
    vxlan_ef_vsd_t vsd{};
    vsd.id = 15;
    const std::string path = efhost::tech_dump_path(15);
    std::filesystem::create_directories(efhost::tech_dump_dir(15));
    unlink(path.c_str());
    efhost::TechDumpCheck check;
    check.bind(&vsd);
    check.delivering(set_entry());
    EXPECT_EQ(check.outcome(), std::nullopt);
    check.delivering(tech_dump());
    EXPECT_EQ(check.outcome(), "error: the module wrote no tech-support dump to " + path + " (No such file or directory)");
    check.delivering(tech_dump());
    std::ofstream(path) << "dump\n";
    EXPECT_EQ(check.outcome(), "ok: tech-support dump written to " + path);
    check.delivering(tech_dump());
    EXPECT_EQ(check.outcome(), "error: the module wrote no tech-support dump to " + path);
    std::filesystem::remove_all("/tmp/vsd/15");
}

class EfhostOverlayTest : public ::testing::Test {
protected:
    void SetUp() override { dir_ = mkdtemp(name_); }
    void TearDown() override { std::filesystem::remove_all(dir_); }
    std::string write(const std::string &file, const std::string &text)
    {
        std::ofstream(dir_ + "/" + file) << text;
        return dir_ + "/" + file;
    }
    char name_[32] = "/tmp/efoverlay.XXXXXX";
    std::string dir_;
};

TEST_F(EfhostOverlayTest, ARelativeOverlayIsTakenFromTheConfigurationsDirectory)
{
    const std::string cfg = write("efhost.yaml", "control_socket: /tmp/s\noverlay: overlay.yaml\n"
                                                 "interfaces:\n  - {index: 1, name: p1}\n");
    efhost::Config c;
    std::string error;
    ASSERT_TRUE(efhost::load_config(cfg, c, error)) << error;
    EXPECT_EQ(c.overlay, dir_ + "/overlay.yaml");
    write("abs.yaml", "control_socket: /tmp/s\noverlay: /etc/efhost/overlay.yaml\ninterfaces:\n  - {index: 1, name: p1}\n");
    ASSERT_TRUE(efhost::load_config(dir_ + "/abs.yaml", c, error)) << error;
    EXPECT_EQ(c.overlay, "/etc/efhost/overlay.yaml");
}

TEST_F(EfhostOverlayTest, AnOverlayFileThatIsMissingOrWrongIsRefusedWithItsLine)
{
    std::string error;
    EXPECT_TRUE(efhost::check_overlay("", error));
    EXPECT_TRUE(efhost::check_overlay(write("good.yaml", "vnis:\n  - {vni: 1000, vlans: [10]}\n"), error)) << error;
    const std::string bad = write("bad.yaml", "vnis:\n  - {vni: 1000, vlans: [10]}\n  - {vni: 0}\n");
    EXPECT_FALSE(efhost::check_overlay(bad, error));
    EXPECT_EQ(error.substr(0, 9 + bad.size() + 3), "overlay: " + bad + ":3:");
    EXPECT_FALSE(efhost::check_overlay(dir_ + "/absent.yaml", error));
    EXPECT_EQ(error, "overlay: cannot read " + dir_ + "/absent.yaml: No such file or directory");
}

}  // namespace
