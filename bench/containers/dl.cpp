#include "bench.h"

#include <k42mc/dl.hpp>

#include <boost/intrusive/list.hpp>
#include <glib.h>
#include <list>

namespace {

using namespace bench;

using Node = Element<DLLink>;

struct Typed {
    using Element = Node;
    explicit Typed(size_t) : list(plain) {}
    void insert(Element &element) { list.insert_last(element); }
    template <class F> void visit(F f) { std::for_each(list.begin(), list.end(), f); }
    void remove(Element &element) { list.remove(element); }
    void pop() { list.remove_first(); }

    k42mc::dl_list<Node, &Node::link> list;
};

struct C {
    using Element = Node;
    explicit C(size_t) { DLInit(&list, std::malloc, std::free, offsetof(Node, link), DS_DUMMY); }
    ~C() { DLDeinit(&list); }
    void insert(Element &element) { DLInsertLast(list, &element); }
    template <class F> void visit(F f) { DLVisitWithArg(list, DL_FORWARD, call<Element, F>, &f); }
    void remove(Element &element) { DLRemove(list, &element); }
    void pop() { DLRemoveFirst(list); }

    DLList *list;
};

// Elements remember their places, as those of the intrusive lists do.
struct Std {
    struct Place;
    using Element = bench::Element<Place>;
    using List = std::list<Element *>;
    struct Place {
        List::iterator at;
    };

    explicit Std(size_t) {}
    void insert(Element &element) { element.link.at = list.insert(list.end(), &element); }
    template <class F> void visit(F f) {
        for (Element *element : list)
            f(*element);
    }
    void remove(Element &element) { list.erase(element.link.at); }
    void pop() { list.pop_front(); }

    List list;
};

namespace intrusive = boost::intrusive;
using Hook = intrusive::list_member_hook<intrusive::link_mode<intrusive::normal_link>>;

struct Boost {
    using Element = bench::Element<Hook>;
    using List = intrusive::list<Element, intrusive::member_hook<Element, Hook, &Element::link>,
                                 intrusive::constant_time_size<false>>;
    explicit Boost(size_t) {}
    void insert(Element &element) { list.push_back(element); }
    template <class F> void visit(F f) { std::for_each(list.begin(), list.end(), f); }
    void remove(Element &element) { list.erase(List::s_iterator_to(element)); }
    void pop() { list.pop_front(); }

    List list;
};

struct Glib {
    using Element = bench::Element<GList *>;
    explicit Glib(size_t) {}
    ~Glib() { g_queue_clear(&queue); }
    void insert(Element &element) {
        g_queue_push_tail(&queue, &element);
        element.link = queue.tail;
    }
    template <class F> void visit(F f) {
        g_queue_foreach(
            &queue, [](void *element, void *f) { call<Element, F>(element, f); }, &f);
    }
    void remove(Element &element) { g_queue_delete_link(&queue, element.link); }
    void pop() { g_queue_pop_head(&queue); }

    GQueue queue = G_QUEUE_INIT;
};

[[maybe_unused]] const bool contests[] = {
    contest<Typed>("DL", "typed"),       contest<C>("DL", "C"),         contest<Std>("DL", "std::list"),
    contest<Boost>("DL", "boost::list"), contest<Glib>("DL", "GQueue"),
};

} // namespace
