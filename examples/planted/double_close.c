/* A log file is closed by its stream, and by its number once more. */
#include <stdio.h>
#include <unistd.h>

static void finish(FILE *log) {
    const int descriptor = fileno(log);
    fclose(log);
    close(descriptor);
}

int main(void) {
    FILE *log = fopen("/dev/null", "w");
    if (log != NULL)
        finish(log);
}
