#include "checker.h"
#include "failing_malloc.h"

#include <fcntl.h>
#include <filesystem>
#include <regex>
#include <sys/mman.h>
#include <unistd.h>

namespace {

class JsonReport : public testing::Test {
protected:
    void SetUp() override { checker_on(MC_TYPE_BT_OFF); }
    void TearDown() override { checker_off(); }
};

// Process and moment made the same.
std::string json(unsigned limit) {
    const std::string text =
        captured_stdout([&] { EXPECT_EQ(k42mcx_report_json(STDOUT_FILENO, limit), 0); });
    return std::regex_replace(text, std::regex("\"pid\":[0-9]+,\"time\":[0-9]+"),
                              "\"pid\":1,\"time\":2");
}

std::string cycle(unsigned number, unsigned limit, unsigned blocks, unsigned bytes,
                  unsigned freed_blocks, unsigned freed_bytes) {
    char text[500];
    snprintf(text, sizeof text,
             "{\"kind\":\"cycle\",\"program\":\"json_report_test\",\"pid\":1,\"time\":2,\"width\":%zu,"
             "\"cycle\":%u,\"limit\":%u,\"blocks\":%u,\"bytes\":%u,\"allocated\":{\"blocks\":%u,"
             "\"bytes\":%u},\"freed\":{\"blocks\":%u,\"bytes\":%u}}\n",
             8 * sizeof(void *), number, limit, blocks, bytes, blocks + freed_blocks,
             bytes + freed_bytes, freed_blocks, freed_bytes);
    return text;
}

std::string end(unsigned sites, unsigned damaged) {
    return "{\"kind\":\"end\",\"sites\":" + std::to_string(sites) +
           ",\"damaged\":" + std::to_string(damaged) + "}\n";
}

TEST_F(JsonReport, ListsSitesByBytesAndDamage) {
    EXPECT_EQ(json(0), cycle(0, 0, 0, 0, 0, 0) + end(0, 0));
    void *const old = k42MC_malloc("a.c", 7, 100);
    report(0);
    // The same text at another address is the same file.
    const char again[] = "a.c";
    void *const young = k42MC_malloc(again, 7, 30), *const other = k42MC_calloc("b.c", 8, 1, 200),
                *const typed = k42mcx_alloc("a.c", 7, MC_VAR, 1, 5);
    k42MC_free("a.c", 9, k42MC_malloc("gone.c", 1, 1000));
    const std::string b = "{\"kind\":\"site\",\"cycle\":1,\"file\":\"b.c\",\"line\":8,\"type\":\"STD\","
                          "\"chain\":[],\"blocks\":1,\"bytes\":200,\"oldest\":0,\"largest\":200}\n",
                      a = "{\"kind\":\"site\",\"cycle\":1,\"file\":\"a.c\",\"line\":7,\"type\":\"STD\","
                          "\"chain\":[],\"blocks\":2,\"bytes\":130,\"oldest\":1,\"largest\":100}\n",
                      var =
                          "{\"kind\":\"site\",\"cycle\":1,\"file\":\"a.c\",\"line\":7,\"type\":\"VAR\","
                          "\"chain\":[],\"blocks\":1,\"bytes\":5,\"oldest\":0,\"largest\":5}\n";
    for (int time = 0; time < 2; ++time) // nothing gets older
        EXPECT_EQ(json(0), cycle(1, 0, 4, 335, 1, 1000) + b + a + var + end(3, 0));

    char *volatile past = static_cast<char *>(old);
    past = past + 100;
    ++*past;
    EXPECT_EQ(json(1),
              cycle(1, 1, 4, 335, 1, 1000) +
                  std::regex_replace(a, std::regex("\"blocks\":2,\"bytes\":130"),
                                     "\"blocks\":1,\"bytes\":100") +
                  "{\"kind\":\"damage\",\"cycle\":1,\"defect\":\"WO\",\"file\":\"a.c\",\"line\":7,"
                  "\"type\":\"STD\",\"address\":\"" +
                  address(old) + "\",\"size\":100,\"cycles\":1,\"chain\":[]}\n" + end(1, 1));
    --*past;
    for (void *block : {old, young, other})
        k42MC_free("a.c", 9, block);
    k42mcx_free("a.c", 9, MC_VAR, typed);
}

TEST_F(JsonReport, EscapesNames) {
    const std::pair<const char *, const char *> names[] = {
        {"a\"b\\c\n\x7f", "a\\\"b\\\\c\\u000a\\u007f"},
        {"\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80", "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80"},
        {"\xc3(\xc0\x80\xed\xa0\x80\xf5\xe2\x82",
         "\\ufffd(\\ufffd\\ufffd\\ufffd\\ufffd\\ufffd\\ufffd\\ufffd\\ufffd"},
    };
    for (const auto &[name, escaped] : names) {
        void *const block = k42MC_malloc(name, -5, 1);
        EXPECT_NE(json(0).find(std::string("\"file\":\"") + escaped + "\",\"line\":-5,"),
                  std::string::npos)
            << json(0);
        k42MC_free("a.c", 1, block);
    }
}

TEST_F(JsonReport, NamesModulesAndOffsets) {
    init(MC_TO_STDERR, MC_TYPE_LKBF);
    void *const block = k42MC_malloc("a.c", 1, 1);
    const std::string own = std::filesystem::read_symlink("/proc/self/exe"), text = json(0);
    std::smatch match;
    ASSERT_TRUE(std::regex_search(text, match, std::regex("\"chain\":\\[\"(.*?)\\+0x([0-9a-f]+)\",")))
        << text;
    EXPECT_EQ(match[1], own);
    EXPECT_LT(std::stoul(match[2], nullptr, 16), std::filesystem::file_size(own));
    k42MC_free("a.c", 1, block);
}

TEST_F(JsonReport, SaysWhatWentWrong) {
    errno = 0;
    EXPECT_EQ(k42mcx_report_json(-1, 0), -1);
    EXPECT_EQ(errno, EBADF);
    const int full = open("/dev/full", O_WRONLY);
    EXPECT_EQ(k42mcx_report_json(full, 0), -1);
    EXPECT_EQ(errno, ENOSPC);
    close(full);
    checker_off();
    EXPECT_EQ(captured_stderr([] { EXPECT_EQ(k42mcx_report_json(STDOUT_FILENO, 0), -1); }),
              "k42mcx_report_json: ERROR: MC not currently initialized\n");
    EXPECT_EQ(errno, EINVAL);
    checker_on();
}

TEST_F(JsonReport, WritesNothingWhenMemoryRunsOut) {
    NEEDS_OWN_MALLOC();
    void *const block = k42MC_malloc("a.c", 1, 10);
    char *volatile past = static_cast<char *>(block);
    past = past + 10;
    ++*past;
    const int file = memfd_create("report", 0);
    const int releases = MallocCalls::releases;
    int result = -1, nth = 0;
    for (int before = MallocCalls::allocations; result != 0; before = MallocCalls::allocations) {
        failing_malloc(++nth, false, [&] { result = k42mcx_report_json(file, 0); });
        if (result != 0) {
            EXPECT_EQ(errno, ENOMEM);
            EXPECT_EQ(lseek(file, 0, SEEK_CUR), 0);
        }
        EXPECT_GT(MallocCalls::allocations, before);
    }
    EXPECT_GE(nth, 8);
    EXPECT_GT(MallocCalls::releases, releases);
    close(file);
    --*past;
    k42MC_free("a.c", 2, block);
}

} // namespace
