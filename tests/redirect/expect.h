/* Expectations of programs that are to go on when one does not hold: main returns `faults != 0`. */
#include <stdio.h>

static int faults;

#define EXPECT(condition)                                                                               \
    do {                                                                                                \
        if (!(condition)) {                                                                             \
            printf("%s:%d: not so: %s\n", __FILE__, __LINE__, #condition);                              \
            faults++;                                                                                   \
        }                                                                                               \
    } while (0)
