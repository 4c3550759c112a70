// Both trees, beside the same peers.
#include "standard.h"

#include <k42mc/avl.hpp>
#include <k42mc/pt.hpp>

#include <boost/intrusive/avl_set.hpp>
#include <boost/intrusive/set.hpp>
#include <glib.h>
#include <search.h>
#include <set>

namespace {

using namespace bench;

template <class Tree> struct Typed {
    using Element = typename Tree::value_type;
    explicit Typed(size_t) : tree(plain) {}
    void insert(Element &element) { tree.insert(element); }
    Element *find(Key key) { return tree.search(key); }
    template <class F> void visit(F f) {
        tree.visit(0, [&](Element &element) { return f(element), 0; });
    }
    void remove(Element &element) { tree.remove(element); }

    Tree tree;
};

struct AVLC {
    using Element = bench::Element<AVLNode>;
    explicit AVLC(size_t) {
        AVLInit(&tree, std::malloc, std::free, offsetof(Element, link), offsetof(Element, key), compare,
                DS_DUMMY);
    }
    ~AVLC() { AVLDeinit(&tree); }
    void insert(Element &element) {
        void *existing;
        AVLInsert(tree, &element, &existing);
    }
    void *find(Key key) { return AVLSearch(tree, &key); }
    template <class F> void visit(F f) { AVLVisitWithArg(tree, 0, call<Element, F>, &f); }
    void remove(Element &element) { AVLRemove(tree, &element); }

    AVLTree *tree;
};

struct PTC {
    using Element = bench::Element<PTNode>;
    explicit PTC(size_t) {
        PTInit(&tree, std::malloc, std::free, offsetof(Element, link), offsetof(Element, key), 32, 0,
               DS_DUMMY);
    }
    ~PTC() { PTDeinit(&tree); }
    void insert(Element &element) {
        void *existing;
        PTInsert(tree, &element, &existing);
    }
    void *find(Key key) { return PTSearch(tree, &key); }
    template <class F> void visit(F f) { PTVisitWithArg(tree, 0, call<Element, F>, &f); }
    void remove(Element &element) { PTRemove(tree, &element); }

    PTTree *tree;
};

struct Less {
    using is_transparent = void;
    static Key key(Key key) { return key; }
    template <class Element> static Key key(const Element *element) { return element->key; }
    template <class A, class B> bool operator()(const A &a, const B &b) const { return key(a) < key(b); }
};

using StandardSet = StdSet<std::set<bench::Element<no_link> *, Less>>;
using StandardMap = StdMap<std::map<Key, bench::Element<no_link> *>>;

namespace intrusive = boost::intrusive;

template <class Element> struct KeyOf {
    using type = Key;
    const Key &operator()(const Element &element) const { return element.key; }
};

template <class Node, class Set> struct Boost {
    using Element = Node;
    explicit Boost(size_t) {}
    void insert(Element &element) { set.insert(element); }
    Element *find(Key key) {
        const auto at = set.find(key);
        return at == set.end() ? nullptr : &*at;
    }
    template <class F> void visit(F f) { std::for_each(set.begin(), set.end(), f); }
    void remove(Element &element) { set.erase(element.key); }

    Set set;
};

template <template <class...> class Set, class Hook, class Node = Element<Hook>>
using BoostOf =
    Boost<Node, Set<Node, intrusive::member_hook<Node, Hook, &Node::link>,
                    intrusive::key_of_value<KeyOf<Node>>, intrusive::constant_time_size<false>>>;

using Normal = intrusive::link_mode<intrusive::normal_link>;

struct Glib {
    using Element = bench::Element<no_link>;
    explicit Glib(size_t) {}
    ~Glib() { g_tree_destroy(tree); }
    void insert(Element &element) { g_tree_insert(tree, &element.key, &element); }
    void *find(Key key) { return g_tree_lookup(tree, &key); }
    template <class F> void visit(F f) {
        const auto visit = [](void *, void *element, void *function) {
            return call<Element, F>(element, function);
        };
        g_tree_foreach(tree, visit, &f);
    }
    void remove(Element &element) { g_tree_remove(tree, &element.key); }

    GTree *tree = g_tree_new(compare);
};

// glibc's. The key is the element's first member.
struct Search {
    using Element = bench::Element<no_link>;
    explicit Search(size_t) {}
    ~Search() {
        tdestroy(root, [](void *) {});
    }
    void insert(Element &element) { tsearch(&element, &root, compare); }
    void *find(Key key) { return tfind(&key, &root, compare); }
    template <class F> void visit(F f) {
        const auto visit = [](const void *node, VISIT order, void *function) {
            if (order == postorder || order == leaf)
                call<Element, F>(*static_cast<void *const *>(node), function);
        };
        twalk_r(root, visit, &f);
    }
    void remove(Element &element) { tdelete(&element, &root, compare); }

    void *root = nullptr;
};

template <class Ours, class OursInC> bool contests(const char *family) {
    return contest<Ours>(family, "typed") && contest<OursInC>(family, "C") &&
           contest<StandardSet>(family, "std::set") && contest<StandardMap>(family, "std::map") &&
           contest<BoostOf<intrusive::set, intrusive::set_member_hook<Normal>>>(family, "boost::set") &&
           contest<BoostOf<intrusive::avl_set, intrusive::avl_set_member_hook<Normal>>>(
               family, "boost::avl_set") &&
           contest<Glib>(family, "GTree") && contest<Search>(family, "tsearch");
}

using AVLElement = Element<AVLNode>;
using PTElement = Element<PTNode>;
[[maybe_unused]] const bool registered[] = {
    contests<Typed<k42mc::avl_tree<AVLElement, &AVLElement::link, &AVLElement::key>>, AVLC>("AVL"),
    contests<Typed<k42mc::pt_tree<PTElement, &PTElement::link, &PTElement::key>>, PTC>("PT"),
};

} // namespace
