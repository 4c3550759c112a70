/*
 * Allocation traffic, the same whoever checks it: threads that each replace random ones of their blocks,
 * 16 to 255 bytes large, from a depth of 14 calls on changing paths.
 *
 *   traffic <threads> <live blocks> <pairs a thread> [<state> [<paths>|shared]]
 *
 * Prints the nanoseconds that a free and an allocation take together, in one thread while all run: on the
 * clock, and of the processor; and the bytes of memory that a live block takes. Where it is built with the
 * checker, the fourth argument says in which state: off, with a quarantine, with pages of their own for all
 * blocks or a sample (pages, sampled), on, untraced; report prints the lines a second of a report of the live
 * blocks instead, and the milliseconds of one that lists none. A number says along how many paths of 15 more
 * calls the blocks come; shared, that each thread frees what any of them has allocated.
 */
#include <inttypes.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#ifdef CHECKED
#include <k42mc/extra.h>
#include <k42mc/k42mc.h>
#define allocate(size) k42MC_malloc(__FILE__, __LINE__, size)
#define release(block) k42MC_free(__FILE__, __LINE__, block)
#else
#define allocate(size) malloc(size)
#define release(block) free(block)
#endif

enum { call_depth = 14, most_path_bits = 15 };

/* Threads write to theirs all the time, so no two share a line of cache. */
struct worker {
    _Alignas(128) pthread_t thread;
    uint32_t random; /* xorshift */
    uint32_t paths;
    int depth, pairs_a_path;
    void (*replace)(struct worker *);
    size_t live, pairs;
    char **blocks;
    double processor_seconds;
};

static pthread_barrier_t filled, measured;

static uint32_t draw(struct worker *worker) {
    uint32_t x = worker->random;
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    return worker->random = x;
}

/* The block is written to, as any block is, and the compiler cannot know that nobody reads it. */
static char *make_block(struct worker *worker) {
    char *const block = allocate(16 + draw(worker) % 240);
    if (block == NULL)
        abort();
    block[0] = 1;
    __asm__ volatile("" : : "r"(block) : "memory");
    return block;
}

static void replace_blocks(struct worker *worker) {
    for (int i = 0; i < worker->pairs_a_path; ++i) {
        char **const block = &worker->blocks[draw(worker) % worker->live];
        release(*block);
        *block = make_block(worker);
    }
}

static void replace_shared_blocks(struct worker *worker) {
    for (int i = 0; i < worker->pairs_a_path; ++i) {
        char **const block = &worker->blocks[draw(worker) % worker->live];
        release(__atomic_exchange_n(block, NULL, __ATOMIC_ACQUIRE));
        char *const left = __atomic_exchange_n(block, make_block(worker), __ATOMIC_RELEASE);
        if (left != NULL) /* another thread was faster */
            release(left);
    }
}

static void fill(struct worker *worker) {
    for (size_t i = 0; i < worker->live; ++i)
        release(__atomic_exchange_n(&worker->blocks[i], make_block(worker), __ATOMIC_ACQ_REL));
}

static void left(int depth, uint32_t path, void (*action)(struct worker *), struct worker *worker);

#define CALLS_FROM_HERE(name, other)                                                                    \
    __attribute__((noinline)) static void name(                                                         \
        int depth, uint32_t path, void (*action)(struct worker *), struct worker *worker) {             \
        if (depth == 0)                                                                                 \
            action(worker);                                                                             \
        else if (path & 1)                                                                              \
            other(depth - 1, path >> 1, action, worker);                                                \
        else                                                                                            \
            name(depth - 1, path >> 1, action, worker);                                                 \
        __asm__ volatile(""); /* no tail call */                                                        \
    }

CALLS_FROM_HERE(right, left)
CALLS_FROM_HERE(left, right)

static double seconds(clockid_t clock) {
    struct timespec now;
    clock_gettime(clock, &now);
    return (double)now.tv_sec + 1e-9 * (double)now.tv_nsec;
}

/* Below are main or the thread's start, and work. */
static void *work(void *argument) {
    struct worker *const worker = argument;
    left(worker->depth, 0, fill, worker);
    pthread_barrier_wait(&filled);
    pthread_barrier_wait(&measured);
    const double start = seconds(CLOCK_THREAD_CPUTIME_ID);
    for (size_t i = 0; i < worker->pairs; i += (size_t)worker->pairs_a_path)
        left(worker->depth, draw(worker) % worker->paths, worker->replace, worker);
    worker->processor_seconds = seconds(CLOCK_THREAD_CPUTIME_ID) - start;
    return NULL;
}

