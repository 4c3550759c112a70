// Which blocks get pages of their own, and where in them they lie.
#pragma once

#include <atomic>
#include <stdint.h>

namespace k42mc::internal {

// As k42mcx_page_guards has it.
struct PageChoice {
    std::atomic<uint32_t> one_in; // 0: no block
    std::atomic<uint32_t> flags;
};
extern constinit PageChoice page_choice;

// Of the calling thread: how many blocks go by until the next one that gets pages.
extern constinit thread_local uint32_t blocks_to_pass;

// Whether the block at which none is left to pass gets pages: not a thread's first one, but where all do.
bool begin_next_turn(uint32_t one_in);
bool is_turn_of_start();

inline bool wants_pages() {
    const uint32_t one_in = page_choice.one_in.load(std::memory_order_relaxed);
    if (one_in == 0) [[likely]]
        return false;
    if (one_in != 1 && blocks_to_pass > 0) [[likely]] {
        --blocks_to_pass;
        return false;
    }
    return begin_next_turn(one_in);
}

} // namespace k42mc::internal
