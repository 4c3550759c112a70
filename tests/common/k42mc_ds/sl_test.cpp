#include <k42mc/sl.hpp>

#define LIST(name) SL##name
#define LIST_NAME  "SL"
#define VIEW       sl_view
#include "list_suite.h"

struct ByFunctions : CFunctions {
    Item *remove_next(Item &item) { return as(SLRemoveNext(list, &item)); }
    int32_t remove_and_destroy_next(Item &item) { return SLRemoveAndDestroyNext(list, &item); }
};

struct ByFrontEnd : FrontEnd {
    int32_t remove_and_destroy_next(Item &item) { return SLRemoveAndDestroyNext(record(), &item); }
};

using Doors = testing::Types<ByFunctions, ByFrontEnd>;
INSTANTIATE_TYPED_TEST_SUITE_P(SL, Lists, Doors);

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
