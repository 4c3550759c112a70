/*
 * What every public header needs. It includes nothing but <stddef.h>, so that redirect.h can include it
 * before a source file defines its own feature-test macros.
 */
#ifndef K42MC_BASE_H
#define K42MC_BASE_H

#include <stddef.h>

#ifdef __cplusplus
#define K42MC_BEGIN_DECLS extern "C" {
#define K42MC_END_DECLS   }
#else
#define K42MC_BEGIN_DECLS
#define K42MC_END_DECLS
#endif

/* Exported data is one object for the whole process, wherever the dynamic linker puts it. */
#define K42MC_DATA extern __attribute__((__visibility__("default")))

#define K42MC_PRINTF(text, first) __attribute__((__format__(__printf__, text, first)))

/* Lets the compiler warn, at no cost, about a block that is released through the wrong function. */
#if defined __GNUC__ && __GNUC__ >= 11 && !defined __clang__
#define K42MC_RELEASED_BY(function, argument) __attribute__((__malloc__, __malloc__(function, argument)))
#else
#define K42MC_RELEASED_BY(function, argument) __attribute__((__malloc__))
#endif

#define K42MC_SIZE_IS(argument)        __attribute__((__alloc_size__(argument)))
#define K42MC_SIZE_IS_PRODUCT(n, size) __attribute__((__alloc_size__(n, size)))
#define K42MC_MUST_CHECK               __attribute__((__warn_unused_result__))

#endif
