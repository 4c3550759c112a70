// The command takes for a filter what the checker does.
#include "tools/run/filter_line.h"

#include <gtest/gtest.h>
#include <k42mc/k42mc.h>
#include <random>

namespace {

bool checker_takes(std::string line) {
    return MCBTFilterIn(line.data()) == 0;
}

std::string random_line(std::mt19937 &random) {
    constexpr const char *pieces[] = {
        ":", ":", ":", "a.c:", "STD:", "LK:STD:", "VAR", "0x1:", "12", "XYZ:"};
    std::string line;
    for (unsigned i = random() % 12; i > 0; --i)
        line += pieces[random() % std::size(pieces)];
    return line;
}

TEST(FilterLine, IsWhatTheCheckerTakes) {
    testing::internal::CaptureStderr();
    MCInit(K42MC_BE32(MC_TO_STDERR), K42MC_BE32(MC_TYPE_LKBF | MC_TYPE_BT_OFF));
    std::mt19937 random(7);
    int taken = 0;
    for (int round = 0; round < 3000; ++round) {
        const std::string line = random_line(random);
        const bool takes = checker_takes(line);
        EXPECT_EQ(is_filter_line(line), takes) << line;
        taken += takes;
    }
    EXPECT_GT(taken, 30);
    EXPECT_FALSE(is_filter_line("a.c:1:LK:STD:0x1:2:1\nb.c:1:LK:STD:0x1:2:1")) << "two";
    MCDeinit();
    testing::internal::GetCapturedStderr();
}

} // namespace
