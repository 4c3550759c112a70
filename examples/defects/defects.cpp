// One defect of each kind, to see which tool finds it and when: defects <kind>. What it prints tells how
// far it got: a tool that stops it at once lets it say nothing.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>

namespace {

// Volatile, so that compilers neither see through the pointers nor drop the defects.
char *volatile block;
char *volatile kept;
volatile char read_byte;
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

void double_free(int allocations_between) {
    block = static_cast<char *>(malloc(13));
    free(block);
    for (int i = 0; i < allocations_between; ++i)
        kept = static_cast<char *>(malloc(13));
    free(block);
    reached("defect");
    _exit(0); // whoever has it now still believes in it
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

void use_after_free(bool writes) {
    block = static_cast<char *>(malloc(200));
    free(block);
    if (writes)
        block[100] = 'x';
    else
        read_byte = block[100];
    reached("defect");
}

void read_at(long offset) {
    block = static_cast<char *>(malloc(13));
    memset(block, 0, 13);
    read_byte = block[offset];
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

} // namespace

int main(int, char **argv) {
    const std::string_view kind = argv[1] != nullptr ? argv[1] : "";
    if (kind == "overrun")
        write_at(13), release();
    else if (kind == "overrun-kept")
        write_at(13), kept = block, reached("defect");
    else if (kind == "underrun")
        write_at(-1), release();
    else if (kind == "far-overrun")
        write_at(300), release();
    else if (kind == "double-free")
        double_free(0);
    else if (kind == "double-free-reused")
        double_free(1);
    else if (kind == "mixed")
        mix_families();
    else if (kind == "free-inside")
        release_inside();
    else if (kind == "free-on-stack")
        release_on_stack();
    else if (kind == "write-after-free")
        use_after_free(true);
    else if (kind == "read-after-free")
        use_after_free(false);
    else if (kind == "overread")
        read_at(13);
    else if (kind == "garbage")
        decide_by_garbage();
    else if (kind == "lost")
        lose();
    else if (kind == "kept")
        keep();
    else if (kind == "open")
        leave_open();
    else if (kind == "close-twice")
        close_twice();
    else
        return 2;
}
