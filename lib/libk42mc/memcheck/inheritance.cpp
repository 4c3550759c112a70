#include "memcheck/inheritance.h"

#include "platform/proc_file.h"

#include <atomic>

namespace k42mc::internal {
namespace {

constinit std::atomic<bool> inherits = false;

// Of those that fork has not told of, too. Asked as the rest of a search asks: a sandbox that lets files be read may end a
// process that waits for children.
bool has_children() {
    platform::ProcFile children("/proc/thread-self/children");
    const bool has_none = children.get() < 0 && children.is_whole();
    return !has_none;
}

} // namespace

void begin_inheritance() {
    inherits = true;
}

void end_inheritance() {
    inherits = false;
}

bool is_heir() {
    return inherits && !has_children();
}

} // namespace k42mc::internal
