#include <k42mc/dl.hpp>

#define LIST(name) DL##name
#define LIST_NAME  "DL"
#define VIEW       dl_view
#include "list_suite.h"

struct ByFunctions : CFunctions {
    Item *prev(Item &item) { return as(DLPrev(list, &item)); }
    void insert_prev(Item &existing, Item &item) { DLInsertPrev(list, &existing, &item); }
    void remove(Item &item) { DLRemove(list, &item); }
    void remove_and_destroy(Item &item) { DLRemoveAndDestroy(list, &item); }
    Item *remove_last() { return as(DLRemoveLast(list)); }
    int32_t remove_and_destroy_last() { return DLRemoveAndDestroyLast(list); }
};

struct ByFrontEnd : FrontEnd {
    void remove_and_destroy(Item &item) { DLRemoveAndDestroy(record(), &item); }
    int32_t remove_and_destroy_last() { return DLRemoveAndDestroyLast(record()); }
};

using Doors = testing::Types<ByFunctions, ByFrontEnd>;
INSTANTIATE_TYPED_TEST_SUITE_P(DL, Lists, Doors);

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
