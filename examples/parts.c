/*
 * A test program without a framework, which asks at the end of each of its parts what that has left behind. The second part
 * forgets to release what it has looked up.
 */
#include <k42mc/extra.h>
#include <k42mc/k42mc.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <k42mc/redirect.h>

static char *look_up(const char *name) {
    return strdup(name);
}

static void test_release(void) {
    free(look_up("Ada"));
}

static void test_length(void) {
    if (strlen(look_up("Cleo")) != 4)
        abort();
}

static int leaves_blocks(void (*part)(void)) {
    const uint64_t mark = k42mcx_mark();
    part();
    return k42mcx_since(mark, NULL) != 0;
}

int main(void) {
    MCInit(K42MC_BE32(MC_TO_STDERR), 0);
    const int first = leaves_blocks(test_release);
    const int second = leaves_blocks(test_length);
    printf("release: %s, length: %s\n", first ? "blocks left" : "fine", second ? "blocks left" : "fine");
    return first || second;
}
