#include "pages/choice.h"

#include "platform/threads.h"

#include <time.h>

namespace k42mc::internal {

constinit PageChoice page_choice = {};

namespace {

// A thread's own random numbers (xorshift), and how many blocks are left until the next turn.
struct Dice {
    uint32_t state = 0, left = 0;

    uint32_t throw_once() {
        if (state == 0)
            state = seed();
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        return state;
    }

private:
    static uint32_t seed() {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        const uint32_t mixed = static_cast<uint32_t>(now.tv_nsec) * 2654435761u ^
                               static_cast<uint32_t>(platform::own_thread()) * 40503u;
        return mixed | 1;
    }
};

constinit thread_local Dice dice;

// From 1 to twice as many less one, so that it is as many on average.
uint32_t until_next_turn(uint32_t one_in) {
    return static_cast<uint32_t>(uint64_t{dice.throw_once()} * (uint64_t{one_in} * 2 - 1) >> 32) + 1;
}

} // namespace

bool is_ones_turn(uint32_t one_in) {
    if (dice.left == 0)
        dice.left = until_next_turn(one_in);
    return --dice.left == 0;
}

bool is_turn_of_start() {
    return (dice.throw_once() >> 16 & 1) != 0;
}

} // namespace k42mc::internal
