// The way back up for walks over trees without parent links. Trees over long keys can be deeper than the
// stack of a thread allows a recursion to go, so only the innermost ancestors are kept; whoever needs
// more of them descends from the root once again, every so many levels.
#ifndef K42MC_ALGORITHMS_PATH_HPP
#define K42MC_ALGORITHMS_PATH_HPP

namespace k42mc {

template <class Node> class path {
public:
    // How many ancestors the current node has.
    unsigned depth() const { return ancestors; }

    // Before going down from a node.
    void push(Node *node) {
        kept[ancestors++ % capacity] = node;
        if (known < capacity)
            ++known;
    }

    // Goes up: returns the parent, or null at the root. descend(push) must call push with each ancestor
    // of the current node, from the root down.
    template <class Descend> Node *pop(Descend descend) {
        if (!ancestors)
            return nullptr;
        if (!known) {
            ancestors = 0;
            descend([this](Node *node) { push(node); });
        }
        --known;
        return kept[--ancestors % capacity];
    }

private:
    // A full binary tree of that many levels does not fit into memory: descending again is for trees
    // that long keys have made thin and deep.
    static constexpr unsigned capacity = 64;

    Node *kept[capacity];
    unsigned ancestors = 0;
    unsigned known = 0; // of the ancestors, the innermost
};

} // namespace k42mc

#endif
