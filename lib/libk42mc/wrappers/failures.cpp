#include "wrappers/failures.h"

#include "base/checker_lock.h"
#include "base/errno_keeper.h"
#include "base/pattern.h"
#include "base/printing.h"
#include "memcheck/registry_lines.h"
#include "memcheck/sink.h"
#include "platform/module.h"
#include "platform/platform.h"
#include "stack_trace.h"

#include <bit>
#include <iterator>
#include <string.h>
#include <sys/auxv.h>

namespace k42mc::internal {

constinit std::atomic<bool> failures_wanted = false;
constinit FailureListener failure_listener = nullptr;

namespace {

struct Pattern {
    char text[256];

    bool is_any() const { return *text != '\0'; }
    bool set(const char *wanted) {
        *text = '\0';
        const size_t size = wanted != nullptr ? strlen(wanted) : 0;
        if (size >= sizeof text)
            return false;
        memcpy(text, wanted != nullptr ? wanted : "", size + 1);
        return true;
    }
    bool matches(std::string_view place) const { return is_any() && matches_pattern(text, place); }
};

struct Choice {
    uint64_t nth;
    uint32_t one_in, seed;
    size_t above;
    Pattern at, only, except;
    uint64_t stack;
    StackListener new_stack;
    PlaceJudge judge_place;
};

// Of return addresses, as far as they have been judged: a few bits of each one's name above its verdict. That is one word,
// which threads may read and write without a lock; a wrong one is as likely as two names that agree in 46 bits.
constexpr size_t most_verdicts = 1 << 14;
constexpr uint64_t is_known = 8;
constinit std::atomic<uint64_t> verdicts[most_verdicts] = {};

// Names of the stacks that were told. What finds no place here any more is not told.
class KnownStacks {
public:
    // Where it is there already, it stays, as another thread may be at it.
    bool prepare() {
        if (names_ == nullptr)
            names_ = static_cast<std::atomic<uint64_t> *>(platform::map_memory(most * sizeof *names_));
        return names_ != nullptr;
    }

    // Whether it is a new one.
    bool add(uint64_t name) {
        constexpr size_t most_tries = 64;
        for (size_t i = 0; i < most_tries; ++i) {
            uint64_t known = 0;
            if (names_[(name + i) % most].compare_exchange_strong(known, name,
                                                                  std::memory_order_relaxed))
                return true;
            if (known == name)
                return false;
        }
        return false;
    }

