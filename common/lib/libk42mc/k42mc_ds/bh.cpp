// The binary heap.
#include "k42mc_ds/conventions.h"

#include <k42mc/algorithms/bits.hpp>
#include <k42mc/algorithms/heap.hpp>

#include <cstddef>
#include <new>

using namespace k42mc;
using namespace k42mc::internal;

static_assert(sizeof(BHNode) == 4);
static_assert(offsetof(BHHeap, count) == 0 && offsetof(BHHeap, slots) == sizeof(void *) &&
              offsetof(BHHeap, capacity) == 2 * sizeof(void *) &&
              offsetof(BHHeap, nodeOffset) == 2 * sizeof(void *) + 4 &&
              offsetof(BHHeap, keyOffset) == 2 * sizeof(void *) + 8 &&
              offsetof(BHHeap, compare) == (sizeof(void *) == 8 ? 32 : 20) &&
              offsetof(BHHeap, destroy) == offsetof(BHHeap, compare) + sizeof(void *) &&
              offsetof(BHHeap, dealloc) == offsetof(BHHeap, compare) + 2 * sizeof(void *) &&
              offsetof(BHHeap, realloc) == offsetof(BHHeap, compare) + 3 * sizeof(void *) &&
              sizeof(BHHeap) == offsetof(BHHeap, compare) + 4 * sizeof(void *));

namespace {

constexpr uint32_t initial_capacity = 256;

// Keys at the offset, and in the order, that a heap was created with.
struct HookOrder {
    explicit HookOrder(const BHHeap *heap)
        : fromNode(static_cast<ptrdiff_t>(heap->keyOffset) - static_cast<ptrdiff_t>(heap->nodeOffset)),
          compare(heap->compare) {}

    const void *key(const BHNode *node) const { return reinterpret_cast<const char *>(node) + fromNode; }

    int32_t operator()(const BHNode *a, const BHNode *b) const { return compare(key(a), key(b)); }

    ptrdiff_t fromNode;
    BHCompareFn compare;
};

BHNode *node_of(const BHHeap *heap, const void *element) {
    return ds::link_at<BHNode>(element, heap->nodeOffset);
}

void *element_of(const BHHeap *heap, const BHNode *node) {
    return node ? ds::element_at(node, heap->nodeOffset) : nullptr;
}

// These lines stay open: no line end follows.

int32_t slot_fault(uint32_t slot, uint32_t i) {
    std::printf("%s:5816: >>>>>> FAULT in BH: pi(%u) != p->i(%u)", ds::source_path, slot, i);
    return DS_FAILURE;
}

int32_t order_fault(int number, uint32_t parent, uint32_t child) {
    std::printf("%s:%d: >>>>>> FAULT in BH: K of parent(%u) > K of child(%u)", ds::source_path, number,
                parent, child);
    return DS_FAILURE;
}

} // namespace

int32_t BHInit(BHHeap **heap, DSReallocHook realloc, DSDeallocHook dealloc, uint32_t nodeOffset,
               uint32_t keyOffset, BHCompareFn compare, DSDestroyHook destroy) {
    *heap = nullptr;
    realloc = ds::or_default(realloc);
    dealloc = ds::or_default(dealloc);
    void *header = realloc(nullptr, sizeof(BHHeap));
    if (!header)
        return DS_NOMEM;
    void *slots = realloc(nullptr, initial_capacity * sizeof(BHNode *));
    if (!slots) {
        dealloc(header);
        return DS_NOMEM;
    }
    *heap = new (header)
        BHHeap{0,       static_cast<BHNode **>(slots), initial_capacity, nodeOffset, keyOffset,
               compare, ds::or_default(destroy),       dealloc,          realloc};
    return DS_OK;
}

void BHDeinit(BHHeap **handle) {
    BHHeap *heap = *handle;
    *handle = nullptr;
    BHDestroy(heap);
    const DSDeallocHook dealloc = heap->dealloc;
    dealloc(heap->slots);
    dealloc(heap);
}

void BHDestroy(BHHeap *heap) {
    if (ds::owns_elements(heap->destroy))
        BHVisit(heap, heap->destroy);
    heap->count = 0;
}

