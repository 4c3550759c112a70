/*
 * A listener for GoogleTest: a test fails that leaves blocks or descriptors behind, or damages a guard, and the message has
 * sizes, sites and stack traces. C++14 or later, as GoogleTest asks. In a main of one's own:
 *
 *     testing::InitGoogleTest(&argc, argv);
 *     k42mc::watch_tests();
 *     return RUN_ALL_TESTS();
 *
 * With gtest_main, a line K42MC_WATCH_TESTS; in one source file, outside of functions, does it.
 *
 * Blocks are recorded in a program that is linked to the library and routes its calls to it (redirect.h, new.hpp): there the
 * listener switches the checker on unless somebody else has. And in any program under `k42mc run`, which needs this header
 * alone. Where nothing records blocks, a line says so, and descriptors alone are looked at.
 *
 * Glossary
 *   left     Of blocks: allocated between a test's start and its end, by whatever thread, and there at its end. Of
 *            descriptors: not open at its start, and open at its end. The constructor, SetUp, TearDown and the destructor
 *            of its fixture are part of a test.
 *   suite    SetUpTestSuite and TearDownTestSuite. What both together leave makes the suite fail, and no test. Nothing is
 *            told of twice.
 *   warm-up  What is made at its first use and kept is left by the first test that uses it. Use it once ahead of the tests:
 *            in main, or in the SetUp of a testing::Environment.
 *
 * What does not count: what GoogleTest keeps of a test, buffers of streams, what the loader and exit handlers keep, blocks
 * that came under k42mcx_unlisted, and those of k42mcx_keep. GoogleTest's blocks are told by its functions in their stack
 * traces: blocks without a trace, and all in a stripped program, count only if they have a source line.
 */
#ifndef K42MC_GTEST_HPP
#define K42MC_GTEST_HPP

#include <k42mc/extra.h>
#include <k42mc/fdcheck.h>
#include <k42mc/memcheck.h>

#include <k42mc/byteorder.h>

#include <gtest/gtest.h>

#include <cxxabi.h>
#include <dirent.h>
#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace k42mc {

// Appends the listener to those of GoogleTest, whose last it should be. Called again, it does nothing.
void watch_tests();

#define K42MC_WATCH_TESTS                                                                               \
    [[gnu::unused]] static const bool k42mc_watches_tests = (::k42mc::watch_tests(), true)

/* ---- What may be left ----
 *
 * Called in a test or its fixture, these hold to the end of the test; in SetUpTestSuite, for the suite and for each of its
 * tests; ahead of that, for all suites and tests. Call them in the thread that runs the tests.
 */

// So many blocks, of so many bytes in all. A later call replaces an earlier one.
void allow_blocks(std::size_t count, std::size_t bytes = SIZE_MAX);

// So many descriptors. A later call replaces an earlier one.
void allow_descriptors(std::size_t count);

// Whatever the pattern matches: a function or module of its stack trace, its source file, or what a descriptor is open on.
// "*" stands for any text, "^" and "$" at the ends for the ends of the name, as in a file of suppressions.
void allow_pattern(const char *pattern);

namespace gtest_detail {

/* ---- The library, if the process has it ---- */

// Not by names that the linker resolves: under `k42mc run` a program need not be linked to the library.
template <class Symbol> Symbol in_process(const char *name) {
    return reinterpret_cast<Symbol>(::dlsym(RTLD_DEFAULT, name));
}

struct Library {
#define K42MC_IN_PROCESS(name) decltype(&::name) const name = in_process<decltype(&::name)>(#name)
    K42MC_IN_PROCESS(MCInit);
    K42MC_IN_PROCESS(MCDeinit);
    K42MC_IN_PROCESS(gK42MCOn);
    K42MC_IN_PROCESS(k42mcx_mark);
    K42MC_IN_PROCESS(k42mcx_blocks);
    K42MC_IN_PROCESS(k42mcx_damaged);
    K42MC_IN_PROCESS(k42mcx_symbol);
    K42MC_IN_PROCESS(k42mcx_unlisted);
    K42MC_IN_PROCESS(k42mcx_fd_opener);
#undef K42MC_IN_PROCESS
    // libc's or the shim's, whatever redirect.h makes of the word.
    void (*const release)(void *) = in_process<void (*)(void *)>("free");

