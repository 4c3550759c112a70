/*
 * An executable that uses all of the library's names for itself (deadly_names.c): the library's calls
 * among its own functions must not reach them. The default hooks are the exception: the library uses
 * the executable's, which are counted here.
 */
#define _GNU_SOURCE
#include "expect.h"
#include <dlfcn.h>
#include <k42mc/k42mc.h>

#define LIBRARY(name) ((__typeof__(&name))library(#name, (void *)(name)))

/* The library's function behind the executable's of that name. */
static void *library(const char *name, void *own) {
    void *theirs = dlsym(RTLD_NEXT, name);
    EXPECT(theirs && theirs != own);
    /* The executable's must be in the way, or nothing is tried here. */
    EXPECT(dlsym(RTLD_DEFAULT, name) == own);
    return theirs;
}

static int allocs, deallocs;

void *DSAlloc(size_t size) {
    allocs++;
    return LIBRARY(DSAlloc)(size);
}

void DSDealloc(void *block) {
    deallocs++;
    LIBRARY(DSDealloc)(block);
}

int main(void) {
    char filter[] = "own_names.c:1:LK:STD:0x0:100:1";
    void *block;

    LIBRARY(MCInit)(0, 0);
    EXPECT(gK42MCOn == 1 && allocs > 0);
    EXPECT(LIBRARY(MCBTFilterOut)(filter) == 0);
    block = LIBRARY(k42MC_calloc)("own_names.c", 1, 10, 10);
    block = LIBRARY(k42MC_realloc)("own_names.c", 2, block, 1000);
    EXPECT(block);
    LIBRARY(MCReport)(0);
    LIBRARY(k42MC_free)("own_names.c", 3, block);
    LIBRARY(MCDeinit)();
    EXPECT(gK42MCOn == 0 && deallocs > 0);

    /* A second life, ended by the report at exit. */
    LIBRARY(MCInit)(0, 0);
    EXPECT(LIBRARY(k42MC_malloc)("own_names.c", 4, 10));
    return 0;
}
