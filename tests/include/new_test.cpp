// This test's own operators new and delete are those of new.hpp.
#include <k42mc/new.hpp>

#include "checker.h"
#include "ended.h"

#include <memory>

namespace {

struct alignas(256) Wide {
    char byte;
};

struct Counted {
    ~Counted() { destroyed++; }
    static inline int destroyed;
    long value[2];
};

volatile size_t too_much = SIZE_MAX; // leaves no room for guards; volatile: the compiler would warn
void *volatile kept;                 // what nobody keeps, the compiler may leave out

TEST(New, EveryOperatorMatchesItsDelete) {
    const std::unique_ptr<Wide> wide(new Wide);
    const std::unique_ptr<Wide[]> wides(new (std::nothrow) Wide[3]);
    EXPECT_EQ(number(wide.get()) % 256, 0u);
    EXPECT_EQ(number(wides.get()) % 256, 0u);
    delete[] new Counted[5];
    delete new (std::nothrow) Counted;
    EXPECT_EQ(Counted::destroyed, 6);
    ::operator delete (::operator new (1, std::align_val_t{1}), std::align_val_t{1});
    ::operator delete[](::operator new[](9), std::nothrow);
    EXPECT_EQ(k42mcx_malloc_usable_size(wide.get()), sizeof(Wide));
}

TEST(New, FailureAsksTheHandlerFirst) {
    static int asked;
    EXPECT_THROW(kept = ::operator new(too_much), std::bad_alloc);
    EXPECT_EQ(::operator new[](too_much, std::nothrow), nullptr);
    std::set_new_handler([] {
        if (++asked == 3)
            std::set_new_handler(nullptr);
    });
    EXPECT_THROW(kept = ::operator new[](too_much), std::bad_alloc);
    EXPECT_EQ(asked, 3);
    std::set_new_handler([] { throw std::bad_alloc(); });
    EXPECT_EQ(::operator new(too_much, std::nothrow), nullptr);
    std::set_new_handler([] {});
    EXPECT_THROW(kept = ::operator new (1, std::align_val_t{2 * size_t{K42MC_ALIGN_MAX}}),
                 std::bad_alloc);
    std::set_new_handler(nullptr);
}

TEST(New, ReportsCountObjectsAndArraysApart) {
    checker_on();
    const std::unique_ptr<long> object(new long);
    const std::unique_ptr<long[]> array(new long[4]);
    const void *volatile seen[] = {object.get(), array.get()}; // or the compiler may leave both out
    const std::string text = report(0);
    checker_off();
    EXPECT_CONTAINS(text, "operator new:0:LK:FIX:");
    EXPECT_CONTAINS(text, "operator new[]:0:LK:VAR:");
    EXPECT_NE(seen[0], seen[1]);
}

// Kept from the compiler, which would warn.
template <class T> T *hidden(T *pointer) {
    T *volatile through = pointer;
    return through;
}

TEST(New, MixUpsStopTheProcess) {
    expect_defect("BF: alloc(FIX) free(VAR)", [] { delete[] hidden(new long); });
    expect_defect("BF: alloc(VAR) free(FIX)", [] { delete hidden(new long[2]); });
    expect_defect("BF: alloc(FIX) free(STD)", [] { k42MC_free("a.c", 1, hidden(new long)); });
    expect_defect("BF: alloc(STD) free(FIX)", [] { delete (long *)hidden(k42MC_malloc("a.c", 1, 8)); });
}

} // namespace
