#include "call_shapes.h"

#include <alloca.h>
#include <cstddef>

namespace {

// What is done after a call keeps it from being a jump.
#define AFTERWARDS __asm__ volatile("" : : : "memory")

// Memory that the compiler has to make room for.
void use(volatile void *memory) {
    __asm__ volatile("" : : "r"(memory) : "memory");
}

uint32_t draw(Path &path) {
    path.random = path.random * 1664525u + 1013904223u;
    return path.random >> 16;
}

void go_on(Path &path);

[[gnu::noinline]] void plain(Path &path) {
    go_on(path);
    AFTERWARDS;
}

[[gnu::noinline]] void tail_call(Path &path) {
    return go_on(path);
}

[[gnu::noinline]] void large(Path &path) {
    char memory[3000];
    use(memory);
    go_on(path);
    use(memory);
}

[[gnu::noinline]] void variable(Path &path) {
    void *const memory = alloca(16 + draw(path) % 500);
    use(memory);
    go_on(path);
    use(memory);
}

[[gnu::noinline]] void aligned(Path &path) {
    alignas(64) char memory[70];
    use(memory);
    go_on(path);
    use(memory);
}

[[gnu::noinline]] void aligned_and_variable(Path &path) {
    alignas(128) char memory[70];
    void *const more = alloca(16 + draw(path) % 500);
    use(memory), use(more);
    go_on(path);
    use(memory), use(more);
}

[[gnu::noinline]] void with_any_arguments(Path *path, ...) {
    go_on(*path);
    AFTERWARDS;
}

[[gnu::noinline]] void variadic(Path &path) {
    with_any_arguments(&path, 1, 2.5, 3L, &path, 5, 6, 7, 8, 9);
    AFTERWARDS;
}

// Values that outlive the call take all registers that calls preserve.
[[gnu::noinline]] void busy(Path &path) {
    uint32_t a = draw(path), b = draw(path), c = draw(path), d = draw(path), e = draw(path),
             f = draw(path);
    go_on(path);
    __asm__ volatile("" : : "g"(a), "g"(b), "g"(c), "g"(d), "g"(e), "g"(f) : "memory");
}

[[gnu::noinline]] void thrower(Path &path) {
    if (path.throws)
        throw &path;
}

[[gnu::noinline]] void exception_in_flight(Path &path) {
    struct GoesOn {
        Path &path;
        ~GoesOn() { go_on(path); }
    };
    try {
        const GoesOn goes_on{path};
        thrower(path);
    } catch (Path *) {
        AFTERWARDS;
    }
}

inline void inlined(Path &path) {
    const auto further = [&] { go_on(path); };
    further();
    AFTERWARDS;
}

[[gnu::noinline]] void with_inlined(Path &path) {
    inlined(path);
    AFTERWARDS;
}

constexpr CallShapes shapes[] = {
    plain,    tail_call, large,        variable,           aligned, aligned_and_variable,
    variadic, busy,      with_inlined, exception_in_flight};

void go_on(Path &path) {
    if (path.depth-- <= 0)
        path.end();
    else
        shapes[draw(path) % (sizeof shapes / sizeof *shapes)](path);
    AFTERWARDS;
}

} // namespace

void CALL_SHAPES(Path &path) {
    go_on(path);
    AFTERWARDS;
}
