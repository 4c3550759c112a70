#include "wrappers/notice.h"

#include "base/printing.h"
#include "memcheck/late_write.h"
#include "memcheck/quarantine.h"
#include "memcheck/sink.h"
#include "platform/bytes.h"
#include "wrappers/stray_pointer.h"

#include <algorithm>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

namespace k42mc::internal {
namespace {

class Words {
public:
    explicit Words(std::span<char> room) : room_(room) { room_[0] = '\0'; }

    // What finds no room is left out.
    [[gnu::format(printf, 2, 3)]] void add(const char *format, ...) {
        const std::span<char> left = room_.subspan(length_);
        va_list arguments;
        va_start(arguments, format);
        const int wanted = vsnprintf(left.data(), left.size(), format, arguments);
        va_end(arguments);
        length_ += std::min(static_cast<size_t>(std::max(wanted, 0)), left.size() - 1);
    }

    void add_bytes(size_t count) { add("%zu byte%s", count, count == 1 ? "" : "s"); }

    void add_block(size_t size) {
        add("a block of ");
        add_bytes(size);
    }

private:
    const std::span<char> room_;
    size_t length_ = 0;
};

struct Explanation {
    StopNotice notice;
    AllocationSite site = {};
    bool has_site = false; // of the block, or of the one that the pointer leads into
};

void add_distance(Words &words, uintptr_t address, const Allocation &block) {
    const uintptr_t offset = address - block.address;
    if (address < block.address)
        words.add_bytes(block.address - address), words.add(" before ");
    else if (offset == 0 && block.size != 0)
        words.add("at the start of ");
    else if (offset < block.size)
        words.add_bytes(offset), words.add(" inside ");
    else if (offset == block.size)
        words.add("at the end of ");
    else
        words.add_bytes(offset - block.size), words.add(" past the end of ");
    words.add_block(block.size);
}

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
        add_distance(words, reinterpret_cast<uintptr_t>(pointer), stray.block);
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
        if (stop.known.site != 0 || probed_state_of(stop.user) == BlockState::live)
            explain_underrun(words, stop);
        else
            explain_stray(words, stop.user, explanation);
    }
}

// The module that the name is in may be gone.
void add_site(Words &words, const AllocationSite &site) {
    char file[256];
    const size_t length =
        platform::fetch(platform::own_memory, reinterpret_cast<uintptr_t>(site.file), file, sizeof file);
    words.add(", allocated at %.*s", static_cast<int>(strnlen(file, length)), file);
    if (site.line != 0)
        words.add(":%d", site.line);
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

// The traces go where somebody keeps them, else behind the words.
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

} // namespace

constinit StopRecorder record_stop = nullptr;

void explain_stop(const Stop &stop) {
    Explanation explanation;
    explanation.has_site = find_site(stop.known.site, explanation.site);
    StopNotice &notice = explanation.notice;
    Words words(notice.words);
    explain(words, stop, explanation);
    if (explanation.has_site)
        add_site(words, explanation.site);
    take_trace(notice, stop, explanation);
    auto put = [&](TextOutput &out) { put_traces(out, stop, notice); };
    give_notice(notice, put);
}

void explain_late_write(const RetiredBlock &block, ptrdiff_t change) {
    const RetiredTraces traces(block);
    StopNotice notice = {.words = {}, .frames = {}, .frame_count = 0, .release = traces.release()};
    for (void *const frame : traces.allocation())
        notice.frames[notice.frame_count++] = frame;
    Words words(notice.words);
    const auto user = reinterpret_cast<uintptr_t>(block.user);
    words.add("a write after the release of a block, ");
    add_distance(words, user + static_cast<uintptr_t>(change),
                 {.address = user, .size = block.size, .site = {}});
    words.add(", where there is 0x%02x now;", static_cast<const unsigned char *>(block.user)[change]);
    add_release(words, block);
    auto put = [&](TextOutput &out) {
        put_trace(out, "Backtrace of the allocation:\n", notice.trace());
        put_trace(out, "Backtrace of the release:\n", notice.release);
    };
    give_notice(notice, put);
}

} // namespace k42mc::internal
