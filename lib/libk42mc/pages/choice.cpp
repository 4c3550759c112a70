#include "pages/choice.h"

#include "platform/threads.h"

#include <time.h>

namespace k42mc::internal {

constinit PageChoice page_choice = {};
constinit thread_local uint32_t blocks_to_pass = 0;

namespace {

// A thread's own random numbers (xorshift).
struct Dice {
    uint32_t state = 0;

    bool was_thrown() const { return state != 0; }

    uint32_t throw_once() {
        if (!was_thrown())
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

// Up to twice as many as one in so many leaves out, so that it is as many on average.
uint32_t blocks_until_next_turn(uint32_t one_in) {
    const uint64_t range = uint64_t{one_in} * 2 - 1;
    return static_cast<uint32_t>(range * dice.throw_once() >> 32);
}

} // namespace

bool begin_next_turn(uint32_t one_in) {
    const bool is_first = !dice.was_thrown();
    blocks_to_pass = blocks_until_next_turn(one_in);
    return !is_first || one_in == 1;
}

bool is_turn_of_start() {
    return (dice.throw_once() >> 16 & 1) != 0;
}

} // namespace k42mc::internal
