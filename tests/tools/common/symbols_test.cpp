// From addresses to functions and lines, in modules of all kinds.
#include "tools/common/symbols.h"
#include "tools/report/symbolize.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <regex>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

// Where a call in this program comes from, in both forms that places are written in.
[[gnu::noinline]] void *here() {
    return __builtin_return_address(0);
}

constexpr int line_of_call = __LINE__ + 3;

extern "C" [[gnu::noinline, gnu::visibility("default")]] void *known_function() {
    void *place = here();
    __asm__ volatile("" ::: "memory");
    return place;
}

TEST(Symbols, AddressesBecomeFunctionsAndLines) {
    auto *address = static_cast<char *>(known_function());
    Dl_info info;
    ASSERT_NE(dladdr(address, &info), 0);
    char offset[32], trace[4200];
    snprintf(offset, sizeof offset, "+0x%zx", size_t(address - static_cast<char *>(info.dli_fbase)));
    snprintf(trace, sizeof trace, "%s(known_function+0x%zx) [%p]", info.dli_fname,
             size_t(address - reinterpret_cast<char *>(&known_function)), static_cast<void *>(address));
    Symbolizer symbolizer;
    for (const std::string &place : {info.dli_fname + std::string(offset), std::string(trace)}) {
        const SourceFrame &frame = symbolizer.lookup(place).front();
        EXPECT_EQ(frame.function, "known_function") << place;
        EXPECT_TRUE(frame.file.ends_with("symbols_test.cpp")) << place;
        EXPECT_EQ(frame.line, line_of_call) << place;
        EXPECT_EQ(symbolizer.function(place), "known_function") << place;
    }
    std::istringstream in("plain [0x1]\n" + std::string(trace) + "\r\n/no/p(f+0x1) [0x2]\nlast");
    std::ostringstream out;
    symbolize(in, out, symbolizer);
    EXPECT_TRUE(std::regex_match(
        out.str(),
        std::regex(R"(plain \[0x1\]\n\S+symbols_test\(known_function\+0x\w+\) \[0x\w+\]\r  )"
                   R"(known_function at \S+symbols_test.cpp:\d+\n/no/p\(f\+0x1\) \[0x2\]\nlast)")))
        << out.str();
}

// One letter is the name of a type to the demangler.
extern "C" [[gnu::noinline, gnu::visibility("default")]] void *f() {
    void *pc = here();
    __asm__ volatile("" ::: "memory");
    return pc;
}

std::string pc_in(const std::string &module, const void *address) {
    Dl_info info;
    EXPECT_NE(dladdr(address, &info), 0);
    char offset[32];
    snprintf(offset, sizeof offset, "+0x%zx",
             size_t(static_cast<const char *>(address) - static_cast<char *>(info.dli_fbase)));
    return (module.empty() ? info.dli_fname : module) + offset;
}

[[gnu::always_inline]] inline void *inlined() {
    void *pc = here();
    __asm__ volatile("" ::: "memory");
    return pc;
}

// In debug information, the lambda is a function inside another.
void *call_of_inlined() {
    const auto around = [](auto call) __attribute__((noinline)) {
        void *pc = call();
        __asm__ volatile("" ::: "memory");
        return pc;
    };
    return around([]() __attribute__((always_inline)) { return inlined(); });
}

TEST(Symbols, WhatWasInlinedHasFramesOfItsOwn) {
    Symbolizer symbolizer;
    const std::vector<SourceFrame> frames = symbolizer.lookup(pc_in({}, call_of_inlined()));
    ASSERT_EQ(frames.size(), 3u);
    for (const SourceFrame &frame : frames)
        EXPECT_TRUE(frame.file.ends_with("symbols_test.cpp")) << frame.file;
    EXPECT_TRUE(frames[0].function.starts_with("inlined") && frames[0].inlined) << frames[0].function;
    EXPECT_TRUE(frames[1].function.starts_with("operator()") && frames[1].inlined) << frames[1].function;
    EXPECT_TRUE(frames[0].line < frames[2].line && frames[2].line < frames[1].line);
    // Compilers number lambdas each in its way.
    EXPECT_TRUE(frames[2].function.find("call_of_inlined()::") != std::string::npos)
        << frames[2].function;
    EXPECT_FALSE(frames[2].inlined);
}

__asm__(R"(
    .pushsection .text
    .type symbols_outer, @function
    .type symbols_inner, @function
    .globl symbols_outer
symbols_label_before:
    nop
symbols_outer:
    nop
    nop
symbols_inner:
    nop
    nop
symbols_label_inside:
    nop
    nop
    .size symbols_inner, 2
    .size symbols_outer, 6
symbols_local:
    nop
symbols_nested:
    nop
    nop
    .size symbols_local, 3
    .size symbols_nested, 1
symbols_label_behind:
    nop
    nop
    .popsection
)");
extern "C" const char symbols_outer[];

TEST(Symbols, TheInnermostSizedSymbolNamesAnAddress) {
    Symbolizer symbolizer;
    const auto name = [&](ptrdiff_t offset) { // as a return address, behind what is looked up
        return symbolizer.function(pc_in({}, symbols_outer + offset + 1)).substr(8);
    };
    EXPECT_EQ(name(-1), "label_before");
    for (const ptrdiff_t offset : {0, 2, 5}) // globals ahead of what is local
        EXPECT_EQ(name(offset), "outer");
    EXPECT_EQ(name(6), "local");
    EXPECT_EQ(name(7), "nested");
    EXPECT_EQ(name(8), "local");
    EXPECT_EQ(name(9), "label_behind");
    EXPECT_EQ(name(10), "label_behind");
}

