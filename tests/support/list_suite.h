// What both list families must do, run against a vector. The including test defines LIST(name) as the
// family's name for a function or record, and what is the family's own: verify_backward() and special().
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

// A list, what it should hold, and the items that are in no list.
struct Run {
    LIST(List) * list;
    Items items;
    Items *unused;

    Item *insert(size_t at) {
        items.insert(items.begin() + long(at), unused->back());
        unused->pop_back();
        return items[at];
    }
    Item *remove(size_t at) {
        if (at >= items.size())
            return nullptr;
        unused->push_back(items[at]);
        items.erase(items.begin() + long(at));
        return unused->back();
    }
};

void verify_backward(const Run &run);
void special(Run &run, Item *item, size_t at, bool destroy);

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

inline void verify(const Run &run, const std::string &name) {
    const auto *const list = run.list;
    const Items &items = run.items;
    const bool empty = items.empty();
    hooks::Blocks walked, expected(items.begin(), items.end());
    for (void *item = LIST(First)(list); item; item = LIST(Next)(list, item))
        walked.push_back(item);
    ASSERT_EQ(walked, expected);
    ASSERT_EQ(list->head, empty ? nullptr : &items.front()->link);
    ASSERT_EQ(list->tail, empty ? nullptr : &items.back()->link);
    ASSERT_EQ(LIST(Last)(list), empty ? nullptr : items.back());
    ASSERT_EQ(LIST(IsEmpty)(list), empty);
    ASSERT_NO_FATAL_FAILURE(verify_backward(run));
    const auto count = "> number of entries: " + std::to_string(items.size()) + "\n";
    const std::string said =
        captured_stdout([&] { EXPECT_EQ((LIST(Info)(list), LIST(Check)(list)), DS_OK); });
    ASSERT_EQ(said, "=========" + name + " Info=======\n" +
                        (empty ? ">>>>> EMPTY <<<<<\n" : count + ">>>>>> " + name + "Check: OK\n"));
}

inline void run_against_model(const std::string &name) {
    Random random;
    Item pool[7];
    Items unused;
    for (auto &item : pool)
        unused.push_back(&item);
    Run runs[2] = {{new_list(hooks::destroy), {}, &unused}, {new_list(hooks::destroy), {}, &unused}};

    for (int step = 0; step < 3000; ++step) {
        const size_t which = random() % 2, operation = random() % 13;
        auto &run = runs[which], &other = runs[1 - which];
        auto *const list = run.list;
        Items &items = run.items;
        const size_t size = items.size(), at = size ? random() % size : 0;
        hooks::start();
        if (operation <= 1 && !unused.empty())
            (operation ? LIST(InsertLast) : LIST(InsertFirst))(list, run.insert(operation ? size : 0));
        else if (operation == 2 && !unused.empty() && size) {
            Item *existing = items[at];
            LIST(InsertNext)(list, existing, run.insert(at + 1));
        } else if (operation == 3) {
            const auto *kept = size ? items[0]->link.next : nullptr;
            Item *const expected = run.remove(0);
            ASSERT_EQ(LIST(RemoveFirst)(list), expected);
            ASSERT_TRUE(!expected || expected->link.next == kept);
        } else if (operation == 4) {
            ASSERT_EQ(LIST(RemoveAndDestroyFirst)(list), size ? DS_OK : DS_FAILURE);
            ASSERT_EQ(hooks::destroyed, size ? hooks::Blocks{run.remove(0)} : hooks::Blocks{});
        } else if (operation == 5) {
            LIST(Reverse)(list);
            std::reverse(items.begin(), items.end());
        } else if (operation == 6 || operation == 7) {
            (operation == 6 ? LIST(JoinFirst) : LIST(JoinLast))(list, other.list);
            items.insert(operation == 6 ? items.begin() : items.end(), other.items.begin(),
                         other.items.end());
            other.items.clear();
        } else if (operation == 8 && random() % 8 == 0) {
            LIST(Destroy)(list);
            ASSERT_EQ(hooks::destroyed, hooks::Blocks(items.begin(), items.end()));
            while (run.remove(0))
                ;
        } else if (operation > 8) {
            ASSERT_NO_FATAL_FAILURE(special(run, size ? items[at] : nullptr, at, random() % 2));
        }
        for (const Run &each : runs)
            ASSERT_NO_FATAL_FAILURE(verify(each, name)) << operation;
    }
    for (Run &run : runs)
        LIST(Deinit)(&run.list);
    EXPECT_EQ(runs[0].list, nullptr);
}

// A visit callback that records as the destroy hook does, and stops at the third element.
inline int32_t stop_at_third(void *element, void *result) {
    hooks::destroy(element);
    return hooks::calls.size() == 3 ? *static_cast<int32_t *>(result) : 0;
}
