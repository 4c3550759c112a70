/*
 * An echo server on the loopback interface, and the clients that keep it busy: one thread for each
 * connection on both sides. It is compiled with the redirect flags for descriptors, which report every
 * open, close, read and write to the descriptor checker under the name of the function that does it.
 *
 *     echo [--close-twice]
 *
 * With the switch, serve() closes its connection twice. What that breaks is another connection, which
 * has been given the same number in between, now and then.
 */
#include <arpa/inet.h>
#include <k42mc/k42mc.h>
#include <pthread.h>
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

enum { CLIENTS = 4, CONNECTIONS = 50, MESSAGES = 20 };

static bool close_twice;
static struct sockaddr_in address;

static void needed(bool success, const char *what) {
    if (!success) {
        perror(what);
        exit(EXIT_FAILURE);
    }
}

static pthread_t start(void *(*function)(void *), void *argument) {
    pthread_t thread;
    needed(pthread_create(&thread, NULL, function, argument) == 0, "thread");
    return thread;
}

/* ---- The server ---- */

static void *serve(void *connection) {
    const int fd = (int)(intptr_t)connection;
    char text[64];
    ssize_t size;
    while ((size = read(fd, text, sizeof text)) > 0)
        if (write(fd, text, (size_t)size) != size)
            break;
    close(fd);
    if (close_twice)
        close(fd); /* Left over from when the loop did not close it. */
    return NULL;
}

static void *listen_for_ever(void *listener) {
    for (;;) {
        const int fd = accept((int)(intptr_t)listener, NULL, NULL);
        if (fd != -1)
            pthread_detach(start(serve, (void *)(intptr_t)fd));
    }
    return NULL;
}

static void open_server(void) {
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    socklen_t size = sizeof address;
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    needed(listener != -1 && bind(listener, (struct sockaddr *)&address, size) == 0 &&
               getsockname(listener, (struct sockaddr *)&address, &size) == 0 &&
               listen(listener, CLIENTS) == 0,
           "server");
    pthread_detach(start(listen_for_ever, (void *)(intptr_t)listener));
}

/* ---- The clients ---- */

/* Returns whether the connection lasted: the server's mistake may have closed it. */
static bool talk(void) {
    static const char message[] = "anybody there?";
    char answer[sizeof message];
    bool answered = true;
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    needed(fd != -1, "socket");
    /* Where the server closed another thread's descriptor, nobody may be left to answer. */
    const struct timeval patience = {.tv_sec = 2};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    if (connect(fd, (struct sockaddr *)&address, sizeof address) != 0)
        answered = false;
    for (int i = 0; answered && i < MESSAGES; ++i)
        answered = send(fd, message, sizeof message, MSG_NOSIGNAL) == sizeof message &&
                   recv(fd, answer, sizeof answer, MSG_WAITALL) == sizeof answer &&
                   memcmp(answer, message, sizeof message) == 0;
    close(fd);
    return answered;
}

static void *talk_often(void *lost) {
    for (int i = 0; i < CONNECTIONS; ++i)
        if (!talk())
            ++*(int *)lost;
    return NULL;
}

int main(int argc, char **argv) {
    close_twice = argc == 2 && strcmp(argv[1], "--close-twice") == 0;
    open_server();

    pthread_t clients[CLIENTS];
    int lost[CLIENTS] = {0};
    int all_lost = 0;
    for (int i = 0; i < CLIENTS; ++i)
        clients[i] = start(talk_often, &lost[i]);
    for (int i = 0; i < CLIENTS; ++i) {
        pthread_join(clients[i], NULL);
        all_lost += lost[i];
    }
    printf("%d of %d connections lost\n", all_lost, CLIENTS * CONNECTIONS);
    FDReport(K42MC_BE32(FD_REPORT_ALARMING));
    fflush(stdout);
    _exit(EXIT_SUCCESS); /* The server's threads go on to the end. */
}
