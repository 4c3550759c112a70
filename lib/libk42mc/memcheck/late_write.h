// What reports say of a write into a released block.
#pragma once

#include "base/text_output.h"
#include "memcheck/retired_block.h"

namespace k42mc::internal {

// A copy of a site's file name: the module that it is in may be gone.
class SiteName {
public:
    explicit SiteName(Site site);
    const char *text() const { return text_; }

private:
    char text_[256];
};

// The traces behind a released block. Of a frame that is not known, nothing.
struct RetiredTraces {
    explicit RetiredTraces(const RetiredBlock &block);

    std::span<void *const> allocation() const { return {allocation_, allocation_count_}; }
    std::span<void *const> release() const { return {release_, release_count_}; }

private:
    void *allocation_[K42MC_GUARD_TRACE], *release_[K42MC_GUARD_TRACE];
    size_t allocation_count_, release_count_;
};

// "file:line:WF:type:0xADDRESS:size", by the site of the release, and both traces. With gMCLock held.
void put_late_write(TextOutput &out, const RetiredBlock &block);

} // namespace k42mc::internal
