#include "wrappers/page_guards.h"

#include "base/fork.h"
#include "linkage/linkage.h"
#include "pages/choice.h"
#include "pages/pool.h"
#include "wrappers/fault_actions.h"
#include "wrappers/page_fault.h"

#include <errno.h>

namespace k42mc::internal {
namespace {

constexpr uint32_t all_flags =
    K42MCX_PAGES_START | K42MCX_PAGES_MIXED | K42MCX_PAGES_GO_ON | K42MCX_PAGES_EXACT;

// For samples less will do: in production, it should be hardly seen.
size_t usual_memory(uint32_t one_in) {
    constexpr uint32_t rare = 1000;
    constexpr size_t much = size_t{sizeof(void *) == 8 ? 512 : 256} << 20, little = size_t{64} << 20;
    return one_in < rare ? much : little;
}

} // namespace

int switch_page_guards(uint32_t one_in, uint32_t flags, size_t memory) {
    if ((flags & ~all_flags) != 0)
        return EINVAL;
    if (one_in != 0) {
        hook_fork();
        if (!reserve_pages(memory != 0 ? memory : usual_memory(one_in)))
            return ENOMEM;
        if (!take_faults(tell_page_fault))
            return EPERM;
    }
    page_choice.flags = flags;
    page_choice.one_in = one_in;
    return 0;
}

} // namespace k42mc::internal

int k42mcx_page_guards(uint32_t one_in, uint32_t flags) {
    using namespace k42mc::internal;
    return switch_page_guards(one_in, flags, 0);
}

K42MC_EXPORT(k42mcx_page_guards);
