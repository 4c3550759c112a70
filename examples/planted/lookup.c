// A test program without a framework, which succeeds and forgets to release what it has looked up.
#include <assert.h>
#include <stdlib.h>
#include <string.h>

static char *look_up(const char *name) {
    return strdup(name);
}

static void test_release(void) {
    char *found = look_up("Ada");
    assert(strcmp(found, "Ada") == 0);
    free(found);
}

static void test_length(void) {
    assert(strlen(look_up("Cleo")) == 4);
}

int main(void) {
    test_release();
    test_length();
}
