// k42mc run --verify
// A healthy program: what it releases comes from everywhere, and some of it from libc's allocator without
// anybody's knowledge, or lies where something else was. None of that may stop it.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <pthread.h>
#include <random>
#include <regex.h>
#include <string>
#include <unistd.h>
#include <vector>

extern "C" void *__libc_malloc(size_t size);

namespace {

void expect(bool holds, const char *what) {
    if (holds)
        return;
    printf("not so: %s\n", what);
    exit(1);
}

void libc_allocates() {
    char *line = nullptr;
    size_t capacity = 0;
    FILE *const file = fopen("/etc/passwd", "r");
    expect(file != nullptr && getline(&line, &capacity, file) > 0, "a line");
    fclose(file);
    free(line);
    free(strdup("copy"));
    char *text = nullptr;
    expect(asprintf(&text, "%0300d", 7) == 300, "a text");
    free(text);
    size_t size = 0;
    FILE *const stream = open_memstream(&text, &size);
    for (int i = 0; i < 1000; ++i)
        fprintf(stream, "%d ", i);
    fclose(stream);
    free(text);
    regex_t expression;
    expect(regcomp(&expression, "(a|b)*[c-x]+(y){2,7}", REG_EXTENDED) == 0, "an expression");
    regexec(&expression, "abcyy", 0, nullptr, 0);
    regfree(&expression);
    free(realpath("/proc/self/exe", nullptr));
    free(getcwd(nullptr, 0));
}

void modules_come_and_go() {
    for (int round = 0; round < 3; ++round) {
        void *const module = dlopen("libresolv.so.2", RTLD_NOW);
        expect(module != nullptr, "a module");
        expect(dlsym(module, "no_such_symbol") == nullptr && dlerror() != nullptr, "an error");
        dlclose(module);
    }
}

// Its C library has an allocator of its own.
void another_namespace_allocates() {
    void *const library = dlmopen(LM_ID_NEWLM, "libc.so.6", RTLD_NOW);
    if (library == nullptr)
        return; // no room in the static TLS
    const auto copy = reinterpret_cast<char *(*)(const char *)>(dlsym(library, "strdup"));
    const auto release = reinterpret_cast<void (*)(void *)>(dlsym(library, "free"));
    std::vector<char *> copies;
    for (int i = 0; i < 1000; ++i)
        copies.push_back(copy(std::string(size_t(i), 'x').c_str()));
    for (char *text : copies)
        release(text);
    dlclose(library);
}

// Blocks of libc's among guarded ones, released in any order.
void *mix(void *seed) {
    std::mt19937 random(unsigned(reinterpret_cast<uintptr_t>(seed)));
    std::vector<void *> blocks;
    for (int step = 0; step < 20000; ++step) {
        const size_t size = random() % 50 == 0 ? random() % 300000 : random() % 400;
        if (blocks.size() < 100 || random() % 2 == 0) {
            blocks.push_back(random() % 2 == 0 ? __libc_malloc(size) : malloc(size));
            memset(blocks.back(), 'A', size);
        } else {
            std::swap(blocks[random() % blocks.size()], blocks.back());
            void *const block = blocks.back();
            blocks.pop_back();
            free(random() % 4 != 0 ? block : realloc(block, size + 1));
        }
    }
    for (void *block : blocks)
        free(block);
    return nullptr;
}

void threads_mix() {
    pthread_t threads[4];
    for (size_t i = 0; i < std::size(threads); ++i)
        pthread_create(&threads[i], nullptr, mix, reinterpret_cast<void *>(i + 1));
    for (const pthread_t thread : threads)
        pthread_join(thread, nullptr);
}

// What was a thread's stack is a block of libc's again as soon as the thread has been joined.
void stacks_are_released() {
    constexpr size_t size = 256 << 10;
    const auto run = [](void *) -> void * {
        free(strdup("recorded"));
        return nullptr;
    };
    for (int round = 0; round < 200; ++round) {
        auto *const stack = static_cast<char *>(__libc_malloc(size));
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        pthread_attr_setstack(&attributes, stack, size);
        pthread_t thread;
        expect(pthread_create(&thread, &attributes, run, nullptr) == 0, "a thread");
        pthread_join(thread, nullptr);
        pthread_attr_destroy(&attributes);
        free(stack);
    }
}

} // namespace

int main() {
    libc_allocates();
    modules_come_and_go();
    another_namespace_allocates();
    threads_mix();
    stacks_are_released();
    return 0;
}
