// A C++ source file that knows nothing of guarded blocks. A block of n bytes, n odd, is guarded if
// exactly n bytes of it are usable.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>
#if __cplusplus >= 201703L
#include <filesystem>
#include <memory_resource>
#endif
#include <ext/malloc_allocator.h>
#include <malloc.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

namespace {

int faults;

void guarded(int line, void *block, std::size_t size) {
    if (malloc_usable_size(block) != size) {
        std::printf("%s:%d: %zu usable bytes instead of %zu\n", __FILE__, line,
                    malloc_usable_size(block), size);
        faults++;
    }
    std::free(block);
}

#define GUARDED(block, size) guarded(__LINE__, block, size)

struct Freer {
    void operator()(void *block) const { ::free(block); }
};

} // namespace

int main() {
    void *(*const allocate)(std::size_t) = std::malloc;
    GUARDED(std::malloc(13), 13);
    GUARDED(::malloc(13), 13);
    GUARDED(allocate(13), 13);
    GUARDED(std::calloc(3, 5), 15);
    GUARDED(std::realloc(std::malloc(1), 17), 17);
    GUARDED(reallocarray(nullptr, 3, 7), 21);
    GUARDED(memalign(32, 13), 13);
    GUARDED(aligned_alloc(32, 13), 13);
    GUARDED(valloc(13), 13);
    GUARDED(strdup("four"), 5);
    GUARDED(getcwd(nullptr, 4097), 4097);
    GUARDED(realpath("/", nullptr), 2);
    void *block;
    if (posix_memalign(&block, 64, 13) == 0)
        GUARDED(block, 13);

    const std::unique_ptr<void, Freer> owned(std::malloc(1));
    const std::unique_ptr<void, decltype(&std::free)> also_owned(std::malloc(1), std::free);
    std::vector<int, __gnu_cxx::malloc_allocator<int>> numbers(100, 1);
    numbers.resize(1000);
    std::istringstream lines("one\ntwo\n");
    std::string line;
    while (std::getline(lines, line))
        faults += !std::regex_match(line, std::regex("one|two"));
    return faults != 0;
}
