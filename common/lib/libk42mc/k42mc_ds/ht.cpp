// The hash table.
#include "k42mc_ds/conventions.h"

#include <k42mc/algorithms/hash_table.hpp>

#include <cstddef>
#include <new>

using namespace k42mc;
using namespace k42mc::internal;

static_assert(sizeof(HTLink) == sizeof(void *) && sizeof(HTSizeRow) == 8);
static_assert(offsetof(HTTable, count) == 0 && offsetof(HTTable, keyOffset) == 4 &&
              offsetof(HTTable, linkOffset) == 8 && offsetof(HTTable, sizeRow) == sizeof(void *) + 8 &&
              offsetof(HTTable, hash) == 2 * sizeof(void *) + 8 &&
              offsetof(HTTable, buckets) == 3 * sizeof(void *) + 8 &&
              offsetof(HTTable, compare) == 4 * sizeof(void *) + 8 &&
              offsetof(HTTable, destroy) == 5 * sizeof(void *) + 8 &&
              offsetof(HTTable, dealloc) == 6 * sizeof(void *) + 8 &&
              offsetof(HTTable, alloc) == 7 * sizeof(void *) + 8 &&
              sizeof(HTTable) == 8 * sizeof(void *) + 8);

namespace {

HTLink *link_of(const HTTable *table, const void *element) {
    return ds::link_at<HTLink>(element, table->linkOffset);
}

void *element_of(const HTTable *table, const HTLink *link) {
    return link ? ds::element_at(link, table->linkOffset) : nullptr;
}

const void *key_of(const HTTable *table, const HTLink *link) {
    return static_cast<const char *>(ds::element_at(link, table->linkOffset)) + table->keyOffset;
}

// What the algorithms ask about keys, answered by the hooks.
auto hash_in(const HTTable *table) {
    return [=](const HTLink *link) { return table->hash(key_of(table, link)); };
}

auto equals(const HTTable *table, const void *key) {
    return [=](const HTLink *link) { return table->compare(key, key_of(table, link)) == 0; };
}

HTLink **find_key(const HTTable *table, const void *key) {
    return hash_table::find(hash_table::bucket_of(table, table->hash(key)), equals(table, key));
}

void *remove(HTTable *table, const void *element) {
    return element_of(table, hash_table::remove(table, link_of(table, element), hash_in(table)));
}

} // namespace

int32_t HTInit(HTTable **table, DSAllocHook alloc, DSDeallocHook dealloc, uint32_t linkOffset,
               uint32_t keyOffset, HTHashFn hash, HTCompareFn compare, DSDestroyHook destroy) {
    alloc = ds::or_default(alloc);
    dealloc = ds::or_default(dealloc);
    *table = nullptr;
    void *header = alloc(sizeof(HTTable));
    if (!header)
        return DS_NOMEM;
    const HTSizeRow *row = hash_table::first_size;
    const size_t size = row->buckets * sizeof(HTLink *);
    void *buckets = alloc(size);
    if (!buckets) {
        dealloc(header);
        return DS_NOMEM;
    }
    *table = new (header) HTTable{0,          keyOffset,
                                  linkOffset, row,
                                  hash,       static_cast<HTLink **>(std::memset(buckets, 0, size)),
                                  compare,    ds::or_default(destroy),
                                  dealloc,    alloc};
    return DS_OK;
}

void HTDeinit(HTTable **handle) {
    HTTable *table = *handle;
    *handle = nullptr;
    HTDestroy(table);
    table->dealloc(table->buckets);
    table->dealloc(table);
}

void HTDestroy(HTTable *table) {
    if (!table->count)
        return;
    if (ds::owns_elements(table->destroy))
        hash_table::take_apart(table,
                               [=](const HTLink *link) { table->destroy(element_of(table, link)); });
    else
        std::memset(table->buckets, 0, table->sizeRow->buckets * sizeof(HTLink *));
    table->count = 0;
    if (hash_table::is_sparse(table, 0))
        hash_table::fit(table, hash_in(table));
}

