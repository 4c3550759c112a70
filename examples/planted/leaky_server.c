/* Answers requests on a socket, and loses a little memory with each. The client is in here as well. */
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

enum { REQUESTS = 1000 };

static void answer(int connection, const char *request) {
    char *reply = malloc(64);
    snprintf(reply, 64, "you said: %s", request);
    (void)!write(connection, reply, strlen(reply));
    if (request[0] == '?') /* An early way out, ahead of the free. */
        return;
    free(reply);
}

static void *serve(void *connection) {
    char request[32];
    ssize_t size;
    while ((size = read(*(int *)connection, request, sizeof request - 1)) > 0) {
        request[size] = '\0';
        answer(*(int *)connection, request);
    }
    return NULL;
}

int main(void) {
    int ends[2];
    char reply[64];
    pthread_t server;
    if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends) != 0)
        return EXIT_FAILURE;
    if (pthread_create(&server, NULL, serve, &ends[1]) != 0)
        return EXIT_FAILURE;
    for (int i = 0; i < REQUESTS; ++i)
        if (write(ends[0], i % 4 == 0 ? "?" : "hi", 2) != 2 || read(ends[0], reply, sizeof reply) <= 0)
            return EXIT_FAILURE;
    close(ends[0]);
    pthread_join(server, NULL);
    close(ends[1]);
}
