/* Settings are read from a file. Without memory for their text, they are lost and the file is closed twice. */
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

struct settings {
    char *text;
    ssize_t size;
};

static struct settings *read_settings(int file) {
    struct settings *settings = malloc(sizeof *settings);
    if (settings == NULL)
        return NULL;
    settings->text = malloc(1000);
    if (settings->text == NULL) {
        close(file);
        return NULL;
    }
    settings->size = read(file, settings->text, 1000);
    return settings;
}

int main(void) {
    const int file = open("/etc/passwd", O_RDONLY);
    struct settings *settings = read_settings(file);
    close(file);
    if (settings == NULL) {
        fputs("settings: out of memory\n", stderr);
        return 1;
    }
    puts(settings->size > 0 ? "read" : "nothing there");
    free(settings->text);
    free(settings);
    return 0;
}