TEST(Symbols, OnlyNamesOfCppAreDemangled) {
    Symbolizer symbolizer;
    EXPECT_EQ(symbolizer.lookup(pc_in({}, f())).front().function, "f");
    const auto lookup = reinterpret_cast<const char *>(&describe);
    EXPECT_TRUE(
        symbolizer.lookup(pc_in({}, lookup + 1)).back().function.starts_with("describe[abi:cxx11]("));
}

TEST(Symbols, LinesOfAnyLengthAreCopied) {
    const std::string spaces(100000, ' '), letters(1 << 20, 'x');
    for (const std::string &line :
         {letters, "/p(" + letters + "+0x1) [0x1]", "/p(f+0x1) [0x" + letters + "]",
          "/p" + spaces + "(+0x1) [0x1]", std::string(30000, '(') + "+0x1) [0x1]"}) {
        std::istringstream in(line + "\n");
        std::ostringstream out;
        Symbolizer symbolizer;
        symbolize(in, out, symbolizer);
        EXPECT_TRUE(out.str() == line + "\n") << line.substr(0, 20);
    }
    for (const auto &[line, is] : {std::pair{"/p(f+0x1) [0x2]", true},
                                   {"/p(+0x1) [0x2]", true},
                                   {"/a (b)/p(f+0x1) [0x2]", true},
                                   {" /p(f+0x1) [0x2]", false},
                                   {"/p(f g+0x1) [0x2]", false},
                                   {"(f+0x1) [0x2]", false},
                                   {"/p(f+0x1) [0x2] ", false},
                                   {"/p(f+0x1) [0x]", false},
                                   {"/p(f+0xg) [0x2]", false},
                                   {"/p(f) [0x2]", false},
                                   {"[0x2]", false}})
        EXPECT_EQ(is_trace_line(line), is) << line;
}

class Modules : public testing::Test {
protected:
    Modules() {
        fs::create_directory(folder);
        Dl_info info;
        dladdr(reinterpret_cast<void *>(&known_function), &info);
        std::ifstream self(info.dli_fname, std::ios::binary);
        whole.assign(std::istreambuf_iterator<char>(self), {});
    }
    ~Modules() override { fs::remove_all(folder); }

    std::string at(const std::string &name) const { return folder / name; }

    void write(const std::string &name, std::string_view contents) const {
        std::ofstream(at(name), std::ios::binary) << contents;
    }

    // In another process: whether a lookup comes back, and with what exit status it would not.
    int status_of_lookups(const std::string &module) const {
        const pid_t child = fork();
        if (child == 0) {
            alarm(20);
            Symbolizer symbolizer;
            for (const char *place : {"+0x1234", "(known_function+0x8) [0x1008]"})
                symbolizer.lookup(module + place);
            symbolizer.lookup(pc_in(module, known_function()));
            _exit(0);
        }
        int status = 0;
        waitpid(child, &status, 0);
        return status;
    }

    const fs::path folder = fs::temp_directory_path() / ("k42mc_modules_" + std::to_string(getpid()));
    std::string whole; // this program's file
};

TEST_F(Modules, NothingButElfFilesIsOpened) {
    ASSERT_EQ(mkfifo(at("fifo").c_str(), 0600), 0);
    write("text", "no program");
    write("empty", "");
    for (const std::string &module : {at("fifo"), at("text"), at("empty"), at(""),
                                      std::string("/dev/zero"), std::string("/dev/tty")})
        EXPECT_EQ(status_of_lookups(module), 0) << module;
    // Too large to be worth it.
    write("huge", whole);
    fs::resize_file(at("huge"), (1ull << 30) + 1);
    Symbolizer symbolizer;
    EXPECT_EQ(symbolizer.lookup(pc_in(at("huge"), known_function())).front().function, "");
    fs::resize_file(at("huge"), whole.size());
    Symbolizer another;
    EXPECT_EQ(another.lookup(pc_in(at("huge"), known_function())).front().function, "known_function");
}

// Where debug information is looked for.
TEST_F(Modules, PipesAreNoDebugInformation) {
    std::string stripped = at("stripped");
    write("stripped", whole);
    ASSERT_EQ(system(("objcopy --strip-debug --remove-section .note.gnu.build-id " + stripped).c_str()),
              0);
    ASSERT_EQ(mkfifo(at("stripped.debug").c_str(), 0600), 0);
    EXPECT_EQ(status_of_lookups(stripped), 0);
    fs::remove(at("stripped.debug"));
    write("link", "contents");
    ASSERT_EQ(system(("objcopy --add-gnu-debuglink=" + at("link") + " " + stripped).c_str()), 0);
    fs::remove(at("link"));
    fs::create_directory(at(".debug"));
    ASSERT_EQ(mkfifo(at(".debug/link").c_str(), 0600), 0);
    EXPECT_EQ(status_of_lookups(stripped), 0);
}

TEST_F(Modules, DebugInformationIsFoundApartFromThem) {
    fs::create_directories(at("bin/.debug"));
    write("whole", whole);
    fs::create_symlink("bin/stripped", at("linked"));
    for (const char *place : {"bin/stripped.debug", "bin/.debug/other.debug"}) {
        ASSERT_EQ(system(("objcopy --only-keep-debug " + at("whole") + " " + at(place) +
                          " && objcopy --strip-debug --add-gnu-debuglink=" + at(place) + " " +
                          at("whole") + " " + at("bin/stripped"))
                             .c_str()),
                  0);
        for (const char *module : {"bin/stripped", "linked"}) {
            Symbolizer symbolizer;
            EXPECT_EQ(symbolizer.lookup(pc_in(at(module), known_function())).front().line, line_of_call)
                << place << " of " << module;
        }
        fs::remove(at(place));
    }
}

} // namespace
