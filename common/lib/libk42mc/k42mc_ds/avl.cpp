// The AVL tree: creation, insertion, search and removal.
#include "k42mc_ds/avl_access.h"

#include <k42mc/algorithms/avl_walks.hpp>

#include <new>

using namespace k42mc;
using namespace k42mc::internal;

static_assert(offsetof(AVLNode, left) == 0 && offsetof(AVLNode, right) == sizeof(void *) &&
              offsetof(AVLNode, state) == 2 * sizeof(void *) && sizeof(AVLNode) == 3 * sizeof(void *));
static_assert(offsetof(AVLTree, root) == 0 && offsetof(AVLTree, keyOffset) == sizeof(void *) &&
              offsetof(AVLTree, nodeOffset) == sizeof(void *) + 4 &&
              offsetof(AVLTree, compare) == sizeof(void *) + 8 &&
              offsetof(AVLTree, destroy) == 2 * sizeof(void *) + 8 &&
              offsetof(AVLTree, dealloc) == 3 * sizeof(void *) + 8 &&
              sizeof(AVLTree) == 4 * sizeof(void *) + 8);

int32_t AVLInit(AVLTree **tree, DSAllocHook alloc, DSDeallocHook dealloc, uint32_t nodeOffset,
                uint32_t keyOffset, AVLCompareFn compare, DSDestroyHook destroy) {
    void *header = ds::or_default(alloc)(sizeof(AVLTree));
    *tree = nullptr;
    if (!header)
        return DS_NOMEM;
    *tree = new (header) AVLTree{
        nullptr, keyOffset, nodeOffset, compare, ds::or_default(destroy), ds::or_default(dealloc)};
    return DS_OK;
}

void AVLDeinit(AVLTree **handle) {
    AVLTree *tree = *handle;
    AVLDestroy(tree);
    tree->dealloc(tree);
    *handle = nullptr;
}

void AVLDestroy(AVLTree *tree) {
    if (ds::owns_elements(tree->destroy))
        AVLVisit(tree, avl::post_order, tree->destroy);
    tree->root = nullptr;
}

int AVLIsEmpty(const AVLTree *tree) {
    return !tree->root;
}

void *AVLAny(const AVLTree *tree) {
    return ds::element_of(tree, tree->root);
}

void AVLInsert(AVLTree *tree, void *element, void **existing) {
    const AVLNode *present = avl::insert(tree->root, ds::node_of(tree, element),
                                         ds::order_of(tree, ds::key_of(tree, element)));
    if (existing)
        *existing = ds::element_of(tree, present);
}

void *AVLSearch(const AVLTree *tree, const void *key) {
    return ds::element_of(tree, avl::search(tree->root, ds::order_of(tree, key)));
}

void AVLRemove(AVLTree *tree, void *element) {
    avl::remove(tree->root, ds::node_of(tree, element), ds::order_of(tree, ds::key_of(tree, element)));
}

void *AVLRemoveByKey(AVLTree *tree, const void *key) {
    return ds::element_of(tree, avl::remove_key(tree->root, ds::order_of(tree, key)));
}

void *AVLRemoveFirst(AVLTree *tree) {
    return ds::element_of(tree, avl::remove_first(tree->root));
}

void AVLRemoveAndDestroy(AVLTree *tree, void *element) {
    AVLRemove(tree, element);
    tree->destroy(element);
}

int32_t AVLRemoveAndDestroyByKey(AVLTree *tree, const void *key) {
    return ds::destroy_removed(tree->destroy, AVLRemoveByKey(tree, key));
}

K42MC_EXPORT(AVLInit);
K42MC_EXPORT(AVLDeinit);
K42MC_EXPORT(AVLDestroy);
K42MC_EXPORT(AVLIsEmpty);
K42MC_EXPORT(AVLAny);
K42MC_EXPORT(AVLInsert);
K42MC_EXPORT(AVLSearch);
K42MC_EXPORT(AVLRemove);
K42MC_EXPORT(AVLRemoveByKey);
K42MC_EXPORT(AVLRemoveFirst);
K42MC_EXPORT(AVLRemoveAndDestroy);
K42MC_EXPORT(AVLRemoveAndDestroyByKey);
