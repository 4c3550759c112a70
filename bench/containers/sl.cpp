#include "bench.h"

#include <k42mc/sl.hpp>

#include <boost/intrusive/slist.hpp>
#include <forward_list>
#include <glib.h>

namespace {

using namespace bench;

using Node = Element<SLLink>;

struct Typed {
    using Element = Node;
    explicit Typed(size_t) : list(plain) {}
    void insert(Element &element) { list.insert_first(element); }
    template <class F> void visit(F f) { std::for_each(list.begin(), list.end(), f); }
    void pop() { list.remove_first(); }

    k42mc::sl_list<Node, &Node::link> list;
};

struct C {
    using Element = Node;
    explicit C(size_t) { SLInit(&list, std::malloc, std::free, offsetof(Node, link), DS_DUMMY); }
    ~C() { SLDeinit(&list); }
    void insert(Element &element) { SLInsertFirst(list, &element); }
    template <class F> void visit(F f) { SLVisitWithArg(list, call<Element, F>, &f); }
    void pop() { SLRemoveFirst(list); }

    SLList *list;
};

struct Std {
    using Element = bench::Element<no_link>;
    explicit Std(size_t) {}
    void insert(Element &element) { list.push_front(&element); }
    template <class F> void visit(F f) {
        for (Element *element : list)
            f(*element);
    }
    void pop() { list.pop_front(); }

    std::forward_list<Element *> list;
};

namespace intrusive = boost::intrusive;
using Hook = intrusive::slist_member_hook<intrusive::link_mode<intrusive::normal_link>>;

struct Boost {
    using Element = bench::Element<Hook>;
    explicit Boost(size_t) {}
    void insert(Element &element) { list.push_front(element); }
    template <class F> void visit(F f) { std::for_each(list.begin(), list.end(), f); }
    void pop() { list.pop_front(); }

    intrusive::slist<Element, intrusive::member_hook<Element, Hook, &Element::link>,
                     intrusive::constant_time_size<false>, intrusive::cache_last<true>>
        list;
};

struct Glib {
    using Element = bench::Element<no_link>;
    explicit Glib(size_t) {}
    ~Glib() { g_slist_free(list); }
    void insert(Element &element) { list = g_slist_prepend(list, &element); }
    template <class F> void visit(F f) {
        g_slist_foreach(
            list, [](void *element, void *f) { call<Element, F>(element, f); }, &f);
    }
    void pop() { list = g_slist_delete_link(list, list); }

    GSList *list = nullptr;
};

[[maybe_unused]] const bool contests[] = {
    contest<Typed>("SL", "typed"),           contest<C>("SL", "C"),
    contest<Std>("SL", "std::forward_list"), contest<Boost>("SL", "boost::slist"),
    contest<Glib>("SL", "GSList"),
};

} // namespace
