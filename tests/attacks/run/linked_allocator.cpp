// k42mc run
// A program that is linked to another allocator, and releases by free what that one's own functions gave. What
// malloc gave is guarded.
#include "modules/allocator.h"

#include <cstdlib>
#include <malloc.h>

int main() {
    free(arena_malloc(10));
    void *const block = malloc(10);
    const bool guarded = malloc_usable_size(block) == 10;
    free(block);
    return arena_blocks_released() != 1 || !guarded;
}
