// Traces beside those of the compiler's unwinder, which finds its way by the same tables at leisure.
#include "call_shapes.h"
#include "ended.h"
#include "odd_frames.h"
#include "random.h"
#include "small_stack.h"

#include <algorithm>
#include <alloca.h>
#include <array>
#include <atomic>
#include <cstring>
#include <dlfcn.h>
#include <link.h>
#include <map>
#include <span>
#include <sys/mman.h>
#include <sys/time.h>
#include <ucontext.h>
#include <unwind.h>
#include <vector>

extern "C" int shim_trace(void **frames, int most);
extern "C" int shim_marked_trace(void **frames, int most, uint64_t (&parts)[3]);
extern "C" int shim_follow(uintptr_t module_begin, uintptr_t module_end, uintptr_t address,
                           uintptr_t pc);

namespace {

constexpr CallShapes sets[] = {call_shapes_O0, call_shapes_O1_frame_pointer, call_shapes_O2_realigned,
                               call_shapes_O3, call_shapes_Os};
constexpr int most = 100;

// Static, so that comparing takes no room on a small stack.
struct Trace {
    std::array<void *, most> frames;
    int count;
};
Trace ours, theirs;
std::atomic<int> compared, different, longest;
volatile std::sig_atomic_t in_trace;

_Unwind_Reason_Code add_frame(_Unwind_Context *context, void *) {
    int interrupted = 0;
    void *const place = reinterpret_cast<void *>(_Unwind_GetIPInfo(context, &interrupted));
    if (place == nullptr || theirs.count == most)
        return _URC_END_OF_STACK;
    theirs.frames[size_t(theirs.count++)] = place;
    return _URC_NO_REASON;
}

// The two begin at calls side by side. Lengths as the checker takes them come between.
[[gnu::noinline]] void compare() {
    constexpr int lengths[] = {most, 5, 16};
    const int wanted = lengths[compared % std::size(lengths)];
    theirs.count = 0;
    in_trace = true;
    ours.count = shim_trace(ours.frames.data(), wanted);
    in_trace = false;
    _Unwind_Backtrace(add_frame, nullptr);
    ++compared;
    longest = std::max<int>(longest, ours.count);
    if (ours.count != std::min(theirs.count, wanted) ||
        !std::equal(&ours.frames[1], &ours.frames[size_t(ours.count)], &theirs.frames[1]))
        ++different;
}

[[gnu::noinline]] void take() {
    ours.count = shim_trace(ours.frames.data(), most);
    ++compared;
}

// More than once, so that traces repeat.
void follow_a_path(Random &random, int depth, void (*end)() = compare) {
    const Path path = {uint32_t(random()), depth, end, end == compare};
    const CallShapes set = sets[random() % std::size(sets)];
    for (int time = 0; time < 4; ++time) {
        Path again = path;
        set(again);
    }
}

// The same frames each time.
[[gnu::noinline]] void call_plainly(int depth, void (*end)()) {
    if (depth > 0)
        call_plainly(depth - 1, end);
    else
        end();
    __asm__ volatile("" : : : "memory");
}

class Traces : public testing::Test {
protected:
    void SetUp() override { compared = different = longest = 0; }
    void TearDown() override {
        EXPECT_GT(compared, 0);
        EXPECT_EQ(different, 0) << "of " << compared;
    }

