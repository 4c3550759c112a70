// The prefix table: steps in table order, visits, statistics and the check.
#include "k42mc_ds/checked.h"
#include "k42mc_ds/depths.h"
#include "k42mc_ds/px_elements.h"

using namespace k42mc;
using namespace k42mc::internal;
using ds::PXElements;

namespace {

template <prefix_table::Side Outward> void *end_of(const PXTable *table) {
    return table->root ? prefix_table::outermost<Outward>(table->root)->element : nullptr;
}

template <prefix_table::Side From, prefix_table::Side To>
void *step(const PXTable *table, const void *element) {
    const PXElements elements{table};
    return ds::first_of(
        prefix_table::step<From, To>(table->root, elements.key(element), elements.length(element)));
}

template <class Act> int32_t walk(const PXTable *table, Act act) {
    return prefix_table::walk<&PXNode::left, &PXNode::right>(table->root, act);
}

void print_statistics(const PXTable *table) {
    ds::Depths prefixes;
    uint32_t nodes = 0;
    walk(table, [&](prefix_table::When now, const PXNode *node, unsigned depth) {
        if (now == prefix_table::When::enter) {
            ++nodes;
            if (node->element)
                prefixes.add(static_cast<uint8_t>(depth + 1)); // counted modulo 256
        }
        return 0;
    });
    std::puts("(counting duplicates as one)");
    std::printf("> number of prefixes : %u\n", prefixes.count);
    std::printf("> max height         : %u\n", prefixes.greatest);
    std::printf("> average height     : %f\n", prefixes.average());
    std::printf("> efficiency (%%)     : %f (%u/%u)\n", 100.0 * prefixes.count / nodes, prefixes.count,
                nodes);
}

// The number stands for the test that failed.
int32_t longer(const PXNode *below, const PXNode *node, int number) {
    if (!below || below->length > node->length)
        return DS_OK;
    std::printf("%s:%d: >>>>>> FAULT in PX: %d : %d\n", ds::source_path, number, node->length,
                below->length);
    std::fflush(stdout);
    return DS_FAILURE;
}

} // namespace

void *PXFirst(const PXTable *table) {
    return end_of<&PXNode::left>(table);
}

void *PXLast(const PXTable *table) {
    return end_of<&PXNode::right>(table);
}

void *PXNext(const PXTable *table, const void *element) {
    return step<&PXNode::left, &PXNode::right>(table, element);
}

void *PXPrev(const PXTable *table, const void *element) {
    return step<&PXNode::right, &PXNode::left>(table, element);
}

void PXVisit(const PXTable *table, int order, DSVisitFn visit) {
    prefix_table::visit(table->root, order, [=](void *element) {
        visit(element);
        return 0;
    });
}

int32_t PXVisitWithArg(const PXTable *table, int order, DSVisitArgFn visit, void *argument) {
    return prefix_table::visit(table->root, order,
                               [=](void *element) { return visit(element, argument); });
}

void PXInfo(const PXTable *table) {
    std::puts("===========PX Info=========");
    if (table->root)
        print_statistics(table);
    else
        std::puts(">>>>> EMPTY <<<<<");
    std::fflush(stdout);
}

int32_t PXCheck(const PXTable *table) {
    ds::CheckedSubtrees<PXNode> checked;
    const auto check = [&](prefix_table::When now, const PXNode *node, unsigned) -> int32_t {
        switch (now) {
        case prefix_table::When::enter:
            return longer(node->left, node, 5386);
        case prefix_table::When::between:
            return longer(node->right, node, 5397);
        default:
            checked.add(node);
            return DS_OK;
        }
    };
    // Links are followed after they were checked, so that no path comes back to where it has been.
    const int32_t result = prefix_table::walk<&PXNode::left, &PXNode::right>(
        table->root, check, [&](const PXNode *node) { return !checked.height_of(node); });
    return result == DS_OK ? ds::check_passed("PXCheck") : result;
}

K42MC_EXPORT(PXFirst);
K42MC_EXPORT(PXLast);
K42MC_EXPORT(PXNext);
K42MC_EXPORT(PXPrev);
K42MC_EXPORT(PXVisit);
K42MC_EXPORT(PXVisitWithArg);
K42MC_EXPORT(PXInfo);
K42MC_EXPORT(PXCheck);
