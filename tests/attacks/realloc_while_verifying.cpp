// Threads that reallocate, of small blocks and of large ones that the system moves, in vain too, while others
// look at every block: what is being moved is nobody's business.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <k42mc/k42mc.h>
#include <thread>
#include <unistd.h>

namespace {

std::atomic<bool> done = false;

void reallocate(size_t small, size_t large) {
    void *block = k42MC_malloc("a.c", 1, small);
    for (unsigned n = 0; !done; ++n)
        block = k42MC_realloc("a.c", 2, block, n & 1 ? small : large);
    k42MC_free("a.c", 3, block);
}

// More than there is, of blocks that begin behind an alignment: their bytes move, and move back.
void reallocate_in_vain(size_t size) {
    void *block;
    if (k42MC_posix_memalign("a.c", 4, &block, 256, size) != 0)
        return;
    memset(block, 'x', size);
    for (volatile size_t too_much = SIZE_MAX / 4 * 3; !done;) {
        if (k42MC_realloc("a.c", 5, block, too_much) != nullptr)
            abort();
        for (size_t i = 0; i < size; ++i)
            if (static_cast<char *>(block)[i] != 'x')
                abort();
    }
    k42MC_free("a.c", 6, block);
}

} // namespace

int main() {
    const int nowhere = open("/dev/null", O_WRONLY);
    dup2(nowhere, STDERR_FILENO);
    MCInit(K42MC_BE32(MC_TO_STDERR), K42MC_BE32(MC_TYPE_BT_OFF));
    std::thread threads[] = {
        std::thread(reallocate, 100, 900),       std::thread(reallocate, 100, 900),
        std::thread(reallocate, 100, 4'000'000), std::thread(reallocate, 200'000, 900'000),
        std::thread(reallocate_in_vain, 100),    std::thread(reallocate_in_vain, 5000)};
    unsigned damaged = 0;
    const time_t end = time(nullptr) + 3;
    while (time(nullptr) < end) {
        damaged += k42mcx_verify();
        k42mcx_report_json(nowhere, 0);
        MCReport(0);
    }
    done = true;
    for (std::thread &thread : threads)
        thread.join();
    MCDeinit();
    if (damaged != 0)
        printf("%u sound blocks called damaged\n", damaged);
    return damaged != 0;
}
