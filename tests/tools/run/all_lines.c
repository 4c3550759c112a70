// A program with something to say in each kind of line: all_lines [crash].
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

// Asked for by `k42mc run`.
const char *__lsan_default_suppressions(void);
const char *__lsan_default_suppressions(void) {
    return "leak:nobody\n";
}

struct node {
    struct node *next;
};

enum { LONG_CHAIN = 100, MANY_ROOTS = 10 };

static struct node *chain;
// Each is a root by itself.
typedef void *volatile root;
static root root0, root1, root2, root3, root4, root5, root6, root7, root8, root9;
static root *const roots[MANY_ROOTS] = {&root0, &root1, &root2, &root3, &root4,
                                        &root5, &root6, &root7, &root8, &root9};

// Through pointers that the compiler cannot see through.
static char *volatile released, *volatile written;
static const int *volatile nowhere;

static void hold(void) {
    struct node *last = NULL;
    for (int i = 0; i < LONG_CHAIN; ++i) {
        struct node *first = malloc(sizeof *first);
        if (first == NULL)
            exit(3);
        if (last == NULL)
            last = first;
        first->next = chain;
        chain = first;
    }
#pragma GCC unroll 1
    for (int i = 0; i < MANY_ROOTS; ++i) // from one place
        *roots[i] = malloc(1000);
    last->next = malloc(5000); // at the end of a path that is too long to tell
}

static void misuse(void) {
    released = malloc(24);
    free(released);
    putchar(released[8]);
    written = malloc(10);
    if (written != NULL)
        memset(written, 'x', 11);
    written = NULL;
}

// Below more callers than a stack trace has.
static void hold_and_misuse(int callers) {
    if (callers > 0) {
        hold_and_misuse(callers - 1);
        putchar('\n'); // no tail call
        return;
    }
    hold();
    misuse();
}

int main(int argc, char **argv) {
    FILE *stream = fopen("/dev/null", "r");
    hold_and_misuse(20);
    if (argc > 1 && strcmp(argv[1], "crash") == 0)
        putchar(*nowhere);
    return stream == NULL;
}
