// What both list families must do, run against a vector: for the C functions and for the typed front end
// alike. The including test defines LIST(name), a function's or record's name in its family, LIST_NAME,
// the family's own, and VIEW, its front end's template. It adds to CFunctions and FrontEnd what the other
// family lacks.
#pragma once

#include "capture.h"
#include "failing_hooks.h"
#include "random.h"

#include <algorithm>
#include <gtest/gtest.h>

struct Item {
    char before = 0; // so that the link does not open the element
    LIST(Link) link{};
};
using Items = std::vector<Item *>;

inline LIST(List) * new_list(DSDestroyHook destroy, Items items = {}) {
    LIST(List) * list;
    EXPECT_EQ(LIST(Init)(&list, hooks::alloc, hooks::dealloc, offsetof(Item, link), destroy), DS_OK);
    for (Item *item : items)
        LIST(InsertLast)(list, item);
    return list;
}

inline void expect_fault(const LIST(List) * list, const std::string &fault) {
    EXPECT_EQ(captured_stdout([=] { EXPECT_EQ(LIST(Check)(list), DS_FAILURE); }),
              "common/lib/libk42mc/k42mc_ds:" + fault + "\n");
}

// The C functions under the names of the front end.
struct CFunctions {
    ~CFunctions() {
        LIST(Deinit)(&list);
        EXPECT_EQ(list, nullptr);
    }

    static Item *as(void *item) { return static_cast<Item *>(item); }
    LIST(List) * record() { return list; }
    bool empty() { return LIST(IsEmpty)(list); }
    Item *first() { return as(LIST(First)(list)); }
    Item *last() { return as(LIST(Last)(list)); }
    Item *next(Item &item) { return as(LIST(Next)(list, &item)); }
    void insert_first(Item &item) { LIST(InsertFirst)(list, &item); }
    void insert_last(Item &item) { LIST(InsertLast)(list, &item); }
    void insert_next(Item &existing, Item &item) { LIST(InsertNext)(list, &existing, &item); }
    Item *remove_first() { return as(LIST(RemoveFirst)(list)); }
    void reverse() { LIST(Reverse)(list); }
    void join_first(CFunctions &source) { LIST(JoinFirst)(list, source.list); }
    void join_last(CFunctions &source) { LIST(JoinLast)(list, source.list); }
    void clear() { LIST(Destroy)(list); }

    LIST(List) *list = new_list(hooks::destroy);
};

struct FrontEnd : k42mc::owner<k42mc::VIEW<Item, &Item::link>> {
    FrontEnd() : owner({hooks::alloc, hooks::dealloc, hooks::destroy}) {}
};

