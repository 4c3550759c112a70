#include "wrappers/notice.h"

#include "base/printing.h"
#include "memcheck/late_write.h"
#include "memcheck/quarantine.h"
#include "memcheck/sink.h"
#include "wrappers/stray_pointer.h"
#include "wrappers/words.h"

#include <algorithm>
#include <string.h>
#include <unistd.h>

namespace k42mc::internal {
namespace {

struct Explanation {
    StopNotice notice;
    AllocationSite site = {};
    bool has_site = false; // of the block, or of the one that the pointer leads into
};

// The file's name alone: the path is in the stack traces. It may be too long for a small stack.
void add_module(Words &words, const void *pointer) {
    char path[1024];
    uintptr_t offset;
    const char *behind = static_cast<const char *>(pointer) + 1; // as of a return address
    const size_t length = platform::module_place(behind, path, offset);
    if (length == sizeof path) {
        words.add("in the data of a module");
        return;
    }
    const auto *slash = static_cast<const char *>(memrchr(path, '/', length));
    const char *name = slash != nullptr ? slash + 1 : path;
    words.add("in the data of %.*s", static_cast<int>(std::min(path + length - name, ptrdiff_t{255})),
              name);
}

void explain_stray(Words &words, const void *pointer, Explanation &explanation) {
    const StrayPointer stray = examine_pointer(pointer);
    using Kind = StrayPointer::Kind;
    if (stray.kind == Kind::unknown) {
        words.add("a release of what is no block, or of a block whose header was overwritten");
        return;
    }
    words.add("a release of an address ");
    switch (stray.kind) {
    case Kind::on_own_stack:
        words.add("on the stack of this thread");
        break;
    case Kind::on_other_stack:
        words.add("on the stack of another thread");
        break;
    case Kind::in_module:
        add_module(words, pointer);
        break;
    case Kind::nowhere:
        words.add("in no memory");
        break;
    default:
        words.add_distance(reinterpret_cast<uintptr_t>(pointer), stray.block.address, stray.block.size,
                           stray.kind == Kind::in_released_block);
        explanation.site = stray.block.site;
        explanation.has_site = true;
    }
}

void add_release(Words &words, const RetiredBlock &block) {
    words.add(" released at %s", SiteName(block.release).text());
    if (block.release.line != 0)
        words.add(":%d", block.release.line);
    words.add(" by thread %u", block.thread);
}

// A block that was recorded, or whose header still says that it is one.
void explain_underrun(Words &words, const Stop &stop) {
    words.add("a write before the start of ");
    if (stop.known.tail != 0)
        words.add_block(stop.known.tail - reinterpret_cast<uintptr_t>(stop.user));
    else
        words.add("a block");
}

void explain(Words &words, const Stop &stop, Explanation &explanation) {
    const Defect &defect = stop.defect;
    switch (defect.code) {
    case K42MC_DEFECT_DF:
        words.add("a second release of ");
        if (defect.size != 0)
            words.add_block(defect.size);
        else
            words.add("a block");
        if (RetiredBlock first; find_retired(stop.user, first))
            words.add(", already"), add_release(words, first);
        break;
    case K42MC_DEFECT_WO:
        words.add("a write past the end of ");
        words.add_block(defect.size);
        break;
    case K42MC_DEFECT_BF:
        words.add("a release to the wrong allocator, %s, of ", k42mc_arena_desc[stop.arena]);
        words.add_block(defect.size);
        words.add(" from %s", k42mc_arena_desc[defect.arena]);
        break;
    default:
        if (stop.known.tail != 0 || probed_state_of(stop.user) == BlockState::live)
            explain_underrun(words, stop);
        else
            explain_stray(words, stop.user, explanation);
    }
}

// What the registry has reaches further, and lies where no overrun does. Without it the words ahead of a block
// that an underrun has hit, or of no block at all, are no trace.
void take_trace(StopNotice &notice, const Stop &stop, const Explanation &explanation) {
    notice.frame_count = 0;
    if (explanation.has_site && explanation.site.frame_count != 0) {
        const auto frames = explanation.site.trace();
        std::copy(frames.begin(), frames.end(), notice.frames);
        notice.frame_count = frames.size();
    } else if (stop.defect.code != K42MC_DEFECT_WU) {
        for (const uintptr_t frame : stop.defect.trace)
            if (frame != 0)
                notice.frames[notice.frame_count++] =
                    reinterpret_cast<void *>(frame); // NOLINT(performance-no-int-to-ptr)
    }
}

void put_traces(TextOutput &out, const Stop &stop, const StopNotice &notice) {
    StackTrace here;
    here.capture(StackTrace::deepest);
    put_trace(out, "Backtrace of the release:\n", here.innermost(StackTrace::deepest));
    if (notice.frame_count != 0)
        put_trace(out,
                  stop.defect.code == K42MC_DEFECT_DF ? "Backtrace of the first release:\n"
                                                      : "Backtrace of the allocation:\n",
                  notice.trace());
}

} // namespace

constinit StopRecorder record_stop = nullptr;

void give_notice(const StopNotice &notice, FunctionRef<void(TextOutput &)> put_traces) {
    const Printing printing;
    char buffer[512];
    TextOutput out(buffer, STDERR_FILENO);
    out.print("k42mc: %s\n", notice.words);
    constexpr size_t most_for_traces = 16 << 10; // of stack
    if (record_stop == nullptr && platform::has_stack_room(most_for_traces))
        put_traces(out);
    out.flush();
    if (record_stop != nullptr)
        record_stop(notice);
}

void explain_stop(const Stop &stop) {
    Explanation explanation;
    explanation.has_site = find_site(stop.known.site, explanation.site);
    StopNotice &notice = explanation.notice;
    Words words(notice.words);
    explain(words, stop, explanation);
    if (explanation.has_site)
        words.add_site({explanation.site.file, explanation.site.line});
    take_trace(notice, stop, explanation);
    auto put = [&](TextOutput &out) { put_traces(out, stop, notice); };
    give_notice(notice, put);
}

void explain_late_write(const RetiredBlock &block, ptrdiff_t change) {
    const RetiredTraces traces(block);
    StopNotice notice = {
        .words = {}, .frames = {}, .frame_count = 0, .is_access = true, .release = traces.release()};
    for (void *const frame : traces.allocation())
        notice.frames[notice.frame_count++] = frame;
    Words words(notice.words);
    const auto user = reinterpret_cast<uintptr_t>(block.user);
    words.add("a write after the release of a block, ");
    words.add_distance(user + static_cast<uintptr_t>(change), user, block.size);
    words.add(", where there is 0x%02x now;", static_cast<const unsigned char *>(block.user)[change]);
    add_release(words, block);
    auto put = [&](TextOutput &out) {
        put_trace(out, "Backtrace of the allocation:\n", notice.trace());
        put_trace(out, "Backtrace of the release:\n", notice.release);
    };
    give_notice(notice, put);
}

} // namespace k42mc::internal
