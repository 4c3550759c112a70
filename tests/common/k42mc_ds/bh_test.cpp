#include <k42mc/bh.hpp>
#include <k42mc/k42mc.h>

#include "capture.h"
#include "failing_hooks.h"
#include "random.h"

#include <array>
#include <cstring>
#include <deque>
#include <set>
#include <sys/mman.h>

namespace {

using Key = std::array<uint8_t, 4>; // ordered by its bytes
static_assert(alignof(Key) == 1);

struct Item {
    char front = 0;
    Key key{}; // at an odd address
    BHNode node{};
};

using Heap = k42mc::bh_heap<Item, &Item::node, &Item::key>;
using View = k42mc::bh_view<Item, &Item::node, &Item::key>;

int32_t compare_keys(const void *a, const void *b) {
    return std::memcmp(a, b, sizeof(Key));
}

void note_and_wreck(void *element) {
    hooks::destroy(element);
    std::memset(element, 0xa5, sizeof(Item));
}

Key number(uint32_t value) {
    return {0, 0, uint8_t(value >> 8), uint8_t(value)};
}

BHHeap *new_heap(DSDestroyHook destroy) {
    BHHeap *heap;
    BHInit(&heap, hooks::realloc, hooks::dealloc, offsetof(Item, node), offsetof(Item, key),
           compare_keys, destroy);
    return heap;
}

std::string checked(const BHHeap *heap, int32_t result) {
    return captured_stdout([=] { EXPECT_EQ(BHCheck(heap), result); });
}

// A heap, used through C functions and front end by turns, a plain array that swaps its way to the same
// slots, and the keys in order.
struct Modelled {
    explicit Modelled(BHHeap *made) : heap(made), view(made) {}

    void insert(const Key &key, bool typed, bool failing) {
        Item &item = pool.emplace_back();
        item.key = key;
        const bool grows = slots.size() == capacity;
        hooks::start(failing);
        if (typed && grows && failing)
            EXPECT_THROW(view.insert(item), std::bad_alloc);
        else if (typed)
            view.insert(item);
        else
            ASSERT_EQ(BHInsert(heap, &item), grows && failing ? DS_NOMEM : DS_OK);
        ASSERT_EQ(hooks::calls, grows ? "R" : "");
        if (grows && failing)
            return;
        capacity *= grows ? 2 : 1;
        keys.insert(key);
        slots.push_back(&item);
        up(slots.size() - 1);
    }

    void remove_root(bool typed) {
        const bool empty = keys.empty();
        Item *const removed = typed ? view.remove_root() : static_cast<Item *>(BHRemoveRoot(heap));
        ASSERT_EQ(removed, empty ? nullptr : slots[1]);
        if (empty)
            return;
        ASSERT_EQ(removed->key, *keys.begin());
        ASSERT_EQ(removed->node.i, 1u);
        forget(1);
    }

    void change(size_t slot, const Key &key, bool typed) {
        Item &item = *slots[slot];
        keys.erase(keys.find(item.key));
        keys.insert(item.key = key);
        typed ? view.change(item) : BHChange(heap, &item);
        down(up(slot));
    }

    void remove(size_t slot, bool typed, bool destroy) {
        Item &item = *slots[slot];
        forget(slot);
        hooks::start();
        if (destroy)
            BHRemoveAndDestroy(heap, &item);
        else if (typed)
            view.remove(item);
        else
            BHRemove(heap, &item);
        ASSERT_TRUE(destroy || item.node.i == slot);
        ASSERT_EQ(hooks::destroyed, destroy ? hooks::Blocks{&item} : hooks::Blocks{});
    }

    void destroy(bool typed) {
        hooks::start();
        typed ? view.clear() : BHDestroy(heap);
        ASSERT_EQ(hooks::destroyed, hooks::Blocks(slots.begin() + 1, slots.end()));
        keys.clear();
        slots.resize(1);
    }

    void verify() {
        hooks::Blocks held{nullptr}, walked{nullptr}, iterated{nullptr}, visited{nullptr};
        for (uint32_t slot = 1; slot <= heap->count; ++slot) {
            held.push_back(reinterpret_cast<char *>(heap->slots[slot]) - offsetof(Item, node));
            ASSERT_EQ(heap->slots[slot]->i, slot);
        }
        for (void *item = BHFirst(heap); item; item = BHNext(heap, item))
            walked.push_back(item);
        for (Item &item : view)
            iterated.push_back(&item);
        view.visit([&](Item &item) { visited.push_back(&item); });
        const hooks::Blocks expected(slots.begin(), slots.end());
        ASSERT_TRUE(held == expected && walked == expected);
        ASSERT_TRUE(iterated == expected && visited == expected);
        ASSERT_EQ(BHIsEmpty(heap), keys.empty());
        ASSERT_EQ(view.empty(), keys.empty());
        ASSERT_EQ(view.size(), keys.size());
        ASSERT_EQ(heap->capacity, capacity);
    }

