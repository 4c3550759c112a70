/*
 * Additions of our own, beside the defined interface. They never change what a defined function does.
 * What alloc.h says of all wrappers holds for these too.
 */
#ifndef K42MC_EXTRA_H
#define K42MC_EXTRA_H

#include <k42mc/base.h>

K42MC_BEGIN_DECLS

/* ---- Blocks of any type, for allocators of your own (new.hpp is one) ---- */

/*
 * Allocates size bytes from the standard allocator as a block of the given type, whose arena is the
 * type plus 1.
 *   type       MC_STD, MC_SYS, MC_FIX or MC_VAR.
 *   alignment  In bytes: 1 for none, else a power of two from the size of a pointer to K42MC_ALIGN_MAX.
 * Returns the block, or null with errno ENOMEM or EINVAL.
 */
void *k42mcx_alloc(const char *file, int line, int type, size_t alignment, size_t size)
    K42MC_SIZE_IS(5);

/* Releases a block that k42mcx_alloc handed out under this type. Null is ignored. */
void k42mcx_free(const char *file, int line, int type, void *ptr);

K42MC_END_DECLS

#endif
