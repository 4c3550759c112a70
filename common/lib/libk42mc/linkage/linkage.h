// How the library's own functions are linked. Every source includes the public headers through this one.
//
// A call inside the library must reach the library's function even when the executable defines the same
// name: container names are short. So each exported function is compiled under a hidden name, its twin,
// which is what every call in these sources means, and K42MC_EXPORT adds the public name as an alias.
// Exported data and the addresses of the default hooks are the other way round: the process sees one of
// each, so they are reached through the global offset table.
#pragma once

#define K42MC_PRAGMA(text)          _Pragma(#text)
#define K42MC_HIDDEN_NAME(function) K42MC_PRAGMA(redefine_extname function k42mc_own_##function)

#include "linkage/hidden_names.h"

// Function declarations become hidden; exported data says "default" for itself, and the system's headers
// must not be seen for the first time in between.
#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#pragma GCC visibility push(hidden)
#include <k42mc/k42mc.h>
#pragma GCC visibility pop

#if defined __GNUC__ && !defined __clang__
#define K42MC_COPY_ATTRIBUTES(function) __attribute__((copy(function)))
#else
#define K42MC_COPY_ATTRIBUTES(function)
#endif

#define K42MC_EXPORT(function)                                                                          \
    extern "C" K42MC_COPY_ATTRIBUTES(function) __attribute__((                                          \
        visibility("default"),                                                                          \
        alias("k42mc_own_" #function))) decltype(function) k42mc_export_##function __asm__(#function)

// The public symbol of an exported function, for taking the address that the executable would see.
#define K42MC_PUBLIC_SYMBOL(function)                                                                   \
    extern "C" __attribute__((                                                                          \
        visibility("default"))) decltype(function) k42mc_public_##function __asm__(#function)
