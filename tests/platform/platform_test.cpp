#include "capture.h"
#include "ended.h"
#include "small_stack.h"
#include "text.h"

#include <atomic>
#include <csetjmp>
#include <csignal>
#include <cstring>
#include <dlfcn.h>
#include <filesystem>
#include <iostream>
#include <link.h>
#include <random>
#include <span>
#include <sstream>

extern "C" {
int shim_trace(void **frames, int most);
void shim_call(void (*hook)());
void shim_symbols(void *const *frames, int count, int descriptor);
int shim_readable(const void *address, size_t size);
int shim_place_of(const void *address);
bool shim_is_on_stack_of(pthread_t thread, uint32_t number, const void *address);
void *shim_next_definition(const char *name);
void *shim_next_by_loader(const char *name);
const char *shim_progname();
void shim_assertion_failed();
}

namespace {

namespace fs = std::filesystem;

void *trace[16];
int frames;
std::atomic<int> done; // what is done after a call keeps it from being a jump
std::jmp_buf out;

// What calls what.
struct Chain {
    [[gnu::noinline]] static void leaf() { frames = shim_trace(trace, 16); }
    [[gnu::noinline]] static void middle() { leaf(), ++done; }
    [[gnu::noinline]] static void outer() { middle(), ++done; }
    [[gnu::noinline, noreturn]] static void leave() { leaf(), std::longjmp(out, 1); }
    [[gnu::noinline]] static void ends_in_a_call() { leave(); }
    static void *thread(void *) { return outer(), shim_symbols(trace, frames, -1), nullptr; }
};

std::string own_path() {
    return fs::read_symlink("/proc/self/exe");
}

std::string symbols(void *const *addresses, int count) {
    return captured_stdout([&] { shim_symbols(addresses, count, STDOUT_FILENO); });
}

// Expects the line of a frame to name the module and a function with this in its name, or none.
// Returns the offset.
size_t expect_line(int frame, const std::string &module, const std::string &function) {
    const std::string line = frame < frames ? symbols(trace + frame, 1) : "";
    const size_t name = line.find('(', module.size()) + 1,
                 plus = std::min(line.rfind("+0x"), line.size());
    const std::string found = line.substr(name, plus - name);
    EXPECT_EQ(found.empty(), function.empty()) << line;
    EXPECT_NE(found.find(function), std::string::npos) << line << "instead of " << function;
    const size_t offset = strtoull(line.c_str() + plus + 1, nullptr, 16);
    std::ostringstream whole;
    whole << module << "(" << found << "+0x" << std::hex << offset << ") [" << trace[frame] << "]\n";
    EXPECT_EQ(line, whole.str());
    return offset;
}

TEST(Trace, BeginsAtTheCallerAndNamesStaticFunctions) {
    if (std::getenv("PLATFORM_TEST_DELETE")) // set for a copy of the executable, see below
        fs::remove(own_path());
    errno = ERANGE;
    Chain::outer();
    EXPECT_EQ(errno, ERANGE);
    expect_line(0, own_path(), "leaf");
    const size_t offset = expect_line(1, own_path(), "middle");
    expect_line(2, own_path(), "outer");
    EXPECT_EQ(static_cast<char *>(trace[1]) - offset, reinterpret_cast<char *>(&Chain::middle));

    void *few[3] = {};
    EXPECT_EQ(shim_trace(few, 2), 2);
    EXPECT_EQ(few[2], nullptr);
    EXPECT_EQ(shim_trace(few, 0), 0);
}

TEST(Trace, KeepsTheLibraryBelowAHookAndNamesWhatACallEnds) {
    shim_call(Chain::middle);
    expect_line(1, own_path(), "middle");
    Dl_info shim;
    ASSERT_NE(dladdr(reinterpret_cast<void *>(shim_call), &shim), 0);
    expect_line(2, shim.dli_fname, "shim_call");
    expect_line(3, own_path(), "KeepsTheLibraryBelowAHook");
    if (setjmp(out) == 0)
        Chain::ends_in_a_call();
    expect_line(1, own_path(), "leave");
    expect_line(2, own_path(), "ends_in_a_call");
}

TEST(Trace, FitsASmallStack) {
    on_small_stack(Chain::thread, nullptr);
    expect_line(3, own_path(), "thread");
    EXPECT_LT(frames, 10); // ends with the thread's start
}

TEST(Symbols, CopeWithAddressesOfNothing) {
    void *const odd[] = {nullptr, reinterpret_cast<void *>(0x1234), reinterpret_cast<void *>(-1)};
    EXPECT_EQ(symbols(odd, 2), "[0x0]\n[0x1234]\n");
    EXPECT_EQ(symbols(odd + 2, 1), "[0x" + std::string(2 * sizeof(void *), 'f') + "]\n");
    errno = ERANGE;
    shim_symbols(odd, 3, -1);
    EXPECT_EQ(errno, ERANGE);
}

// The executable's file gets its number.
TEST(Symbols, NeedNoStandardInput) {
    Chain::outer();
    const int kept = dup(STDIN_FILENO);
    const std::string line = captured_stdout([&] {
        close(STDIN_FILENO);
        shim_symbols(trace + 1, 1, STDOUT_FILENO);
        dup2(kept, STDIN_FILENO);
    });
    close(kept);
    EXPECT_CONTAINS(line, "middle");
}

TEST(Symbols, FollowADeletedExecutable) {
    const std::string copy = fs::temp_directory_path() / ("platform_test." + std::to_string(getpid()));
    fs::copy(own_path(), copy);
    const std::string command = "PLATFORM_TEST_DELETE=1 " + copy + " --gtest_filter=*NamesStatic* >&2";
    EXPECT_EQ(std::system(command.c_str()), 0);
    EXPECT_FALSE(fs::exists(copy));
}

// The file that a loaded module was mapped from stays what it was.
void replace(const std::string &path, const std::string &bytes) {
    fs::remove(path);
    std::ofstream(path) << bytes;
}

TEST(Symbols, OfAModuleOutliveItsFile) {
    const std::string path = fs::temp_directory_path() / ("module." + std::to_string(getpid()));
    const std::string whole = contents(PLATFORM_MODULE);
    std::string rebuilt = whole;
    ++rebuilt[rebuilt.find(std::string("\3\0\0\0GNU\0", 8)) + 8]; // the build's identity
    const auto expect_names = [&](const char *of_static) {
        expect_line(1, path, of_static);
        expect_line(2, path, "exported_by_module");
    };
    for (const bool is_stripped : {true, false}) {
        replace(path, is_stripped ? contents(PLATFORM_STRIPPED_MODULE) : whole);
        void *const handle = dlopen(path.c_str(), RTLD_NOW);
        reinterpret_cast<void (*)(void (*)())>(dlsym(handle, "exported_by_module"))(Chain::leaf);
        expect_names(is_stripped ? "" : "hidden_in_module");
        // Another build, a part, nothing, something else.
        for (const auto &bytes :
             {rebuilt, whole.substr(0, 4096), std::string(), std::string(9999, 'x')}) {
            replace(path, bytes);
            expect_names("");
        }
        std::mt19937 random(1);
        for (int round = 0; round < 100; ++round) {
            std::string damaged = whole; // in its symbols and section headers, which are not loaded
            for (size_t at = whole.size() - random() % 4000; at < whole.size(); at += random() % 40 + 1)
                damaged[at] = char(random());
            replace(path, damaged);
            const std::string line = symbols(trace + 1, 1);
            EXPECT_TRUE(line.starts_with(path + "(") && line.ends_with("]\n")) << line;
        }
        dlclose(handle);
        fs::remove(path);
    }
}

template <class Record> std::span<Record> records(std::string &file, size_t at, size_t bytes) {
    return {reinterpret_cast<Record *>(&file[at]), bytes / sizeof(Record)};
}

// Sets the field with this number among those that say where a module's tables are, how large, and what is in
// them; of symbols, all of them. Returns whether there is one.
bool set_field(std::string &file, unsigned number, uint64_t value) {
    unsigned field = 0;
    const auto set = [&](auto &place) {
        if (field++ == number)
            place = static_cast<std::remove_reference_t<decltype(place)>>(value);
    };
    auto &header = *reinterpret_cast<ElfW(Ehdr) *>(file.data());
    for (auto &segment :
         records<ElfW(Phdr)>(file, header.e_phoff, header.e_phnum * sizeof(ElfW(Phdr)))) {
        if (segment.p_type == PT_GNU_EH_FRAME)
            set(segment.p_vaddr);
        if (segment.p_type == PT_DYNAMIC)
            for (auto &entry : records<ElfW(Dyn)>(file, segment.p_offset, segment.p_filesz))
                if (entry.d_tag == DT_STRSZ)
                    set(entry.d_un.d_val);
    }
    for (auto &section :
         records<ElfW(Shdr)>(file, header.e_shoff, header.e_shnum * sizeof(ElfW(Shdr)))) {
        if (section.sh_type == SHT_SYMTAB) {
            const unsigned first = field;
            for (auto &symbol : records<ElfW(Sym)>(file, section.sh_offset, section.sh_size))
                field = first, set(symbol.st_name), set(symbol.st_value), set(symbol.st_size);
            set(section.sh_link);
        }
        if (section.sh_type == SHT_SYMTAB || section.sh_type == SHT_STRTAB)
            set(section.sh_offset), set(section.sh_size);
    }
    set(header.e_shoff), set(header.e_shnum);
    return number < field;
}

// Damaged ahead of its load, in what the loader does not look at.
TEST(Symbols, OfAModuleMayLieAnywhere) {
    const std::string path = fs::temp_directory_path() / ("anywhere." + std::to_string(getpid()));
    const std::string whole = contents(PLATFORM_MODULE);
    unsigned fields = 0;
    for (std::string file = whole; set_field(file, fields, 0); file = whole)
        ++fields;
    EXPECT_GE(fields, 14u);
    for (unsigned field = 0; field < fields; ++field)
        for (const uint64_t value : {uint64_t{0}, uint64_t{whole.size()} - 1, uint64_t{1} << 30,
                                     uint64_t{INT32_MAX} << 32 | INT32_MAX, UINT64_MAX - 7}) {
            std::string damaged = whole;
            set_field(damaged, field, value);
            replace(path, damaged);
            const Ended end = ended([&] {
                void *const handle = dlopen(path.c_str(), RTLD_NOW);
                void *const function = handle ? dlsym(handle, "exported_by_module") : nullptr;
                if (!function)
                    std::exit(1);
                reinterpret_cast<void (*)(void (*)())>(function)(Chain::leaf);
                shim_symbols(trace, std::min(frames, 2), STDOUT_FILENO);
            });
            ASSERT_TRUE(end.exited(0)) << field << " " << value << " " << end.status << end.err;
            EXPECT_CONTAINS(end.out, "\n" + path + "(");
            EXPECT_TRUE(end.out.ends_with("]\n")) << end.out;
        }
    fs::remove(path);
}

TEST(Memory, SaysWhatCanBeRead) {
    const auto page = size_t(sysconf(_SC_PAGESIZE));
    const int writable = PROT_READ | PROT_WRITE, kind = MAP_PRIVATE | MAP_ANONYMOUS;
    auto *const pages = static_cast<char *>(mmap(nullptr, 4 * page, writable, kind, -1, 0));
    char *const guard = pages + 2 * page;
    mprotect(guard, page, PROT_NONE);
    munmap(guard + page, page);
    errno = ERANGE;
    EXPECT_TRUE(shim_readable(pages, 2 * page));
    EXPECT_TRUE(shim_readable(&page, sizeof page)); // the stack
    for (size_t size = 1; size <= 16; ++size) {
        EXPECT_TRUE(shim_readable(guard - size, size));
        EXPECT_FALSE(shim_readable(guard - size, size + 1));
    }
    EXPECT_FALSE(shim_readable(pages, 3 * page));
    EXPECT_FALSE(shim_readable(guard + page + 7, 1));
    EXPECT_FALSE(shim_readable(nullptr, 1));
    EXPECT_FALSE(shim_readable(pages + 8, SIZE_MAX));
    EXPECT_TRUE(shim_readable(nullptr, 0));
    EXPECT_EQ(errno, ERANGE);
    munmap(pages, 3 * page);
}

// As platform.h has them.
enum Place { unknown, nothing, own_stack, first_stack, module, allocators_module };

int in_data;
const int in_constants = 1;

TEST(Memory, SaysWhatAnAddressBelongsTo) {
    const auto page = size_t(sysconf(_SC_PAGESIZE));
    const int kind = MAP_PRIVATE | MAP_ANONYMOUS;
    auto *const pages = static_cast<char *>(mmap(nullptr, 3 * page, PROT_READ, kind, -1, 0));
    mprotect(pages, page, PROT_NONE);
    munmap(pages + page, page);
    const std::string in_heap(100, ' ');
    errno = ERANGE;
    auto *const on_stack =
        static_cast<char *>(__builtin_frame_address(0)); // not where sanitizers keep variables
    EXPECT_EQ(shim_place_of(on_stack), own_stack);
    EXPECT_EQ(shim_place_of(on_stack - 5000), own_stack) << "of a call that is over";
    EXPECT_EQ(shim_place_of(getenv("PATH")), own_stack);
    EXPECT_EQ(shim_place_of(&in_data), module);
    EXPECT_EQ(shim_place_of(&in_constants), module);
    EXPECT_EQ(shim_place_of(stdin), module) << "the C library";
    EXPECT_EQ(shim_place_of(std::cout.rdbuf()), allocators_module);
    EXPECT_EQ(shim_place_of((void *)_r_debug.r_ldbase), allocators_module) << "the loader";
    EXPECT_EQ(shim_place_of(in_heap.data()), unknown);
    EXPECT_EQ(shim_place_of(pages), unknown);
    EXPECT_EQ(shim_place_of(pages + 2 * page), unknown);
    for (const char *address :
         {pages + page, pages + 2 * page - 1, (char *)8, (char *)-8, (char *)nullptr})
        EXPECT_EQ(shim_place_of(address), nothing) << (void *)address;
    EXPECT_EQ(errno, ERANGE);
    munmap(pages, page);
    munmap(pages + 2 * page, page);
}

// A thread on a stack of the test's own, which is there when the thread is gone.
TEST(Memory, SaysOnWhichThreadsStackAnAddressLies) {
    struct Thread {
        const void *on_first;
        std::atomic<void *> place = nullptr;
        std::atomic<uint32_t> number = 0;
        std::atomic<bool> may_end = false;
    };
    const void *const on_first = __builtin_frame_address(0);
    Thread thread{on_first};
    const auto run = [](void *argument) -> void * {
        auto &thread = *static_cast<Thread *>(argument);
        void *const place = __builtin_frame_address(0);
        Chain::outer(); // a walk, which finds the stack
        EXPECT_EQ(shim_place_of(place), own_stack);
        EXPECT_EQ(shim_place_of(thread.on_first), first_stack);
        thread.number = uint32_t(gettid());
        thread.place = place;
        while (!thread.may_end)
            usleep(100);
        return nullptr;
    };
    constexpr size_t size = 1 << 20;
    void *const stack = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstack(&attributes, stack, size);
    pthread_t started;
    ASSERT_EQ(pthread_create(&started, &attributes, run, &thread), 0);
    while (thread.place == nullptr)
        usleep(100);
    EXPECT_EQ(shim_place_of(thread.place), unknown);
    EXPECT_TRUE(shim_is_on_stack_of(started, thread.number, thread.place));
    EXPECT_FALSE(shim_is_on_stack_of(started, thread.number, on_first));
    EXPECT_FALSE(shim_is_on_stack_of(started, thread.number + 1, thread.place));
    EXPECT_FALSE(shim_is_on_stack_of(pthread_t(0), thread.number, thread.place));
    thread.may_end = true;
    pthread_join(started, nullptr);
    EXPECT_FALSE(shim_is_on_stack_of(started, thread.number, thread.place));
    pthread_attr_destroy(&attributes);
    munmap(stack, size);
}

// Some of the names have several versions, on one width or on both; two are the C++ library's.
TEST(Definitions, AreTheOnesThatTheLoaderFinds) {
    for (const char *name : {"malloc",          "free",           "posix_memalign",
                             "fopen",           "fclose",         "popen",
                             "close",           "dlopen",         "dlclose",
                             "sigaction",       "pthread_create", "pthread_cond_wait",
                             "pthread_sigmask", "sem_init",       "regexec",
                             "realpath",        "glob",           "execvpe",
                             "_exit",           "__cxa_throw",    "_ZSt17__throw_bad_allocv",
                             "dl_iterate_phdr"}) {
        EXPECT_NE(shim_next_definition(name), nullptr) << name;
        EXPECT_EQ(shim_next_definition(name), shim_next_by_loader(name)) << name;
    }
}

TEST(Definitions, AreLeftToTheLoaderWhereItChooses) {
    for (const char *name : {"memcpy", "strlen", "no_such_function", "errno", "stdout", ""})
        EXPECT_EQ(shim_next_definition(name), nullptr) << name;
}

TEST(Definitions, LeaveTheLoadersErrorToBeTold) {
    EXPECT_EQ(dlsym(RTLD_DEFAULT, "no_such_function"), nullptr);
    EXPECT_NE(shim_next_definition("fopen"), nullptr);
    EXPECT_NE(dlerror(), nullptr);
}

TEST(ProcessDeathTest, KnowsItsNameAndStopsOnAFailedAssertion) {
    EXPECT_EQ(shim_progname(), fs::path(own_path()).filename());
    EXPECT_EXIT(
        shim_assertion_failed(), testing::KilledBySignal(SIGABRT),
        "^assertion \"1 > 2\" failed: file \"some/file\", line 42, function \"some_function\"\n$");
}

} // namespace
