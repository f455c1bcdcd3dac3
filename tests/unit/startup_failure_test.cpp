// Start-up failures: each failing stage writes its lines to the log file and
// undoes the stages before it; a failed task creation leaves the module up.
#include "module_fixture.h"

namespace {

class StartupFailureTest : public vxtest::ModuleTest {};

using vxtest::log_file_line;

TEST_F(StartupFailureTest, RecordAllocationFailureIsWrittenToLogFileAndStartFails)
{
    vxtest::ScratchTmpdir tmp;
    setenv("VSDID", "3", 1);
    efrt::mem_fail_nth(1);
    EXPECT_EQ(vxlan_ef_init(), -1);
    EXPECT_EQ(g_vxlan_vsd, nullptr);
    EXPECT_FALSE(efrt::msg_registered(EF_MSG_MODULE_VXLAN));
    EXPECT_TRUE(efrt::tasks().empty());
    EXPECT_EQ(vxlan_ef_thread, nullptr);
    EXPECT_EQ(efrt::mem_live_blocks(VXLAN_EF_EF_MEM_TYPE), 0);
    EXPECT_EQ(vxtest::read_file(tmp.log_path()),
              log_file_line("VXLAN-EF-ERR: kmalloc vxlan vsd memory failed.\n") +
                  log_file_line("VXLAN-EF-ERR: vxlan_ef_vsd_init failed.\n"));
    // No debug mask was ever set: the failure went to the file only.
    EXPECT_TRUE(logs().empty());
}

TEST_F(StartupFailureTest, RegistrationFailureIsWrittenToLogFileAndUnwindsTheRecord)
{
    vxtest::ScratchTmpdir tmp;
    setenv("VSDID", "3", 1);
    efrt::msg_fail_register(-1);
    EXPECT_EQ(vxlan_ef_init(), -1);
    EXPECT_EQ(g_vxlan_vsd, nullptr);
    EXPECT_FALSE(efrt::msg_registered(EF_MSG_MODULE_VXLAN));
    EXPECT_TRUE(efrt::tasks().empty());
    EXPECT_EQ(g_vxlan_ef_kmem_count[VXLAN_EF_MEM_VSD], 0u);
    EXPECT_EQ(efrt::mem_live_blocks(VXLAN_EF_EF_MEM_TYPE), 0);
    EXPECT_EQ(vxtest::read_file(tmp.log_path()),
              log_file_line("Register EF_MSG_MODULE_VXLAN failed.\n") +
                  log_file_line("VXLAN-EF-ERR: vxlan_ef_com_init failed.\n"));
    EXPECT_TRUE(logs().empty());

    // The module starts cleanly afterwards.
    start();
    EXPECT_TRUE(efrt::msg_registered(EF_MSG_MODULE_VXLAN));
}

TEST_F(StartupFailureTest, TaskCreationFailureIsWrittenToLogFileAndStartStillSucceeds)
{
    vxtest::ScratchTmpdir tmp;
    setenv("VSDID", "3", 1);
    efrt::task_fail_create(1);
    EXPECT_EQ(vxlan_ef_init(), 0);
    ASSERT_NE(g_vxlan_vsd, nullptr);
    EXPECT_TRUE(efrt::msg_registered(EF_MSG_MODULE_VXLAN));
    EXPECT_EQ(vxlan_ef_thread, nullptr);
    EXPECT_TRUE(efrt::tasks().empty());
    // Task creation is the last step: its line closes the file.
    const std::string text = vxtest::read_file(tmp.log_path());
    const std::string line = log_file_line("vxlan ef thread create fail.\n");
    ASSERT_GE(text.size(), line.size());
    EXPECT_EQ(text.substr(text.size() - line.size()), line);
    EXPECT_EQ(text.find(line), text.size() - line.size());
}

TEST_F(StartupFailureTest, TaskThatCannotReplaceItselfStopsPolling)
{
    vxtest::ScratchTmpdir tmp;
    start();
    const std::string before = vxtest::read_file(tmp.log_path());
    efrt::task_fail_create(1);
    efrt::clock_advance(100);
    EXPECT_EQ(vxlan_ef_thread, nullptr);
    EXPECT_TRUE(efrt::tasks().empty());
    EXPECT_EQ(vxtest::read_file(tmp.log_path()), before + log_file_line("vxlan ef thread create fail.\n"));
}

}  // namespace
