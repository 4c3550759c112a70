// Any text as a filter: it is taken, and then taken back, or refused both times; never read past its
// end.
#include "input.h"

#include <cstdio>
#include <k42mc/k42mc.h>
#include <string>
#include <string_view>

namespace {

int set(std::string_view text, int in) {
    std::string taken_apart(text); // ends where the text does
    return MCBTFilterSet(taken_apart.data(), in);
}

void start() {
    stderr = std::fopen("/dev/null", "w"); // the checker's lines; descriptor 2 is for the sanitizer's
    MCInit(K42MC_BE32(MC_TO_STDERR), K42MC_BE32(MC_TYPE_LKBF | MC_TYPE_BT_OFF));
    REQUIRE(set("file.c:1:LK:STD:0x10:8", 1) == 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    [[maybe_unused]] static const bool started = (start(), true);
    const std::string_view all(reinterpret_cast<const char *>(data), size);
    const std::string_view text = all.substr(0, all.find('\0'));
    const int taken = set(text, 1);
    REQUIRE(taken == 0 || taken == -1);
    REQUIRE(set(text, 1) == taken);
    REQUIRE(set(text, 0) == taken);
    MCBTFilterReset();
    return 0;
}
