// What is kept of a recorded block.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace k42mc::internal {

// Half a cache line on 64 bits. Records are called by their numbers; 0 is none.
class Record {
public:
    uintptr_t address; // the user pointer
    size_t size;
    uint32_t site; // what the block has in common with others; of a free record: the next free one

    // As one that the next reports list.
    void start(uint64_t order, unsigned type, uint32_t cycle, bool is_kept) {
        order_and_state_ =
            order << state_bits | type << type_shift | used | listed | (is_kept ? kept : 0u);
        birth_ = cycle;
    }
    void end() { order_and_state_ = 0; }

    bool is_used() const { return order_and_state_ & used; }
    // Not of a block that is being reallocated: it is in somebody's hand, and nobody else may look at it.
    bool is_listed() const { return (order_and_state_ & (used | listed | in_hand)) == (used | listed); }

    bool is_in_hand() const { return order_and_state_ & in_hand; }

    // Never lost, whatever leads to it.
    bool is_kept() const { return order_and_state_ & kept; }
    void keep() { order_and_state_ |= kept; }

    uint64_t order() const { return order_and_state_ >> state_bits; }
    unsigned type() const { return order_and_state_ >> type_shift & type_mask; }

    // The number of reports that have seen it.
    uint32_t age(uint32_t cycle) const { return is_listed() ? cycle - birth_ : birth_; }

    // No later report lists it or makes it older.
    void unlist(uint32_t cycle) {
        birth_ = age(cycle);
        order_and_state_ &= ~uint64_t{listed};
    }

    // Reports meanwhile do not see it, and do not make it older.
    void take_in_hand(uint32_t cycle) {
        birth_ = age(cycle);
        order_and_state_ |= in_hand;
    }
    void put_back(uint32_t cycle) {
        order_and_state_ &= ~uint64_t{in_hand};
        if (is_listed())
            birth_ = cycle - birth_;
    }

private:
    enum : unsigned {
        used = 1,
        listed = 2,
        in_hand = 4,
        type_shift = 3,
        type_mask = 7,
        kept = 64,
        state_bits = 8
    };

    uint32_t birth_; // the cycle before its first report; while unlisted or in hand, its age
    uint64_t order_and_state_;
};

static_assert(sizeof(Record) == (sizeof(void *) == 8 ? 32 : 24));

} // namespace k42mc::internal
