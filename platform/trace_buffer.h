// The return addresses that a walk collects.
#pragma once

#include <stdint.h>

// Where this library begins and where its code ends, from the linker: known without a look-up.
extern "C" {
[[gnu::visibility("hidden")]] extern const char __ehdr_start[];
[[gnu::visibility("hidden")]] extern const char etext[];
}

namespace k42mc::internal::platform {

class TraceBuffer {
public:
    TraceBuffer(void **frames, int most) : next_(frames), end_(frames + most) {}

    int room() const { return static_cast<int>(end_ - next_); }

    // Still in the leading run of the library's own frames, which are left out.
    bool is_inside() const { return inside_; }

    // Where the next frames go.
    void **behind() const { return next_; }

    [[gnu::always_inline]] void add(uintptr_t address) {
        inside_ = inside_ && is_own(address);
        if (!inside_ && room() > 0)
            *next_++ = reinterpret_cast<void *>(address);
    }

    // Those that are there already.
    void extend(int number) {
        inside_ = inside_ && number == 0;
        next_ += number;
    }

    // A return address lies behind its call: the last one may be the end of the code itself.
    static bool is_own(uintptr_t address) {
        return address > reinterpret_cast<uintptr_t>(__ehdr_start) &&
               address <= reinterpret_cast<uintptr_t>(etext);
    }

private:
    void **next_, **end_;
    bool inside_ = true;
};

} // namespace k42mc::internal::platform