    // Where the first of the keys that are equal stays.
    size_t up(size_t slot) {
        for (; slot > 1 && slots[slot]->key < slots[slot / 2]->key; slot /= 2)
            std::swap(slots[slot], slots[slot / 2]);
        return slot;
    }
    void down(size_t slot) {
        size_t least = slot;
        for (const size_t child : {2 * slot, 2 * slot + 1})
            if (child < slots.size() && slots[child]->key < slots[least]->key)
                least = child;
        if (least == slot)
            return;
        std::swap(slots[slot], slots[least]);
        down(least);
    }
    void forget(size_t slot) {
        keys.erase(keys.find(slots[slot]->key));
        std::swap(slots[slot], slots.back());
        slots.pop_back();
        if (slot < slots.size())
            down(up(slot));
    }

    BHHeap *heap;
    View view;
    size_t capacity = 256;
    std::vector<Item *> slots{nullptr};
    std::multiset<Key> keys;
    std::deque<Item> pool;
};

void run_against_model(Modelled &run) {
    Random random;
    for (int step = 0; step < 5000 && !testing::Test::HasFatalFailure(); ++step) {
        // Now few keys, now many, and up and down between no element and more than two growths.
        const Key key{0, 0, uint8_t(step % 16 ? random() % 2 : random()), uint8_t(random())};
        const size_t operation = random() % 100, size = run.slots.size() - 1;
        const size_t slot = size ? 1 + (operation % 2 ? size - 1 : random() % size) : 0;
        const bool typed = random() % 2;
        if (operation < 2 && step % 2500 > 2300)
            run.destroy(typed);
        else if (operation < (step % 2500 < 1400 ? 70 : 20))
            run.insert(key, typed, random() % 2);
        else if (operation < 80 || !slot)
            run.remove_root(typed);
        else if (operation < 90)
            run.change(slot, key, typed);
        else
            run.remove(slot, typed, random() % 2);
        ASSERT_NO_FATAL_FAILURE(run.verify()) << operation;
        if (step % 50 == 0) {
            ASSERT_EQ(checked(run.heap, DS_OK), ">>>>>> BHCheck: OK\n");
        }
    }
}

TEST(BH, AgreesWithModel) {
    BHHeap *heap = new_heap(note_and_wreck);
    Modelled run(heap);
    run_against_model(run);
    run.insert(number(1), false, false);
    hooks::start();
    BHDeinit(&heap);
    EXPECT_EQ(hooks::calls, std::string(run.keys.size(), 'X') + "FF");

    Heap typed({hooks::realloc, hooks::dealloc, note_and_wreck});
    Modelled again(typed.record());
    run_against_model(again);
    typed.clear();

    EXPECT_EQ(Heap().record()->destroy, DS_DUMMY);
    EXPECT_EQ(Heap().record()->realloc, DSRealloc);
    hooks::start(2);
    EXPECT_THROW(Heap({hooks::realloc, hooks::dealloc}), std::bad_alloc);
}

size_t requested;

void *refuse(void *, size_t size) {
    requested = size;
    return nullptr;
}

BHHeap heap_of(uint32_t count, uint32_t capacity, void *slots) {
    return {count,
            static_cast<BHNode **>(slots),
            capacity,
            offsetof(Item, node),
            offsetof(Item, key),
            compare_keys,
            DS_DUMMY,
            nullptr,
            refuse};
}

TEST(BH, GrowsUpToItsLimit) {
    constexpr bool wide = sizeof(void *) == 8;
    const struct {
        uint32_t count, capacity;
        uint64_t bytes64, bytes32; // 0: no request
    } cases[] = {
        {255, 256, 4096, 2048},
        {0x1ffffffe, 0x1fffffff, 0x1fffffff0, 0xfffffff8},
        {0x1fffffff, 0x20000000, 0x200000000, 0xfffffffc},
        {0x7ffffffe, 0x7fffffff, 0x7fffffff0, 0xfffffffc},
        {0x7fffffff, 0x80000000, 0x7fffffff8, 0xfffffffc},
        {0xfffffffe, 0xffffffff, 0, 0},
    };
    for (const auto &at : cases) {
        Item item{0, number(1), {77}};
        BHHeap heap = heap_of(at.count, at.capacity, nullptr);
        requested = 0;
        EXPECT_EQ(BHInsert(&heap, &item), DS_NOMEM);
        EXPECT_EQ(requested, wide ? at.bytes64 : at.bytes32);
        EXPECT_THROW(View(&heap).insert(item), std::bad_alloc);
        EXPECT_EQ(heap.count, at.count);
        EXPECT_EQ(heap.capacity, at.capacity);
        EXPECT_EQ(item.node.i, 77u);
    }
}

// As many elements as there can be. Memory backs only the slots on one way down, and those beside.
TEST(BH, HoldsAsManyAsItsSlotsCount) {
    constexpr uint32_t count = 0xfffffffe;
    const size_t bytes = 8 * (size_t{count} + 2);
    void *memory =
        mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (sizeof(void *) < 8 || memory == MAP_FAILED)
        GTEST_SKIP() << "no address space";
    BHHeap heap = heap_of(count, UINT32_MAX, memory);
    Item moved{0, number(5), {1}}, way{0, number(3), {}}, beside{0, number(9), {}};
    for (uint32_t slot = count; slot > 1; slot /= 2) {
        heap.slots[slot] = &way.node;
        heap.slots[slot ^ 1] = &beside.node;
    }
    for (const auto &[key, slot] : {std::pair(5, count), {4, count}, {0, 1u}}) {
        moved.key = number(uint32_t(key));
        BHChange(&heap, &moved);
        EXPECT_EQ(moved.node.i, slot);
    }
    munmap(memory, bytes);
}

TEST(BH, VisitsAndPrints) {
    BHHeap *heap = new_heap(DS_DUMMY);
    int32_t seven = 7;
    const auto stop_at_third = [](void *item, void *result) -> int32_t {
        hooks::destroy(item);
        return hooks::calls.size() == 3 ? *static_cast<int32_t *>(result) : 0;
    };
    const auto dumped = [=] { return captured_stdout([=] { BHDump(heap); }); };
    const auto said = [=] { return captured_stdout([=] { BHInfo(heap); }) + dumped(); };
    EXPECT_EQ(BHVisitWithArg(heap, stop_at_third, &seven), 0);
    EXPECT_EQ(said(), "===========BH Info=========\n>>>>> EMPTY <<<<<\n> heap size         : 256\n"
                      "===========BH Dump=========\n>>>>> EMPTY <<<<<\n");
    EXPECT_EQ(checked(heap, DS_OK), ">>>>>> BHCheck: OK\n");
    Item items[7];
    for (uint32_t i = 0; i < 7; ++i) {
        items[i].key = {uint8_t(i + 1), 0, 0, uint8_t(i == 6 ? 0xab : 0)};
        BHInsert(heap, &items[i]);
        if (i == 0) {
            EXPECT_EQ(dumped(), "===========BH Dump=========\n 1\n");
        } else if (i == 2) {
            EXPECT_EQ(dumped(), "===========BH Dump=========\n   1\n  2  3\n");
        }
    }
    EXPECT_EQ(said(), "===========BH Info=========\n> number of entries : 7\n"
                      "> heap size         : 256\n===========BH Dump=========\n"
                      "            1\n        2        3\n    4    5    6    ab000007\n");

    hooks::start();
    EXPECT_EQ(BHVisitWithArg(heap, stop_at_third, &seven), 7);
    EXPECT_EQ(hooks::destroyed, (hooks::Blocks{&items[0], &items[1], &items[2]}));
    static BHHeap *visited;
    visited = heap;
    BHVisit(heap, [](void *item) { hooks::destroy(item), visited->count = 0; });
    EXPECT_EQ(hooks::calls.size(), 10u); // what there was at the start
    heap->count = 7;

    const std::string path = "common/lib/libk42mc/k42mc_ds";
    items[6].key[0] = 2; // from the last test to the first
    EXPECT_EQ(checked(heap, DS_FAILURE),
              path + ":5831: >>>>>> FAULT in BH: K of parent(3) > K of child(7)");
    items[5].key[0] = 1;
    EXPECT_EQ(checked(heap, DS_FAILURE),
              path + ":5825: >>>>>> FAULT in BH: K of parent(3) > K of child(6)");
    items[2].node.i = 9;
    EXPECT_EQ(checked(heap, DS_FAILURE), path + ":5816: >>>>>> FAULT in BH: pi(3) != p->i(9)");
    BHDeinit(&heap);
}

} // namespace
