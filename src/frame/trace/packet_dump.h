// The packet dump printed for traced packets at named positions of the
// packet paths.
#pragma once

#include "efmp.h"
#include "vxlan_ef.h"

// Prints the buffer's metadata and its first bytes, one log call per line.
// Called only for packets whose trace lines are printed.
VXLAN_EF_API void vxlan_ef_pkt_dump(efmp_buff_t *buff, const char *position);
