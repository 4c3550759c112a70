/* Keeps the names of a crew for as long as it runs. One of them is too long for its place. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { CREW = 3, ROOM = 8 };

static char *crew[CREW];

static void enlist(int place, const char *name) {
    crew[place] = malloc(ROOM);
    memcpy(crew[place], name, strlen(name) + 1);
}

int main(void) {
    enlist(0, "Ada");
    enlist(1, "Benedict");
    enlist(2, "Cleo");
    for (int i = 0; i < CREW; ++i)
        puts(crew[i]);
}
