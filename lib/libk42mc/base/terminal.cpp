#include "base/terminal.h"

#include "platform/platform.h"

namespace k42mc::internal {

void write_text(FILE *out, const char *text, size_t size) {
    if (out == stderr && fileno(out) >= 0) {
        platform::write_all(fileno(out), text, size);
    } else {
        fwrite(text, 1, size, out);
        fflush(out);
    }
}

} // namespace k42mc::internal
