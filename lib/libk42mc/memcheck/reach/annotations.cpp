#include "memcheck/reach/annotations.h"

#include "base/checker_lock.h"
#include "memcheck/control_lock.h"
#include "memcheck/registry.h"

#include <errno.h>

namespace k42mc::internal {

namespace {

// In memory mapped for it alone, so that no search takes the addresses in it for pointers. It never gets smaller.
class RootList {
public:
    std::span<Range> all() const { return {roots_, count_}; }
    Range memory() const {
        const auto begin = reinterpret_cast<uintptr_t>(roots_);
        return {begin, begin + room_ * sizeof(Range)};
    }

    // False where memory runs out.
    bool add(Range root) {
        if (count_ == room_ && !grow())
            return false;
        roots_[count_++] = root;
        return true;
    }

    // False where it is not there.
    bool remove(Range root) {
        size_t i = count_;
        while (i > 0 && (roots_[i - 1].begin != root.begin || roots_[i - 1].end != root.end))
            --i;
        if (i != 0)
            roots_[i - 1] = roots_[--count_];
        return i != 0;
    }

private:
    bool grow() {
        const size_t room = room_ != 0 ? 2 * room_ : smallest_page / sizeof(Range);
        auto *const roots = static_cast<Range *>(platform::map_memory(room * sizeof(Range)));
        if (roots == nullptr)
            return false;
        std::copy(roots_, roots_ + count_, roots);
        if (roots_ != nullptr)
            platform::unmap_memory(roots_, room_ * sizeof(Range));
        roots_ = roots;
        room_ = room;
        return true;
    }

    Range *roots_ = nullptr;
    size_t count_ = 0, room_ = 0;
};

constinit RootList roots;

// False for one that passes the end of memory.
bool make_range(const void *begin, size_t size, Range &range) {
    range.begin = reinterpret_cast<uintptr_t>(begin);
    return !__builtin_add_overflow(range.begin, size, &range.end);
}

} // namespace

std::span<Range> added_roots() {
    return roots.all();
}

Range memory_of_added_roots() {
    return roots.memory();
}

} // namespace k42mc::internal

using namespace k42mc::internal;

int k42mcx_keep(const void *address) {
    if (!checker_on())
        return 0;
    const CheckerLock lock(MCLock() != 0);
    if (!lock || !registry_exists())
        return 0;
    Record *const record = find_record_around(reinterpret_cast<uintptr_t>(address));
    if (record != nullptr)
        record->keep();
    return record != nullptr;
}

int k42mcx_root(const void *begin, size_t size) {
    Range range;
    if (!make_range(begin, size, range))
        return EINVAL;
    const ControlLock lock("k42mcx_root");
    return lock && roots.add(range) ? 0 : ENOMEM;
}

int k42mcx_unroot(const void *begin, size_t size) {
    Range range;
    if (!make_range(begin, size, range))
        return EINVAL;
    const ControlLock lock("k42mcx_unroot");
    return lock && roots.remove(range) ? 0 : EINVAL;
}

void k42mcx_unlisted(int on) {
    if (on != 0)
        ++thread_keeps_blocks;
    else if (thread_keeps_blocks != 0)
        --thread_keeps_blocks;
}

K42MC_EXPORT(k42mcx_keep);
K42MC_EXPORT(k42mcx_root);
K42MC_EXPORT(k42mcx_unroot);
K42MC_EXPORT(k42mcx_unlisted);
