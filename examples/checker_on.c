#include <k42mc/k42mc.h>

__attribute__((constructor)) static void checker_on(void) {
    MCInit(K42MC_BE32(MC_TO_FILE), K42MC_BE32(MC_TYPE_LKBF));
}
