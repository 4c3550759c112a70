#include <cstdlib>

extern "C" void leak() {
    void *volatile block = malloc(12);
    (void)block;
}
