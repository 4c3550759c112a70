// The Patricia tree: ordered access, visits and printouts.
#include "k42mc_ds/pt_access.h"

#include "k42mc_ds/depths.h"

#include <k42mc/algorithms/patricia_walks.hpp>

using namespace k42mc;
using namespace k42mc::internal;
using ds::OffsetKeys;

namespace {

// What lies in the key field, be it key or pointer, as a number with the first byte on top.
unsigned shown_key(const void *field, int bits) {
    const size_t number = bits <= 8    ? bits::big_endian<1>(field) << 24
                          : bits <= 24 ? bits::big_endian<2>(field) << 16
                                       : bits::big_endian<4>(field);
    return static_cast<unsigned>(number);
}

} // namespace

void *PTFirst(const PTTree *tree) {
    return ds::element_of(tree, patricia::first(tree->head));
}

void *PTLast(const PTTree *tree) {
    return ds::element_of(tree, patricia::last(tree->head));
}

void *PTNext(PTTree *tree, const void *element) {
    return ds::element_of(tree,
                          patricia::next_cached(tree, OffsetKeys(tree), ds::node_of(tree, element)));
}

void *PTPrev(const PTTree *tree, const void *element) {
    return ds::element_of(tree,
                          patricia::prev(tree->head, OffsetKeys(tree), ds::node_of(tree, element)));
}

void *PTNextByKey(const PTTree *tree, const void *key) {
    return ds::element_of(
        tree, patricia::next_by_key(tree->head, OffsetKeys(tree), ds::key_argument(tree, key)));
}

void PTVisit(const PTTree *tree, int order, DSVisitFn visit) {
    patricia::walk(tree->head, order,
                   [=](PTNode *node, unsigned) { return visit(ds::element_of(tree, node)), 0; });
}

int32_t PTVisitWithArg(const PTTree *tree, int order, DSVisitArgFn visit, void *argument) {
    return patricia::walk(tree->head, order, [=](PTNode *node, unsigned) {
        return visit(ds::element_of(tree, node), argument);
    });
}

void PTInfo(const PTTree *tree) {
    ds::Depths depths;
    patricia::walk(tree->head, 0, [&](PTNode *, unsigned holder) {
        depths.add(static_cast<uint8_t>(holder + 1));
        return 0;
    });
    ds::print_info("===========PT Info=========", depths);
}

void PTDump(const PTTree *tree) {
    const OffsetKeys keys(tree);
    std::puts("===========PT Dump=========");
    if (PTIsEmpty(tree))
        std::puts(">>>>> EMPTY <<<<<");
    patricia::walk(tree->head, 0, [&](PTNode *node, unsigned holder) {
        const auto depth = static_cast<uint8_t>(holder);
        std::printf("%*c%x[%d]\n", 6 * depth - 1, ' ', shown_key(keys.field(node), keys.bits),
                    node->bit);
        return 0;
    });
    std::fflush(stdout);
}

K42MC_EXPORT(PTFirst);
K42MC_EXPORT(PTLast);
K42MC_EXPORT(PTNext);
K42MC_EXPORT(PTPrev);
K42MC_EXPORT(PTNextByKey);
K42MC_EXPORT(PTVisit);
K42MC_EXPORT(PTVisitWithArg);
K42MC_EXPORT(PTInfo);
K42MC_EXPORT(PTDump);
