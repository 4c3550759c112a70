// Tests with GoogleTest, and a listener that fails those that leave something behind. The second forgets to release what it
// has looked up.
#include <k42mc/gtest.hpp>

#include <fcntl.h>

namespace {

char *volatile newest;

char *look_up(const char *name) {
    return strdup(name);
}

// Made at its first use, and kept.
const std::vector<std::string> &known_names() {
    static const auto *const names = new std::vector<std::string>{"Ada", "Cleo"};
    return *names;
}

TEST(LookUp, Release) {
    free(look_up("Ada"));
}

TEST(LookUp, Length) {
    EXPECT_EQ(strlen(look_up("Cleo")), 4u);
}

TEST(LookUp, KnownNames) {
    EXPECT_EQ(known_names().size(), 2u);
}

TEST(LookUp, Cache) {
    k42mc::allow_blocks(1, 64);
    k42mc::allow_descriptors(1);
    k42mc::allow_pattern("^log_*");
    newest = look_up("Cleo");
    EXPECT_GE(open("/dev/null", O_WRONLY), 0);
}

} // namespace

int main(int argc, char **argv) {
    testing::InitGoogleTest(&argc, argv);
    k42mc::watch_tests();
    known_names();
    return RUN_ALL_TESTS();
}
