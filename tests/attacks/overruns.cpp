// Overruns and underruns of up to a page, of the first, a middle and the last of many blocks: each is found
// when the block is released, and by a look at all guards, whatever else was overwritten.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <initializer_list>
#include <sys/wait.h>
#include <unistd.h>

#ifdef UNDER_COMMAND
#define allocate(size) malloc(size)
#define release(block) free(block)
#else
#include <k42mc/k42mc.h>
#define allocate(size) k42MC_malloc(__FILE__, __LINE__, size)
#define release(block) k42MC_free(__FILE__, __LINE__, block)
#endif

namespace {

constexpr int count = 60;
constexpr size_t size = 1304;

struct Attack {
    int block;
    bool forwards;
    size_t bytes;
    bool look; // at all guards; else release the block
};

// Every file of a report is written past the heap; what is printed of a defect goes to nobody.
void run(const Attack &attack) {
    dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
#ifndef UNDER_COMMAND
    MCInit(K42MC_BE32(MC_TO_STDERR), 0);
#endif
    for (int i = 0; i < 20; ++i) { // in place of what was free ahead
        void *volatile filler = allocate(size);
        static_cast<void>(filler);
    }
    void *volatile before = allocate(8192); // what lies around the blocks is the program's, too
    char *blocks[count];
    for (char *&block : blocks)
        block = static_cast<char *>(allocate(size));
    void *volatile behind = allocate(8192);
    char *volatile const block = blocks[attack.block];
    if (attack.forwards)
        memset(block + size, 0x55, attack.bytes);
    else
        memset(block - attack.bytes, 0x55, attack.bytes);
    __asm__ volatile("" : : "r"(block) : "memory"); // the compiler knows what free does
#ifndef UNDER_COMMAND
    if (attack.look)
        _exit(k42mcx_verify() > 0 ? 42 : 1);
#endif
    release(block);
    _exit(before == behind);
}

// What the process says on standard output, in place of what it would go to.
bool is_found(const Attack &attack) {
    int output[2];
    if (pipe(output) != 0)
        return false;
    fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        dup2(output[1], STDOUT_FILENO);
        run(attack);
    }
    close(output[1]);
    char said[1000] = "";
    for (ssize_t had = 0, got; (got = read(output[0], said + had, sizeof said - 1 - size_t(had))) > 0;)
        had += got;
    close(output[0]);
    int status = 0;
    waitpid(child, &status, 0);
    if (attack.look)
        return WIFEXITED(status) && WEXITSTATUS(status) == 42;
    const char *expected = attack.forwards ? "k42mc detected WO" : "k42mc detected WU";
    return WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT && strncmp(said, expected, 17) == 0;
}

} // namespace

int main() {
    int failures = 0;
    for (const int block : {0, count / 2, count - 1})
        for (const bool forwards : {true, false})
            for (const size_t bytes : {1, 2, 8, 63, 64, 65, 100, 128, 200, 300, 1000, 2048, 4095, 4096})
                for (const bool look : {false, true}) {
#ifdef UNDER_COMMAND
                    if (look)
                        continue;
#endif
                    if (is_found({block, forwards, bytes, look}))
                        continue;
                    printf("not found: %zu bytes %s block %d, %s\n", bytes, forwards ? "past" : "before",
                           block, look ? "by a look at all" : "at its release");
                    ++failures;
                }
    return failures != 0;
}
