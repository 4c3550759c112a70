#include "platform/platform.h"

#include <ucontext.h>

namespace k42mc::internal::platform {

void *interrupted_at(const void *context) {
#if defined(__x86_64__)
    constexpr int place = REG_RIP;
#else
    constexpr int place = REG_EIP;
#endif
    return reinterpret_cast<void *>(static_cast<const ucontext_t *>(context)->uc_mcontext.gregs[place]);
}

} // namespace k42mc::internal::platform
