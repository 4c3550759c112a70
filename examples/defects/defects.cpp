// One defect of each kind, to see which tool finds it and when: defects <kind>. What it prints tells how
// far it got: a tool that stops it at once lets it say nothing.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <thread>
#include <unistd.h>

namespace {

// Volatile, so that compilers neither see through the pointers nor drop the defects.
char *volatile block;
char *volatile kept;
volatile char read_byte;
volatile size_t length;
volatile int descriptor;

void reached(const char *where) {
    puts(where);
    fflush(stdout);
}

void release() {
    reached("defect");
    free(block);
    reached("release");
}

void write_at(long offset) {
    block = static_cast<char *>(malloc(13));
    block[offset] = 'x';
}

void double_free() {
    free(block);
    reached("defect");
    _exit(0); // whoever has it now still believes in it
}

void double_free_after(int allocations) {
    block = static_cast<char *>(malloc(13));
    free(block);
    for (int i = 0; i < allocations; ++i)
        kept = static_cast<char *>(malloc(13));
    double_free();
}

// When all that was released is in use again.
void double_free_late() {
    static char *others[200'000];
    const auto allocate_others = [] {
        for (char *&other : others)
            other = static_cast<char *>(malloc(13));
    };
    block = static_cast<char *>(malloc(13));
    allocate_others();
    free(block);
    for (char *other : others)
        free(other);
    allocate_others();
    kept = static_cast<char *>(malloc(13));
    double_free();
}

void release_inside() {
    block = static_cast<char *>(malloc(13));
    free(block + 5);
    reached("defect");
}

void release_on_stack() {
    char variable[13];
    block = variable;
    free(block);
    reached("defect");
}

void make_released() {
    block = static_cast<char *>(malloc(200));
    free(block);
}

void write_after_free() {
    make_released();
    block[100] = 'x';
    reached("defect");
}

void read_after_free() {
    make_released();
    read_byte = block[100];
    reached("defect");
}

void read_after_free_in_thread() {
    make_released();
    std::thread([] { read_byte = block[100]; }).join();
    reached("defect");
}

void write_to_moved() {
    block = static_cast<char *>(malloc(200));
    kept = static_cast<char *>(realloc(block, 100'000));
    block[100] = 'x';
    reached("defect");
    free(kept);
}

void read_at(long offset) {
    block = static_cast<char *>(malloc(13));
    memset(block, 0, 13);
    read_byte = block[offset];
    release();
}

void copy_over_end() {
    block = static_cast<char *>(malloc(13));
    memcpy(block, "thirteen and ", 14);
    release();
}

void measure_unterminated() {
    block = static_cast<char *>(malloc(13));
    memset(block, 'x', 13);
    length = strlen(block);
    release();
}

void decide_by_garbage() {
    block = static_cast<char *>(malloc(13));
    if (block[5] == 'x')
        reached("garbage");
    release();
}

void mix_families() {
    block = static_cast<char *>(malloc(13));
    ::operator delete(block);
    reached("defect");
}

void lose() {
    block = static_cast<char *>(malloc(13));
    block = nullptr;
    reached("defect");
}

void keep() {
    kept = static_cast<char *>(malloc(13));
    reached("defect");
}

void leave_open() {
    descriptor = open("/dev/null", O_RDONLY);
    reached("defect");
}

void close_twice() {
    descriptor = open("/dev/null", O_RDONLY);
    close(descriptor);
    close(descriptor);
    reached("defect");
}

struct Kind {
    std::string_view name;
    void (*commit)();
};

constexpr Kind kinds[] = {
    {"overrun", [] { write_at(13), release(); }},
    {"overrun-kept", [] { write_at(13), kept = block, reached("defect"); }},
    {"underrun", [] { write_at(-1), release(); }},
    {"far-overrun", [] { write_at(300), release(); }},
    {"copy-over-end", copy_over_end},
    {"overread", [] { read_at(13); }},
    {"underread", [] { read_at(-1); }},
    {"unterminated", measure_unterminated},
    {"write-after-free", write_after_free},
    {"read-after-free", read_after_free},
    {"read-in-thread", read_after_free_in_thread},
    {"moved", write_to_moved},
    {"double-free", [] { double_free_after(0); }},
    {"double-free-reused", [] { double_free_after(1); }},
    {"double-free-late", double_free_late},
    {"mixed", mix_families},
    {"free-inside", release_inside},
    {"free-on-stack", release_on_stack},
    {"garbage", decide_by_garbage},
    {"lost", lose},
    {"kept", keep},
    {"open", leave_open},
    {"close-twice", close_twice},
};

} // namespace

int main(int, char **argv) {
    for (const Kind &kind : kinds)
        if (argv[1] != nullptr && kind.name == argv[1])
            return kind.commit(), 0;
    return 2;
}
