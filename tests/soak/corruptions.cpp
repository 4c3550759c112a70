// A million guarded blocks with random bytes over their headers and tails, the checker on: each is
// released cleanly, if nothing but a trace was hit, or stops with a report; the checker itself never
// faults.
#include <csetjmp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <k42mc/extra.h>
#include <k42mc/guard.h>
#include <k42mc/k42mc.h>
#include <random>
#include <string_view>
#include <sys/uio.h>
#include <unistd.h>

namespace {

constexpr size_t W = sizeof(uintptr_t);
constexpr size_t guard_bytes = 8 * W;

sigjmp_buf stopped;

void stop(int) {
    siglongjmp(stopped, 1);
}

struct Guards {
    explicit Guards(char *user, size_t size) : header(user - guard_bytes), tail(user + size) {
        memcpy(saved, header, guard_bytes);
        memcpy(saved + guard_bytes, tail, guard_bytes);
    }
    char *at(size_t byte) const {
        return byte < guard_bytes ? header + byte : tail + byte - guard_bytes;
    }
    void restore() const {
        memcpy(header, saved, guard_bytes);
        memcpy(tail, saved + guard_bytes, guard_bytes);
    }
    // The trace of the allocation is the one part that may change unseen.
    bool sound() const {
        constexpr size_t behind_trace = 6 * W;
        return memcmp(header, saved, W) == 0 &&
               memcmp(header + behind_trace, saved + behind_trace, guard_bytes - behind_trace) == 0 &&
               memcmp(tail, saved + guard_bytes, guard_bytes) == 0;
    }
    // Whether damaged alignment and size lead to a sound tail all the same: what is left of another
    // block's, or this one's own, if the two make up for each other. Nobody can tell that.
    bool leads_astray() const {
        uintptr_t alignment, raw_size;
        memcpy(&alignment, header + 6 * W, W);
        memcpy(&raw_size, header + 7 * W, W);
        const uintptr_t end = reinterpret_cast<uintptr_t>(header) -
                              (uintptr_t{1} << (alignment >> (8 * W - 5))) + raw_size -
                              (guard_bytes - 1);
        char found[guard_bytes];
        const iovec here = {found, guard_bytes}, there = {reinterpret_cast<void *>(end), guard_bytes};
        return memcmp(header + 6 * W, saved + 6 * W, 2 * W) != 0 &&
               process_vm_readv(getpid(), &here, 1, &there, 1, 0) == ssize_t{guard_bytes} &&
               memcmp(found, saved + guard_bytes, guard_bytes) == 0;
    }
    // What has neither of the marks may be somebody else's by now.
    bool recognizable() const {
        return memcmp(header, saved, W) == 0 || memcmp(tail, saved + guard_bytes, 7 * W) == 0;
    }

    char *header, *tail;
    char saved[2 * guard_bytes];
};

class Run {
public:
    explicit Run(unsigned seed) : random_(seed) {}

    bool corrupt_one() {
        const size_t size = random_() % 200;
        // Volatile, as compilers know the bounds of what an allocator returns.
        char *volatile allocated =
            static_cast<char *>(k42mcx_memalign("hostile.cpp", 1, size_t{1} << random_() % 8, size));
        char *const user = allocated;
        if (user == nullptr)
            return true;
        const Guards guards(user, size);
        // Another offset that fits the alignment cannot be told from the right one: its byte is spared.
        constexpr size_t offset_byte = 6 * W;
        for (unsigned changes = 1 + random_() % 4; changes > 0; --changes)
            if (const size_t at = random_() % (2 * guard_bytes); at != offset_byte)
                change(guards.at(at));
        if (guards.leads_astray())
            guards.restore();
        return survives(user, guards);
    }

    int stops = 0;

private:
    void change(char *byte) {
        switch (random_() % 4) {
        case 0:
            *byte = static_cast<char>(random_());
            break;
        case 1:
            *byte = static_cast<char>(*byte ^ 1 << random_() % 8);
            break;
        case 2:
            *byte = static_cast<char>(*byte + 1);
            break;
        default:
            *byte = static_cast<char>(random_() % 2 - 1);
            break;
        }
    }

    bool survives(char *user, const Guards &guards) {
        const bool sound = guards.sound();
        if (random_() % 8 == 0 && k42mcx_verify() != (!sound && guards.recognizable()))
            return false;
        if (random_() % 8 == 0)
            MCCheck(__builtin_bswap64(reinterpret_cast<uintptr_t>(user)) >> (64 - 8 * W));
        memset(k42mc_panic_string, 0, 1);
        if (sigsetjmp(stopped, 1) == 0) {
            k42MC_free("hostile.cpp", 2, user);
            return sound;
        }
        ++stops;
        guards.restore();
        k42MC_free("hostile.cpp", 3, user);
        return !sound && std::string_view(k42mc_panic_string).starts_with("k42mc detected ");
    }

    std::mt19937 random_;
};

} // namespace

int main(int argc, char **argv) {
    const int count = argc > 1 ? atoi(argv[1]) : 1'000'000;
    const unsigned seed = argc > 2 ? static_cast<unsigned>(atoi(argv[2])) : std::random_device()();
    const int said = dup(STDOUT_FILENO);
    const int nowhere = open("/dev/null", O_WRONLY);
    dup2(nowhere, STDOUT_FILENO);
    dup2(nowhere, STDERR_FILENO);
    signal(SIGABRT, stop);
    MCInit(K42MC_BE32(MC_TO_STDERR), K42MC_BE32(MC_TYPE_LKBF));

    Run run(seed);
    int done = 0;
    while (done < count && run.corrupt_one())
        ++done;
    dprintf(said, "seed %u: %d of %d blocks as they should be, %d stops\n", seed, done, count,
            run.stops);
    _exit(done == count ? 0 : 1);
}
