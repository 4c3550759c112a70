/*
 * Routes the functions of libc that hand out and release memory to guarded blocks, in a source file that
 * knows nothing of it:
 *
 *   malloc calloc realloc reallocarray posix_memalign aligned_alloc memalign valloc free cfree
 *   strdup strndup wcsdup asprintf vasprintf getline getdelim open_memstream realpath getcwd
 *   malloc_usable_size
 *
 * Plain calls carry the file and line of the caller. Every other use of a name (its address, a call in
 * parentheses, a table of functions) reaches the guarded function too, recorded as "(indirect call)". In
 * C++ the calls of the first line of names carry their site, the others are routed without one.
 *
 * For whole programs, compile every source with the flags of `pkg-config --cflags k42mc_r-redirect` or
 * the CMake target k42mc::redirect. They include this file first, and put wrappers of the system
 * headers ahead, which set the macros aside while a system header declares its functions; so the
 * source's own feature-test macros keep working. Route all sources of a program, or none that pass
 * blocks to each other.
 *
 * By hand, include this file in C before or after the system headers, but after feature-test macros, and
 * in C++ ahead of every system header. It includes those that declare the names before its macros begin.
 *
 * What the preprocessor cannot do: where a name is followed by a parenthesis and is no call of libc's
 * function (a struct member or a class's method called like one, a declaration or definition of a
 * function of the name), the macro is in the way. Compile that source with
 *   -DK42MC_NO_REDIRECT_<name>      no macro for this name, or
 *   -DK42MC_REDIRECT_NAMES_ONLY     no macros at all;
 * calls then reach the guarded functions all the same, without file and line. `#undef` does that as well,
 * from its line on.
 *
 * Memory from libraries that were compiled without these flags, or from functions of libc not named
 * above (scandir, backtrace_symbols, scanf's "%m"), is not guarded: release it with K42MC_RAW_FREE(p),
 * which is plain free in a build without this file if you say so:
 *   #ifndef K42MC_RAW_FREE
 *   #define K42MC_RAW_FREE(ptr) free(ptr)
 *   #endif
 *
 * _FORTIFY_SOURCE is switched off: its variants of the functions would bypass the guards.
 */
#ifndef K42MC_REDIRECT_H
#define K42MC_REDIRECT_H

#ifndef __ASSEMBLER__

#if defined __cplusplus && defined _STDLIB_H && !__has_include(<k42mc_suspend.h>)
#warning "include k42mc/redirect.h before the system headers: &std::free and its like stay libc's"
#endif

#undef _FORTIFY_SOURCE

/* No warnings that libc's own functions would not have caused, now that each has two names. */
#include <k42mc/base.h>
#undef K42MC_RELEASED_BY
#undef K42MC_MUST_CHECK
#define K42MC_RELEASED_BY(function, argument) __attribute__((malloc))
#define K42MC_MUST_CHECK

#include <k42mc/extra.h>

#define K42MC_RAW_FREE(ptr) k42mcx_raw_free(ptr)

/* Links every reference that is left to the guarded function. */
#pragma redefine_extname reallocarray k42mcx_plain_reallocarray
#pragma redefine_extname posix_memalign k42mcx_plain_posix_memalign
#pragma redefine_extname aligned_alloc k42mcx_plain_aligned_alloc
#pragma redefine_extname memalign k42mcx_plain_memalign
#pragma redefine_extname valloc k42mcx_plain_valloc
#pragma redefine_extname cfree k42mcx_plain_cfree
#pragma redefine_extname strdup k42mcx_plain_strdup
#pragma redefine_extname strndup k42mcx_plain_strndup
#pragma redefine_extname wcsdup k42mcx_plain_wcsdup
#pragma redefine_extname asprintf k42mcx_plain_asprintf
#pragma redefine_extname vasprintf k42mcx_plain_vasprintf
#pragma redefine_extname getline k42mcx_plain_getline
#pragma redefine_extname getdelim k42mcx_plain_getdelim
#pragma redefine_extname open_memstream k42mcx_plain_open_memstream
#pragma redefine_extname realpath k42mcx_plain_realpath
#pragma redefine_extname getcwd k42mcx_plain_getcwd
#pragma redefine_extname malloc_usable_size k42mcx_malloc_usable_size
/* What libc's own inline getline calls. */
#pragma redefine_extname __getdelim k42mcx_plain_getdelim

/* GCC makes calls of its own, such as calloc from malloc and memset, if no -fno-builtin keeps it from
   that. It looks at no pragma then, only at a declaration; that one has to follow the system's. */
