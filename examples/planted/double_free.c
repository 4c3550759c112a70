/* A message is released by who has sent it, and by who has logged it. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static void send_message(char *message) {
    puts(message);
    free(message);
}

static void log_message(char *message, const char *where) {
    printf("sent to %s\n", where);
    free(message);
}

int main(void) {
    char *message = strdup("hello");
    send_message(message);
    log_message(message, "everybody");
}
