// The tech-support dump: the entry, interface and status shows written into
// one file, framed by a start and an end banner. While it is written, the
// show path sends every show line to the file instead of syslog.
#include <cstdio>
#include <string>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "core/core_private.h"
#include "vxlan_ef.h"
#include "vxlan_ef_requests.h"
#include "vxlan_ef_tables.h"

namespace {

constexpr const char *kStartBanner =
    "**************** VXLAN_EF TECH-SUPPORT DUMP START ****************\n";
constexpr const char *kEndBanner =
    "***************** VXLAN_EF TECH-SUPPORT DUMP END *****************\n";
static_assert(std::char_traits<char>::length(
                  "**************** VXLAN_EF TECH-SUPPORT DUMP START ****************\n") == 67);
static_assert(std::char_traits<char>::length(
                  "***************** VXLAN_EF TECH-SUPPORT DUMP END *****************\n") == 67);

// Writes a banner to the dump file, or to syslog once the dump is no longer
// being written.
void banner(const char *text)
{
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd != nullptr && (vsd->flags & VXLAN_EF_F_TECH_DUMP)) {
        ssize_t n = write(vsd->dump_fd, text, std::strlen(text));
        (void)n;
        return;
    }
    const int id = vsd != nullptr ? vsd->id : 0;
    printk_syslog_ext(7, "UNKNOW_MODULE", "DEBUG", 2, "VXLAN-EF-SHOW: [vsd %d] %s", id, text);
}

}  // namespace

void vxlan_ef_tech_dump(uint32_t vsd_id)
{
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr)
        return;
    char path[256];
    std::snprintf(path, sizeof path, "%s/%d/%s", vxlan_ef::tlv::kTechDumpRoot, static_cast<int>(vsd_id),
                  vxlan_ef::tlv::kTechDumpFile);
    int fd = open(path, O_RDWR | O_CREAT, 0777);
    if (fd < 0) {
        VXLAN_EF_ERR("VXLAN-EF-ERR: [vsd %d %s] Failed to open file: %s\n", path);
        return;
    }
    vsd->dump_fd = fd;
    vsd->flags |= VXLAN_EF_F_TECH_DUMP;
    banner(kStartBanner);
    vxlan_ef_entry_show(vsd_id, 0);
    vxlan_ef_intf_show(vsd_id);
    vxlan_ef_show_status(vsd_id);
    banner(kEndBanner);
    vsd->flags &= ~VXLAN_EF_F_TECH_DUMP;
    fsync(fd);
    close(fd);
}
