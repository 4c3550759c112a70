// What all container families share: how elements and links convert, which hooks stand in for null, and
// the lines that the printouts have in common.
#pragma once

#include "linkage/linkage.h"

#include <cstdint>
#include <cstdio>

namespace k42mc::internal::ds {

// The name under which containers allocate and report.
inline constexpr char source_path[] = "common/lib/libk42mc/k42mc_ds";

// Headers hold, and are compared with, the addresses that the process has for these functions.
K42MC_PUBLIC_SYMBOL(DSAlloc);
K42MC_PUBLIC_SYMBOL(DSRealloc);
K42MC_PUBLIC_SYMBOL(DSDealloc);
K42MC_PUBLIC_SYMBOL(DSDummyFunction);

inline DSAllocHook or_default(DSAllocHook alloc) {
    return alloc ? alloc : k42mc_public_DSAlloc;
}

inline DSReallocHook or_default(DSReallocHook realloc) {
    return realloc ? realloc : k42mc_public_DSRealloc;
}

// Deallocation and destroy hooks have one type and one default.
inline DSDeallocHook or_default(DSDeallocHook dealloc) {
    return dealloc ? dealloc : k42mc_public_DSDealloc;
}

// Whether a container with this destroy hook gives its elements up to it.
inline bool owns_elements(DSDestroyHook destroy) {
    return destroy != reinterpret_cast<DSDestroyHook>(k42mc_public_DSDummyFunction);
}

template <class Link> Link *link_at(const void *element, uint32_t offset) {
    return reinterpret_cast<Link *>(static_cast<char *>(const_cast<void *>(element)) + offset);
}

inline void *element_at(const void *link, uint32_t offset) {
    return static_cast<char *>(const_cast<void *>(link)) - offset;
}

inline int32_t destroy_removed(DSDestroyHook destroy, void *element) {
    if (!element)
        return DS_FAILURE;
    destroy(element);
    return DS_OK;
}

inline int32_t check_passed(const char *check) {
    std::printf(">>>>>> %s: OK\n", check);
    return DS_OK;
}

// The number stands for the test that failed.
inline int32_t check_failed(int number, const char *family) {
    std::printf("%s:%d: >>>>>> FAULT in %s\n", source_path, number, family);
    return DS_FAILURE;
}

} // namespace k42mc::internal::ds
