#include <k42mc/k42mc.h>

/* Ahead of the program's own constructors. */
__attribute__((constructor(101))) static void checker_on(void) {
    MCInit(K42MC_BE32(MC_TO_STDERR), K42MC_BE32(MC_TYPE_LKBF));
}
