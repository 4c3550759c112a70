// The memory from which a program reaches its blocks: all that is mapped and that it may have written to, but for what
// it cannot use any more, and for what is the checker's.
#pragma once

#include "base/function_ref.h"
#include "memcheck/reach/heap_gaps.h"
#include "platform/memory_map.h"

namespace k42mc::internal {

// What is done with a range of memory, which lies in a mapping.
using VisitRange = FunctionRef<void(Range, const platform::Mapping &)>;

class Roots {
public:
    static size_t bytes_for(const Moment &moment);

    Roots(WorkMemory &memory, const Moment &moment, const BlockMap &blocks,
          platform::GuardedCopies &copies, platform::SharedPages &inherited);

    // Each range outside of blocks, and those that the program has added. False where the system does not tell what is
    // mapped.
    bool each(VisitRange visit);

private:
    void leave_out_below(uintptr_t stack_in_use, uintptr_t control_block);
    Range in_use(const platform::Mapping &mapping) const;
    void visit_mapping(const platform::Mapping &mapping, VisitRange visit);
    static void visit_added(const platform::Mapping &mapping, VisitRange visit);
    void visit_page_blocks(VisitRange visit) const;

    const BlockMap &blocks_;
    RangeSet left_out_;
    HeapGaps gaps_;
    uintptr_t first_stack_in_use_ = 0; // the first thread's, from there up; 0: not known
};

} // namespace k42mc::internal
