#include "standard.h"

#include <k42mc/ht.hpp>

#include <boost/intrusive/unordered_set.hpp>
#include <glib.h>
#include <unordered_map>

namespace {

using namespace bench;

using Node = Element<HTLink>;

struct Typed {
    using Element = Node;
    explicit Typed(size_t) : table(plain) {}
    void insert(Element &element) { table.insert_unique(element); }
    Element *find(Key key) { return table.search(key); }
    template <class F> void visit(F f) { table.visit(f); }
    void remove(Element &element) { table.remove(element); }

    k42mc::ht_table<Node, &Node::link, &Node::key> table;
};

struct C {
    using Element = Node;
    explicit C(size_t) {
        HTInit(&table, std::malloc, std::free, offsetof(Node, link), offsetof(Node, key), HTHash4B,
               compare, DS_DUMMY);
    }
    ~C() { HTDeinit(&table); }
    void insert(Element &element) {
        void *existing;
        HTInsert(table, &element, &existing);
    }
    void *find(Key key) { return HTSearch(table, &key); }
    template <class F> void visit(F f) { HTVisitWithArg(table, call<Element, F>, &f); }
    void remove(Element &element) { HTRemove(table, &element); }

    HTTable *table;
};

// The peers' hash is the same as ours: the value itself.
struct Hash {
    using is_transparent = void;
    size_t operator()(Key key) const { return key; }
    template <class Element> size_t operator()(const Element *element) const { return element->key; }
};

struct Equal {
    using is_transparent = void;
    template <class Element> bool operator()(const Element *a, const Element *b) const {
        return a->key == b->key;
    }
    template <class Element> bool operator()(Key a, const Element *b) const { return a == b->key; }
};

using StandardSet = StdSet<std::unordered_set<bench::Element<no_link> *, Hash, Equal>>;
using StandardMap = StdMap<std::unordered_map<Key, bench::Element<no_link> *>>;

namespace intrusive = boost::intrusive;
using Hook = intrusive::unordered_set_member_hook<intrusive::link_mode<intrusive::normal_link>>;

// The buckets are its users' business: as many as ours has in the end, from the start.
struct Boost {
    using Element = bench::Element<Hook>;
    struct KeyOf {
        using type = Key;
        const Key &operator()(const Element &element) const { return element.key; }
    };
    using Set = intrusive::unordered_set<Element, intrusive::member_hook<Element, Hook, &Element::link>,
                                         intrusive::key_of_value<KeyOf>, intrusive::hash<Hash>,
                                         intrusive::constant_time_size<false>>;

    explicit Boost(size_t n) : buckets(buckets_for(n)), set({buckets.data(), buckets.size()}) {}
    static size_t buckets_for(size_t n) {
        for (const size_t count : k42mc::hash_table::bucket_counts)
            if (n < size_t(most_load) * count)
                return count;
        return size_t(most_buckets);
    }
    void insert(Element &element) { set.insert(element); }
    Element *find(Key key) {
        const auto at = set.find(key);
        return at == set.end() ? nullptr : &*at;
    }
    template <class F> void visit(F f) { std::for_each(set.begin(), set.end(), f); }
    void remove(Element &element) { set.erase(element.key); }

    std::vector<Set::bucket_type> buckets;
    Set set;
};

struct Glib {
    using Element = bench::Element<no_link>;
    explicit Glib(size_t) {}
    ~Glib() { g_hash_table_destroy(table); }
    void insert(Element &element) { g_hash_table_insert(table, &element.key, &element); }
    void *find(Key key) { return g_hash_table_lookup(table, &key); }
    template <class F> void visit(F f) {
        const auto visit = [](void *, void *element, void *function) {
            call<Element, F>(element, function);
        };
        g_hash_table_foreach(table, visit, &f);
    }
    void remove(Element &element) { g_hash_table_remove(table, &element.key); }

    static gboolean equal(const void *a, const void *b) { return !compare(a, b); }

    GHashTable *table = g_hash_table_new(HTHash4B, equal);
};

[[maybe_unused]] const bool contests[] = {
    contest<Typed>("HT", "typed"),
    contest<C>("HT", "C"),
    contest<StandardSet>("HT", "std::unordered_set"),
    contest<StandardMap>("HT", "std::unordered_map"),
    contest<Boost>("HT", "boost::unordered_set"),
    contest<Glib>("HT", "GHashTable"),
};

} // namespace
