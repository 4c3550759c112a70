// Source lines are shown, and nothing else that a report may name.
#include "tools/report/excerpts.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

namespace fs = std::filesystem;

class ExcerptsOf : public testing::Test {
protected:
    ExcerptsOf() { fs::create_directories(folder_); }
    ~ExcerptsOf() override { fs::remove_all(folder_); }

    std::string write(const std::string &name, const std::string &text) {
        std::ofstream(folder_ / name) << text;
        return folder_ / name;
    }

    bool is_shown(const std::string &file) { return !excerpts_.around(file, 1).lines.empty(); }

    const fs::path folder_ = fs::temp_directory_path() / ("excerpts." + std::to_string(getpid()));
    Excerpts excerpts_;
};

TEST_F(ExcerptsOf, AreTheLinesAround) {
    const std::string file = write("a.c", "1\n2\r\n" + std::string(300, '3') + "\n4\n5\n6\n7\n8\n9");
    const auto all = [&](int line) {
        const Excerpt excerpt = excerpts_.around(file, line);
        std::string text = std::to_string(excerpt.first) + ":";
        for (const std::string &each : excerpt.lines)
            text += " " + each;
        return text;
    };
    EXPECT_EQ(all(1), "1: 1 2 " + std::string(200, '3') + " 4");
    EXPECT_EQ(all(5), "2: 2 " + std::string(200, '3') + " 4 5 6 7 8");
    EXPECT_EQ(all(9), "6: 6 7 8 9");
    for (const int line : {0, -1, 10, INT_MAX, INT_MIN})
        EXPECT_EQ(all(line), "0:") << line;
}

TEST_F(ExcerptsOf, AreOfRegularSourcesAlone) {
    EXPECT_TRUE(is_shown(write("a.cpp", "text")));
    EXPECT_FALSE(is_shown(write("secret", "text")));
    EXPECT_FALSE(is_shown(write("a.key", "text")));
    EXPECT_FALSE(is_shown(write("binary.c", std::string("te\0xt", 5))));
    EXPECT_FALSE(is_shown(write("large.c", std::string((4 << 20) + 1, '\n'))));
    EXPECT_TRUE(is_shown(write("not_so_large.c", std::string(4 << 20, '\n'))));
    EXPECT_FALSE(is_shown(folder_ / "none.c"));
    fs::create_symlink(folder_ / "secret", folder_ / "link.c");
    EXPECT_FALSE(is_shown(folder_ / "link.c"));
    fs::create_symlink(folder_ / "a.cpp", folder_ / "good.c");
    EXPECT_TRUE(is_shown(folder_ / "good.c"));
    ASSERT_EQ(mkfifo((folder_ / "pipe.c").c_str(), 0600), 0);
    EXPECT_FALSE(is_shown(folder_ / "pipe.c"));
    fs::create_directory(folder_ / "folder.c");
    EXPECT_FALSE(is_shown(folder_ / "folder.c"));
    EXPECT_FALSE(is_shown(std::string("/a\0b.c", 6)));
}

} // namespace
