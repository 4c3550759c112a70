// k42mc run --every 1
// The time of the next report comes when the last one has been written and the process has not ended yet.
#include <cstdio>
#include <unistd.h>

namespace {

ssize_t write_slowly(void *, const char *, size_t size) {
    usleep(2500 * 1000);
    return static_cast<ssize_t>(size);
}

} // namespace

int main() {
    FILE *stream = fopencookie(nullptr, "w", {nullptr, write_slowly, nullptr, nullptr});
    fputs("written when streams are flushed, at the very end", stream);
}
