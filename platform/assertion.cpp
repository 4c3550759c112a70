#include "platform/platform.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include <unistd.h>

namespace k42mc::internal::platform {

void assertion_failed(const char *expression, const char *file, int line, const char *function) {
    char text[1024];
    const int length =
        snprintf(text, sizeof text, "assertion \"%s\" failed: file \"%s\", line %d, function \"%s\"\n",
                 expression, file, line, function);
    write_all(STDERR_FILENO, text, std::min(static_cast<size_t>(length), sizeof text - 1));
    abort();
}

} // namespace k42mc::internal::platform
