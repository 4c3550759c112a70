/*
 * What a program asks of the checker where it runs in tests, in the hunt for one bug, and in production. It stands for a
 * server that writes to a session after its release: hunt [test|hunt|production].
 */
#include <k42mc/extra.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <k42mc/redirect.h>

struct session {
    char name[24];
    int closed;
};

static void serve(void) {
    struct session *session = malloc(sizeof *session);
    if (session == NULL)
        abort();
    strcpy(session->name, "somebody");
    struct session *volatile old = session; /* compilers see what is wrong otherwise */
    free(session);
    old->closed = 1;
}

int main(int argc, char **argv) {
    const char *place = argc > 1 ? argv[1] : "";
    if (strcmp(place, "test") == 0) {
        k42mcx_quarantine(16 << 20);
        k42mcx_fill(0xcb);
    } else if (strcmp(place, "hunt") == 0) {
        k42mcx_page_guards(1, K42MCX_PAGES_END);
    } else if (strcmp(place, "production") == 0) {
        k42mcx_page_guards(5000, K42MCX_PAGES_MIXED | K42MCX_PAGES_GO_ON);
    }
    for (int i = 0; i < 100000; ++i)
        serve();
    puts("served");
}
