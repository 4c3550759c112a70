#include <k42mc/k42mc.h>
#include <stdlib.h>
#include <string.h>

#include <k42mc/redirect.h>

int main(void) {
    MCInit(K42MC_BE32(MC_TO_STDERR), K42MC_BE32(MC_TYPE_LKBF));
    char *kept = strdup("never freed");
    free(strdup(kept));
}
