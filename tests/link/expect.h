/* The processes of the linking tests end with status 1 at the first thing that does not hold. */
#include <stdio.h>
#include <stdlib.h>

#define EXPECT(condition)                                                                               \
    do {                                                                                                \
        if (!(condition)) {                                                                             \
            fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition);                             \
            exit(1);                                                                                    \
        }                                                                                               \
    } while (0)
