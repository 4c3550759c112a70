#include "memcheck/registry_lines.h"

#include "base/printing.h"
#include "memcheck/sink.h"
#include "stack_trace.h"

#include <inttypes.h>

namespace k42mc::internal {
namespace {

const char *type_name(unsigned type) {
    return type < MC_ALLOCATOR_TYPES ? gAllocatorType[type] : "UNKNOWN";
}

// Below a line about the call in progress, the call itself.
void put_current_trace(TextOutput &out, const char *title) {
    StackTrace trace;
    trace.capture(StackTrace::deepest);
    if (trace.count > 0)
        put_trace(out, title, trace.innermost(StackTrace::deepest));
}

} // namespace

const char *name_of(Site site) {
    return site.file != nullptr ? site.file : "(null)";
}

void print_failed_allocation(Site site, size_t size) {
    const Printing printing;
    SinkText out;
    out->put(name_of(site));
    out->print(":%d:NA:0x%0X:%zu\n", site.line, 0u, size);
}

void print_null_release(Site site) {
    const Printing printing;
    SinkText out;
    out->put(name_of(site));
    out->print(":%d:NF:0x%0X:%u\n", site.line, 0u, 0u);
    put_current_trace(*out, "Backtrace of the NULL free:\n");
}

void print_wrong_type(Site site, uintptr_t address, unsigned allocated, uint16_t released) {
    const Printing printing;
    SinkText out;
    out->put(name_of(site));
    out->print(":%d:BF: WRONG deallocator type for 0x%0" PRIXPTR "; allocType: %s, freeType: %s\n",
               site.line, address, type_name(allocated), type_name(released));
    put_current_trace(*out, "Backtrace of the bad free:\n");
}

void print_lost_record() {
    const Printing printing;
    SinkText()->print("============ %s: Memory allocation failure ===========\n", "MCAlloc");
}

} // namespace k42mc::internal
