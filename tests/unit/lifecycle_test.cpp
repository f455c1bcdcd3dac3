// Start-up, shut-down, the instance id, the task and memory accounting.
#include "module_fixture.h"

using vxtest::ModuleTest;

TEST_F(ModuleTest, StartWithoutVsdidUsesIdMinusOneInEveryLogLine)
{
    start(nullptr);
    EXPECT_EQ(g_vxlan_vsd->id, -1);
    set_mask(VXLAN_EF_DBG_EVENT);
    ASSERT_EQ(efrt::msg_connect(EF_MSG_MODULE_VXLAN, true), 0);
    EXPECT_EQ(logs(), std::vector<std::string>{
                          "VXLAN-EF-EVENT: [vsd -1 vxlan_ef_com_connect] Connect to VXLAN EF success.\n"});
}

TEST_F(ModuleTest, StartWithVsdidThreeUsesIdThree)
{
    start("3");
    EXPECT_EQ(g_vxlan_vsd->id, 3);
}

TEST_F(ModuleTest, KmallocWithTypeEightReturnsNullWithoutAllocating)
{
    uint64_t before = efrt::mem_alloc_attempts();
    EXPECT_EQ(vxlan_ef_kmalloc(8, 16, 0), nullptr);
    EXPECT_EQ(efrt::mem_alloc_attempts(), before);
}
