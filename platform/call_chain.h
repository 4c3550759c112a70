// The return addresses that a walk collects.
#pragma once

#include <stdint.h>

// Where this library begins and where its code ends, from the linker: known without a look-up.
extern "C" {
[[gnu::visibility("hidden")]] extern const char __ehdr_start[];
[[gnu::visibility("hidden")]] extern const char etext[];
}

namespace k42mc::platform {

struct CallChain {
    void **frames;
    int most;
    int count = 0;
    bool inside = true; // still in the leading run of the library's own frames

    bool has_room() const { return count < most; }

    // Leaves out what does not fit.
    [[gnu::always_inline]] void add(uintptr_t address) {
        inside = inside && is_own(address);
        if (!inside && has_room())
            frames[count++] = reinterpret_cast<void *>(address);
    }

    // A return address lies behind its call: the last one may be the end of the code itself.
    static bool is_own(uintptr_t address) {
        return address > reinterpret_cast<uintptr_t>(__ehdr_start) &&
               address <= reinterpret_cast<uintptr_t>(etext);
    }
};

} // namespace k42mc::platform
