// Steps and walks over the nodes of a prefix table. Table order is: left side, node, right side.
#ifndef K42MC_ALGORITHMS_PREFIX_WALKS_HPP
#define K42MC_ALGORITHMS_PREFIX_WALKS_HPP

#include <k42mc/algorithms/path.hpp>
#include <k42mc/algorithms/prefix_table.hpp>

#include <utility>

namespace k42mc::prefix_table {

using Side = PXNode *PXNode::*;

// Where the links of one side end. There are elements: a branch would have both sides.
template <Side Outward> PXNode *outermost(PXNode *node) {
    while (node->*Outward)
        node = node->*Outward;
    return node;
}

// The node with elements that follows the one of this prefix, which is in the table, or null.
// From left to right that is in table order, from right to left in reverse.
template <Side From, Side To, class Key> PXNode *step(PXNode *node, Key key, int length) {
    PXNode *turn = nullptr; // the innermost node on whose near side the prefix lies
    while (node->length != length) {
        PXNode *below = toward(node, key);
        if (below == node->*From)
            turn = node;
        node = below;
    }
    if (node->*To)
        return outermost<From>(node->*To);
    return !turn || turn->element ? turn : outermost<From>(turn->*To);
}

// Where a walk over all nodes can act: before, between and after the two sides of a node.
enum class When { enter, between, leave };

// Walks all nodes, the First side of each before the Second, but for subtrees that enters(root) says no
// to. act(when, node, depth) is called three times for each node; a result other than 0 ends the walk and
// is returned. The root has depth 0.
template <Side First, Side Second, class Act, class Enters>
int32_t walk(PXNode *root, Act act, Enters enters) {
    path<PXNode> up(root, First, Second);
    PXNode *node = root;
    When now = When::enter;
    while (node) {
        if (const int32_t result = act(now, node, up.depth()))
            return result;
        const Side side = now == When::enter ? First : Second;
        if (now == When::leave) {
            Side taken = First;
            node = up.pop(taken);
            now = taken == First ? When::between : When::leave;
        } else if (PXNode *below = node->*side; below && enters(below)) {
            up.push(node, side);
            node = below;
            now = When::enter;
        } else {
            now = now == When::enter ? When::between : When::leave;
        }
    }
    return 0;
}

template <Side First, Side Second, class Act> int32_t walk(PXNode *root, Act act) {
    return walk<First, Second>(root, act, [](const PXNode *) { return true; });
}

// Calls act with the first element of each prefix, in one of the orders of PXVisit.
template <class Act> int32_t visit(PXNode *root, int order, Act act) {
    constexpr When moments[] = {When::between, When::between, When::enter, When::leave};
    if (!root)
        return 0;
    if (order < PX_IN_ORDER || order > PX_POST_ORDER)
        return 1;
    const auto act_at = [&, moment = moments[order]](When now, PXNode *node, unsigned) -> int32_t {
        return now == moment && node->element ? act(node->element) : 0;
    };
    return order == PX_REVERSE_IN_ORDER ? walk<&PXNode::right, &PXNode::left>(root, act_at)
                                        : walk<&PXNode::left, &PXNode::right>(root, act_at);
}

// Takes a table apart in post-order and hands over each node, whose memory may go away at once. A left
// link is followed once, and from then on it holds the way back: this needs no memory at any depth.
template <class HandOver> void take_apart(PXNode *root, HandOver hand_over) {
    PXNode *node = root;
    PXNode *parent = nullptr;
    while (node || parent) {
        if (node) {
            PXNode *below = std::exchange(node->left, parent);
            parent = std::exchange(node, below);
        } else if (parent->right) {
            node = std::exchange(parent->right, nullptr);
        } else {
            PXNode *done = std::exchange(parent, parent->left);
            hand_over(done);
        }
    }
}

} // namespace k42mc::prefix_table

#endif
