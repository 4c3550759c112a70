/*
 * Compiled with -DK42MC_NO_REDIRECT_free and its own choice of an interface, which no GNU extension may
 * have crept into.
 */
#define _XOPEN_SOURCE     700
#define _FILE_OFFSET_BITS 64
#include <malloc.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>
#include <unistd.h>

#if defined _GNU_SOURCE || defined __USE_GNU || defined free || !defined strdup
#error "redirect.h has interfered"
#endif

extern void posix_part(void);

typedef char offsets_are_64_bits_wide[sizeof(off_t) == 8 ? 1 : -1];

struct pool {
    void (*free)(void *block);
};

/* What the libraries of a program do: a declaration by hand, after the header's. */
extern char *(strdup)(const char *text);

void posix_part(void) {
    const struct pool pool = {free};
    char *text = strdup("twelve");
    if (malloc_usable_size(text) != 7)
        abort();
    pool.free(text);
    free(strndup("abc", 2));
}
