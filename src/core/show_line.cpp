// The show path: every show line goes to syslog with the show prefix, or,
// while a tech-support dump is being written, into the dump file without it.
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "core_private.h"

void vxlan_ef_show_line(const char *fmt, ...)
{
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr)
        return;
    va_list ap;
    va_start(ap, fmt);
    if (vsd->flags & VXLAN_EF_F_TECH_DUMP) {
        std::vsnprintf(vsd->dump_line, sizeof vsd->dump_line, fmt, ap);
        ssize_t n = write(vsd->dump_fd, vsd->dump_line, std::strlen(vsd->dump_line));
        (void)n;
    } else {
        char text[1024];
        std::vsnprintf(text, sizeof text, fmt, ap);
        printk_syslog_ext(7, "UNKNOW_MODULE", "DEBUG", 2, "VXLAN-EF-SHOW: [vsd %d] %s", vsd->id,
                          text);
    }
    va_end(ap);
}
