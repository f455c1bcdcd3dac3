/* EF framework memory service: typed allocation with per-type accounting. */
#ifndef EF_MEM_H
#define EF_MEM_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Allocates size bytes accounted under the caller's memory type; NULL when
 * the allocation fails. flags are the caller's allocation flags, kept as given. */
void *ef_malloc(uint32_t mem_type, size_t size, uint32_t flags);

/* Releases a block from ef_malloc; NULL is ignored. */
void ef_free(uint32_t mem_type, void *ptr);

#ifdef __cplusplus
}
#endif

#endif
