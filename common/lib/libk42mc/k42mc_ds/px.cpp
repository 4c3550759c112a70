// The prefix table: creation, insertion, search and removal.
#include "k42mc_ds/px_elements.h"

#include <cstddef>

using namespace k42mc;
using namespace k42mc::internal;
using ds::PXElements;

static_assert(offsetof(PXNode, left) == 0 && offsetof(PXNode, right) == sizeof(void *) &&
              offsetof(PXNode, element) == 2 * sizeof(void *) &&
              offsetof(PXNode, length) == 3 * sizeof(void *) && sizeof(PXNode) == 4 * sizeof(void *));
static_assert(offsetof(PXTable, root) == 0 && offsetof(PXTable, destroy) == sizeof(void *) &&
              offsetof(PXTable, dealloc) == 2 * sizeof(void *) &&
              offsetof(PXTable, alloc) == 3 * sizeof(void *) &&
              offsetof(PXTable, chainOffset) == 4 * sizeof(void *) &&
              offsetof(PXTable, keyOffset) == 4 * sizeof(void *) + 4 &&
              offsetof(PXTable, lengthOffset) == 4 * sizeof(void *) + 8);

static const uint8_t *key_bytes(const void *key) {
    return static_cast<const uint8_t *>(key);
}

// Hands over a whole chain. An element may be gone once it was handed over.
static void destroy_chain(const PXTable *table, void *element) {
    const PXElements elements{table};
    while (element) {
        void *next = elements.next(element);
        table->destroy(element);
        element = next;
    }
}

int32_t PXInit(PXTable **table, DSAllocHook alloc, DSDeallocHook dealloc, uint32_t chainOffset,
               uint32_t keyOffset, uint32_t lengthOffset, DSDestroyHook destroy) {
    alloc = ds::or_default(alloc);
    void *header = alloc(sizeof(PXTable));
    *table = nullptr;
    if (!header)
        return DS_NOMEM;
    *table = new (header) PXTable{
        nullptr,     ds::or_default(destroy), ds::or_default(dealloc), alloc, chainOffset, keyOffset,
        lengthOffset};
    return DS_OK;
}

void PXDeinit(PXTable **handle) {
    PXTable *table = *handle;
    PXDestroy(table);
    table->dealloc(table);
    *handle = nullptr;
}

void PXDestroy(PXTable *table) {
    const bool owns = ds::owns_elements(table->destroy); // else they may be gone already
    prefix_table::take_apart(table->root, [=](PXNode *node) {
        if (owns)
            destroy_chain(table, node->element);
        table->dealloc(node);
    });
    table->root = nullptr;
}

int PXIsEmpty(const PXTable *table) {
    return !table->root;
}

void *PXAny(const PXTable *table) {
    return table->root ? prefix_table::element_of(table->root) : nullptr;
}

int32_t PXInsert(PXTable *table, void *element) {
    return prefix_table::insert(table, PXElements{table}, element);
}

void *PXSearchLMP(const PXTable *table, const void *key) {
    return PXSearchLMPForPrefix(table, key, INT16_MAX);
}

void *PXSearchLMPForPrefix(const PXTable *table, const void *key, int16_t length) {
    return ds::first_of(prefix_table::longest(table->root, PXElements{table}, key_bytes(key), length));
}

void *PXSearch(const PXTable *table, const void *key, int16_t length) {
    return ds::first_of(prefix_table::search(table->root, PXElements{table}, key_bytes(key), length));
}

void PXRemove(PXTable *table, void *element) {
    prefix_table::remove(table, PXElements{table}, element);
}

void *PXRemoveByKey(PXTable *table, const void *key, int16_t length) {
    return prefix_table::remove_key(table, PXElements{table}, key_bytes(key), length);
}

void PXRemoveAndDestroy(PXTable *table, void *element) {
    PXRemove(table, element);
    table->destroy(element);
}

int32_t PXRemoveAndDestroyByKey(PXTable *table, const void *key, int16_t length) {
    void *first = PXRemoveByKey(table, key, length);
    destroy_chain(table, first);
    return first ? DS_OK : DS_FAILURE;
}

K42MC_EXPORT(PXInit);
K42MC_EXPORT(PXDeinit);
K42MC_EXPORT(PXDestroy);
K42MC_EXPORT(PXIsEmpty);
K42MC_EXPORT(PXAny);
K42MC_EXPORT(PXInsert);
K42MC_EXPORT(PXSearchLMP);
K42MC_EXPORT(PXSearchLMPForPrefix);
K42MC_EXPORT(PXSearch);
K42MC_EXPORT(PXRemove);
K42MC_EXPORT(PXRemoveByKey);
K42MC_EXPORT(PXRemoveAndDestroy);
K42MC_EXPORT(PXRemoveAndDestroyByKey);
