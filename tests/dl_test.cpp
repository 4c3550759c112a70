#include <k42mc/dl.h>

#define LIST(name) DL##name
#include "list_suite.h"

bool links_agree(const Run &run, Item *item, Item *prev) {
    return item->link.prev == (prev ? &prev->link : nullptr) && DLPrev(run.list, item) == prev;
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
    Item items[4];
    DLList *list = new_list(DS_DUMMY);
    int32_t seven = 7;
    EXPECT_EQ(DLVisitWithArg(list, DL_BACKWARD, note_three, &seven), 0);
    for (auto &item : items)
        DLInsertLast(list, &item);
    for (const int direction : {DL_FORWARD, DL_BACKWARD, -1})
        for (const bool stopping : {false, true}) {
            visits = 0;
            if (stopping)
                EXPECT_EQ(DLVisitWithArg(list, direction, note_three, &seven), 7);
            else
                DLVisit(list, direction, note);
            EXPECT_EQ(visits, stopping ? 3 : 4);
            for (int i = 0; i < visits; ++i)
                EXPECT_EQ(visited[i], &items[direction ? 3 - i : i]);
        }
    DLDeinit(&list);
}

TEST(DL, CheckFindsFaults) {
    Item a, b, c;
    DLList *list = new_list(DS_DUMMY);
    list->tail = &a.link;
    expect_fault(list, "1030: >>>>>> FAULT in DL");
    list->tail = nullptr;
    for (auto *item : {&a, &b, &c})
        DLInsertLast(list, item);
    list->tail = &b.link; // from the last test to the first
    expect_fault(list, "1046: >>>>>> FAULT in DL");
    c.link.prev = &a.link;
    expect_fault(list, "1041: >>>>>> FAULT in DL");
    a.link.prev = &c.link;
    expect_fault(list, "1036: >>>>>> FAULT in DL");
    DLDeinit(&list);
}
