#include "base/gate.h"

#include "base/errno_keeper.h"
#include "platform/threads.h"

namespace k42mc::internal {

constinit std::atomic<uint32_t> gate_passes = 0;
constinit thread_local Visitor *own_visitor = nullptr;
constinit std::atomic<Visitor *> all_visitors = nullptr;

namespace {

// Where adopting goes on, so that all are asked in turn.
constinit std::atomic<Visitor *> next_to_ask = nullptr;

// What the former thread did last is seen from here on. It may have been ended by force, inside.
bool adopt(Visitor &visitor, uint64_t self) {
    uint64_t owner = visitor.owner.load(std::memory_order_relaxed);
    if ((owner != 0 && !platform::has_ended(owner)) ||
        !visitor.owner.compare_exchange_strong(owner, self, std::memory_order_acquire))
        return false;
    visitor.place.exchange(Visitor::outside, std::memory_order_acquire);
    visitor.thread.store(pthread_self(), std::memory_order_relaxed);
    return true;
}

// Whether it may still leave after so many naps. Its thread may have been ended by force. In a child that no
// fork handler was told of, all are a parent's by their numbers, and the one that goes on there is not told
// from those that are not there: they are given seconds.
bool may_leave(const Visitor &visitor, int naps) {
    constexpr int most_naps = 20'000;
    const ErrnoKeeper errno_keeper;
    const uint64_t owner = visitor.owner.load(std::memory_order_relaxed);
    return platform::is_of_this_process(owner) ? !platform::has_ended(owner)
                                               : naps < most_naps || platform::borrows_memory();
}

// An operation takes less than a microsecond, unless its thread has lost the processor.
void see_out(Visitor &visitor) {
    constexpr int most_moments = 100;
    for (int moments = 0; visitor.place.load(std::memory_order_acquire) == Visitor::inside; ++moments) {
        if (moments < most_moments)
            platform::wait_a_moment();
        else if (may_leave(visitor, moments - most_moments))
            platform::sleep_briefly();
        else
            visitor.leave();
    }
}

} // namespace

void add_visitor(Visitor &visitor) {
    visitor.owner.store(platform::own_thread(), std::memory_order_relaxed);
    visitor.thread.store(pthread_self(), std::memory_order_relaxed);
    visitor.next = all_visitors.load(std::memory_order_relaxed);
    while (!all_visitors.compare_exchange_weak(visitor.next, &visitor))
        ;
    own_visitor = &visitor;
}

// A thread that starts among thousands must not ask the system for all of them.
bool adopt_visitor() {
    constexpr int most_asked = 32;
    const ErrnoKeeper errno_keeper;
    const uint64_t self = platform::own_thread();
    Visitor *visitor = next_to_ask.load(std::memory_order_acquire);
    for (int asked = 0; asked < most_asked; ++asked) {
        if (visitor == nullptr)
            visitor = all_visitors.load(std::memory_order_acquire);
        if (visitor == nullptr)
            return false;
        if (adopt(*visitor, self)) {
            own_visitor = visitor;
            break;
        }
        visitor = visitor->next;
    }
    next_to_ask.store(visitor, std::memory_order_release);
    return own_visitor != nullptr;
}

bool is_on_visitors_stack(uintptr_t address) {
    const Visitor *visitor = all_visitors.load(std::memory_order_acquire);
    for (; visitor != nullptr; visitor = visitor->next) {
        const uint64_t owner = visitor->owner.load(std::memory_order_relaxed);
        const pthread_t thread = visitor->thread.load(std::memory_order_relaxed);
        if (platform::is_of_this_process(owner) &&
            platform::is_on_stack_of(thread, static_cast<uint32_t>(owner), address))
            return true;
    }
    return false;
}

void see_visitors_out() {
    Visitor *visitor = all_visitors.load(std::memory_order_seq_cst);
    for (; visitor != nullptr; visitor = visitor->next) {
        if (visitor != own_visitor)
            see_out(*visitor);
    }
}

void forget_other_visitors() {
    Visitor *visitor = all_visitors.load(std::memory_order_relaxed);
    for (; visitor != nullptr; visitor = visitor->next) {
        if (visitor == own_visitor) {
            visitor->owner.store(platform::own_thread(), std::memory_order_relaxed);
            continue;
        }
        visitor->place.store(Visitor::outside, std::memory_order_relaxed);
        visitor->owner.store(0, std::memory_order_relaxed);
    }
}

} // namespace k42mc::internal
