// A module that is bound to its own libraries first would call libc's allocator past the shim, and release
// blocks there that have guards in front. It is bound as other modules are.
#include "tools/preload/exported.h"
#include "tools/preload/next.h"

#include <dlfcn.h>

namespace {

int bound_like_others(int flags) {
    return flags & ~RTLD_DEEPBIND;
}

} // namespace

// The loader takes from the return address who calls, and with it the folders and the namespace where modules
// are looked for: the next function is jumped to, not called.
#ifdef __clang__
#define JUMPING
#define JUMP_TO [[clang::musttail]] return
#else
#define JUMPING [[gnu::optimize("O2")]]
#define JUMP_TO return
#endif

extern "C" {

JUMPING EXPORTED void *dlopen(const char *path, int flags) noexcept {
    JUMP_TO NEXT(dlopen)(path, bound_like_others(flags));
}

// Other namespaces have libcs of their own, and the shim is not in them.
JUMPING EXPORTED void *dlmopen(Lmid_t space, const char *path, int flags) noexcept {
    JUMP_TO NEXT(dlmopen)(space, path, space == LM_ID_BASE ? bound_like_others(flags) : flags);
}
}
