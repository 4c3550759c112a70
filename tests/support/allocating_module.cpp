// Allocates and reports a descriptor while the loader's lock is held.
#include <k42mc/k42mc.h>

__attribute__((constructor)) static void allocate() {
    FDOpen("constructor", 40);
    k42MC_free(__FILE__, 2, k42MC_malloc(__FILE__, 1, 10));
    FDClose("constructor", 40);
}
