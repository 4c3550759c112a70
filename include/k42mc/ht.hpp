// ht_table<T, &T::link, &T::key>: the typed front end of the hash table.
//   Requires    Keys that are equal have equal hashes.
//   Complexity  O(1) on average for insert(), insert_unique(), search(), remove() and remove_key(), of
//               which an insertion changes the number of buckets now and then, in O(n). next() is O(1)
//               on average while there are about as many elements as buckets.
//   Validity    An insertion may bring another order: an iterator stays at its element, but what lies
//               ahead of it is no longer what a walk has not seen. A removal keeps the order.
#ifndef K42MC_HT_HPP
#define K42MC_HT_HPP

#include <k42mc/algorithms/hash_table.hpp>
#include <k42mc/front_end.hpp>

#include <concepts>
#include <functional>

namespace k42mc {

// The hash of a key's bytes: what HTHash4B gives for four bytes, HTHashNB for other lengths.
template <class Key> struct ht_hash {
    static_assert(std::has_unique_object_representations_v<Key>,
                  "keys that can be equal while their bytes differ need a hash of their own");

    uint32_t operator()(const Key &key) const {
        if constexpr (sizeof key == 4)
            return hash_table::hash_4_bytes(&key);
        else
            return hash_table::hash_bytes(&key, sizeof key);
    }
};

// ==, and for arrays, which would compare as pointers, whether their bytes are equal.
template <class Key> struct ht_equal : std::equal_to<> {};
template <class Item, size_t size> struct ht_equal<Item[size]> {
    static_assert(std::has_unique_object_representations_v<Item>);

    bool operator()(const Item (&a)[size], const Item (&b)[size]) const {
        return std::memcmp(a, b, sizeof a) == 0;
    }
};

// Hash is called with a key and returns any unsigned integer, of which the low 32 bits count; Equal with
// the key sought and an element's. They must agree with the hooks of a table created in C.
template <class T, HTLink T::*Link, auto Key, class Hash = ht_hash<typename member<Key>::value_type>,
          class Equal = ht_equal<typename member<Key>::value_type>>
class ht_view {
    using link = member<Link>;
    using key = member<Key>;
    static_assert(std::is_same_v<decltype(Key), typename key::value_type T::*>,
                  "the key is a member of the element itself, no base's");

public:
    using value_type = T;
    using key_type = typename key::value_type;
    using record_type = HTTable;
    using hooks_type = ds_hooks;

    explicit ht_view(HTTable *table) : container(table) {}
    HTTable *record() const { return container; }

    static int32_t create(HTTable **table, const ds_hooks &hooks) {
        return HTInit(table, hooks.alloc, hooks.dealloc, link::offset(), key::offset(), hash_hook,
                      compare_hook, hooks.destroy);
    }
    static void destroy(HTTable **table) { HTDeinit(table); }

    bool empty() const { return !container->count; }
    uint32_t size() const { return container->count; }
    T *first() const { return link::element(hash_table::first(container)); }
    T *next(const T &element) const {
        return link::element(hash_table::next(container, link::of(element), HashOf()));
    }

    // Without looking for other elements with this key.
    void insert(T &element) { hash_table::insert(container, link::of(element), HashOf()); }

    // Returns the element that has this key already, and inserts nothing; or inserts and returns null.
    T *insert_unique(T &element) {
        return link::element(
            hash_table::insert_unique(container, link::of(element), HashOf(), Has{*key::of(element)}));
    }

    T *search(const key_type &sought) const { return link::element(*find(sought)); }

    // Nothing happens when the element is not in the table.
    void remove(T &element) { hash_table::remove(container, link::of(element), HashOf()); }

    // Returns the element, which is no longer in the table, or null.
    T *remove_key(const key_type &sought) {
        return link::element(hash_table::remove_found(container, find(sought)));
    }

    // Hands every element to the destroy hook.
    void clear() { HTDestroy(container); }

    k42mc::iterator<ht_view> begin() const { return {*this, first()}; }
    k42mc::iterator<ht_view> end() const { return {*this, nullptr}; }

    // Calls function for each element, in the same order. Iterators find the bucket again at the end of
    // each chain; this need not.
    template <class Function> void visit(Function function) const {
        hash_table::visit(container, [&](const HTLink *at) {
            function(link::around(*at));
            return 0;
        });
    }

protected:
    HTTable *container;

private:
    static uint32_t hash(const key_type &of) {
        static_assert(std::unsigned_integral<std::invoke_result_t<Hash, const key_type &>>);
        return static_cast<uint32_t>(Hash{}(of));
    }

    struct HashOf {
        uint32_t operator()(const HTLink *at) const { return hash(*key::of(link::around(*at))); }
    };

    struct Has {
        const key_type &sought;

        bool operator()(const HTLink *at) const { return Equal{}(sought, *key::of(link::around(*at))); }
    };

    HTLink **find(const key_type &sought) const {
        return hash_table::find(hash_table::bucket_of(container, hash(sought)), Has{sought});
    }

    // For callers in C.
    static uint32_t hash_hook(const void *of) { return hash(*static_cast<const key_type *>(of)); }
    static int32_t compare_hook(const void *a, const void *b) {
        return !Equal{}(*static_cast<const key_type *>(a), *static_cast<const key_type *>(b));
    }
};

template <class T, HTLink T::*Link, auto Key, class Hash = ht_hash<typename member<Key>::value_type>,
          class Equal = ht_equal<typename member<Key>::value_type>>
using ht_table = owner<ht_view<T, Link, Key, Hash, Equal>>;

} // namespace k42mc

#endif
