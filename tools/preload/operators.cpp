// operator new and delete, over guarded blocks of their own types, so that mixed-up releases show.
// Linked without the C++ library: a program that has operators to call brings it.
#include "tools/preload/operators.h"

#include "base/errno_keeper.h"
#include "tools/preload/depth.h"
#include "tools/preload/foreign.h"
#include "tools/preload/own_allocator.h"
#include "tools/preload/site.h"

#include <k42mc/k42mc.h>

#include <dlfcn.h>
#include <errno.h>
#include <link.h>
#include <new>
#include <stdint.h>
#include <stdlib.h>

// The linker's names for the bounds of the section that has the operators, and nothing else, in it.
[[gnu::visibility("hidden")]] extern const char operators_start[] __asm__("__start_operators");
[[gnu::visibility("hidden")]] extern const char operators_stop[] __asm__("__stop_operators");

namespace {

using namespace k42mc::internal;

#define CALLER   __builtin_return_address(0)
#define OPERATOR [[gnu::visibility("default"), gnu::section("operators")]]

template <class Function> Function *in_process(const char *name) {
    const InsideChecker inside; // dlsym may allocate
    return reinterpret_cast<Function *>(dlsym(RTLD_DEFAULT, name));
}

const link_map *module_of(void *function) {
    dl_find_object object;
    return _dl_find_object(function, &object) == 0 ? object.dlfo_link_map : nullptr;
}

// Whether the program has an operator new or delete of its own. The other forms are then to lead to it,
// as the C++ library's do, and no block can be told by its type.
bool replaced() {
    enum { unknown, no, yes };
    static constinit int answer = unknown;
    if (answer == unknown) {
        void *(*const allocating)(size_t) = ::operator new;
        void (*const releasing)(void *) = ::operator delete;
        const link_map *own = module_of(reinterpret_cast<void *>(module_of));
        answer = module_of(reinterpret_cast<void *>(allocating)) == own &&
                         module_of(reinterpret_cast<void *>(releasing)) == own
                     ? no
                     : yes;
    }
    return answer == yes;
}

int shown_type(int type) {
    return replaced() ? MC_STD : type;
}

// As the C++ library's operators do.
void *allocate_past_checker(size_t alignment, size_t size) {
    size_t padded;
    if (alignment == 1)
        return malloc(size);
    return __builtin_add_overflow(size, alignment - 1, &padded)
               ? nullptr
               : aligned_alloc(alignment, padded & -alignment);
}

void *try_once(const void *caller, int type, size_t alignment, size_t size) {
    if (program_is_left_alone())
        return allocate_past_checker(alignment, size);
    const InsideChecker inside;
    return k42mcx_alloc(site_of(caller), 0, shown_type(type), alignment, size);
}

// Null when there is no memory and no handler left to make some. Handlers may throw.
void *try_allocate(const void *caller, int type, size_t alignment, size_t size) {
    for (;;) {
        if (void *block = try_once(caller, type, alignment, size))
            return block;
        const auto get_handler = in_process<std::new_handler()>("_ZSt15get_new_handlerv");
        const std::new_handler handler = get_handler != nullptr ? get_handler() : nullptr;
        if (handler == nullptr || errno == EINVAL)
            return nullptr;
        handler();
    }
}

void *allocate(const void *caller, int type, size_t alignment, size_t size) {
    if (void *block = try_allocate(caller, type, alignment, size))
        return block;
    if (const auto throw_bad_alloc = in_process<void()>("_ZSt17__throw_bad_allocv"))
        throw_bad_alloc();
    abort();
}

void release(const void *caller, int type, void *block) {
    if (block == nullptr)
        return;
    const auto shown = static_cast<uint16_t>(shown_type(type));
    const InsideChecker inside;
    const ErrnoKeeper keep_errno;
    free(take_back_unless_foreign({site_of(caller), 0}, shown, block));
}

// The least that a guarded block can be told to have.
size_t least(std::align_val_t alignment) {
    const auto wanted = static_cast<size_t>(alignment);
    return wanted < sizeof(void *) ? sizeof(void *) : wanted;
}

} // namespace

bool leads_to_programs_operator(const void *caller) {
    const auto address = reinterpret_cast<uintptr_t>(caller);
    return address > reinterpret_cast<uintptr_t>(operators_start) &&
           address <= reinterpret_cast<uintptr_t>(operators_stop);
}

OPERATOR void *operator new(size_t size) {
    return allocate(CALLER, MC_FIX, 1, size);
}

OPERATOR void *operator new[](size_t size) {
    if (replaced())
        return ::operator new(size);
    return allocate(CALLER, MC_VAR, 1, size);
}

OPERATOR void *operator new(size_t size, const std::nothrow_t &) noexcept {
    if (replaced())
        return ::operator new(size);
    return try_allocate(CALLER, MC_FIX, 1, size);
}

OPERATOR void *operator new[](size_t size, const std::nothrow_t &) noexcept {
    if (replaced())
        return ::operator new[](size);
    return try_allocate(CALLER, MC_VAR, 1, size);
}

OPERATOR void *operator new(size_t size, std::align_val_t alignment) {
    return allocate(CALLER, MC_FIX, least(alignment), size);
}

OPERATOR void *operator new[](size_t size, std::align_val_t alignment) {
    return allocate(CALLER, MC_VAR, least(alignment), size);
}

OPERATOR void *operator new(size_t size, std::align_val_t alignment, const std::nothrow_t &) noexcept {
    return try_allocate(CALLER, MC_FIX, least(alignment), size);
}

OPERATOR void *operator new[](size_t size, std::align_val_t alignment, const std::nothrow_t &) noexcept {
    return try_allocate(CALLER, MC_VAR, least(alignment), size);
}

OPERATOR void operator delete(void *block) noexcept {
    release(CALLER, MC_FIX, block);
}

OPERATOR void operator delete[](void *block) noexcept {
    if (replaced())
        return ::operator delete(block);
    release(CALLER, MC_VAR, block);
}

OPERATOR void operator delete(void *block, const std::nothrow_t &) noexcept {
    if (replaced())
        return ::operator delete(block);
    release(CALLER, MC_FIX, block);
}

OPERATOR void operator delete[](void *block, const std::nothrow_t &) noexcept {
    if (replaced())
        return ::operator delete[](block);
    release(CALLER, MC_VAR, block);
}

OPERATOR void operator delete(void *block, size_t) noexcept {
    if (replaced())
        return ::operator delete(block);
    release(CALLER, MC_FIX, block);
}

OPERATOR void operator delete[](void *block, size_t) noexcept {
    if (replaced())
        return ::operator delete[](block);
    release(CALLER, MC_VAR, block);
}

OPERATOR void operator delete(void *block, std::align_val_t) noexcept {
    release(CALLER, MC_FIX, block);
}

OPERATOR void operator delete[](void *block, std::align_val_t) noexcept {
    release(CALLER, MC_VAR, block);
}

OPERATOR void operator delete(void *block, std::align_val_t, const std::nothrow_t &) noexcept {
    release(CALLER, MC_FIX, block);
}

OPERATOR void operator delete[](void *block, std::align_val_t, const std::nothrow_t &) noexcept {
    release(CALLER, MC_VAR, block);
}

OPERATOR void operator delete(void *block, size_t, std::align_val_t) noexcept {
    release(CALLER, MC_FIX, block);
}

OPERATOR void operator delete[](void *block, size_t, std::align_val_t) noexcept {
    release(CALLER, MC_VAR, block);
}
