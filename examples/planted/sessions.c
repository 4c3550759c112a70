/* Serves until somebody stops it; a session of a guest is never ended. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

struct session {
    char user[16];
    char page[240];
};

static struct session *begin(const char *user) {
    struct session *session = calloc(1, sizeof *session);
    strcpy(session->user, user);
    return session;
}

static void serve(const char *user) {
    struct session *session = begin(user);
    strcpy(session->page, "hello");
    if (strcmp(user, "guest") != 0)
        free(session);
}

int main(void) {
    for (int i = 0; i < 12; ++i)
        serve(i % 3 == 0 ? "guest" : "ada");
    puts("serving");
    fflush(stdout);
    for (;;)
        pause();
}