    // With the newest of these functions, all are.
    bool is_there() const {
        return k42mcx_fd_opener != nullptr;
    }
    bool records() const {
        return is_there() && *gK42MCOn != 0;
    }
};

inline const Library &library() {
    static const Library found;
    return found;
}

// While there is one, what this thread allocates is no test's.
class OwnWork {
public:
    OwnWork() { tell(1); }
    ~OwnWork() { tell(0); }
    OwnWork(const OwnWork &) = delete;
    OwnWork &operator=(const OwnWork &) = delete;

private:
    static void tell(int on) {
        if (library().is_there())
            library().k42mcx_unlisted(on);
    }
};

inline std::uint64_t mark() {
    return library().records() ? library().k42mcx_mark() : 0;
}

// What a function copies into the room that it is given, mostly in one call.
template <class Copy> std::vector<k42mcx_block> all_of(Copy copy) {
    std::vector<k42mcx_block> blocks(16);
    std::size_t count = library().records() ? copy(blocks.data(), blocks.size()) : 0;
    if (count > blocks.size()) {
        blocks.resize(count);
        count = (std::min)(count, copy(blocks.data(), blocks.size()));
    }
    blocks.resize(count);
    return blocks;
}

inline std::vector<k42mcx_block> blocks_between(std::uint64_t from, std::uint64_t to) {
    return all_of([=](k42mcx_block *blocks, std::size_t room) {
        return library().k42mcx_blocks(from, to, blocks, room);
    });
}

inline std::vector<k42mcx_block> damaged_blocks() {
    return all_of(
        [](k42mcx_block *blocks, std::size_t room) { return library().k42mcx_damaged(blocks, room); });
}

/* ---- Names ---- */

inline bool begins(const std::string &text, const char *beginning) {
    return text.compare(0, std::strlen(beginning), beginning) == 0;
}

inline bool contains(const std::string &text, const char *part) {
    return text.find(part) != std::string::npos;
}

inline bool matches_here(const char *pattern, const char *text) {
    if (*pattern == '\0' || (std::strcmp(pattern, "$") == 0 && *text == '\0'))
        return true;
    if (*pattern == '*')
        return matches_here(pattern + 1, text) || (*text != '\0' && matches_here(pattern, text + 1));
    return *text != '\0' && *pattern == *text && matches_here(pattern + 1, text + 1);
}

inline bool matches(const std::string &pattern, const std::string &text) {
    return pattern[0] == '^' ? matches_here(&pattern[1], text.c_str())
                             : matches_here(("*" + pattern).c_str(), text.c_str());
}

inline std::string demangled(const std::string &name) {
    if (!begins(name, "_Z"))
        return name;
    char *const text = abi::__cxa_demangle(name.c_str(), nullptr, nullptr, nullptr);
    const std::string result = text != nullptr ? text : name;
    library().release(text);
    return result;
}

// A frame of a stack trace, from its line "module(function+0xoffset) [0xaddress]". Function and module may be unknown.
struct Frame {
    explicit Frame(const void *address) {
        char room[8192] = "";
        library().k42mcx_symbol(address, room, sizeof room);
        const std::string line = room;
        const std::size_t open = line.rfind('('), plus = line.rfind('+'), close = line.rfind(')');
        if (close == std::string::npos)
            return;
        module = line.substr(0, open);
        symbol = line.substr(open + 1, plus - open - 1);
        offset = line.substr(plus, close - plus);
        function = demangled(symbol);
    }

    std::string text() const {
        return function + offset + " in " + module.substr(module.rfind('/') + 1);
    }

