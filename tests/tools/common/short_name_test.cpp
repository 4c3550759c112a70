#include "tools/common/short_name.h"

#include <gtest/gtest.h>

namespace {

TEST(ShortName, KeepsWhatPeopleSay) {
    const std::pair<const char *, const char *> names[] = {
        {"std::vector<int, std::allocator<int> >::push_back(int&&)", "std::vector<…>::push_back"},
        {"void std::vector<std::__cxx11::basic_string<char, std::char_traits<char>, "
         "std::allocator<char> "
         ">, std::allocator<int> >::_M_realloc_insert<int&&>(int&&)",
         "std::vector<…>::_M_realloc_insert<…>"},
        {"std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> "
         ">::~basic_string()",
         "std::string::~basic_string"},
        {"(anonymous namespace)::f(int) [clone .cold]", "(anonymous namespace)::f"},
        {"foo[abi:cxx11](void (*)(std::vector<int>)) const::{lambda(std::vector<int> const&)#1}::"
         "operator()(std::vector<int> const&) const",
         "foo::{lambda#1}::operator()"},
        {"std::ostream& operator<< <char>(std::ostream&, char)", "operator<< <…>"},
        {"bool A<(3>2)>::operator<(A const&) const &", "A<…>::operator<"},
        {"A::operator std::__cxx11::basic_string<char, std::char_traits<char> >() const",
         "A::operator std::string"},
        {"A::operator->*<int>(int)", "A::operator->*<…>"},
        {"operator new[](unsigned long)", "operator new[]"},
        {"operator\"\" _km(long double)", "operator\"\" _km"},
        {"std::chrono::_V2::system_clock::now()", "std::chrono::system_clock::now"},
        {"operators::go()", "operators::go"},
        // What is none.
        {"main", "main"},
        {"-[View draw:]", "-[View draw:]"},
        {"f(", "f("},
        {"a<(b>)", "a<(b>)"},
        {"", ""}};
    for (const auto &[name, expected] : names)
        EXPECT_EQ(short_name(name), expected);
}

} // namespace
