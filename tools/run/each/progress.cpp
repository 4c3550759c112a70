#include "tools/run/each/progress.h"

#include <cstdio>

namespace {

std::string in_words(std::chrono::seconds left) {
    const auto seconds = left.count();
    char text[40];
    if (seconds < 3600)
        snprintf(text, sizeof text, "%lld:%02lld", static_cast<long long>(seconds / 60),
                 static_cast<long long>(seconds % 60));
    else
        snprintf(text, sizeof text, "%lld:%02lld:%02lld", static_cast<long long>(seconds / 3600),
                 static_cast<long long>(seconds / 60 % 60), static_cast<long long>(seconds % 60));
    return text;
}

} // namespace

ProgressLine::ProgressLine()
    : on_terminal_(isatty(STDERR_FILENO) != 0), start_(Clock::now()), next_(start_) {}

ProgressLine::~ProgressLine() {
    if (begun_)
        fputs("\r\33[K", stderr);
}

void ProgressLine::show(size_t done, size_t all, const std::string &remark) {
    constexpr std::chrono::milliseconds pause{200};
    const Clock::time_point now = Clock::now();
    if (!on_terminal_ || now < next_)
        return;
    next_ = now + pause;
    std::string left;
    if (done != 0)
        left = ", " +
               in_words(std::chrono::duration_cast<std::chrono::seconds>((now - start_) * (all - done) /
                                                                         done)) +
               " left";
    fprintf(stderr, "\r\33[Kk42mc: %zu of %zu%s%s", done, all, left.c_str(), remark.c_str());
    begun_ = true;
}