#if __has_include(<k42mc_suspend.h>) || defined __clang__
#pragma redefine_extname malloc k42mcx_plain_malloc
#pragma redefine_extname calloc k42mcx_plain_calloc
#pragma redefine_extname realloc k42mcx_plain_realloc
#pragma redefine_extname free k42mcx_plain_free
#else
#include <stdlib.h>
#ifdef __cplusplus
#define K42MC_LINKED_TO(name) __THROW __asm__(name)
#else
#define K42MC_LINKED_TO(name) __asm__(name)
#endif
K42MC_BEGIN_DECLS
void *malloc(size_t) K42MC_LINKED_TO("k42mcx_plain_malloc");
void *calloc(size_t, size_t) K42MC_LINKED_TO("k42mcx_plain_calloc");
void *realloc(void *, size_t) K42MC_LINKED_TO("k42mcx_plain_realloc");
void free(void *) K42MC_LINKED_TO("k42mcx_plain_free");
K42MC_END_DECLS
#endif

#if !__has_include(<k42mc_suspend.h>)

/* Without the wrappers, whatever declares the names has to come before the macros. */
#include <malloc.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <wchar.h>
#ifdef __cplusplus
#include <cstdlib>
#endif
#if __has_include(<mm_malloc.h>)
#include <mm_malloc.h>
#endif

#endif

#ifdef __cplusplus
/* For std::malloc(n) and its like. */
namespace std {
using ::k42MC_calloc;
using ::k42MC_free;
using ::k42MC_malloc;
using ::k42mcx_aligned_alloc;
using ::k42mcx_realloc;
} // namespace std
#endif

#ifndef K42MC_REDIRECT_NAMES_ONLY
#ifndef K42MC_NO_REDIRECT_malloc
#define malloc(...) k42MC_malloc(__FILE__, __LINE__, __VA_ARGS__)
#endif
#ifndef K42MC_NO_REDIRECT_calloc
#define calloc(...) k42MC_calloc(__FILE__, __LINE__, __VA_ARGS__)
#endif
#ifndef K42MC_NO_REDIRECT_realloc
#define realloc(...) k42mcx_realloc(__FILE__, __LINE__, __VA_ARGS__)
#endif
#ifndef K42MC_NO_REDIRECT_reallocarray
#define reallocarray(...) k42mcx_reallocarray(__FILE__, __LINE__, __VA_ARGS__)
#endif
#ifndef K42MC_NO_REDIRECT_posix_memalign
#define posix_memalign(...) k42MC_posix_memalign(__FILE__, __LINE__, __VA_ARGS__)
#endif
#ifndef K42MC_NO_REDIRECT_aligned_alloc
#define aligned_alloc(...) k42mcx_aligned_alloc(__FILE__, __LINE__, __VA_ARGS__)
#endif
#ifndef K42MC_NO_REDIRECT_memalign
#define memalign(...) k42mcx_memalign(__FILE__, __LINE__, __VA_ARGS__)
#endif
#ifndef K42MC_NO_REDIRECT_valloc
#define valloc(...) k42MC_valloc(__FILE__, __LINE__, __VA_ARGS__)
#endif
#ifndef K42MC_NO_REDIRECT_free
#define free(...) k42MC_free(__FILE__, __LINE__, __VA_ARGS__)
#endif
#ifndef K42MC_NO_REDIRECT_cfree
#define cfree(...) k42MC_cfree(__FILE__, __LINE__, __VA_ARGS__)
#endif

/* C++ has methods of these names. */
#ifndef __cplusplus
#ifndef K42MC_NO_REDIRECT_strdup
#define strdup(...) k42mcx_strdup(__FILE__, __LINE__, __VA_ARGS__)
#endif
#ifndef K42MC_NO_REDIRECT_strndup
#define strndup(...) k42mcx_strndup(__FILE__, __LINE__, __VA_ARGS__)
#endif
#ifndef K42MC_NO_REDIRECT_wcsdup
#define wcsdup(...) k42mcx_wcsdup(__FILE__, __LINE__, __VA_ARGS__)
#endif
#ifndef K42MC_NO_REDIRECT_asprintf
#define asprintf(...) k42mcx_asprintf(__FILE__, __LINE__, __VA_ARGS__)
#endif
#ifndef K42MC_NO_REDIRECT_vasprintf
#define vasprintf(...) k42mcx_vasprintf(__FILE__, __LINE__, __VA_ARGS__)
#endif
#ifndef K42MC_NO_REDIRECT_getline
#define getline(...) k42mcx_getline(__FILE__, __LINE__, __VA_ARGS__)
#endif
#ifndef K42MC_NO_REDIRECT_getdelim
#define getdelim(...) k42mcx_getdelim(__FILE__, __LINE__, __VA_ARGS__)
#endif
#ifndef K42MC_NO_REDIRECT_open_memstream
#define open_memstream(...) k42mcx_open_memstream(__FILE__, __LINE__, __VA_ARGS__)
#endif
#ifndef K42MC_NO_REDIRECT_realpath
#define realpath(...) k42mcx_realpath(__FILE__, __LINE__, __VA_ARGS__)
#endif
#ifndef K42MC_NO_REDIRECT_getcwd
#define getcwd(...) k42mcx_getcwd(__FILE__, __LINE__, __VA_ARGS__)
#endif
#endif
#endif /* K42MC_REDIRECT_NAMES_ONLY */

#endif /* __ASSEMBLER__ */

#endif
