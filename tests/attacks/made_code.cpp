// Code that the process makes at run time, without call-frame information, allocates: traces end there,
// whatever the frame pointer is.
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <k42mc/k42mc.h>
#include <string>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>

namespace {

using Allocate = void *(*)(const char *, int, size_t, decltype(&k42MC_malloc));

// Calls its fourth argument with the three before.
#ifdef __x86_64__
constexpr unsigned char code[] = {0x55,                         // push %rbp
                                  0xbd, 0x08, 0x00, 0x00, 0x00, // mov $8,%ebp
                                  0xff, 0xd1,                   // call *%rcx
                                  0x5d,                         // pop %rbp
                                  0xc3};                        // ret
#else
constexpr unsigned char code[] = {0x55,                         // push %ebp
                                  0xbd, 0x08, 0x00, 0x00, 0x00, // mov $8,%ebp
                                  0x83, 0xec, 0x0c,             // sub $12,%esp
                                  0xff, 0x74, 0x24, 0x1c,       // push 28(%esp): size
                                  0xff, 0x74, 0x24, 0x1c,       // push 28(%esp): line
                                  0xff, 0x74, 0x24, 0x1c,       // push 28(%esp): file
                                  0xff, 0x54, 0x24, 0x2c,       // call *44(%esp)
                                  0x83, 0xc4, 0x18,             // add $24,%esp
                                  0x5d,                         // pop %ebp
                                  0xc3};                        // ret
#endif

int faults = 0;

// The trace of a block is one line, of the code that was made.
void examine(const void *block, const void *made) {
    int ends[2];
    char text[4096] = "", expected[256];
    const int former = dup(STDERR_FILENO);
    if (pipe(ends) != 0)
        return;
    dup2(ends[1], STDERR_FILENO);
    MCCheck(K42MC_BE_ADDR(block));
    dup2(former, STDERR_FILENO);
    close(former);
    close(ends[1]);
    const ssize_t size = read(ends[0], text, sizeof text - 1);
    close(ends[0]);
    snprintf(expected, sizeof expected,
             "made.c:1:STD:0x%lX:100:0\nBacktrace of the allocation:\n[0x%lx]\n------\n",
             static_cast<unsigned long>(reinterpret_cast<uintptr_t>(block)),
             static_cast<unsigned long>(reinterpret_cast<uintptr_t>(made)));
    if (size < 0 || strcmp(text, expected) != 0) {
        printf("%s", text);
        ++faults;
    }
}

// Where the call returns to.
constexpr size_t returns_to = sizeof code - (sizeof(void *) == 8 ? 2 : 5);

void run(size_t at) {
    void *const pages =
        mmap(nullptr, 8192, PROT_READ | PROT_WRITE | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    char *const made = static_cast<char *>(pages) + at;
    memcpy(made, code, sizeof code);
    Allocate allocate;
    memcpy(&allocate, &made, sizeof allocate);
    for (int round = 0; round < 20; ++round) {
        void *const block = allocate("made.c", 1, 100, k42MC_malloc);
        examine(block, made + returns_to);
        k42MC_free("made.c", 2, block);
    }
    munmap(pages, 8192);
}

} // namespace

int main() {
    dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
    MCInit(K42MC_BE32(MC_TO_STDERR), 0);
    for (size_t at = 0; at < 64; ++at)
        run(at);
    std::thread(run, 0).join();
    MCDeinit();
    return faults != 0;
}