    std::string module, symbol, offset, function;
};

using Trace = std::vector<Frame>;

// Looks frames that come up again up once.
class Frames {
public:
    Trace trace_of(void *const *frames, std::size_t count) {
        Trace trace;
        for (std::size_t i = 0; i < count; ++i) {
            if (known_.count(frames[i]) == 0)
                known_.emplace(frames[i], Frame(frames[i]));
            trace.push_back(known_.at(frames[i]));
        }
        return trace;
    }

private:
    std::map<const void *, Frame> known_;
};

/* ---- Whose a block is ---- */

// Functions through which others allocate: of the C and C++ libraries, and operators. A std::function may have what it calls
// in it.
inline bool is_passage(const Frame &frame) {
    if (contains(frame.symbol, "_Function_handler") && contains(frame.symbol, "9_M_invoke") &&
        !contains(frame.symbol, "8internal"))
        return false;
    for (const char *name :
         {"_ZSt", "_ZNSt", "_ZNKSt", "_ZNSa", "_ZN9__gnu_cxx", "_Zn", "_ZN9k42mc_new"})
        if (begins(frame.symbol, name))
            return true;
    for (const char *name : {"/libc.so.", "/libstdc++.so.", "/libc++", "/ld-linux"})
        if (contains(frame.module, name))
            return true;
    return false;
}

// The function that asked for a block, past what it asked through; the end where none is known.
inline Trace::const_iterator owner(const Trace &trace) {
    return std::find_if_not(trace.begin(), trace.end(), is_passage);
}

// GoogleTest's, and not those of tests that lie in its namespace.
inline bool is_googletests(const Frame &frame) {
    if (contains(frame.module, "/libgtest") || contains(frame.module, "/libgmock"))
        return true;
    const std::size_t space = frame.symbol.find_first_not_of("KRO", 3); // behind "_ZN" and qualifiers
    if (!begins(frame.symbol, "_ZN") || frame.symbol.compare(space, 8, "7testing") != 0)
        return false;
    const std::string name = frame.symbol.substr(space + 8);
    for (const char *own :
         {"8internal", "4Mock", "4Test3Run", "7Message", "8TestInfo", "8UnitTest", "9TestSuite",
          "10TestResult", "11ScopedTrace", "12TestProperty", "14TestPartResult"})
        if (begins(name, own))
            return true;
    return contains(name, "UninterestingCall"); // how mocks take them
}

// Whether a block is kept for the process, whatever test was the first to need it: the buffer of a stream, what the loader
// or a thread has, room for exit handlers, which libc gets for 32 at a time by functions without names.
inline bool is_for_good(const k42mcx_block &block, const Trace &trace) {
    const auto asking = owner(trace);
    return std::any_of(trace.begin(), asking, [&](const Frame &frame) {
        return frame.symbol == "_IO_file_doallocate" || frame.symbol == "__cxa_thread_atexit_impl" ||
               contains(frame.module, "/ld-linux") ||
               (block.size == 130 * sizeof(void *) && contains(frame.module, "/libc.so.") &&
                (frame.symbol.empty() || frame.symbol == "__new_exitfn"));
    });
}

// Whether GoogleTest keeps a block for itself, or a listener. A test's factory may have its constructor in it.
inline bool is_kept_by_googletest(const Trace &trace) {
    const auto asking = owner(trace);
    return (asking != trace.end() && is_googletests(*asking) &&
            !contains(asking->symbol, "TestFactory")) ||
           std::any_of(trace.begin(), trace.end(),
                       [](const Frame &frame) { return contains(frame.symbol, "TestEventRepeater"); });
}

/* ---- What is told ---- */

struct Allowances {
    bool cover(const std::string &name) const {
        return std::any_of(patterns.begin(), patterns.end(), [&](const std::string &pattern) {
            return !pattern.empty() && matches(pattern, name);
        });
    }
    bool cover(const Trace &trace) const {
        return std::any_of(trace.begin(), trace.end(), [&](const Frame &frame) {
            return cover(frame.function) || cover(frame.symbol) || cover(frame.module);
        });
    }

