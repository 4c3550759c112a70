// The subtrees that a check has found in order, so that it does not walk them again. A tree has none of
// them twice; but damage may lead several links to one node, level by level, and then there are more
// ways through the tree than anybody can walk. Holds the latest, without an allocation.
#pragma once

#include <cstddef>
#include <cstdint>

namespace k42mc::internal::ds {

template <class Node> class CheckedSubtrees {
public:
    void add(const Node *root, int height = 1) { slot(root) = {root, height}; }

    // The height of a subtree that is known to be in order, or 0.
    int height_of(const Node *root) { return slot(root).root == root ? slot(root).height : 0; }

private:
    struct Subtree {
        const Node *root;
        int height;
    };

    static constexpr int slot_bits = 8;

    Subtree &slot(const Node *root) {
        const auto address = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(root) / alignof(Node));
        return slots[address * 0x9e3779b1u >> (32 - slot_bits)];
    }

    Subtree slots[1 << slot_bits] = {};
};

} // namespace k42mc::internal::ds
