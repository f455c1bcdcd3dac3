/* The module's packet counters as the process that loads it reads them: one
 * count per drop reason of the catalogue (vxlan_ef_drop.def), and frames and
 * bytes decapsulated, encapsulated and flooded per VNI and per tunnel
 * interface. Depends only on <stdint.h>, so that tools build the record
 * without the platform's headers.
 *
 * Counts only grow while the module is loaded; a VNI or tunnel once counted
 * keeps its row when its configuration goes, so that rates stay right. */
#ifndef VXLAN_EF_COUNTERS_H
#define VXLAN_EF_COUNTERS_H

#include <stdint.h>

/* One count per drop reason, in the catalogue's row order. */
typedef struct vxlan_ef_drop_counts {
#define VXLAN_EF_DROP(ident, name, text) uint64_t ident;
#include "vxlan_ef_drop.def"
} vxlan_ef_drop_counts_t;

/* Frames and bytes of one VNI or one tunnel interface. Bytes are the inner
 * Ethernet frame's: without the outer headers the module adds or removes. */
typedef struct vxlan_ef_flow_counts {
    uint32_t key; /* the VNI, or the tunnel interface's ifindex */
    uint32_t reserved;
    uint64_t rx_frames; /* decapsulated */
    uint64_t rx_bytes;
    uint64_t tx_frames; /* encapsulated, flood copies included */
    uint64_t tx_bytes;
    uint64_t flood_frames; /* flood copies sent into a tunnel */
    uint64_t flood_bytes;
} vxlan_ef_flow_counts_t;

/* The most VNIs and tunnels a read reports (the first by number). The module
 * counts up to twice VXLAN_EF_COUNTED_VNIS (VNI, tunnel) pairs; a frame of
 * a pair beyond them is counted in untracked only. */
#define VXLAN_EF_COUNTED_VNIS 4096u
#define VXLAN_EF_COUNTED_TUNNELS 1024u

typedef struct vxlan_ef_counters {
    vxlan_ef_drop_counts_t drops;
    uint64_t untracked; /* frames of a (VNI, tunnel) pair beyond those counted */
    uint32_t vni_count;
    uint32_t tunnel_count;
    vxlan_ef_flow_counts_t vnis[VXLAN_EF_COUNTED_VNIS];       /* vni_count rows, by VNI */
    vxlan_ef_flow_counts_t tunnels[VXLAN_EF_COUNTED_TUNNELS]; /* tunnel_count rows, by ifindex */
} vxlan_ef_counters_t;

#define VXLAN_EF_DROP_REASONS (sizeof(vxlan_ef_drop_counts_t) / sizeof(uint64_t))

#ifdef __cplusplus
extern "C" {
#endif
/* Fills out with a snapshot of every counter (each count read on its own,
 * relaxed: the record is not one instant). Returns 0, or -1 when out is
 * NULL. Takes no lock; any thread may call it, loaded or not started. */
__attribute__((visibility("default"))) int vxlan_ef_counters_read(vxlan_ef_counters_t *out);
#ifdef __cplusplus
}
#endif

/* Name and short text of each drop reason, in the record's order. */
typedef struct vxlan_ef_drop_reason {
    const char *name;
    const char *text;
} vxlan_ef_drop_reason_t;

static const vxlan_ef_drop_reason_t vxlan_ef_drop_reasons[] = {
#define VXLAN_EF_DROP(ident, name, text) {name, text},
#include "vxlan_ef_drop.def"
};

#endif
