#include <k42mc/dl.h>

#define LIST(name) DL##name
#include "list_suite.h"

void verify_backward(const Run &run) {
    hooks::Blocks walked, expected(run.items.rbegin(), run.items.rend());
    for (void *item = DLLast(run.list); item; item = DLPrev(run.list, item))
        walked.push_back(item);
    ASSERT_EQ(walked, expected);
}

void special(Run &run, Item *item, size_t at, bool destroy) {
    static int operation;
    switch (++operation % 3) {
    case 0:
        if (item && !run.unused->empty())
            DLInsertPrev(run.list, item, run.insert(at));
        break;
    case 1:
        if (item) {
            run.remove(at);
            (destroy ? DLRemoveAndDestroy : DLRemove)(run.list, item);
            ASSERT_EQ(hooks::calls, destroy ? "X" : "");
        }
        break;
    case 2:
        Item *const expected = run.remove(run.items.size() - 1);
        if (destroy) {
            ASSERT_EQ(DLRemoveAndDestroyLast(run.list), expected ? DS_OK : DS_FAILURE);
            ASSERT_EQ(hooks::destroyed, expected ? hooks::Blocks{expected} : hooks::Blocks{});
        } else {
            ASSERT_EQ(DLRemoveLast(run.list), expected);
        }
    }
}

TEST(DL, AgreesWithModel) {
    run_against_model("DL");
}

TEST(DL, VisitsInBothDirections) {
    Item a, b, c, d;
    DLList *none = new_list(DS_DUMMY), *list = new_list(DS_DUMMY, {&a, &b, &c, &d});
    int32_t seven = 7;
    EXPECT_EQ(DLVisitWithArg(none, DL_BACKWARD, stop_at_third, &seven), 0);
    for (const int direction : {DL_FORWARD, DL_BACKWARD, -1}) {
        hooks::start();
        EXPECT_EQ(DLVisitWithArg(list, direction, stop_at_third, &seven), 7);
        DLVisit(list, direction, hooks::destroy);
        EXPECT_EQ(hooks::destroyed, direction ? (hooks::Blocks{&d, &c, &b, &d, &c, &b, &a})
                                              : (hooks::Blocks{&a, &b, &c, &a, &b, &c, &d}));
    }
    DLDeinit(&list), DLDeinit(&none);
}

TEST(DL, CheckFindsFaults) {
    Item a, b, c;
    DLList *none = new_list(DS_DUMMY), *list = new_list(DS_DUMMY, {&a, &b, &c});
    none->tail = &a.link;
    expect_fault(none, "1030: >>>>>> FAULT in DL");
    list->tail = &b.link; // from the last test to the first
    expect_fault(list, "1046: >>>>>> FAULT in DL");
    c.link.prev = &a.link;
    expect_fault(list, "1041: >>>>>> FAULT in DL");
    a.link.prev = &c.link;
    expect_fault(list, "1036: >>>>>> FAULT in DL");
    DLDeinit(&list), DLDeinit(&none);
}
