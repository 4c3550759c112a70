/* Reads its settings again and again. A file without a first line stays open. */
#include <stdio.h>
#include <stdlib.h>

static int read_setting(const char *path) {
    char line[80];
    FILE *settings = fopen(path, "r");
    if (settings == NULL)
        return -1;
    if (fgets(line, sizeof line, settings) == NULL)
        return -1;
    fclose(settings);
    return atoi(line);
}

int main(void) {
    for (int i = 0; i < 5; ++i)
        read_setting("/dev/null");
}
