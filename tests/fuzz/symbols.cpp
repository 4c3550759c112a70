// A module with any bytes of it changed: what is looked up in it is found, or not.
#include "tools/common/symbols.h"
#include "input.h"

#include <fstream>
#include <iterator>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

namespace {

std::string whole_module() {
    std::ifstream file(SYMBOLS_MODULE, std::ios::binary);
    std::string bytes(std::istreambuf_iterator<char>(file), {});
    REQUIRE(!bytes.empty());
    return bytes;
}

size_t offset_in(const std::string &bytes, Input &input) {
    size_t offset = 0;
    for (int i = 0; i < 3; ++i)
        offset = offset << 8 | input.byte();
    return offset % bytes.size();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const std::string whole = whole_module();
    static const int file = memfd_create("module", MFD_CLOEXEC);
    Input input(data, size);
    std::string damaged = whole;
    if (input.byte() == 0)
        damaged.resize(1 + offset_in(whole, input));
    while (input.more()) {
        const size_t offset = offset_in(damaged, input);
        damaged[offset] = static_cast<char>(input.byte());
    }
    REQUIRE(ftruncate(file, 0) == 0);
    REQUIRE(pwrite(file, damaged.data(), damaged.size(), 0) == ssize_t(damaged.size()));
    const std::string path = "/proc/self/fd/" + std::to_string(file);
    Symbolizer symbolizer;
    for (const char *place :
         {"+0x40", "+0x1140", "+0x1170", "+0x11a0", "+0x1200", "(_init+0x8) [0x1008]"})
        symbolizer.lookup(path + place);
    return 0;
}
