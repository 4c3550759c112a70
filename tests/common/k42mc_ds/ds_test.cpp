#include "checker.h"
#include "ended.h"
#include "failing_hooks.h"

#include <cstring>

namespace {

struct Element {
    uint8_t key[4];
    SLLink sl;
    DLLink dl;
    AVLNode avl;
    HTLink ht;
    PTNode pt;
    void *chain;
    uint16_t length;
    BHNode bh;
};

int32_t compare_nothing(const void *, const void *) {
    return 0;
}

#define HOOKS DSAllocHook a, DSDeallocHook f, DSDestroyHook x
struct Family {
    static auto init(SLList **h, HOOKS) { return SLInit(h, a, f, offsetof(Element, sl), x); }
    static auto init(DLList **h, HOOKS) { return DLInit(h, a, f, offsetof(Element, dl), x); }
    static auto init(AVLTree **h, HOOKS) {
        return AVLInit(h, a, f, offsetof(Element, avl), 0, nullptr, x);
    }
    static auto init(HTTable **h, HOOKS) {
        return HTInit(h, a, f, offsetof(Element, ht), 0, HTHash4B, nullptr, x);
    }
    static auto init(PTTree **h, HOOKS) { return PTInit(h, a, f, offsetof(Element, pt), 0, 32, 0, x); }
    static auto init(PXTable **h, HOOKS) {
        return PXInit(h, a, f, offsetof(Element, chain), 0, offsetof(Element, length), x);
    }
    static auto init(BHHeap **h, HOOKS) {
        return BHInit(h, a ? hooks::realloc : nullptr, f, offsetof(Element, bh), 0, compare_nothing, x);
    }
    static void insert(SLList *list, void *element) { SLInsertFirst(list, element); }
    static void insert(DLList *list, void *element) { DLInsertFirst(list, element); }
    static void insert(HTTable *table, void *element) { HTInsert(table, element, nullptr); }
    static void insert(AVLTree *tree, void *element) { AVLInsert(tree, element, nullptr); }
    static void insert(PTTree *tree, void *element) { PTInsert(tree, element, nullptr); }
    static void insert(PXTable *table, void *element) {
        auto *route = static_cast<Element *>(element);
        route->chain = nullptr;
        route->length = 32;
        EXPECT_EQ(PXInsert(table, element), DS_OK);
    }
    static void insert(BHHeap *heap, void *element) { ASSERT_EQ(BHInsert(heap, element), DS_OK); }
    static void deinit(SLList **handle) { SLDeinit(handle); }
    static void deinit(DLList **handle) { DLDeinit(handle); }
    static void deinit(AVLTree **handle) { AVLDeinit(handle); }
    static void deinit(HTTable **handle) { HTDeinit(handle); }
    static void deinit(PTTree **handle) { PTDeinit(handle); }
    static void deinit(PXTable **handle) { PXDeinit(handle); }
    static void deinit(BHHeap **handle) { BHDeinit(handle); }
};

template <class Header> class DS : public testing::Test {};
using Headers = testing::Types<SLList, DLList, HTTable, AVLTree, PTTree, PXTable, BHHeap>;
TYPED_TEST_SUITE(DS, Headers);

TYPED_TEST(DS, NullHooksSelectDefaults) {
    TypeParam *handle = nullptr;
    ASSERT_EQ(Family::init(&handle, nullptr, nullptr, nullptr), DS_OK);
    EXPECT_EQ(handle->destroy, DSDealloc);
    EXPECT_EQ(handle->dealloc, DSDealloc);
    Family::insert(handle, k42MC_malloc(__FILE__, __LINE__, sizeof(Element)));
    Family::deinit(&handle); // the guards stop the process if a block is not a checked one
    EXPECT_EQ(handle, nullptr);
    ASSERT_EQ(Family::init(&handle, hooks::alloc, hooks::dealloc, nullptr), DS_OK);
    EXPECT_EQ(handle->destroy, DSDealloc);
    Family::deinit(&handle);
}

TYPED_TEST(DS, DummyHookLeavesElementsAlone) {
    hooks::start();
    TypeParam *handle;
    ASSERT_EQ(Family::init(&handle, hooks::alloc, hooks::dealloc, DS_DUMMY), DS_OK);
    Element element{};
    Family::insert(handle, &element);
    std::memset(&element, 0xa5, sizeof element); // not read either
    const Element before = element;
    Family::deinit(&handle);
    EXPECT_EQ(std::memcmp(&element, &before, sizeof element), 0);
    EXPECT_EQ(hooks::calls.find('X'), std::string::npos);
    EXPECT_EQ(hooks::freed, hooks::Blocks(hooks::given.rbegin(), hooks::given.rend()));
}

TYPED_TEST(DS, FailedInitLeavesNothing) {
    const int allocations = std::is_same_v<TypeParam, HTTable> || std::is_same_v<TypeParam, PTTree> ||
                                    std::is_same_v<TypeParam, BHHeap>
                                ? 2
                                : 1;
    for (int failing = 1; failing <= allocations; ++failing) {
        hooks::start(failing);
        auto *handle = reinterpret_cast<TypeParam *>(&failing);
        EXPECT_EQ(Family::init(&handle, hooks::alloc, hooks::dealloc, nullptr), DS_NOMEM);
        EXPECT_EQ(handle, nullptr);
        EXPECT_EQ(hooks::given.size(), size_t(failing));
        EXPECT_EQ(hooks::freed, failing == 1 ? hooks::Blocks{} : hooks::Blocks{hooks::given[0]});
    }
}

TEST(DSHooks, AllocateUnderTheContainersName) {
    checker_on();
    void *block = DSAlloc(7);
    EXPECT_CONTAINS(report(0), "common/lib/libk42mc/k42mc_ds:180:LK:STD:");
    block = DSRealloc(block, 5000);
    EXPECT_CONTAINS(report(0), "common/lib/libk42mc/k42mc_ds:193:LK:STD:");
    DSDealloc(block);
    EXPECT_FALSE(contains(report(0), "k42mc_ds"));
    checker_off();
}

TEST(DSMemFail, PrintsAndExits) {
    const Ended end = ended([] { DSMemFail("abc"); });
    EXPECT_TRUE(end.exited(255));
    EXPECT_EQ(end.out, "abc: memory failure\n");
}

} // namespace