template <class List> class ListRun {
public:
    ListRun() {
        for (Item &item : pool)
            unused.push_back(&item);
    }

    void steps(int count) {
        for (int i = 0; i < count && !testing::Test::HasFatalFailure(); ++i) {
            const size_t which = random() % 2;
            lists[which].step(*this, lists[1 - which]);
            for (Modelled &each : lists)
                each.verify();
        }
    }

private:
    // A list and what it should hold.
    struct Modelled {
        List list;
        Items items;

        Item &add(Items &unused, size_t at) {
            items.insert(items.begin() + long(at), unused.back());
            unused.pop_back();
            return *items[at];
        }
        Item *drop(Items &unused, size_t at) {
            if (at >= items.size())
                return nullptr;
            unused.push_back(items[at]);
            items.erase(items.begin() + long(at));
            return unused.back();
        }

        void step(ListRun &run, Modelled &other) {
            Items &unused = run.unused;
            const size_t size = items.size(), at = size ? run.random() % size : 0;
            Item *const existing = size ? items[at] : nullptr;
            hooks::start();
            switch (run.random() % 12) {
            case 0:
                return unused.empty() ? void() : list.insert_first(add(unused, 0));
            case 1:
                return unused.empty() ? void() : list.insert_last(add(unused, size));
            case 2:
                return unused.empty() || !size ? void()
                                               : list.insert_next(*existing, add(unused, at + 1));
            case 3: {
                const auto *kept = size ? items[0]->link.next : nullptr;
                Item *const expected = drop(unused, 0);
                ASSERT_EQ(list.remove_first(), expected);
                ASSERT_TRUE(!expected || expected->link.next == kept);
                return;
            }
            case 4:
                return destroys(LIST(RemoveAndDestroyFirst)(list.record()), drop(unused, 0));
            case 5:
                list.reverse();
                return std::reverse(items.begin(), items.end());
            case 6:
                list.join_first(other.list);
                return take_from(other, items.begin());
            case 7:
                list.join_last(other.list);
                return take_from(other, items.end());
            case 8:
                return run.random() % 8 ? void() : clear(unused);
            default:
                return special(run, existing, at);
            }
        }

        void take_from(Modelled &other, Items::iterator at) {
            items.insert(at, other.items.begin(), other.items.end());
            other.items.clear();
        }

        void clear(Items &unused) {
            list.clear();
            ASSERT_EQ(hooks::destroyed, hooks::Blocks(items.begin(), items.end()));
            while (drop(unused, 0))
                ;
        }

        static void destroys(int32_t result, Item *expected) {
            ASSERT_EQ(result, expected ? DS_OK : DS_FAILURE);
            ASSERT_EQ(hooks::destroyed, expected ? hooks::Blocks{expected} : hooks::Blocks{});
        }

        // What only one family has.
        void special(ListRun &run, Item *existing, size_t at) {
            Items &unused = run.unused;
            const bool destroy = run.random() % 2;
            if constexpr (requires { list.remove_next(*existing); }) {
                if (existing && destroy) {
                    destroys(list.remove_and_destroy_next(*existing), drop(unused, at + 1));
                } else if (existing) {
                    ASSERT_EQ(list.remove_next(*existing), drop(unused, at + 1));
                }
            } else if (const unsigned operation = run.random() % 3; operation == 0) {
                Item *const expected = drop(unused, items.size() - 1);
                if (destroy) {
                    destroys(list.remove_and_destroy_last(), expected);
                } else {
                    ASSERT_EQ(list.remove_last(), expected);
                }
            } else if (existing && operation == 1) {
                drop(unused, at);
                destroy ? list.remove_and_destroy(*existing) : list.remove(*existing);
                ASSERT_EQ(hooks::destroyed, destroy ? hooks::Blocks{existing} : hooks::Blocks{});
            } else if (existing && !unused.empty()) {
                list.insert_prev(*existing, add(unused, at));
            }
        }

        void verify() {
            const bool is_empty = items.empty();
            Items forward, backward, reversed(items.rbegin(), items.rend());
            for (Item *item = list.first(); item; item = list.next(*item))
                forward.push_back(item);
            ASSERT_EQ(forward, items);
            if constexpr (requires(Item & item) { list.prev(item); }) {
                for (Item *item = list.last(); item; item = list.prev(*item))
                    backward.push_back(item);
                ASSERT_EQ(backward, reversed);
            }
            if constexpr (requires { list.begin(); }) {
                const auto same = [](Item &item, Item *expected) { return &item == expected; };
                ASSERT_TRUE(std::equal(list.begin(), list.end(), items.begin(), items.end(), same));
            }
            ASSERT_EQ(list.record()->head, is_empty ? nullptr : &items.front()->link);
            ASSERT_EQ(list.record()->tail, is_empty ? nullptr : &items.back()->link);
            ASSERT_EQ(list.last(), is_empty ? nullptr : items.back());
            ASSERT_EQ(list.empty(), is_empty);
            const std::string name = LIST_NAME;
            const auto count = "> number of entries: " + std::to_string(items.size()) + "\n";
            const std::string said = captured_stdout(
                [&] { EXPECT_EQ((LIST(Info)(list.record()), LIST(Check)(list.record())), DS_OK); });
            ASSERT_EQ(said,
                      "=========" + name + " Info=======\n" +
                          (is_empty ? ">>>>> EMPTY <<<<<\n" : count + ">>>>>> " + name + "Check: OK\n"));
        }
    };

    Random random;
    Item pool[7];
    Items unused;
    Modelled lists[2];
};

template <class List> class Lists : public testing::Test {};
TYPED_TEST_SUITE_P(Lists);

TYPED_TEST_P(Lists, AgreeWithModel) {
    ListRun<TypeParam>().steps(3000);
}

REGISTER_TYPED_TEST_SUITE_P(Lists, AgreeWithModel);

// A visit callback that records as the destroy hook does, and stops at the third element.
inline int32_t stop_at_third(void *element, void *result) {
    hooks::destroy(element);
    return hooks::calls.size() == 3 ? *static_cast<int32_t *>(result) : 0;
}
