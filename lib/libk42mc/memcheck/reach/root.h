// What a chain of pointers to a block begins with, in words.
#pragma once

#include "memcheck/reach/search.h"

namespace k42mc::internal {

struct Root {
    enum class Kind : uint8_t {
        variable,
        module,  // data of one, of no known variable
        mapping, // memory of no module
        stack,
        thread_local_memory,
        one_register,
        handed,
        kept,
        moving
    };

    static constexpr size_t most_name_bytes = 512, most_text_bytes = most_name_bytes + 300;

    Kind kind;
    uint32_t thread;           // its number; 0 for the one that asks
    uintptr_t at;              // of the pointer, in memory
    Range range;               // of a variable, a module or a mapping
    const char *register_name; // of a register
    char name
        [most_name_bytes]; // of a variable, or of the function of a frame; empty where it is not known

    // Whether the variable, module or mapping has a pointer in it as well.
    bool is_around(const Origin &origin) const;

    // Whether both are one but for where the pointer lies.
    bool is_as_good_as(const Root &other) const;

    // Ends with a NUL. With several pointers in it, without the place of one. The asking thread is called as is said.
    void put(std::span<char> text, bool several, const char *asking_thread) const;
};

void describe_root(const Origin &origin, const Moment &moment, Root &root);

} // namespace k42mc::internal
