// What the typed front ends of the containers share.
//
// For each family there are two class templates over the element type and its members:
//   xx_view                 refers to a container, as a pointer does: one word, copied freely. It works
//                           on every container of its family with the members' offsets, whoever
//                           created it.
//   xx_list, xx_tree, ...   the same, and the owner: it creates and destroys the container.
//
// Elements are the caller's, and a container does not make them const: like a span, it gives T & even
// where it is const itself.
//
// What needs no access to elements goes to the C functions: creation, destruction, printouts. The rest
// is the same algorithm as theirs, compiled for the members: no offsets, casts or hooks.
//
// What holds for all families, beside what ds.h says; each front end adds its own:
//   Requires    An element to insert is not in the container, nor in another one by the same member; any
//               other element that a function is given is in the container. Keys do not change while
//               their elements are in there. Comparisons and hashes do not throw; functions that are
//               called for each element may, but leave the container as it is. A view that was made of null, or of which the container is
//               destroyed, may be assigned to and destroyed, no more.
//   Complexity  Of the C function that does the same, where nothing else is said. empty(), size() and
//               any() are O(1), clear() and visit() O(n), a walk by iterators O(n), too.
//   Validity    Elements stay where they are, and so do pointers to them. An iterator is good for as
//               long as its element is in the container, whatever is inserted, removed or moved from
//               owner to owner meanwhile; the end is always good.
#ifndef K42MC_FRONT_END_HPP
#define K42MC_FRONT_END_HPP

#include <k42mc/ds.h>

#include <bit>
#include <cstddef>
#include <cstdlib>
#include <iterator>
#include <new>
#include <type_traits>
#include <utility>

namespace k42mc {

// The hooks that a container is created with. Other than in C it does not own its elements by default.
struct ds_hooks {
    DSAllocHook alloc = nullptr; // null: from the checked allocator
    DSDeallocHook dealloc = nullptr;
    DSDestroyHook destroy = DS_DUMMY; // null: elements are released to the checked allocator
};

// Where memory runs out: std::bad_alloc, or the end where there are no exceptions.
[[noreturn]] inline void out_of_memory() {
#ifdef __cpp_exceptions
    throw std::bad_alloc();
#else
    std::abort();
#endif
}

// A data member as the containers know it: so many bytes into the element.
template <auto Member> struct member;
template <class T, class Value, Value T::*Member> struct member<Member> {
    using value_type = Value;

    // The ABI keeps a pointer to a data member as its distance from the front.
    static uint32_t offset() { return static_cast<uint32_t>(std::bit_cast<std::ptrdiff_t>(Member)); }

    static Value *of(const T &element) { return &(const_cast<T &>(element).*Member); }

    // The element around its member.
    static T &around(const Value &value) {
        return *reinterpret_cast<T *>(reinterpret_cast<char *>(const_cast<Value *>(&value)) - offset());
    }

    // The same; null for null.
    static T *element(const Value *value) { return value ? &around(*value) : nullptr; }
};

// A comparison of keys as the C functions call it. Compare gives what compares with 0.
template <class Key, class Compare> int32_t compare_hook(const void *a, const void *b) {
    const auto result = Compare{}(*static_cast<const Key *>(a), *static_cast<const Key *>(b));
    return (result > 0) - (result < 0);
}

// A position in the container that a view refers to: an element, or behind the last. What the view calls
// next() takes it forward, and prev() and last() backward where there are such.
template <class View> class iterator {
    using Element = typename View::value_type;
    static constexpr bool goes_back = requires(View view, Element &element) { view.prev(element); };

public:
    using value_type = Element;
    using difference_type = std::ptrdiff_t;
    using reference = Element &;
    using pointer = Element *;
    using iterator_category =
        std::conditional_t<goes_back, std::bidirectional_iterator_tag, std::forward_iterator_tag>;

    iterator() : view(nullptr) {}
    iterator(View container, Element *at) : view(container), element(at) {}

    reference operator*() const { return *element; }
    pointer operator->() const { return element; }

    iterator &operator++() {
        element = view.next(*element);
        return *this;
    }
    iterator operator++(int) { return std::exchange(*this, std::next(*this)); }

    iterator &operator--() requires goes_back {
        element = element ? view.prev(*element) : view.last();
        return *this;
    }
    iterator operator--(int) requires goes_back { return std::exchange(*this, std::prev(*this)); }

    friend bool operator==(const iterator &a, const iterator &b) { return a.element == b.element; }

private:
    View view;
    Element *element = nullptr;
};

// Makes a view the owner of what it refers to. View::create(hooks) stores a new container's header
// through the address that it is given and returns the code of XXInit; View::destroy is XXDeinit.
template <class View> class owner : public View {
public:
    using Record = typename View::record_type;
    using Hooks = typename View::hooks_type;

    // Throws std::bad_alloc.
    explicit owner(Hooks hooks = {}) : View(nullptr) {
        if (View::create(&this->container, hooks) != DS_OK)
            out_of_memory();
    }
    owner(owner &&other) noexcept : View(other.release()) {}
    owner &operator=(owner &&other) noexcept {
        std::swap(this->container, other.container);
        return *this;
    }
    ~owner() {
        if (this->container)
            View::destroy(&this->container);
    }

    // From C and back to C: the owner is the one who destroys.
    static owner adopt(Record *container) { return owner(container); }
    Record *release() { return std::exchange(this->container, nullptr); }

private:
    explicit owner(Record *adopted) : View(adopted) {}
};

} // namespace k42mc

#endif
