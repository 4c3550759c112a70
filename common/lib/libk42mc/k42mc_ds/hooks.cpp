// The default hooks of the containers: memory comes from the checked wrappers, under one name.
#include "k42mc_ds/conventions.h"

#include <cstdlib>

using k42mc::internal::ds::source_path;

// Records and reports know the three calls by these numbers.
static constexpr int alloc_line = 180;
static constexpr int realloc_line = 193;
static constexpr int dealloc_line = 205;

void *DSAlloc(size_t size) {
    return k42MC_malloc(source_path, alloc_line, size);
}

void *DSRealloc(void *block, size_t size) {
    return k42MC_realloc(source_path, realloc_line, block, size);
}

void DSDealloc(void *block) {
    k42MC_free(source_path, dealloc_line, block);
}

void DSDummyFunction() {}

void DSMemFail(const char *text) {
    std::printf("%s: memory failure\n", text);
    std::exit(-1);
}

K42MC_EXPORT(DSAlloc);
K42MC_EXPORT(DSRealloc);
K42MC_EXPORT(DSDealloc);
K42MC_EXPORT(DSDummyFunction);
K42MC_EXPORT(DSMemFail);
