#include "memcheck/late_write.h"

#include "memcheck/sink.h"
#include "platform/bytes.h"

#include <inttypes.h>

namespace k42mc::internal {
namespace {

size_t take_frames(const GuardTrace &trace, void **frames) {
    size_t count = 0;
    for (const uintptr_t frame : trace)
        if (frame != 0)
            frames[count++] = reinterpret_cast<void *>(frame); // NOLINT(performance-no-int-to-ptr)
    return count;
}

} // namespace

SiteName::SiteName(Site site) {
    const size_t length = platform::fetch(platform::own_memory, reinterpret_cast<uintptr_t>(site.file),
                                          text_, sizeof text_ - 1);
    text_[length] = '\0';
}

// cppcheck-suppress uninitMemberVar ; frames behind the last are never read
RetiredTraces::RetiredTraces(const RetiredBlock &block)
    : allocation_count_(take_frames(block.allocation, allocation_)),
      release_count_(take_frames(release_trace_of(block.user, block.size), release_)) {}

void put_late_write(TextOutput &out, const RetiredBlock &block) {
    const RetiredTraces traces(block);
    out.print("%s:%d:WF:%s:0x%" PRIXPTR ":%zu\n", SiteName(block.release).text(), block.release.line,
              k42mc_arena_desc[block.arena], reinterpret_cast<uintptr_t>(block.user), block.size);
    put_allocation_trace(out, traces.allocation());
    put_trace(out, "Backtrace of the release:\n", traces.release());
}

} // namespace k42mc::internal
