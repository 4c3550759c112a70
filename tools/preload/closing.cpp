#include "tools/preload/closing.h"

#include "base/errno_keeper.h"
#include "platform/platform.h"
#include "tools/preload/exported.h"
#include "tools/preload/next.h"
#include "tools/preload/report_files.h"

#include <algorithm>
#include <limits.h>
#include <sys/syscall.h>
#include <unistd.h>

bool is_kept_open(int descriptor) {
    return text_file.is_at(descriptor) || json_file.is_at(descriptor);
}

// A child that has its parent's memory has descriptors of its own: it leaves what is known of its parent's alone.
void make_way(int descriptor) {
    if (!is_kept_open(descriptor) || k42mc::internal::platform::borrows_memory())
        return;
    const k42mc::internal::ErrnoKeeper keep_errno;
    for (ReportFile *const file : {&text_file, &json_file})
        if (file->is_at(descriptor))
            file->move();
}

namespace {

// Past libc's, which a child of fork would have to look up, perhaps while the loader's lock is held for good.
int close_all_in(unsigned first, unsigned last, int flags) {
    return static_cast<int>(syscall(SYS_close_range, first, last, flags));
}

} // namespace

extern "C" {

// In parts, around those that stay.
EXPORTED int close_range(unsigned first, unsigned last, int flags) noexcept {
    const auto [lower, higher] = std::minmax({text_file.number(), json_file.number()});
    unsigned from = first;
    for (const int kept : {lower, higher}) {
        const auto number = static_cast<unsigned>(kept);
        if (number < from || number > last || !is_kept_open(kept))
            continue;
        if (number > from && close_all_in(from, number - 1, flags) != 0)
            return -1;
        from = number + 1;
    }
    return from > first && from > last ? 0 : close_all_in(from, last, flags);
}

EXPORTED void closefrom(int first) noexcept {
    if (close_range(static_cast<unsigned>(std::max(first, 0)), UINT_MAX, 0) != 0)
        NEXT(closefrom)(first);
}
}
