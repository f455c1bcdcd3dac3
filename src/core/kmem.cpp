// Memory accounting of the module: every allocation goes to the platform
// allocator under the module's memory type, and live blocks are counted per
// category so that leaks show by category.
#include "ef_mem.h"
#include "vxlan_ef.h"

uint32_t g_vxlan_ef_kmem_count[VXLAN_EF_MEM_CLASSES];

void *vxlan_ef_kmalloc(uint32_t type, uint32_t size, uint32_t flags)
{
    if (type >= VXLAN_EF_MEM_CLASSES)
        return nullptr;
    void *ptr = ef_malloc(VXLAN_EF_EF_MEM_TYPE, size, flags);
    if (ptr != nullptr)
        g_vxlan_ef_kmem_count[type]++;
    return ptr;
}

void vxlan_ef_kfree(uint32_t type, void *ptr)
{
    if (type >= VXLAN_EF_MEM_CLASSES || ptr == nullptr)
        return;
    ef_free(VXLAN_EF_EF_MEM_TYPE, ptr);
    g_vxlan_ef_kmem_count[type]--;
}
