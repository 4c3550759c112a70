#include "bench.h"

#include <k42mc/bh.hpp>

#include <boost/heap/d_ary_heap.hpp>
#include <functional>
#include <queue>

namespace {

using namespace bench;

using Node = Element<BHNode>;

struct Typed {
    using Element = Node;
    explicit Typed(size_t) : heap({std::realloc, std::free}) {}
    void insert(Element &element) { heap.insert(element); }
    template <class F> void visit(F f) { heap.visit(f); }
    void remove(Element &element) { heap.remove(element); }
    void pop() { heap.remove_root(); }
    void change(Element &element) { heap.change(element); }

    k42mc::bh_heap<Node, &Node::link, &Node::key> heap;
};

struct C {
    using Element = Node;
    explicit C(size_t) {
        BHInit(&heap, std::realloc, std::free, offsetof(Node, link), offsetof(Node, key), compare,
               DS_DUMMY);
    }
    ~C() { BHDeinit(&heap); }
    void insert(Element &element) { (void)BHInsert(heap, &element); }
    template <class F> void visit(F f) { BHVisitWithArg(heap, call<Element, F>, &f); }
    void remove(Element &element) { BHRemove(heap, &element); }
    void pop() { BHRemoveRoot(heap); }
    void change(Element &element) { BHChange(heap, &element); }

    BHHeap *heap;
};

// The peers are heaps with the greatest element first.
template <class Element> struct After {
    bool operator()(const Element *a, const Element *b) const { return a->key > b->key; }
};

struct Std {
    using Element = bench::Element<no_link>;
    explicit Std(size_t) {}
    void insert(Element &element) { queue.push(&element); }
    void pop() { queue.pop(); }

    std::priority_queue<Element *, std::vector<Element *>, After<Element>> queue;
};

struct Boost {
    struct Handle;
    using Element = bench::Element<Handle>;
    using Heap = boost::heap::d_ary_heap<Element *, boost::heap::arity<2>, boost::heap::mutable_<true>,
                                         boost::heap::compare<After<Element>>>;
    struct Handle {
        Heap::handle_type handle;
    };

    explicit Boost(size_t) {}
    void insert(Element &element) { element.link.handle = heap.push(&element); }
    template <class F> void visit(F f) {
        for (Element *element : heap)
            f(*element);
    }
    void remove(Element &element) { heap.erase(element.link.handle); }
    void pop() { heap.pop(); }
    void change(Element &element) { heap.update(element.link.handle); }

    Heap heap;
};

[[maybe_unused]] const bool contests[] = {
    contest<Typed>("BH", "typed"),
    contest<C>("BH", "C"),
    contest<Std>("BH", "std::priority_queue"),
    contest<Boost>("BH", "boost::heap"),
};

} // namespace
