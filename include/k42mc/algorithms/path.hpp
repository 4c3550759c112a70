// The way back up for walks over trees without parent links. Trees over long keys can be deeper than the
// stack of a thread allows a recursion to go, so only the innermost ancestors are kept; of the others,
// the turns that were taken: whoever needs more ancestors descends from the root once again, every so
// many levels. Turns lead back in a damaged tree, too, where keys might lead elsewhere.
#ifndef K42MC_ALGORITHMS_PATH_HPP
#define K42MC_ALGORITHMS_PATH_HPP

#include <algorithm>
#include <cstdint>

namespace k42mc {

template <class Node> class path {
public:
    using side = Node *Node::*;

    // What is not below the current node is never read, and would take time to clear.
    // cppcheck-suppress uninitMemberVar
    path(Node *from, side one, side another) : root(from), first(one), second(another) {}

    // How many ancestors the current node has.
    unsigned depth() const { return ancestors; }

    // Before going down from a node.
    void push(Node *node, side taken) {
        const auto bit = static_cast<uint8_t>(1 << ancestors % 8);
        uint8_t &turns = second_turns[ancestors % levels / 8];
        turns = static_cast<uint8_t>(taken == second ? turns | bit : turns & ~bit);
        kept[ancestors++ % capacity] = node;
        known = std::min(known + 1, capacity);
    }

    // Goes up: returns the parent, and the side that was taken there, or null at the root.
    Node *pop(side &taken) {
        if (!ancestors)
            return nullptr;
        if (!known)
            descend_again();
        --known;
        taken = turn_at(--ancestors);
        return kept[ancestors % capacity];
    }

private:
    // A full binary tree of that many levels does not fit into memory: descending again is for trees
    // that long keys have made thin and deep.
    static constexpr unsigned capacity = 64;

    // No path is longer, since each level goes by a later bit, whose number has 16 bits.
    static constexpr unsigned levels = 1 << 16;

    side turn_at(unsigned level) const {
        return second_turns[level % levels / 8] >> level % 8 & 1 ? second : first;
    }

    void descend_again() {
        Node *node = root;
        for (unsigned level = 0; level < ancestors; ++level) {
            kept[level % capacity] = node;
            node = node->*turn_at(level);
        }
        known = std::min(ancestors, capacity);
    }

    Node *const root;
    const side first, second;
    Node *kept[capacity];
    uint8_t second_turns[levels / 8];
    unsigned ancestors = 0;
    unsigned known = 0; // of the ancestors, the innermost
};

} // namespace k42mc

#endif
