// Start-up and shut-down of the module. Start-up is a ladder of stages: a
// stage that fails undoes the stages before it, in reverse order, and the
// module does not start.
#include <array>

#include "core_private.h"
#include "vxlan_ef_frame.h"

namespace {

struct Stage {
    int (*init)();
    void (*exit)();           // nullptr: the stage has no undo step
    const char *failure;      // nullptr: the stage's result is ignored
};

int vsd_stage() { return vxlan_ef_vsd_init(); }
int com_stage() { return vxlan_ef_com_init(); }
int cap_stage() { return vxlan_ef_cap_init(); }
int frame_stage() { return vxlan_ef_frame_init(); }
int mom_stage() { return vxlan_ef_mom_init(); }
void mom_stop() { vxlan_ef_mom_exit(); }

constexpr std::array kStages{
    Stage{vsd_stage, vxlan_ef_vsd_exit, "VXLAN-EF-ERR: vxlan_ef_vsd_init failed.\n"},
    Stage{com_stage, vxlan_ef_com_exit, "VXLAN-EF-ERR: vxlan_ef_com_init failed.\n"},
    Stage{cap_stage, nullptr, nullptr},
    Stage{frame_stage, vxlan_ef_frame_exit, "VXLAN-EF-ERR: vxlan_ef_frame_init failed.\n"},
    Stage{mom_stage, mom_stop, "VXLAN-EF-ERR: vxlan_ef_mom_init failed.\n"},
};

void unwind(std::size_t done)
{
    while (done-- > 0) {
        if (kStages[done].exit != nullptr)
            kStages[done].exit();
    }
}

}  // namespace

int vxlan_ef_init(void)
{
    for (std::size_t i = 0; i < kStages.size(); ++i) {
        const Stage &stage = kStages[i];
        int rc = stage.init();
        if (rc != 0 && stage.failure != nullptr) {
            vxlan_ef_log_dump("%s", stage.failure);
            unwind(i);
            return -1;
        }
    }
    vxlan_ef_thread_init();
    return 0;
}

void vxlan_ef_exit(void)
{
    // The task is left running: it finds no instance and only re-arms itself.
    for (std::size_t i = kStages.size(); i-- > 0;) {
        if (kStages[i].exit != nullptr)
            kStages[i].exit();
    }
}
