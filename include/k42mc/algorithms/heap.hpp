// The algorithms of the binary heap, over slots and nodes. How keys compare is a parameter: `order` is
// called with two nodes and returns what compares with 0 as the first one's key does with the second's.
#ifndef K42MC_ALGORITHMS_HEAP_HPP
#define K42MC_ALGORITHMS_HEAP_HPP

#include <k42mc/bh.h>

#include <algorithm>
#include <cstdint>

namespace k42mc::heap {

inline void put(BHNode **slots, uint32_t slot, BHNode *node) {
    slots[slot] = node;
    node->i = slot;
}

// Puts a node into a slot that is free, or into one above it. Returns which.
template <class Order>
uint32_t sift_up(BHNode **slots, uint32_t slot, BHNode *node, const Order &order) {
    for (; slot > 1 && order(node, slots[slot / 2]) < 0; slot /= 2)
        put(slots, slot, slots[slot / 2]);
    put(slots, slot, node);
    return slot;
}

// Puts a node into a slot that is free, or into one below it.
template <class Order>
void sift_down(BHNode **slots, uint32_t count, uint32_t slot, BHNode *node, const Order &order) {
    while (slot <= count / 2) { // twice the slot may not fit into 32 bits
        uint32_t child = 2 * slot;
        child += child < count && order(slots[child], slots[child + 1]) > 0;
        if (order(node, slots[child]) <= 0)
            break;
        put(slots, slot, slots[child]);
        slot = child;
    }
    put(slots, slot, node);
}

// Puts a node into a slot that is free, or to where its key belongs above or below it.
template <class Order> void place(BHHeap *heap, uint32_t slot, BHNode *node, const Order &order) {
    if (sift_up(heap->slots, slot, node, order) == slot)
        sift_down(heap->slots, heap->count, slot, node, order);
}

// Doubles the array. Returns false, and nothing has changed, when there is no memory for it.
inline bool grow(BHHeap *heap) {
    const uint32_t capacity = heap->capacity > UINT32_MAX / 2 ? UINT32_MAX : 2 * heap->capacity;
    // More than 32 bits can address stays more than any allocator has.
    constexpr uint64_t too_much = SIZE_MAX - SIZE_MAX % sizeof(BHNode *);
    const uint64_t bytes = std::min(uint64_t{capacity} * sizeof(BHNode *), too_much);
    const DSReallocHook resize = heap->realloc; // "realloc(" is a macro after redirect.h
    void *slots = resize(heap->slots, static_cast<size_t>(bytes));
    if (!slots)
        return false;
    heap->slots = static_cast<BHNode **>(slots);
    heap->capacity = capacity;
    return true;
}

template <class Order> int32_t insert(BHHeap *heap, BHNode *node, const Order &order) {
    const uint32_t slot = heap->count + 1;
    if (slot == UINT32_MAX || (slot == heap->capacity && !grow(heap)))
        return DS_NOMEM;
    sift_up(heap->slots, slot, node, order);
    heap->count = slot;
    return DS_OK;
}

template <class Order> BHNode *remove_root(BHHeap *heap, const Order &order) {
    if (!heap->count)
        return nullptr;
    BHNode *root = heap->slots[1];
    BHNode *last = heap->slots[heap->count--];
    if (heap->count)
        sift_down(heap->slots, heap->count, 1, last, order);
    return root;
}

template <class Order> void change(BHHeap *heap, BHNode *node, const Order &order) {
    if (heap->count > 1)
        place(heap, node->i, node, order);
}

template <class Order> void remove(BHHeap *heap, BHNode *node, const Order &order) {
    BHNode *last = heap->slots[heap->count--];
    if (last != node)
        place(heap, node->i, last, order);
}

inline BHNode *first(const BHHeap *heap) {
    return heap->count ? heap->slots[1] : nullptr;
}

inline BHNode *next(const BHHeap *heap, const BHNode *node) {
    return node->i < heap->count ? heap->slots[node->i + 1] : nullptr;
}

} // namespace k42mc::heap

#endif
