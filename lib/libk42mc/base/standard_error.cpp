#include "base/standard_error.h"

#include "platform/platform.h"

#include <errno.h>
#include <stdio_ext.h>
#include <unistd.h>

namespace k42mc::internal {
namespace {

// Text has no other way than through a stream without a descriptor. A tenth of a second is what most
// holders need many times over; who still holds it then may be waiting for this thread.
bool hold_in_time(FILE *stream) {
    constexpr int most_tries = 100;
    constexpr useconds_t pause = 1000;
    for (int tries = 0; tries < most_tries; ++tries) {
        if (ftrylockfile(stream) == 0)
            return true;
        usleep(pause);
    }
    return false;
}

// A stream that finds no room in a descriptor that does not block forgets what it had.
void flush(FILE *stream, int descriptor) {
    if (__fpending(stream) == 0)
        return;
    platform::WriteSignalsHeld signals_held;
    platform::wait_for_room(descriptor);
    if (fflush_unlocked(stream) != 0)
        signals_held.take_signal_of(errno);
}

} // namespace

StandardError::StandardError(bool wanted)
    : descriptor_(wanted && stream_ != nullptr ? fileno_unlocked(stream_) : -1),
      held_(wanted && stream_ != nullptr &&
            (descriptor_ >= 0 ? ftrylockfile(stream_) == 0 : hold_in_time(stream_))) {
    if (held_ && descriptor_ >= 0)
        flush(stream_, descriptor_);
}

StandardError::~StandardError() {
    if (held_)
        funlockfile(stream_);
}

void StandardError::write(const char *text, size_t size) const {
    if (descriptor_ >= 0) {
        platform::write_all(descriptor_, text, size);
    } else if (held_) {
        platform::WriteSignalsHeld signals_held;
        fwrite_unlocked(text, 1, size, stream_);
        if (fflush_unlocked(stream_) != 0)
            signals_held.take_signal_of(errno);
    }
}

} // namespace k42mc::internal
