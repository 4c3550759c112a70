// The AVL tree: steps in order, visits and printouts.
#include "k42mc_ds/avl_access.h"

#include "k42mc_ds/checked.h"
#include "k42mc_ds/depths.h"

#include <k42mc/algorithms/avl_walks.hpp>

#include <cstring>

using namespace k42mc;
using namespace k42mc::internal;

namespace {

void add_depths(ds::Depths &depths, const AVLNode *node, uint8_t depth) {
    for (; node; node = avl::right_child(node), ++depth) {
        depths.add(depth);
        add_depths(depths, node->left, static_cast<uint8_t>(depth + 1));
    }
}

void dump(const AVLTree *tree, const AVLNode *node, int depth) {
    if (!node)
        return;
    dump(tree, avl::right_child(node), depth + 1);
    const auto mark = [=](uint8_t tilt) { return node->state & tilt ? '.' : '\0'; };
    uint32_t key;
    std::memcpy(&key, ds::key_of(tree, ds::element_of(tree, node)), sizeof key);
    std::printf("%*c%x%c\n", 6 * depth, mark(AVL_LEFT_TILT), key, mark(AVL_RIGHT_TILT));
    dump(tree, node->left, depth + 1);
}

// Whether the heights of a node's subtrees are what its tilt says.
bool tilts_rightly(const AVLNode *node, int left, int right) {
    switch (left - right) {
    case 0:
        return node->state & AVL_BALANCED;
    case 1:
        return node->state & AVL_LEFT_TILT;
    case -1:
        return node->state & AVL_RIGHT_TILT;
    default:
        return false;
    }
}

int fault(const AVLNode *node, int left, int right) {
    const char *tilt = node->state & AVL_BALANCED    ? "no"
                       : node->state & AVL_LEFT_TILT ? "left"
                                                     : "right";
    ds::check_failed(3153, "AVL:");
    std::printf(" heights(L:%d, R:%d), %s tilt\n", left, right, tilt);
    std::fflush(stdout);
    return -1;
}

// Returns the height of a subtree, or a negative number once a fault has been printed. What goes deeper
// than trees do goes round in a circle: the heights are that much and more.
int checked_height(const AVLNode *node, ds::CheckedSubtrees<AVLNode> &checked, unsigned depth = 0) {
    if (!node)
        return 0;
    if (const int known = checked.height_of(node))
        return known;
    if (depth == avl::most_levels)
        return fault(node, avl::most_levels, avl::most_levels);
    const int left = checked_height(node->left, checked, depth + 1);
    if (left < 0)
        return left;
    const int right = checked_height(avl::right_child(node), checked, depth + 1);
    if (right < 0)
        return right;
    if (!tilts_rightly(node, left, right))
        return fault(node, left, right);
    const int height = 1 + std::max(left, right);
    checked.add(node, height);
    return height;
}

} // namespace

void *AVLFirst(const AVLTree *tree) {
    return ds::element_of(tree, avl::leftmost(tree->root));
}

void *AVLLast(const AVLTree *tree) {
    return ds::element_of(tree, avl::rightmost(tree->root));
}

void *AVLNext(const AVLTree *tree, const void *element) {
    return ds::element_of(tree, avl::next(ds::node_of(tree, element)));
}

void *AVLPrev(const AVLTree *tree, const void *element) {
    return ds::element_of(tree, avl::prev(tree->root, ds::node_of(tree, element),
                                          ds::order_of(tree, ds::key_of(tree, element))));
}

void *AVLNextByKey(const AVLTree *tree, const void *key) {
    return ds::element_of(tree, avl::next_by_key(tree->root, ds::order_of(tree, key)));
}

void AVLVisit(const AVLTree *tree, uint32_t order, DSVisitFn visit) {
    avl::visit(tree->root, order, [=](const AVLNode *node) {
        visit(ds::element_of(tree, node));
        return 0;
    });
}

int32_t AVLVisitWithArg(const AVLTree *tree, uint32_t order, DSVisitArgFn visit, void *argument) {
    return avl::visit(tree->root, order,
                      [=](const AVLNode *node) { return visit(ds::element_of(tree, node), argument); });
}

void AVLInfo(const AVLTree *tree) {
    ds::Depths depths;
    add_depths(depths, tree->root, 1);
    ds::print_info("===========AVL Info=========", depths);
}

void AVLDump(const AVLTree *tree) {
    std::puts("===========AVL Dump=========");
    if (tree->root)
        dump(tree, tree->root, 0);
    else
        std::puts(">>>>> EMPTY <<<<<");
    std::fflush(stdout);
}

int32_t AVLCheck(const AVLTree *tree) {
    ds::CheckedSubtrees<AVLNode> checked;
    return checked_height(tree->root, checked) < 0 ? DS_FAILURE : ds::check_passed("AVLCheck");
}

K42MC_EXPORT(AVLFirst);
K42MC_EXPORT(AVLLast);
K42MC_EXPORT(AVLNext);
K42MC_EXPORT(AVLPrev);
K42MC_EXPORT(AVLNextByKey);
K42MC_EXPORT(AVLVisit);
K42MC_EXPORT(AVLVisitWithArg);
K42MC_EXPORT(AVLInfo);
K42MC_EXPORT(AVLDump);
K42MC_EXPORT(AVLCheck);
