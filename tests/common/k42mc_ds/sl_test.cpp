#include <k42mc/sl.h>

#define LIST(name) SL##name
#include "list_suite.h"

void verify_backward(const Run &) {}

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
    Item a, b, c, d;
    SLList *none = new_list(DS_DUMMY), *list = new_list(DS_DUMMY, {&a, &b, &c, &d});
    int32_t seven = 7;
    EXPECT_EQ(SLVisitWithArg(none, stop_at_third, &seven), 0);
    hooks::start();
    EXPECT_EQ(SLVisitWithArg(list, stop_at_third, &seven), 7);
    SLVisit(list, hooks::destroy);
    EXPECT_EQ(hooks::destroyed, (hooks::Blocks{&a, &b, &c, &a, &b, &c, &d}));
    SLDeinit(&list), SLDeinit(&none);
}

TEST(SL, CheckFindsFaults) {
    Item a, b;
    SLList *none = new_list(DS_DUMMY), *list = new_list(DS_DUMMY, {&a, &b});
    none->tail = &a.link;
    expect_fault(none, "645: >>>>>> FAULT in SL");
    list->tail = &a.link;
    expect_fault(list, "652: >>>>>> FAULT in SL");
    for (SLLink *const back : {&a.link, &b.link})
        for (SLLink *const tail : {&b.link, static_cast<SLLink *>(nullptr)}) {
            b.link.next = back;
            list->tail = tail;
            expect_fault(list, "652: >>>>>> FAULT in SL");
        }
    list->head = nullptr;
    SLDeinit(&list), SLDeinit(&none);
}
