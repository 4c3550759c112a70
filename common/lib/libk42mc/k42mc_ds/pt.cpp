// The Patricia tree: creation, insertion, search and removal.
#include "k42mc_ds/pt_access.h"

#include <k42mc/algorithms/patricia.hpp>

#include <new>

using namespace k42mc;
using namespace k42mc::internal;
using ds::OffsetKeys;

static_assert(offsetof(PTNode, bit) == 0 && offsetof(PTNode, left) == sizeof(void *) &&
              offsetof(PTNode, right) == 2 * sizeof(void *) && sizeof(PTNode) == 3 * sizeof(void *));
static_assert(offsetof(PTTree, head) == 0 && offsetof(PTTree, keyOffset) == sizeof(void *) &&
              offsetof(PTTree, keyBits) == sizeof(void *) + 4 &&
              offsetof(PTTree, keyIndirections) == sizeof(void *) + 6 &&
              offsetof(PTTree, nodeOffset) == sizeof(void *) + 8 &&
              offsetof(PTTree, destroy) == 2 * sizeof(void *) + 8 &&
              offsetof(PTTree, dealloc) == 3 * sizeof(void *) + 8 &&
              offsetof(PTTree, cursor) == 4 * sizeof(void *) + 8 &&
              sizeof(PTTree) == 5 * sizeof(void *) + 8);

namespace {

// The dummy element has the head as its node. Without indirections its key field holds the all-zero key;
// with n, a pointer to n - 1 more pointers in a row and then the key, all of which begin at `rest`.
struct DummyLayout {
    size_t rest;
    size_t size;
};

DummyLayout dummy_layout(const PTTree &tree) {
    const size_t keyBytes = (static_cast<size_t>(tree.keyBits) + 7) / 8;
    const size_t indirections = tree.keyIndirections;
    const size_t field = indirections ? sizeof(void *) : keyBytes;
    const size_t rest =
        tree.nodeOffset > tree.keyOffset ? tree.nodeOffset + sizeof(PTNode) : tree.keyOffset + field;
    return {rest, indirections ? rest + (indirections - 1) * sizeof(void *) + keyBytes : rest};
}

PTNode *lay_out_dummy(const PTTree &tree, const DummyLayout &layout, char *dummy) {
    std::memset(dummy, 0, layout.size);
    size_t from = tree.keyOffset;
    for (size_t slot = layout.rest, n = tree.keyIndirections; n; --n, slot += sizeof(void *)) {
        const char *target = dummy + slot;
        std::memcpy(dummy + from, &target, sizeof target);
        from = slot;
    }
    auto *head = new (dummy + tree.nodeOffset) PTNode{-1, nullptr, nullptr};
    head->left = head;
    return head;
}

} // namespace

int32_t PTInit(PTTree **tree, DSAllocHook alloc, DSDeallocHook dealloc, uint32_t nodeOffset,
               uint32_t keyOffset, int16_t keyBits, uint8_t keyIndirections, DSDestroyHook destroy) {
    *tree = nullptr;
    if (keyBits < 1)
        return DS_FAILURE;
    alloc = ds::or_default(alloc);
    dealloc = ds::or_default(dealloc);
    void *header = alloc(sizeof(PTTree));
    if (!header)
        return DS_NOMEM;
    auto *made = new (header)
        PTTree{nullptr, keyOffset, keyBits, keyIndirections, nodeOffset, ds::or_default(destroy),
               dealloc, nullptr};
    const DummyLayout layout = dummy_layout(*made);
    void *dummy = alloc(layout.size);
    if (!dummy) {
        dealloc(header);
        return DS_NOMEM;
    }
    made->head = lay_out_dummy(*made, layout, static_cast<char *>(dummy));
    *tree = made;
    return DS_OK;
}

void PTDeinit(PTTree **handle) {
    PTTree *tree = *handle;
    *handle = nullptr;
    PTDestroy(tree);
    const DSDeallocHook dealloc = tree->dealloc;
    dealloc(ds::element_of(tree, tree->head));
    dealloc(tree);
}

void PTDestroy(PTTree *tree) {
    if (ds::owns_elements(tree->destroy))
        patricia::take_apart(tree->head,
                             [=](PTNode *node) { tree->destroy(ds::element_of(tree, node)); });
    tree->head->left = tree->head;
    patricia::clear_cache(tree);
}

int PTIsEmpty(const PTTree *tree) {
    return patricia::is_empty(tree->head);
}

void *PTAny(const PTTree *tree) {
    return PTIsEmpty(tree) ? nullptr : ds::element_of(tree, tree->head->left);
}

void PTInsert(PTTree *tree, void *element, void **existing) {
    const PTNode *present = patricia::insert(tree, OffsetKeys(tree), ds::node_of(tree, element));
    if (existing)
        *existing = ds::element_of(tree, present);
}

void *PTSearch(const PTTree *tree, const void *key) {
    return ds::element_of(tree,
                          patricia::find(tree->head, OffsetKeys(tree), ds::key_argument(tree, key)));
}

void PTRemove(PTTree *tree, void *element) {
    patricia::remove(tree, OffsetKeys(tree), ds::node_of(tree, element));
}

void *PTRemoveByKey(PTTree *tree, const void *key) {
    return ds::element_of(tree,
                          patricia::remove_key(tree, OffsetKeys(tree), ds::key_argument(tree, key)));
}

void PTRemoveAndDestroy(PTTree *tree, void *element) {
    PTRemove(tree, element);
    tree->destroy(element);
}

int32_t PTRemoveAndDestroyByKey(PTTree *tree, const void *key) {
    return ds::destroy_removed(tree->destroy, PTRemoveByKey(tree, key));
}

K42MC_EXPORT(PTInit);
K42MC_EXPORT(PTDeinit);
K42MC_EXPORT(PTDestroy);
K42MC_EXPORT(PTIsEmpty);
K42MC_EXPORT(PTAny);
K42MC_EXPORT(PTInsert);
K42MC_EXPORT(PTSearch);
K42MC_EXPORT(PTRemove);
K42MC_EXPORT(PTRemoveByKey);
K42MC_EXPORT(PTRemoveAndDestroy);
K42MC_EXPORT(PTRemoveAndDestroyByKey);
