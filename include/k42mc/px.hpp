// px_table<T, &T::chain, &T::key, &T::length>: the typed front end of the prefix table. The chain member
// is a void * or a T *. The key is of any type whose bytes are all its value; they are the key's bits,
// first byte first. Lengths are in bits.
//   Requires    An element's length is no more than its key has bits, and its chain member is null when
//               it is inserted, or leads to others of the same prefix.
//   Complexity  O(length) for insertion, search, removal and each step, any() among them; remove() and
//               the insertion of a chain follow the chain, too. A visit is O(n) where an iterator descends for each prefix.
//   Validity    Walks go on in table order, whatever is inserted and removed elsewhere. An iterator is at
//               the first element of a prefix; it stays good when others come to stand before it, but a
//               walk from begin() meets those.
#ifndef K42MC_PX_HPP
#define K42MC_PX_HPP

#include <k42mc/algorithms/prefix_walks.hpp>
#include <k42mc/front_end.hpp>

namespace k42mc {

template <class T, auto Chain, auto Key, uint16_t T::*Length> class px_view {
    using chain = member<Chain>;
    using Link = typename chain::value_type;
    using Bytes = typename member<Key>::value_type;
    static_assert(std::is_same_v<Link, void *> || std::is_same_v<Link, T *>);
    static_assert(std::has_unique_object_representations_v<Bytes>);

    // No prefix is longer than the key that it lies in.
    static constexpr int width = static_cast<int>(std::min<size_t>(8 * sizeof(Bytes), INT16_MAX));
    using bits_type = bits::key<width>;

    struct Elements {
        static bits_type key(const void *element) {
            return bits_of(*member<Key>::of(*static_cast<const T *>(element)));
        }
        static int length(const void *element) {
            return static_cast<int16_t>(static_cast<const T *>(element)->*Length);
        }
        static void *next(const void *element) { return static_cast<const T *>(element)->*Chain; }
        static void set_next(void *element, void *next) {
            static_cast<T *>(element)->*Chain = static_cast<Link>(next);
        }
    };

public:
    using value_type = T;
    using key_type = Bytes;
    using record_type = PXTable;
    using hooks_type = ds_hooks;

    explicit px_view(PXTable *table) : container(table) {}
    PXTable *record() const { return container; }

    static int32_t create(PXTable **table, const ds_hooks &hooks) {
        return PXInit(table, hooks.alloc, hooks.dealloc, chain::offset(), member<Key>::offset(),
                      member<Length>::offset(), hooks.destroy);
    }
    static void destroy(PXTable **table) { PXDeinit(table); }

    bool empty() const { return !container->root; }

    // Some element, found in a few steps.
    T *any() const {
        return empty() ? nullptr : static_cast<T *>(prefix_table::element_of(container->root));
    }

    // Throws std::bad_alloc, and the table is unchanged.
    void insert(T &element) {
        if (prefix_table::insert(container, Elements(), &element) != DS_OK)
            out_of_memory();
    }

    // The first element of the longest prefix, among those of at most so many bits, that the key starts
    // with.
    T *search_longest(const Bytes &key, int length = width) const {
        return first_of(prefix_table::longest(container->root, Elements(), bits_of(key), length));
    }

    // The first element of exactly this prefix.
    T *search(const Bytes &key, int length) const {
        return first_of(prefix_table::search(container->root, Elements(), bits_of(key), length));
    }

    // The element behind this one in its chain, which has the same prefix.
    T *same_prefix(const T &element) const { return static_cast<T *>(Elements::next(&element)); }

    void remove(T &element) { prefix_table::remove(container, Elements(), &element); }

    // Takes out a prefix with all its elements and returns the first of their chain.
    T *remove_key(const Bytes &key, int length) {
        return static_cast<T *>(prefix_table::remove_key(container, Elements(), bits_of(key), length));
    }

    // Hands every element to the destroy hook.
    void clear() { PXDestroy(container); }

    // Steps and visits go from prefix to prefix and give the first element of each.
    T *first() const { return end_of<&PXNode::left>(); }
    T *last() const { return end_of<&PXNode::right>(); }
    T *next(const T &element) const { return step<&PXNode::left, &PXNode::right>(element); }
    T *prev(const T &element) const { return step<&PXNode::right, &PXNode::left>(element); }

    // Calls visitor(T &) in one of the orders of PXVisit. Where it returns something other than 0 the
    // walk ends, with that result. For an order that there is not the result is 1.
    template <class Visitor> int32_t visit(int order, Visitor visitor) const {
        return prefix_table::visit(container->root, order,
                                   [&](void *element) { return visitor(*static_cast<T *>(element)); });
    }

    k42mc::iterator<px_view> begin() const { return {*this, first()}; }
    k42mc::iterator<px_view> end() const { return {*this, nullptr}; }

protected:
    PXTable *container;

private:
    static bits_type bits_of(const Bytes &key) {
        return bits_type(reinterpret_cast<const uint8_t *>(&key));
    }

    static T *first_of(const PXNode *node) { return node ? static_cast<T *>(node->element) : nullptr; }

    template <prefix_table::Side Outward> T *end_of() const {
        return empty() ? nullptr : first_of(prefix_table::outermost<Outward>(container->root));
    }
    template <prefix_table::Side From, prefix_table::Side To> T *step(const T &element) const {
        return first_of(prefix_table::step<From, To>(container->root, Elements::key(&element),
                                                     Elements::length(&element)));
    }
};

template <class T, auto Chain, auto Key, uint16_t T::*Length>
using px_table = owner<px_view<T, Chain, Key, Length>>;

} // namespace k42mc

#endif
