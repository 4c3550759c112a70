// pt_tree<T, &T::node, &T::key>: the typed front end of the Patricia tree. The key is a member of T
// without padding, compared by its bytes as they lie in memory, of which a fourth argument names the
// first bits that count. Keys of up to a word are compared as words.
//   Requires    Of the bits that count no two keys in the tree have the same, which insert() sees to.
//   Complexity  O(Bits) for insertion, search, removal and each step; a visit is O(n) where an iterator
//               descends for each element.
//   Validity    Walks go on in order, whatever is inserted and removed elsewhere.
#ifndef K42MC_PT_HPP
#define K42MC_PT_HPP

#include <k42mc/algorithms/patricia_walks.hpp>
#include <k42mc/front_end.hpp>

namespace k42mc {

template <auto Key> inline constexpr int pt_key_bits = 8 * sizeof(typename member<Key>::value_type);

template <class T, PTNode T::*Node, auto Key, int Bits = pt_key_bits<Key>> class pt_view {
    using link = member<Node>;
    using field = member<Key>;
    using bits_type = bits::key<Bits>;

    static_assert(std::has_unique_object_representations_v<typename field::value_type>);
    static_assert(1 <= Bits && Bits <= pt_key_bits<Key> && Bits <= INT16_MAX);

    struct keys {
        static constexpr int bits = Bits;
        // By distance, since the head's element has no more than node and key.
        bits_type operator()(const PTNode *node) const {
            const auto distance =
                static_cast<ptrdiff_t>(field::offset()) - static_cast<ptrdiff_t>(link::offset());
            return bits_type(reinterpret_cast<const uint8_t *>(node) + distance);
        }
    };

public:
    using value_type = T;
    using key_type = typename field::value_type;
    using record_type = PTTree;
    using hooks_type = ds_hooks;

    explicit pt_view(PTTree *tree) : container(tree) {}
    PTTree *record() const { return container; }

    static int32_t create(PTTree **tree, const ds_hooks &hooks) {
        return PTInit(tree, hooks.alloc, hooks.dealloc, link::offset(), field::offset(), Bits, 0,
                      hooks.destroy);
    }
    static void destroy(PTTree **tree) { PTDeinit(tree); }

    bool empty() const { return patricia::is_empty(head()); }
    T *any() const { return empty() ? nullptr : link::element(head()->left); }
    T *search(const key_type &key) const {
        return link::element(patricia::find(head(), keys{}, bits_of(key)));
    }

    // Returns null, or the element that has the key already and keeps its place.
    T *insert(T &element) {
        return link::element(patricia::insert(container, keys{}, link::of(element)));
    }

    void remove(T &element) { patricia::remove(container, keys{}, link::of(element)); }

    // Returns the element that is no longer in the tree, or null.
    T *remove_key(const key_type &key) {
        return link::element(patricia::remove_key(container, keys{}, bits_of(key)));
    }

    T *first() const { return link::element(patricia::first(head())); }
    T *last() const { return link::element(patricia::last(head())); }

    // Unlike PTNext, leaves the tree's cache alone: threads that only read need no lock.
    T *next(const T &element) const {
        return link::element(patricia::next(head(), keys{}, link::of(element)));
    }
    T *prev(const T &element) const {
        return link::element(patricia::prev(head(), keys{}, link::of(element)));
    }

    // The element with the least key above this one, which need not be in the tree.
    T *next_by_key(const key_type &key) const {
        return link::element(patricia::next_by_key(head(), keys{}, bits_of(key)));
    }

    // Calls f(T &) in ascending (0) or descending order; ends at a result other than 0 and returns it.
    template <class F> int32_t visit(int order, F f) const {
        return patricia::walk(head(), order,
                              [&](const PTNode *node, unsigned) { return f(link::around(*node)); });
    }

    // Hands every element to the destroy hook.
    void clear() { PTDestroy(container); }

    k42mc::iterator<pt_view> begin() const { return {*this, first()}; }
    k42mc::iterator<pt_view> end() const { return {*this, nullptr}; }

protected:
    PTTree *container;

private:
    PTNode *head() const { return container->head; }

    static bits_type bits_of(const key_type &key) {
        return bits_type(reinterpret_cast<const uint8_t *>(&key));
    }
};

template <class T, PTNode T::*Node, auto Key, int Bits = pt_key_bits<Key>>
using pt_tree = owner<pt_view<T, Node, Key, Bits>>;

} // namespace k42mc

#endif
