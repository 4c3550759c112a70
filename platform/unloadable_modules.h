// Modules that can be unloaded, and another be loaded in their place. What is known of one holds for
// what is there now if that has the same build's identity, which linkers put into modules.
#pragma once

#include "platform/frame_info.h"

#include <stdint.h>

namespace k42mc::internal::platform {

// Numbers of modules: one that stays for good, one of those here, or one that nothing is kept of, since
// it has no identity or there are too many.
inline constexpr uint16_t staying_module = 0, unknown_module = UINT16_MAX;

uint16_t number_unloadable_module(const FrameTable &table);

// Whether the module of a number is in its place: looked up once for a trace, which keeps the modules
// that it leads through loaded.
class ModuleCheck {
public:
    [[gnu::always_inline]] bool passes(uint16_t number) {
        return number == staying_module || number == in_place_ || look_up(number);
    }

private:
    bool look_up(uint16_t number);

    uint16_t in_place_ = staying_module;
};

} // namespace k42mc::internal::platform
