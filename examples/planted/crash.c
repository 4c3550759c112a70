/* Follows a chain to its end, and one link further. */
#include <stdio.h>
#include <stdlib.h>

struct link {
    struct link *next;
    int value;
};

static struct link *chain(int length) {
    struct link *first = NULL;
    while (length > 0) {
        struct link *added = malloc(sizeof *added);
        added->next = first;
        added->value = length--;
        first = added;
    }
    return first;
}

static int last_value(const struct link *link) {
    while (link->next->value != 0)
        link = link->next;
    return link->value;
}

int main(void) {
    printf("%d\n", last_value(chain(3)));
}
