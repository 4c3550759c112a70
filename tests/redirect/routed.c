/*
 * A source file that knows nothing of guarded blocks, but for the few lines that watch what became of
 * its memory: its own feature-test macro, every name as a call, in parentheses, by address, from a
 * table. A block of n bytes, n odd, is guarded if exactly n bytes of it are usable.
 */
#define _GNU_SOURCE
#define _FORTIFY_SOURCE 2
#include <errno.h>
#include <malloc.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>
#include <wchar.h>
#if defined __SSE2__
#include <emmintrin.h>
#endif

#include "expect.h"

extern void posix_part(void);

/* Members of these names are fine as long as the calls go through (*member). */
static const struct functions {
    void *(*malloc)(size_t);
    void *(*calloc)(size_t, size_t);
    void *(*realloc)(void *, size_t);
    void (*free)(void *);
    char *(*strdup)(const char *);
    ssize_t (*getline)(char **, size_t *, FILE *);
} table = {malloc, calloc, realloc, free, strdup, getline};

static void expect_guarded(int line, void *block, size_t size, void (*release)(void *)) {
    if (malloc_usable_size(block) != size) {
        printf("%s:%d: %zu usable bytes instead of %zu\n", __FILE__, line, malloc_usable_size(block),
               size);
        faults++;
    }
    (*release)(block);
}

#define GUARDED(block, size) expect_guarded(__LINE__, block, size, &free)

static int format(int parenthesised, char **text, const char *pattern, ...) {
    va_list arguments;
    va_start(arguments, pattern);
    const int length =
        parenthesised ? (vasprintf)(text, pattern, arguments) : vasprintf(text, pattern, arguments);
    va_end(arguments);
    return length;
}

static void blocks(void) {
    void *p;
    GUARDED(malloc(13), 13);
    GUARDED((malloc)(13), 13);
    GUARDED((*table.malloc)(13), 13);
    GUARDED(calloc(3, 5), 15);
    GUARDED((calloc)(3, 5), 15);
    GUARDED((*table.calloc)(3, 5), 15);
    GUARDED(realloc(malloc(3), 17), 17);
    GUARDED((realloc)((malloc)(3), 17), 17);
    GUARDED((*table.realloc)(NULL, 0), 0);
    GUARDED(reallocarray(NULL, 3, 7), 21);
    GUARDED((reallocarray)(malloc(1), 3, 7), 21);
    EXPECT(posix_memalign(&p, 64, 13) == 0 && (size_t)p % 64 == 0);
    GUARDED(p, 13);
    EXPECT((posix_memalign)(&p, 64, 13) == 0 && (size_t)p % 64 == 0);
    GUARDED(p, 13);
    GUARDED(aligned_alloc(32, 13), 13);
    GUARDED((aligned_alloc)(32, 13), 13);
    GUARDED(memalign(33, 13), 13);
    GUARDED((memalign)(32, 13), 13);
    GUARDED(valloc(13), 13);
    GUARDED((valloc)(13), 13);
    free(malloc(1)), (free)(malloc(1)), (*table.free)(malloc(1));
    cfree(malloc(1));
#if defined __SSE2__
    _mm_free(_mm_malloc(13, 64));
#endif
    K42MC_RAW_FREE(canonicalize_file_name("/"));
}

static void texts(void) {
    char *text = NULL;
    size_t size = 0;
    GUARDED(strdup("four"), 5);
    GUARDED((strdup)("four"), 5);
    GUARDED((*table.strdup)("four"), 5);
    GUARDED(strndup("fourteen", 4), 5);
    GUARDED((strndup)("fourteen", 4), 5);
    GUARDED(wcsdup(L"four"), 5 * sizeof(wchar_t));
    GUARDED((wcsdup)(L"four"), 5 * sizeof(wchar_t));
    EXPECT(asprintf(&text, "%d-%s", 42, "x") == 4 && strcmp(text, "42-x") == 0);
    GUARDED(text, 5);
    EXPECT((asprintf)(&text, "%d", 42) == 2);
    GUARDED(text, 3);
    EXPECT(format(0, &text, "%d", 123456) == 6 && format(1, &text, "%s", text) == 6);
    GUARDED(text, 7);
    GUARDED(realpath("/usr/..", NULL), 2);
    GUARDED((realpath)("/usr/..", NULL), 2);
    GUARDED(getcwd(NULL, 4097), 4097);
    GUARDED((getcwd)(NULL, 4097), 4097);

    FILE *stream = open_memstream(&text, &size);
    fprintf(stream, "%0200d\n", 7);
    fclose(stream);
    GUARDED(text, 202);
    stream = (open_memstream)(&text, &size);
    fputs("one\n2\ntres;4\n", stream), fclose(stream);
    stream = fmemopen(text, size, "r");
    char *line = NULL;
    size_t capacity = 0;
    EXPECT((getline)(&line, &capacity, stream) == 4 && getline(&line, &capacity, stream) == 2);
    EXPECT(getdelim(&line, &capacity, ';', stream) == 5 && strcmp(line, "tres;") == 0);
    EXPECT((*table.getline)(&line, &capacity, stream) == 2);
    EXPECT((getdelim)(&line, &capacity, ';', stream) == -1 && feof(stream));
    fclose(stream);
    free(text);
    GUARDED(line, capacity);
}

/* The compiler must not make one call of calloc, which would be libc's, of this. */
static void merged(size_t size) {
    void *block = (malloc)(size);
    if (block != NULL)
        memset(block, 0, size);
    GUARDED(block, size);
}

static void overrun(void) {
    int out[2];
    char said[256] = "";
    EXPECT(pipe(out) == 0);
    if (fork() == 0) {
        dup2(out[1], 1);
        close(2);
        char *block = malloc(11);
        memset(block, 1, (size_t)12 + (size_t)faults);
        free(block);
        _exit(0);
    }
    close(out[1]);
    EXPECT(read(out[0], said, sizeof said - 1) > 0);
    EXPECT(strstr(said, "k42mc detected WO: alloc(UNKNOWN) free(STD)") != NULL);
    EXPECT(strstr(said, "usrSize(11)") != NULL);
    close(out[0]);
    wait(NULL);
}

int main(void) {
    blocks();
    texts();
    merged(13);
    overrun();
    posix_part();
    return faults != 0;
}