static double resident_bytes(void) {
    unsigned long total, resident = 0;
    FILE *const file = fopen("/proc/self/statm", "r");
    if (file != NULL) {
        if (fscanf(file, "%lu %lu", &total, &resident) != 2)
            resident = 0;
        fclose(file);
    }
    return (double)resident * (double)sysconf(_SC_PAGESIZE);
}

static void start_checker(const char *state) {
#ifdef CHECKED
    if (strcmp(state, "quarantine") == 0)
        k42mcx_quarantine(16 << 20);
    else if (strcmp(state, "sampled") == 0 || strcmp(state, "pages") == 0)
        k42mcx_page_guards(strcmp(state, "sampled") == 0 ? 5000 : 1, 0);
    else if (strcmp(state, "off") != 0)
        MCInit(K42MC_BE32(strcmp(state, "report") == 0 ? MC_TO_FILE : MC_TO_STDERR),
               K42MC_BE32(strcmp(state, "untraced") == 0 ? MC_TYPE_BT_OFF : 0));
#else
    (void)state;
#endif
}

static void report(size_t live) {
#ifdef CHECKED
    const double start = seconds(CLOCK_MONOTONIC);
    MCReport(K42MC_BE32(1));
    const double listed = seconds(CLOCK_MONOTONIC);
    MCReport(K42MC_BE32(99));
    printf("%.0f %.2f\n", (double)live / (listed - start), 1e3 * (seconds(CLOCK_MONOTONIC) - listed));
#else
    (void)live;
#endif
}

int main(int count, char **arguments) {
    if (count < 4)
        return 2;
    const int threads = atoi(arguments[1]);
    const size_t live = (size_t)atol(arguments[2]), pairs = (size_t)atol(arguments[3]);
    const char *const state = count > 4 ? arguments[4] : "off";
    const int shared = count > 5 && strcmp(arguments[5], "shared") == 0;
    const uint32_t paths = count > 5 && !shared ? (uint32_t)atoi(arguments[5]) : 0;
    const size_t own = shared ? live : live / (size_t)threads;
    struct worker *const workers =
        aligned_alloc(_Alignof(struct worker), (size_t)threads * sizeof *workers);
    char **const blocks = calloc(live, sizeof *blocks);
    memset(blocks, 1, live * sizeof *blocks); /* resident before the blocks are counted */
    memset(blocks, 0, live * sizeof *blocks);
    start_checker(state);
    pthread_barrier_init(&filled, NULL, (unsigned)threads + 1);
    pthread_barrier_init(&measured, NULL, (unsigned)threads + 1);

    const double before = resident_bytes();
    for (int i = 0; i < threads; ++i) {
        struct worker *const worker = &workers[i];
        *worker = (struct worker){.random = 2463534242u + (uint32_t)i,
                                  .paths = paths != 0 ? paths : 4,
                                  .depth = call_depth - 3 + (paths != 0 ? most_path_bits : 0),
                                  .pairs_a_path = paths != 0 ? 1 : 32,
                                  .replace = shared ? replace_shared_blocks : replace_blocks,
                                  .live = own,
                                  .pairs = pairs,
                                  .blocks = shared ? blocks : blocks + own * (size_t)i};
        pthread_create(&worker->thread, NULL, work, worker);
    }
    pthread_barrier_wait(&filled);
    const double bytes = (resident_bytes() - before) / (double)live;
    const double start = seconds(CLOCK_MONOTONIC);
    pthread_barrier_wait(&measured);
    double processor_seconds = 0;
    for (int i = 0; i < threads; ++i) {
        pthread_join(workers[i].thread, NULL);
        processor_seconds += workers[i].processor_seconds;
    }
    const double wall = 1e9 * (seconds(CLOCK_MONOTONIC) - start) / (double)pairs;
    if (strcmp(state, "report") == 0)
        report(live);
    else
        printf("%.2f %.2f %.1f\n", wall, 1e9 * processor_seconds / (double)pairs / threads, bytes);
    fflush(stdout);
    _exit(0); /* nobody is interested in what is left */
}
