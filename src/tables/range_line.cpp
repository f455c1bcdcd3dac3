// Range lines of the shows: sorted numbers folded into "a-b" runs, joined
// by commas behind a label, broken into lines shorter than 256 characters.
#include <cstdio>
#include <cstring>

#include "tables_private.h"

namespace {

constexpr std::size_t kLineLimit = 256;

}  // namespace

namespace vxlan_ef {

void show_range_lines(const char *label, const uint32_t *values, uint32_t count)
{
    char line[kLineLimit + 32];
    std::size_t len = static_cast<std::size_t>(std::snprintf(line, sizeof line, "%s", label));
    bool first = true;
    for (uint32_t i = 0; i < count;) {
        uint32_t last = i;
        while (last + 1 < count && values[last + 1] == values[last] + 1)
            last++;
        char item[24];
        if (last == i)
            std::snprintf(item, sizeof item, "%u", values[i]);
        else
            std::snprintf(item, sizeof item, "%u-%u", values[i], values[last]);
        const std::size_t add = std::strlen(item) + (first ? 0 : 1);
        if (!first && len + add >= kLineLimit) {
            vxlan_ef_show_line("%s\n", line);
            len = static_cast<std::size_t>(
                std::snprintf(line, sizeof line, "%s%s", label, item));
        } else {
            len += static_cast<std::size_t>(
                std::snprintf(line + len, sizeof line - len, "%s%s", first ? "" : ",", item));
        }
        first = false;
        i = last + 1;
    }
    vxlan_ef_show_line("%s\n", line);
}

}  // namespace vxlan_ef
