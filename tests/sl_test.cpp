#include <k42mc/sl.h>

#define LIST(name) SL##name
#include "list_suite.h"

bool links_agree(const Run &, Item *, Item *) {
    return true;
}

void special(Run &run, Item *item, size_t at, bool destroy) {
    if (!item)
        return;
    Item *const expected = run.remove(at + 1);
    if (destroy) {
        ASSERT_EQ(SLRemoveAndDestroyNext(run.list, item), expected ? DS_OK : DS_FAILURE);
        ASSERT_EQ(hooks::calls, expected ? "X" : "");
    } else {
        ASSERT_EQ(SLRemoveNext(run.list, item), expected);
    }
}

TEST(SL, AgreesWithModel) {
    run_against_model("SL");
}

TEST(SL, Visits) {
    Item items[4];
    SLList *list = new_list(DS_DUMMY);
    int32_t seven = 7;
    EXPECT_EQ(SLVisitWithArg(list, note_three, &seven), 0);
    for (auto &item : items)
        SLInsertLast(list, &item);
    for (const bool stopping : {false, true}) {
        visits = 0;
        if (stopping)
            EXPECT_EQ(SLVisitWithArg(list, note_three, &seven), 7);
        else
            SLVisit(list, note);
        EXPECT_EQ(visits, stopping ? 3 : 4);
        for (int i = 0; i < visits; ++i)
            EXPECT_EQ(visited[i], &items[i]);
    }
    SLDeinit(&list);
}

TEST(SL, CheckFindsFaults) {
    Item a, b;
    SLList *list = new_list(DS_DUMMY);
    list->tail = &a.link;
    expect_fault(list, "645: >>>>>> FAULT in SL");
    list->tail = nullptr;
    SLInsertLast(list, &a);
    SLInsertLast(list, &b);
    list->tail = &a.link;
    expect_fault(list, "652: >>>>>> FAULT in SL");
    SLDeinit(&list);
}