    std::size_t blocks = 0, bytes = SIZE_MAX, descriptors = 0;
    std::vector<std::string> patterns;
};

// Those of all tests, of the suite that runs and of the test that runs, as far as there are such. Each begins with those of
// the one ahead.
inline std::vector<Allowances> &allowances() {
    static std::vector<Allowances> levels(1);
    return levels;
}

inline std::string counted(std::size_t count, const char *what) {
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

// The frames of the program, as far as GoogleTest's, which run every test.
inline std::string text_of(const Trace &trace) {
    std::string text;
    for (auto frame = owner(trace); frame != trace.end() && (text.empty() || !is_googletests(*frame));
         ++frame)
        if (!is_passage(*frame))
            text += "    " + frame->text() + "\n";
    return text;
}

inline std::string place_of(const k42mcx_block &block) {
    return block.file + (":" + std::to_string(block.line));
}

// Blocks of one site and size.
struct Site {
    Site(const k42mcx_block &sample, Frames &frames)
        : block(sample), trace(frames.trace_of(sample.frames, sample.frame_count)) {}

    bool has(const k42mcx_block &other) const {
        return block.file == other.file && block.line == other.line && block.size == other.size &&
               std::equal(block.frames, block.frames + block.frame_count, other.frames,
                          other.frames + other.frame_count);
    }

    // "2 blocks, 40 bytes from pool.c:31", or from a function where nobody passed a source line.
    std::string text() const {
        const auto asking = owner(trace);
        const std::string place = block.line != 0                                      ? place_of(block)
                                  : asking != trace.end() && !asking->function.empty() ? asking->function
                                                                                       : block.file;
        return "  " + counted(count, "block") + ", " + counted(bytes, "byte") + " from " + place + "\n" +
               text_of(trace);
    }

    k42mcx_block block;
    Trace trace;
    std::size_t count = 0, bytes = 0;
};

inline std::vector<Site> sites_of(const std::vector<k42mcx_block> &blocks) {
    std::vector<Site> sites;
    Frames frames;
    for (const k42mcx_block &block : blocks) {
        auto site = std::find_if(sites.begin(), sites.end(),
                                 [&](const Site &known) { return known.has(block); });
        if (site == sites.end())
            site = sites.emplace(site, block, frames);
        ++site->count;
        site->bytes += block.size;
    }
    return sites;
}

// Whether it can be told if a block is GoogleTest's: by its trace, or by its source line, which those have not.
inline bool is_known(const k42mcx_block &block, bool has_names) {
    return block.line != 0 || (block.frame_count != 0 && has_names);
}

// What is said of blocks that are left; nothing where that is allowed.
inline std::string text_of_left(std::vector<k42mcx_block> blocks, bool has_names,
                                const Allowances &allowed) {
    blocks.erase(std::remove_if(blocks.begin(), blocks.end(),
                                [=](const k42mcx_block &block) {
                                    return block.is_kept != 0 || !is_known(block, has_names);
                                }),
                 blocks.end());
    constexpr std::size_t most_listed = 20;
    std::size_t count = 0, bytes = 0, sites = 0;
    std::string text;
    for (const Site &site : sites_of(blocks)) {
        if (is_for_good(site.block, site.trace) || is_kept_by_googletest(site.trace) ||
            allowed.cover(site.trace) || allowed.cover(site.block.file))
            continue;
        count += site.count;
        bytes += site.bytes;
        if (++sites <= most_listed)
            text += site.text();
    }
    if (count == 0 || (count <= allowed.blocks && bytes <= allowed.bytes))
        return {};
    if (sites > most_listed)
        text += "  and from " + std::to_string(sites - most_listed) + " more\n";
    return "left behind: " + counted(count, "block") + ", " + counted(bytes, "byte") + "\n" + text;
}

inline std::string text_of_damaged(const k42mcx_block &block) {
    Frames frames;
    Site site(block, frames);
    site.count = 1;
    site.bytes = block.size;
    std::string how = std::strcmp(block.code, "WO") == 0 ? "past its end" : "ahead of its start";
    if (std::strcmp(block.code, "WF") == 0) { // and the site is that of the release
        how = "after its release";
        if (block.line != 0)
            how += " in " + place_of(block);
        site.block.line = 0;
    }
    return "written to " + how + ":\n" + site.text();
}

inline std::vector<int> open_descriptors() {
    std::vector<int> open;
    if (DIR *const folder = ::opendir("/proc/self/fd")) {
        while (const dirent *const entry = ::readdir(folder))
            if (entry->d_name[0] != '.' && std::atoi(entry->d_name) != ::dirfd(folder))
                open.push_back(std::atoi(entry->d_name));
        ::closedir(folder);
    }
    return open;
}

inline std::string target_of(int descriptor) {
    char target[4096];
    const auto length =
        ::readlink(("/proc/self/fd/" + std::to_string(descriptor)).c_str(), target, sizeof target);
    return {target, length > 0 ? static_cast<std::size_t>(length) : 0};
}

// Who opened it, where the descriptor checker knows that.
struct Opening {
    explicit Opening(int descriptor) {
        FDEvent event;
        if (!library().is_there() || library().k42mcx_fd_opener(descriptor, &event) == 0)
            return;
        by = std::string(" by ") + event.name;
        trace = Frames().trace_of(event.frames, event.frameCount);
    }

    std::string by;
    Trace trace;
};

inline std::string text_of_left(const std::vector<int> &descriptors, const Allowances &allowed) {
    std::size_t count = 0;
    std::string text;
    for (const int descriptor : descriptors) {
        const std::string target = target_of(descriptor);
        const Opening opening(descriptor);
        if (allowed.cover(target) || allowed.cover(opening.trace))
            continue;
        ++count;
        text += "  " + std::to_string(descriptor) + ", open on " + target + opening.by + "\n" +
                text_of(opening.trace);
    }
    if (count <= allowed.descriptors)
        return {};
    return "left open: " + counted(count, "descriptor") + "\n" + text;
}

/* ---- The listener ---- */

// Its events come last at a test's start and first at its end, as it is the last listener.
class Watch : public testing::EmptyTestEventListener {
    void OnTestProgramStart(const testing::UnitTest &) override {
        const OwnWork own;
        if (library().is_there() && *library().gK42MCOn == 0) {
            library().MCInit(K42MC_BE32(MC_TO_STDERR), 0);
            has_switched_on_ = true;
        }
        has_names_ = library().is_there() && is_googletests(Frame(__builtin_return_address(0)));
        if (!library().records())
            std::printf(
                "Note: nothing records blocks: link libk42mc_r, or start the program by k42mc run\n");
        else if (!has_names_)
            std::printf("Note: GoogleTest's functions have no names here: blocks count that have a "
                        "source line\n");
    }

    void OnTestProgramEnd(const testing::UnitTest &) override {
        if (has_switched_on_)
            library().MCDeinit(); // its report at exit would list what GoogleTest holds
    }

    void OnTestSuiteStart(const testing::TestSuite &) override {
        const OwnWork own;
        allowances().push_back(allowances().back());
        suite_damage_.clear();
        note_damage();
        suite_descriptors_ = open_descriptors();
        first_test_ = test_end_ = UINT64_MAX;
        suite_start_ = mark();
    }

    void OnTestStart(const testing::TestInfo &) override {
        const OwnWork own;
        if (first_test_ == UINT64_MAX) {
            first_test_ = mark();
            suite_damage_ += note_damage();
        }
        allowances().push_back(allowances().back());
        test_descriptors_ = open_descriptors();
        test_start_ = mark();
    }

    void OnTestEnd(const testing::TestInfo &test) override {
        const OwnWork own;
        test_end_ = mark();
        const std::vector<int> left = opened_since(test_descriptors_);
        suite_descriptors_.insert(suite_descriptors_.end(), left.begin(), left.end());
        const std::string text =
            text_of_left(blocks_between(test_start_, test_end_), has_names_, allowances().back()) +
            text_of_left(left, allowances().back()) + note_damage();
        allowances().pop_back();
        tell(text, test.file(), test.line());
    }

    void OnTestSuiteEnd(const testing::TestSuite &suite) override {
        const OwnWork own;
        std::vector<k42mcx_block> blocks = blocks_between(suite_start_, first_test_);
        const std::vector<k42mcx_block> later = blocks_between(test_end_, mark());
        blocks.insert(blocks.end(), later.begin(), later.end());
        const std::string text = text_of_left(blocks, has_names_, allowances().back()) +
                                 text_of_left(opened_since(suite_descriptors_), allowances().back()) +
                                 suite_damage_ + note_damage();
        allowances().pop_back();
        tell(text, suite.GetTestInfo(0)->file(), -1);
    }

    static std::vector<int> opened_since(const std::vector<int> &before) {
        std::vector<int> open = open_descriptors();
        open.erase(std::remove_if(open.begin(), open.end(),
                                  [&](int descriptor) {
                                      return std::find(before.begin(), before.end(), descriptor) !=
                                             before.end();
                                  }),
                   open.end());
        return open;
    }

    // What is damaged and was not when somebody last looked.
    std::string note_damage() {
        std::string text;
        std::vector<const void *> damaged;
        for (const k42mcx_block &block : damaged_blocks()) {
            damaged.push_back(block.address);
            if (std::find(damaged_.begin(), damaged_.end(), block.address) == damaged_.end())
                text += text_of_damaged(block);
        }
        damaged_ = std::move(damaged);
        return text;
    }

    static void tell(const std::string &lines, const char *file, int line) {
        if (!lines.empty())
            ADD_FAILURE_AT(file, line)
                << lines.substr(0, lines.size() - 1); // the last one ends by itself
    }

    bool has_switched_on_ = false, has_names_ = false;
    std::uint64_t suite_start_ = 0, first_test_ = 0, test_start_ = 0, test_end_ = 0;
    std::vector<int> suite_descriptors_, test_descriptors_; // open at the start, or told of since
    std::vector<const void *> damaged_;
    std::string suite_damage_;
};

} // namespace gtest_detail

inline void watch_tests() {
    static const bool once = [] {
        testing::UnitTest::GetInstance()->listeners().Append(new gtest_detail::Watch);
        return true;
    }();
    static_cast<void>(once);
}

inline void allow_blocks(std::size_t count, std::size_t bytes) {
    gtest_detail::allowances().back().blocks = count;
    gtest_detail::allowances().back().bytes = bytes;
}

inline void allow_descriptors(std::size_t count) {
    gtest_detail::allowances().back().descriptors = count;
}

inline void allow_pattern(const char *pattern) {
    const gtest_detail::OwnWork own;
    gtest_detail::allowances().back().patterns.push_back(pattern);
}

} // namespace k42mc

#endif
