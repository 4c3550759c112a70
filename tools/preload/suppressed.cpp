#include "tools/preload/suppressed.h"

#include "platform/platform.h"
#include "tools/preload/depth.h"
#include "tools/shared/suppression_lines.h"

#include <atomic>
#include <dlfcn.h>
#include <stdlib.h>

namespace {

namespace platform = k42mc::internal::platform;

using Demangle = char *(const char *name, char *room, size_t *length, int *status);
constinit std::atomic<Demangle *> demangle = nullptr; // in programs that have the C++ library

class FunctionName {
public:
    explicit FunctionName(const void *address) {
        const size_t length = platform::function_name(address, std::span(text_).first(sizeof text_ - 1));
        text_[length] = '\0';
        if (auto *const known = demangle.load(); known != nullptr && length != 0)
            demangled_ = known(text_, nullptr, nullptr, nullptr);
    }
    ~FunctionName() { free(demangled_); }
    FunctionName(const FunctionName &) = delete;
    FunctionName &operator=(const FunctionName &) = delete;

    std::string_view text() const { return demangled_ != nullptr ? demangled_ : text_; }

private:
    char text_[2048];
    char *demangled_ = nullptr;
};

bool is_suppressed_at(const char *suppressions, const void *address) {
    char path[4096];
    uintptr_t offset;
    const std::string_view module(path, platform::module_place(address, path, offset));
    const FunctionName function(address);
    bool found = false;
    each_suppression(suppressions, [&](std::string_view, std::string_view pattern) {
        found = found || (!pattern.empty() && (matches_pattern(pattern, module) ||
                                               matches_pattern(pattern, function.text())));
    });
    return found;
}

} // namespace

void find_demangler() {
    const InsideChecker inside; // dlsym may allocate
    demangle = reinterpret_cast<Demangle *>(dlsym(RTLD_DEFAULT, "__cxa_demangle"));
}

bool is_suppressed(const char *suppressions, std::span<void *const> trace) {
    if (suppressions != nullptr)
        for (const void *const address : trace)
            if (is_suppressed_at(suppressions, address))
                return true;
    return false;
}