int BHIsEmpty(const BHHeap *heap) {
    return !heap->count;
}

int32_t BHInsert(BHHeap *heap, void *element) {
    return heap::insert(heap, node_of(heap, element), HookOrder(heap));
}

void *BHRemoveRoot(BHHeap *heap) {
    return element_of(heap, heap::remove_root(heap, HookOrder(heap)));
}

void BHChange(BHHeap *heap, void *element) {
    heap::change(heap, node_of(heap, element), HookOrder(heap));
}

void BHRemove(BHHeap *heap, void *element) {
    heap::remove(heap, node_of(heap, element), HookOrder(heap));
}

void BHRemoveAndDestroy(BHHeap *heap, void *element) {
    BHRemove(heap, element);
    heap->destroy(element);
}

void *BHFirst(const BHHeap *heap) {
    return element_of(heap, heap::first(heap));
}

void *BHNext(const BHHeap *heap, const void *element) {
    return element_of(heap, heap::next(heap, node_of(heap, element)));
}

void BHVisit(const BHHeap *heap, DSVisitFn visit) {
    BHNode *const *slot = heap->slots;
    for (uint32_t n = heap->count; n; --n)
        visit(element_of(heap, *++slot));
}

int32_t BHVisitWithArg(const BHHeap *heap, DSVisitArgFn visit, void *argument) {
    BHNode *const *slot = heap->slots;
    for (uint32_t n = heap->count; n; --n)
        if (const int32_t result = visit(element_of(heap, *++slot), argument))
            return result;
    return 0;
}

void BHInfo(const BHHeap *heap) {
    std::puts("===========BH Info=========");
    if (heap->count)
        std::printf("> number of entries : %u\n", heap->count);
    else
        std::puts(">>>>> EMPTY <<<<<");
    std::printf("> heap size         : %u\n", heap->capacity);
    std::fflush(stdout);
}

void BHDump(const BHHeap *heap) {
    const HookOrder order(heap);
    const uint64_t count = heap->count;
    std::puts("===========BH Dump=========");
    if (!count)
        std::puts(">>>>> EMPTY <<<<<");
    for (uint64_t level = 1; level <= count; level *= 2) {
        const uint64_t width = std::max<uint64_t>(count / 2 * 9 / (level + 1), 1);
        for (uint64_t slot = level; slot < 2 * level && slot <= count; ++slot)
            std::printf("%*c%x", static_cast<int>(width) - 1, ' ',
                        bits::load<uint32_t>(order.key(heap->slots[slot])));
        std::putchar('\n');
    }
    std::fflush(stdout);
}

int32_t BHCheck(const BHHeap *heap) {
    const HookOrder order(heap);
    const uint32_t count = heap->count;
    const auto orders_after = [&](uint32_t slot, uint64_t child) {
        return child <= count && order(heap->slots[slot], heap->slots[child]) > 0;
    };
    for (uint32_t slot = 1; slot <= count; ++slot) {
        if (heap->slots[slot]->i != slot)
            return slot_fault(slot, heap->slots[slot]->i);
        if (orders_after(slot, uint64_t{2} * slot))
            return order_fault(5825, slot, 2 * slot);
        if (orders_after(slot, uint64_t{2} * slot + 1))
            return order_fault(5831, slot, 2 * slot + 1);
    }
    return ds::check_passed("BHCheck");
}

K42MC_EXPORT(BHInit);
K42MC_EXPORT(BHDeinit);
K42MC_EXPORT(BHDestroy);
K42MC_EXPORT(BHIsEmpty);
K42MC_EXPORT(BHInsert);
K42MC_EXPORT(BHRemoveRoot);
K42MC_EXPORT(BHChange);
K42MC_EXPORT(BHRemove);
K42MC_EXPORT(BHRemoveAndDestroy);
K42MC_EXPORT(BHFirst);
K42MC_EXPORT(BHNext);
K42MC_EXPORT(BHVisit);
K42MC_EXPORT(BHVisitWithArg);
K42MC_EXPORT(BHInfo);
K42MC_EXPORT(BHDump);
K42MC_EXPORT(BHCheck);