int HTIsEmpty(const HTTable *table) {
    return !table->count;
}

void HTInsert(HTTable *table, void *element, void **existing) {
    HTLink *link = link_of(table, element);
    if (existing)
        *existing = element_of(table, hash_table::insert_unique(table, link, hash_in(table),
                                                                equals(table, key_of(table, link))));
    else
        hash_table::insert(table, link, hash_in(table));
}

void *HTSearch(const HTTable *table, const void *key) {
    return element_of(table, *find_key(table, key));
}

void HTRemove(HTTable *table, void *element) {
    remove(table, element);
}

void *HTRemoveByKey(HTTable *table, const void *key) {
    return element_of(table, hash_table::remove_found(table, find_key(table, key)));
}

void HTRemoveAndDestroy(HTTable *table, void *element) {
    ds::destroy_removed(table->destroy, remove(table, element));
}

int32_t HTRemoveAndDestroyByKey(HTTable *table, const void *key) {
    return ds::destroy_removed(table->destroy, HTRemoveByKey(table, key));
}

void *HTFirst(const HTTable *table) {
    return element_of(table, hash_table::first(table));
}

void *HTNext(const HTTable *table, const void *element) {
    return element_of(table, hash_table::next(table, link_of(table, element), hash_in(table)));
}

void HTVisit(const HTTable *table, DSVisitFn visit) {
    hash_table::visit(table, [=](const HTLink *link) {
        visit(element_of(table, link));
        return 0;
    });
}

int32_t HTVisitWithArg(const HTTable *table, DSVisitArgFn visit, void *argument) {
    return hash_table::visit(
        table, [=](const HTLink *link) { return visit(element_of(table, link), argument); });
}

void HTInfo(const HTTable *table) {
    std::puts("==========HT Info=========");
    if (table->count) {
        const uint32_t count = table->count, buckets = table->sizeRow->buckets;
        uint32_t hit = 0;
        unsigned long longest = 0;
        for (const HTLink *link : std::span(table->buckets, buckets)) {
            hit += link != nullptr;
            unsigned long length = 0;
            for (; link; link = link->next)
                ++length;
            longest = std::max(longest, length);
        }
        const long double load = static_cast<long double>(count) / buckets;
        std::printf("> number of entries         = %u\n", count);
        std::printf("> maximum comparisons       = %lu\n", longest);
        std::printf("> expected # of comparisons ~ %f\n", static_cast<double>(1 + load / 2));
        std::printf("> load factor               = %f (%u/%u)\n",
                    static_cast<double>(static_cast<float>(load)), count, buckets);
        std::printf("> %% buckets hit             = %f (%u/%u)\n",
                    static_cast<double>(100.0L * hit / buckets), hit, buckets);
    } else {
        std::puts(">>>>> EMPTY <<<<<");
    }
    std::fflush(stdout);
}

uint32_t HTHash4B(const void *key) {
    return hash_table::hash_4_bytes(key);
}

uint32_t HTHashNB(const void *key, uint32_t length) {
    return hash_table::hash_bytes(key, length);
}

K42MC_EXPORT(HTInit);
K42MC_EXPORT(HTDeinit);
K42MC_EXPORT(HTDestroy);
K42MC_EXPORT(HTIsEmpty);
K42MC_EXPORT(HTInsert);
K42MC_EXPORT(HTSearch);
K42MC_EXPORT(HTRemove);
K42MC_EXPORT(HTRemoveByKey);
K42MC_EXPORT(HTRemoveAndDestroy);
K42MC_EXPORT(HTRemoveAndDestroyByKey);
K42MC_EXPORT(HTFirst);
K42MC_EXPORT(HTNext);
K42MC_EXPORT(HTVisit);
K42MC_EXPORT(HTVisitWithArg);
K42MC_EXPORT(HTInfo);
K42MC_EXPORT(HTHash4B);
K42MC_EXPORT(HTHashNB);