    Random random;
};

TEST_F(Traces, AreExactWhateverCalls) {
    for (int round = 0; round < 1500; ++round)
        follow_a_path(random, int(random() % 12));
    follow_a_path(random, 1000);
    EXPECT_EQ(longest, most);
}

// What is noted under a mark serves for all traces that have it.
TEST_F(Traces, AreTheSameIfTheirMarksAre) {
    using Mark = std::array<uint64_t, 3>;
    static std::map<Mark, std::vector<void *>> known;
    static void (*const take_marked)() = [] {
        constexpr int lengths[] = {most, 5, 16};
        void *frames[most];
        uint64_t parts[3];
        const int count = shim_marked_trace(frames, lengths[compared % std::size(lengths)], parts);
        ++compared;
        if (parts[0] == 0)
            return;
        const std::vector<void *> trace(frames, frames + count);
        different += known.try_emplace(std::to_array(parts), trace).first->second != trace;
    };
    const auto of_a_thread = [](void *random) -> void * {
        for (int round = 0; round < 300; ++round)
            follow_a_path(*static_cast<Random *>(random), int(round % 12), take_marked);
        return nullptr;
    };
    for (int time = 0; time < 3; ++time) {
        pthread_t thread;
        of_a_thread(&random);
        pthread_create(&thread, nullptr, of_a_thread, &random);
        pthread_join(thread, nullptr);
    }
    EXPECT_GT(known.size(), 100u);
}

// One set's end is the next one's begin.
TEST_F(Traces, AreExactAcrossSets) {
    static Random *shared;
    static unsigned further;
    static void (*const go_on)() = [] {
        if (further == 0)
            return compare();
        --further;
        follow_a_path(*shared, int((*shared)() % 4), go_on);
    };
    shared = &random;
    for (int round = 0; round < 500; ++round) {
        further = random() % 6;
        go_on();
    }
}

TEST_F(Traces, AreExactThroughOddFrames) {
    for (int i = 0; i < known_frame_count; ++i)
        for (int time = 0; time < 4 && different == 0; ++time) {
            known_frames[i].call(compare);
            EXPECT_EQ(different, 0) << known_frames[i].name;
        }
}

[[gnu::noinline]] void call_below_a_frame(size_t size, void (*end)()) {
    auto *const room = static_cast<volatile char *>(alloca(size));
    room[0] = 1;
    end();
    room[size - 1] = 1;
}

TEST_F(Traces, AreExactBelowFramesOfAnySize) {
    for (const size_t size : {100u, 100'000u, 300'000u, 600'000u, 3'000'000u})
#pragma GCC unroll 1
        for (int time = 0; time < 6; ++time)
            call_below_a_frame(size, compare);
}

TEST_F(Traces, EndAtFramesThatTellNothing) {
    for (int i = 0; i < unknown_frame_count; ++i)
        for (int time = 0; time < 4; ++time) {
            unknown_frames[i].call(take);
            EXPECT_EQ(ours.count, 2) << unknown_frames[i].name;
        }
}

TEST_F(Traces, AreExactOnStacksOfAnySize) {
    on_small_stack(
        [](void *given) {
            follow_a_path(*static_cast<Random *>(given), 1);
            return static_cast<void *>(nullptr);
        },
        &random);
    Path path = {1, 4000, compare, true};
    call_shapes_O3(path);
}

template <int frames> [[gnu::noinline]] void use_a_page_each() {
    auto *const page = static_cast<volatile char *>(alloca(4096));
    page[0] = 0;
    if constexpr (frames > 0)
        use_a_page_each<frames - 1>();
    else
        compare();
    page[1] = 0;
}

// Of a stack that the process makes itself, no more than so many pages are seen.
TEST_F(Traces, SeeTheWholeStackOfAThread) {
    constexpr size_t size = 1 << 20;
    const auto memory = std::make_unique<char[]>(size);
    for (void *const stack : {static_cast<void *>(nullptr), static_cast<void *>(memory.get())}) {
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        if (stack)
            pthread_attr_setstack(&attributes, stack, size);
        pthread_t thread;
        pthread_create(
            &thread, &attributes, [](void *given) { return use_a_page_each<40>(), given; }, nullptr);
        pthread_join(thread, nullptr);
        pthread_attr_destroy(&attributes);
    }
}

// What is remembered of a trace does not outlive a change of one word that it came from.
[[gnu::noinline, gnu::no_sanitize_address]] void change_a_return_address() {
    compare();
    void *const own = ours.frames[1], *const recursive = ours.frames[3];
    const size_t callers = size_t(compared) % 8;
    auto *slot = static_cast<void *volatile *>(__builtin_frame_address(0));
    for (size_t seen = 0; *slot != recursive || seen++ < callers;)
        ++slot;
    *slot = own;
    Trace changed;
    changed.count = shim_trace(changed.frames.data(), most);
    *slot = recursive;
    different += changed.frames[1 + callers] == own || changed.frames[2 + callers] != own;
}

TEST_F(Traces, SeeEveryChange) {
    for (int round = 0; round < 100; ++round)
        call_plainly(12, change_a_return_address);
}

template <int caller> [[gnu::noinline]] void call_plainly_from(int depth) {
    call_plainly(depth, compare);
    __asm__ volatile("" : : "i"(caller) : "memory");
}

TEST_F(Traces, MayDifferInOneFrame) {
    for (int depth = 0; depth < 12; ++depth)
        for (int round = 0; round < 12; ++round)
            round % 2 ? call_plainly_from<1>(depth) : call_plainly_from<2>(depth);
}

// Frames that lie elsewhere though all below is where it was: found only by the frame pointers. The
// words that the calls before have left are still there.
[[gnu::noinline]] void call_from(size_t room) {
    void *const memory = alloca(64 * room);
    __asm__ volatile("" : : "r"(memory) : "memory");
    compare();
    __asm__ volatile("" : : "r"(memory) : "memory");
}

template <int caller> [[gnu::noinline]] void share_room(size_t room) {
    void *const memory = alloca(64 * room);
    __asm__ volatile("" : : "r"(memory) : "memory");
    call_from(20 - room);
    __asm__ volatile("" : : "r"(memory), "i"(caller) : "memory");
}

TEST_F(Traces, SeeFramePointersChange) {
    for (size_t round = 0; round < 400; ++round)
        (random() % 2 ? share_room<0> : share_room<1>)(random() % 8);
}

// ---- Interrupted code ----

void interrupt_with(void (*handler)(int), int flags) {
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = flags | SA_RESTART;
    sigaction(SIGALRM, &action, nullptr);
    const itimerval often = {{0, 300}, {0, 300}};
    setitimer(ITIMER_REAL, &often, nullptr);
}

void interrupt_no_more() {
    const itimerval never{};
    setitimer(ITIMER_REAL, &never, nullptr);
    signal(SIGALRM, SIG_IGN);
}

// No exceptions: the tables say nothing right about where the unwinder switches frames.
void interrupted_until(int count, Random &random) {
    while (compared < count)
        follow_a_path(random, int(random() % 12), [] {});
    interrupt_no_more();
}

TEST_F(Traces, AreExactWhereverCodeIsInterrupted) {
    interrupt_with([](int) { compare(); }, 0);
    interrupted_until(400, random);
}

TEST_F(Traces, LeaveAnAlternateStack) {
    static std::array<char, 65536> memory;
    const stack_t other = {memory.data(), 0, memory.size()}, none = {nullptr, SS_DISABLE, 0};
    sigaltstack(&other, nullptr);
    interrupt_with([](int) { compare(); }, SA_ONSTACK);
    interrupted_until(400, random);
    sigaltstack(&none, nullptr);
}

// A trace that interrupts a trace disturbs neither.
TEST_F(Traces, MayInterruptTraces) {
    static std::atomic<int> interrupted;
    interrupted = 0;
    interrupt_with(
        [](int) {
            void *frames[most];
            shim_trace(frames, most);
            interrupted += in_trace;
        },
        0);
    while (interrupted < 100 && different == 0)
        follow_a_path(random, int(random() % 12));
    interrupt_no_more();
}

// ---- Stacks that are not what they should be ----

TEST_F(Traces, EndWhereAContextBegins) {
    constexpr size_t size = 1 << 18;
    static ucontext_t back, context;
    static Random *shared;
    shared = &random;
    void *const stack = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    for (int round = 0; round < 20; ++round) {
        getcontext(&context);
        context.uc_stack.ss_sp = stack;
        context.uc_stack.ss_size = size;
        context.uc_link = &back;
        makecontext(
            &context, [] { follow_a_path(*shared, 8); }, 0);
        swapcontext(&back, &context);
    }
    munmap(stack, size);
}

// Memory that is not there (any more), for a damaged stack to lead to.
std::span<char> gone;

// Overwrites words of the callers' frames, and puts them back before anybody returns to them.
[[gnu::noinline, gnu::no_sanitize_address]] void trace_on_a_damaged_stack() {
    static std::mt19937 random;
    static std::array<uintptr_t, 400> kept;
    auto *const stack = reinterpret_cast<volatile uintptr_t *>(__builtin_frame_address(0));
    for (size_t i = 0; i < kept.size(); ++i)
        kept[i] = stack[i];
    for (size_t damages = 1 + random() % 6; damages; --damages) {
        auto value = uintptr_t(uint64_t(random()) << 32 | random());
        if (!gone.empty() && random() % 2)
            value = reinterpret_cast<uintptr_t>(&gone[random() % gone.size() & ~size_t{15}]);
        else if (random() % 4)
            value = reinterpret_cast<uintptr_t>(&stack[random() % 4096]) - random() % 2 * 8192;
        else if (random() % 4)
            value = kept[random() % kept.size()];
        stack[random() % kept.size()] = value;
    }
    void *frames[most];
    const int count = shim_trace(frames, most);
    for (size_t i = 0; i < kept.size(); ++i)
        stack[i] = kept[i];
    compared += count > 0;
}

TEST(DamagedStacks, EndTraces) {
    Random random;
    compared = 0;
    const Ended end = ended([&] {
        for (int round = 0; round < 5000; ++round)
            follow_a_path(random, 8 + int(random() % 12), trace_on_a_damaged_stack);
        std::exit(compared != 20000);
    });
    EXPECT_TRUE(end.exited(0)) << end.err;
}

// A thread's stack without a guard page, two more below it, and what the thread does on the lowest of
// them, by hand, and on its own.
class StacksSideBySide {
public:
    void run() {
        memory_ = static_cast<char *>(
            mmap(nullptr, 3 * size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        pthread_attr_setstack(&attributes, memory_ + 2 * size, size);
        pthread_t thread;
        pthread_create(
            &thread, &attributes,
            [](void *given) { return static_cast<StacksSideBySide *>(given)->act(), given; }, this);
        pthread_join(thread, nullptr);
    }

private:
    static constexpr size_t size = 1 << 18;

    void *act() {
        on_lowest(take);
        lose(memory_ + size, size);
        on_lowest(trace_on_a_damaged_stack);
        lose(memory_, 2 * size);
        trace_often(trace_on_a_damaged_stack);
        return nullptr;
    }

    static void lose(char *begin, size_t bytes) {
        gone = {begin, bytes};
        mprotect(begin, bytes, PROT_NONE);
    }

    static void trace_often(void (*trace)()) {
        void *const room = alloca(8192); // for the damage
        asm volatile("" : : "r"(room) : "memory");
        Random random;
        for (int round = 0; round < 2000; ++round)
            follow_a_path(random, 2 + int(random() % 12), trace);
    }

    void on_lowest(void (*trace)()) {
        static void (*now)();
        now = trace;
        ucontext_t back, context;
        getcontext(&context);
        context.uc_stack.ss_sp = memory_;
        context.uc_stack.ss_size = size;
        context.uc_link = &back;
        makecontext(
            &context, [] { trace_often(now); }, 0);
        swapcontext(&back, &context);
    }

    char *memory_;
};

TEST(DamagedStacks, LeadToNoStackThatIsGone) {
    const Ended end = ended([] { StacksSideBySide().run(); });
    EXPECT_TRUE(end.exited(0)) << end.status << end.err;
}

TEST_F(Traces, AreTakenInAThreadsLastMoments) {
    static pthread_key_t key;
    pthread_key_create(&key, [](void *) { compare(); });
    pthread_t thread;
    pthread_create(
        &thread, nullptr, [](void *given) -> void * { return pthread_setspecific(key, given), nullptr; },
        &key);
    pthread_join(thread, nullptr);
    pthread_key_delete(key);
}

TEST(TracesOfThreads, RepeatInAnyNumber) {
    constexpr int threads = 100; // at a time, twice
    static pthread_barrier_t all_there;
    static std::atomic<int> repeated, failed;
    pthread_barrier_init(&all_there, nullptr, threads);
    const auto repeat = [](void *) -> void * {
        pthread_barrier_wait(&all_there);
        call_plainly(8, [] {
            void *first[most], *next[most];
            for (int i = 0; i < 100; ++i) {
                const int count = shim_trace(i ? next : first, most);
                ++repeated;
                failed += count < 10 || (i && !std::equal(first + 1, first + count, next + 1));
            }
        });
        return nullptr;
    };
    for (int round = 0; round < 2; ++round) {
        std::array<pthread_t, threads> ids;
        for (pthread_t &id : ids)
            pthread_create(&id, nullptr, repeat, nullptr);
        for (const pthread_t id : ids)
            pthread_join(id, nullptr);
    }
    EXPECT_EQ(failed, 0);
    EXPECT_EQ(repeated, 2 * threads * 100);
}

// ---- Code that comes and goes ----

// Calls what it is given, from a module with frames of its own.
using ModuleCall = void (*)(void (*)());

ModuleCall call_of(void *module) {
    return reinterpret_cast<ModuleCall>(dlsym(module, "module_call"));
}

TEST_F(Traces, FollowModulesThatTakeEachOthersPlace) {
    // C and D have no identity.
    for (const auto &pair :
         {std::array{TRACE_MODULE_A, TRACE_MODULE_B}, {TRACE_MODULE_C, TRACE_MODULE_D}}) {
        int in_place = 0;
        void *before = nullptr;
        for (unsigned round = 0; round < 20; ++round) {
            void *const module = dlopen(pair[round % 2], RTLD_NOW);
            ASSERT_NE(module, nullptr) << dlerror();
            for (int time = 0; time < 20; ++time)
                call_of(module)(compare);
            in_place += ours.frames[1] == before;
            before = ours.frames[1];
            dlclose(module);
        }
        EXPECT_GT(in_place, 0);
    }
}

template <int> [[gnu::noinline]] void call_beyond(size_t bytes, ModuleCall call) {
    auto *const gap = static_cast<volatile char *>(alloca(bytes));
    call(compare);
    gap[0] = 0;
}

// In another thread, so that the stack here stays as it is.
template <class Action> void elsewhere(Action action) {
    pthread_t thread;
    pthread_create(
        &thread, nullptr,
        [](void *given) { return (*static_cast<Action *>(given))(), static_cast<void *>(nullptr); },
        &action);
    pthread_join(thread, nullptr);
}

// One module's frame ends where the other's does, and in that are the words that the first has left.
TEST_F(Traces, ForgetAModuleThatIsGone) {
    for (size_t difference = 512; difference < 1024; difference += 16)
        for (const bool first : {true, false}) {
            void *module = nullptr;
            elsewhere([&] { module = dlopen(first ? TRACE_MODULE_A : TRACE_MODULE_B, RTLD_NOW); });
            const size_t gap = size_t{1} << 14 | (first ? difference : 0);
            for (int time = 0; time < 4; ++time)
                (first ? call_beyond<1> : call_beyond<2>)(gap, call_of(module));
            elsewhere([&] { dlclose(module); });
        }
}

TEST_F(Traces, LeadThroughSeveralModules) {
    static ModuleCall calls[3];
    void *modules[3];
    for (int i = 0; i < 3; ++i) {
        modules[i] =
            dlopen(std::array{TRACE_MODULE_A, TRACE_MODULE_B, TRACE_MODULE_C}[size_t(i)], RTLD_NOW);
        calls[i] = call_of(modules[i]);
    }
    for (int time = 0; time < 20; ++time) {
        calls[0]([] { calls[0](compare); });
        calls[0]([] { calls[1](compare); });
        calls[0]([] { calls[1]([] { calls[2]([] { calls[1](compare); }); }); });
    }
    for (void *module : modules)
        dlclose(module);
}

// What the linker wrote of this program's frames, copied to where memory ends behind it.
class CopiedTables {
public:
    CopiedTables() {
        dl_iterate_phdr([](dl_phdr_info *program, size_t,
                           void *copy) { return static_cast<CopiedTables *>(copy)->take(*program), 1; },
                        this);
    }
    ~CopiedTables() { munmap(mapping_, size_t(end() - mapping_) + page); }

    size_t size() const { return size_; }
    uint8_t &operator[](size_t at) { return begin_[at]; }
    int follow(uintptr_t pc) const {
        return shim_follow(uintptr_t(begin_), uintptr_t(end()), uintptr_t(begin_),
                           pc - table_ + uintptr_t(begin_));
    }

private:
    static constexpr size_t page = 4096;

    void take(const dl_phdr_info &program) {
        const auto *headers = program.dlpi_phdr, *all = headers + program.dlpi_phnum;
        const auto table =
            std::find_if(headers, all, [](auto &each) { return each.p_type == PT_GNU_EH_FRAME; });
        const auto loaded = std::find_if(headers, all, [&](auto &each) {
            return each.p_type == PT_LOAD && table->p_vaddr - each.p_vaddr < each.p_memsz;
        });
        table_ = program.dlpi_addr + table->p_vaddr;
        size_ = loaded->p_vaddr + loaded->p_filesz - table->p_vaddr;
        const size_t room = (size_ + page - 1) / page * page;
        mapping_ = static_cast<uint8_t *>(
            mmap(nullptr, room + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        mprotect(mapping_ + room, page, PROT_NONE);
        begin_ = mapping_ + room - size_;
        std::memcpy(begin_, reinterpret_cast<void *>(table_), size_);
    }

    uint8_t *end() const { return begin_ + size_; }

    uint8_t *mapping_, *begin_;
    size_t size_;
    uintptr_t table_;
};

TEST(FrameTables, MayBeDamaged) {
    Random random;
    CopiedTables tables;
    const auto place = [&] { return uintptr_t(compare) - 20000 + random() % 40000; };
    ASSERT_EQ(tables.follow(uintptr_t(compare)), 3);
    std::array<int, 4> outcomes{};
    for (int round = 0; round < 30000; ++round) {
        // Up to four bytes of the table's head, its entries, or anywhere.
        std::array<std::pair<size_t, uint8_t>, 4> damage;
        const size_t reach = std::array{size_t(12), size_t(3000), tables.size()}[random() % 3];
        for (auto &[at, before] : damage) {
            at = random() % reach;
            before = std::exchange(tables[at], uint8_t(random()));
        }
        for (int time = 0; time < 10; ++time)
            ++outcomes[size_t(tables.follow(place()))];
        for (auto each = damage.rbegin(); each != damage.rend(); ++each)
            tables[each->first] = each->second;
    }
    ASSERT_EQ(tables.follow(uintptr_t(compare)), 3);
    for (const int count : outcomes)
        EXPECT_GT(count, 0);
}

} // namespace
