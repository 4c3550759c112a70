// The routed functions against libc's own.
#include "checker.h"
#include "failing_malloc.h"
#include "random.h"

#include <bit>
#include <cerrno>
#include <cwchar>
#include <malloc.h>
#include <string_view>
#include <thread>
#include <vector>

namespace {

constexpr char file[] = "routes.c";

void expect_block(void *block, size_t size) {
    EXPECT_EQ(k42mcx_malloc_usable_size(block), size);
    k42MC_free(file, 0, block);
}

// Whether a call gives nothing but this error.
template <class Call> void expect_error(int error, Call call) {
    errno = 0;
    EXPECT_EQ(call(), nullptr);
    EXPECT_EQ(errno, error);
}

// The lines that a function reads from a stream, with their NULs, and the lengths that it returns.
template <class Read> auto read_lines(std::string data, Read read, void (*release)(void *)) {
    FILE *stream = fmemopen(data.data(), data.size(), "r");
    char *buffer = nullptr;
    size_t capacity = 0;
    std::vector<std::pair<ssize_t, std::string>> lines;
    do {
        const ssize_t length = read(&buffer, &capacity, stream);
        lines.emplace_back(length, std::string(buffer, size_t(length + 1)));
    } while (lines.back().first >= 0);
    fclose(stream);
    release(buffer);
    return lines;
}

TEST(LibcRoutes, ReadDelimitedTextAsLibcDoes) {
    Random random;
    for (unsigned round = 0; round < 200; round++) {
        std::string data(1 + random() % 2000, '\0');
        for (char &c : data)
            c = char(random() % (round % 2 != 0 ? 256 : 3));
        for (const int delimiter : {0, 2, 255, -1}) {
            const auto routed = [=](char **line, size_t *n, FILE *stream) {
                return k42mcx_getdelim(file, 1, line, n, delimiter, stream);
            };
            const auto libc = [=](char **line, size_t *n, FILE *stream) {
                return getdelim(line, n, delimiter, stream);
            };
            ASSERT_EQ(read_lines(data, routed, k42mcx_plain_free), read_lines(data, libc, free));
        }
    }
    errno = 0;
    EXPECT_EQ(k42mcx_plain_getline(nullptr, nullptr, stdin), -1);
    EXPECT_EQ(errno, EINVAL);
}

#ifndef __SANITIZE_THREAD__ // which does not know the locks of streams
// Nobody else gets at a stream in the middle of a line, whose pieces are read one after the other.
TEST(LibcRoutes, ReadWholeLinesBesideOtherThreads) {
    struct Shared {
        FILE *stream;
        std::string_view rest = "the first line of text\nthe second\n";
        int reads = 0, locked = 0;
    } shared;
    const auto read = [](void *cookie, char *to, size_t size) -> ssize_t {
        Shared &source = *static_cast<Shared *>(cookie);
        ++source.reads;
        std::thread([&source] {
            if (ftrylockfile(source.stream) != 0)
                ++source.locked;
            else
                funlockfile(source.stream);
        }).join();
        size = source.rest.copy(to, std::min<size_t>(size, 4));
        source.rest.remove_prefix(size);
        return ssize_t(size);
    };
    shared.stream = fopencookie(&shared, "r", {read, nullptr, nullptr, nullptr});
    char *line = nullptr;
    size_t capacity = 0;
    EXPECT_EQ(k42mcx_getline(file, 1, &line, &capacity, shared.stream), 23);
    EXPECT_STREQ(line, "the first line of text\n");
    EXPECT_EQ(shared.reads, 6);
    EXPECT_EQ(shared.locked, 6);
    k42MC_free(file, 2, line);
    fclose(shared.stream);
}
#endif

// The model is a string: libc forgets what lies behind the position once it has been moved back.
TEST(LibcRoutes, WriteToMemoryAsToAString) {
    Random random;
    for (int round = 0; round < 100; round++) {
        char *text;
        size_t size;
        FILE *stream = k42mcx_open_memstream(file, 1, &text, &size);
        EXPECT_STREQ(text, "");
        EXPECT_EQ(size, 0u);
        std::string model;
        size_t position = 0;
        for (int step = 0; step < 50; step++) {
            if (const int whence = int(random() % 6); whence > SEEK_END) {
                const std::string more(random() % 300, char('a' + step % 26));
                ASSERT_GE(fprintf(stream, "%s%d", more.c_str(), 7), 0);
                // What a seek left out reads as zeros.
                model.resize(std::max(model.size(), position));
                model.replace(position, more.size() + 1, more + "7");
                position += more.size() + 1;
            } else {
                const size_t to = random() % (model.size() + 9);
                const size_t base = whence == SEEK_SET   ? 0
                                    : whence == SEEK_CUR ? position
                                                         : model.size();
                ASSERT_EQ(fseek(stream, long(to) - long(base), whence), 0);
                position = to;
            }
            ASSERT_EQ(fseek(stream, -1, SEEK_SET), -1);
            ASSERT_EQ(fflush(stream), 0);
            ASSERT_EQ(size, std::min(position, model.size()));
            ASSERT_EQ(ftell(stream), long(position));
            ASSERT_EQ(std::string(text, model.size() + 1), model + '\0');
        }
        fclose(stream);
        expect_block(text, model.size() + 1);
    }
}

TEST(LibcRoutes, KeepWhatWasWrittenWhenMemoryRunsOut) {
    NEEDS_OWN_MALLOC();
    char *text;
    size_t size;
    FILE *stream = k42mcx_open_memstream(file, 1, &text, &size);
    fputs("kept", stream);
    failing_malloc(1, false, [&] { EXPECT_EQ(fputs("longer than before", stream), EOF); });
    EXPECT_STREQ(text, "kept");
    EXPECT_GE(fputs(", continued", stream), 0);
    fclose(stream);
    EXPECT_STREQ(text, "kept, continued");
    expect_block(text, size + 1);
    for (int nth = 1; nth <= 2; ++nth)
        failing_malloc(nth, false, [&] {
            EXPECT_EQ(k42mcx_open_memstream(file, 1, &text, &size), nullptr);
            EXPECT_EQ(errno, ENOMEM);
        });
}

TEST(LibcRoutes, FormatAnyLength) {
    for (const int width : {1, 127, 4096, 100000}) {
        char *text;
        errno = ENOENT;
        ASSERT_EQ(k42mcx_asprintf(file, 1, &text, "%*d|%m", width, 7), width + 1 + 25);
        EXPECT_STREQ(text + width, "|No such file or directory");
        expect_block(text, size_t(width) + 27);
    }
    char *text = nullptr;
    const wchar_t unprintable[] = {wchar_t(0x7ffffff0), 0};
    EXPECT_EQ(k42mcx_plain_asprintf(&text, "%ls", unprintable), -1);
    EXPECT_EQ(text, nullptr);
}

TEST(LibcRoutes, RoundAndRefuseAlignments) {
    for (const size_t alignment : {0u, 1u, 2u, 3u, 24u, 64u, 4097u}) {
        void *block = k42mcx_memalign(file, 1, alignment, 13);
        EXPECT_EQ(number(block) % std::bit_ceil(alignment), 0u);
        expect_block(block, 13);
    }
    expect_block(k42mcx_aligned_alloc(file, 1, 1, 13), 13);
    for (const size_t alignment : {size_t{0}, size_t{24}, 2 * size_t{K42MC_ALIGN_MAX}})
        expect_error(EINVAL, [=] { return k42mcx_aligned_alloc(file, 1, alignment, 13); });
    expect_error(EINVAL, [] { return k42mcx_memalign(file, 1, SIZE_MAX, 13); });
}

TEST(LibcRoutes, ResizeAndMeasureAsLibcDoes) {
    expect_block(k42mcx_plain_realloc(nullptr, 0), 0);
    void *block = k42mcx_plain_malloc(3);
    expect_error(ENOMEM, [=] { return k42mcx_plain_reallocarray(block, SIZE_MAX / 2, 3); });
    expect_block(block, 3);
    EXPECT_EQ(k42mcx_malloc_usable_size(nullptr), 0u);
    for (const size_t size : {size_t{100}, size_t{1} << 20}) { // the large one at the start of its pages
        void *foreign = malloc(size);
        EXPECT_EQ(k42mcx_malloc_usable_size(foreign), malloc_usable_size(foreign));
        k42mcx_raw_free(foreign);
    }
    expect_error(ERANGE, [] { return k42mcx_plain_getcwd(nullptr, 1); });
    expect_error(ENOENT, [] { return k42mcx_plain_realpath("/no/such/file", nullptr); });
    char buffer[4096];
    EXPECT_EQ(k42mcx_plain_getcwd(buffer, sizeof buffer), buffer);
}

TEST(LibcRoutes, RecordTheSite) {
    checker_on();
    char *blocks[] = {k42mcx_strdup(file, 77, "x"), k42mcx_plain_strdup("x")};
    const std::string text = report(0);
    EXPECT_CONTAINS(text, "routes.c:77:LK:STD:");
    EXPECT_CONTAINS(text, "(indirect call):0:LK:STD:");
    for (char *block : blocks)
        k42MC_free(file, 1, block);
    checker_off();
}

} // namespace
