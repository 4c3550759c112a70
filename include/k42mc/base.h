/*
 * What every public header needs. It includes nothing but <stddef.h>, so that redirect.h can pull it
 * in ahead of a source file's own feature-test macros.
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
#define K42MC_DATA extern __attribute__((visibility("default")))

#define K42MC_PRINTF(format, first) __attribute__((format(printf, format, first)))

/* Lets the compiler warn, at no cost, about a block that is released through the wrong function. */
#if defined __GNUC__ && __GNUC__ >= 11 && !defined __clang__
#define K42MC_RELEASED_BY(function, argument) __attribute__((malloc, malloc(function, argument)))
#else
#define K42MC_RELEASED_BY(function, argument) __attribute__((malloc))
#endif

#define K42MC_SIZE_IS(argument)        __attribute__((alloc_size(argument)))
#define K42MC_SIZE_IS_PRODUCT(n, size) __attribute__((alloc_size(n, size)))
#define K42MC_MUST_CHECK               __attribute__((warn_unused_result))

#endif
