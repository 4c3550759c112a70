// The return addresses that a walk collects.
#pragma once

#include <stdint.h>

// Where this library begins and where its code ends, from the linker: known without a look-up.
extern "C" {
[[gnu::visibility("hidden")]] extern const char __ehdr_start[];
[[gnu::visibility("hidden")]] extern const char etext[];
}

namespace k42mc::platform {

class CallChain {
public:
    CallChain(void **frames, int most) : next_(frames), end_(frames + most) {}

    int room() const { return static_cast<int>(end_ - next_); }

    // Leaves out what does not fit.
    [[gnu::always_inline]] void add(uintptr_t address) {
        inside_ = inside_ && is_own(address);
        if (!inside_ && room() > 0)
            *next_++ = reinterpret_cast<void *>(address);
    }

    [[gnu::always_inline]] void add(const uintptr_t *addresses, int number) {
        while (inside_ && number > 0 && (inside_ = is_own(*addresses)))
            ++addresses, --number;
        number = number < room() ? number : room();
        if (number >= block) {
            // The last block may overlap the one before.
            for (int i = 0; i < number - block; i += block)
                copy<block>(next_ + i, addresses + i);
            copy<block>(next_ + number - block, addresses + number - block);
        } else {
            for (int i = 0; i < number; ++i)
                copy<1>(next_ + i, addresses + i);
        }
        next_ += number;
    }

private:
    static constexpr int block = 4;

    template <int size> static void copy(void **to, const uintptr_t *from) {
        __builtin_memcpy(to, from, size * sizeof *to);
    }

    // A return address lies behind its call: the last one may be the end of the code itself.
    static bool is_own(uintptr_t address) {
        return address > reinterpret_cast<uintptr_t>(__ehdr_start) &&
               address <= reinterpret_cast<uintptr_t>(etext);
    }

    void **next_, **end_;
    bool inside_ = true; // still in the leading run of the library's own frames
};

} // namespace k42mc::platform