    void forget() {
        for (size_t i = 0; names_ != nullptr && i < most; ++i)
            names_[i].store(0, std::memory_order_relaxed);
    }

private:
    static constexpr size_t most = 1 << 17;
    std::atomic<uint64_t> *names_ = nullptr;
};
constinit KnownStacks known_stacks = {};

// Read by allocations without a lock: so a new choice has a place of its own, until some more have come.
constinit Choice choices[4] = {};
constinit std::atomic<size_t> current = 0;
constinit std::atomic<uint64_t> candidates = 0;
constinit std::atomic<size_t> failed = 0;
constinit std::atomic<bool> stack_failed = false;

// The dynamic loader cannot do without what it asks for, nor can the C++ library without memory for an exception.
bool is_indispensable(uintptr_t address, std::string_view place) {
    platform::Module module;
    platform::Module loader;
    uintptr_t path;
    return matches_pattern("(__cxa_allocate_exception+", place) ||
           (platform::find_module(address - 1, module, path) &&
            platform::find_module(getauxval(AT_BASE), loader, path) && module.begin == loader.begin);
}

// Modules may be loaded from another folder, and anywhere: "libfoo.so.1(function+0x12" is what stays the same.
uint32_t number_of(std::string_view place) {
    place = place.substr(0, place.find(" ["));
    place.remove_prefix(place.substr(0, place.find('(')).rfind('/') + 1);
    uint32_t number = 2166136261u;
    for (const char letter : place)
        number = (number ^ static_cast<unsigned char>(letter)) * 16777619u;
    return number & ~uint32_t{verdict_bits};
}

// Above its bits, a number that is made of the place's name.
uint32_t judge(const Choice &choice, void *frame) {
    char line[1024];
    const std::string_view place(line, platform::symbol_line(frame, line));
    uint32_t verdict = number_of(place);
    if (choice.judge_place != nullptr)
        verdict |= choice.judge_place(frame);
    if (is_indispensable(reinterpret_cast<uintptr_t>(frame), place) || choice.except.matches(place))
        return verdict | never;
    return verdict | (choice.at.matches(place) ? is_at : 0u) |
           (choice.only.matches(place) ? is_only : 0u);
}

uint32_t verdict_on(const Choice &choice, void *frame) {
    constexpr uint64_t spread = 0x9e3779b97f4a7c15;
    constexpr size_t most_tries = 4;
    const uint64_t name = uint64_t{reinterpret_cast<uintptr_t>(frame)} * spread;
    const uint64_t entry = name >> 18 << 32;
    const auto place = [name](size_t i) -> auto & {
        return verdicts[((name >> 50) + i) % most_verdicts];
    };
    size_t i = 0;
    for (; i < most_tries; ++i) {
        const uint64_t known = place(i).load(std::memory_order_relaxed);
        if (known == 0)
            break;
        if (known >> 32 << 32 == entry)
            return static_cast<uint32_t>(known & ~is_known);
    }
    const uint32_t verdict = judge(choice, frame);
    place(i % most_tries).store(entry | verdict | is_known, std::memory_order_relaxed);
    return verdict;
}

struct JudgedStack {
    uint32_t verdict;
    uint64_t name; // never 0
};

JudgedStack judge(const Choice &choice, Site site, const StackTrace &trace) {
    const std::string_view file = site.file != nullptr ? site.file : "";
    JudgedStack stack = {choice.except.matches(file) ? never : 0u, 0};
    stack.verdict |= (choice.at.matches(file) ? is_at : 0u) | (choice.only.matches(file) ? is_only : 0u);
    for (void *const frame : trace.innermost(StackTrace::deepest)) {
        const uint32_t verdict = verdict_on(choice, frame);
        stack.verdict |= verdict & verdict_bits;
        stack.name = std::rotl((stack.name ^ verdict >> 4) * 0x9e3779b97f4a7c15, 29);
    }
    stack.name |= 1;
    return stack;
}

bool is_chosen(const Choice &choice, uint64_t stack) {
    if (choice.new_stack != nullptr && known_stacks.add(stack))
        choice.new_stack(stack);
    return stack == choice.stack && !stack_failed.exchange(true, std::memory_order_relaxed);
}

// The same for the same number and seed.
bool is_drawn(const Choice &choice, uint64_t number) {
    uint64_t mixed = number * 0x9e3779b97f4a7c15 ^ choice.seed * uint64_t{0xd1b54a32d192ed03};
    mixed = (mixed ^ mixed >> 31) * 0xbf58476d1ce4e5b9;
    return choice.one_in != 0 && (mixed ^ mixed >> 29) % choice.one_in == 0;
}

// Those of what the descriptor checker knows.
bool is_checkers_own(Site site) {
    return site.file != nullptr && std::string_view(site.file).starts_with("common/lib/libk42mc/");
}

void print(const PurposefulFailure &failure) {
    const CheckerLock lock(checker_on() && MCLock() != 0);
    if (!lock)
        return;
    const Printing printing;
    SinkText out;
    out->print("%s:%d: allocation %llu fails on purpose\n", name_of(failure.site), failure.site.line,
               static_cast<unsigned long long>(failure.number));
    put_allocation_trace(*out, failure.trace);
}

void tell(const PurposefulFailure &failure) {
    failure_listener != nullptr ? failure_listener(failure) : print(failure);
}

} // namespace

bool fails_on_purpose(Site site, size_t size) {
    if (is_checkers_own(site))
        return false;
    const ErrnoKeeper keep_errno;
    const Choice &choice = choices[current.load(std::memory_order_acquire)];
    StackTrace trace;
    trace.capture(StackTrace::deepest);
    const auto [verdict, stack] = judge(choice, site, trace);
    if ((verdict & never) != 0 || (choice.only.is_any() && (verdict & is_only) == 0))
        return false;
    const uint64_t number = candidates.fetch_add(1, std::memory_order_relaxed) + 1;
    const bool fails = number == choice.nth || (verdict & is_at) != 0 || is_drawn(choice, number) ||
                       (choice.above != 0 && size > choice.above) || is_chosen(choice, stack);
    if (fails) {
        failed.fetch_add(1, std::memory_order_relaxed);
        tell({site, size, number, trace.innermost(StackTrace::deepest)});
    }
    return fails;
}

int choose_failures(const Failures &which) {
    const size_t next = (current.load(std::memory_order_relaxed) + 1) % std::size(choices);
    Choice &choice = choices[next];
    choice.nth = which.nth;
    choice.one_in = which.one_in;
    choice.seed = which.seed;
    choice.above = which.above;
    choice.stack = which.stack;
    choice.new_stack = which.new_stack;
    choice.judge_place = which.judge_place;
    if (!choice.at.set(which.at) || !choice.only.set(which.only) || !choice.except.set(which.except))
        return ENAMETOOLONG;
    if (which.new_stack != nullptr && !known_stacks.prepare())
        return ENOMEM;
    known_stacks.forget();
    stack_failed = false;
    for (std::atomic<uint64_t> &verdict : verdicts)
        verdict.store(0, std::memory_order_relaxed);
    current.store(next, std::memory_order_release);
    failures_wanted = true;
    return 0;
}

} // namespace k42mc::internal

using namespace k42mc::internal;

int k42mcx_fail(const k42mcx_failures *which) {
    failures_wanted = false;
    candidates = 0;
    return which != nullptr ? choose_failures({*which}) : 0;
}

size_t k42mcx_failed(void) {
    return failed;
}

K42MC_EXPORT(k42mcx_fail);
K42MC_EXPORT(k42mcx_failed);
