// What reports say, whatever form they have: processes, their cycles, and what each cycle found.
#pragma once

#include "tools/common/pool.h"

#include <compare>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// Return addresses, innermost first, each with its module: "/usr/bin/p+0x1a2b".
using Trace = std::span<const std::string_view>;

// Stands behind the frames of a trace that was cut.
inline constexpr std::string_view cut_mark = "…";

inline bool is_cut(Trace trace) {
    return !trace.empty() && trace.back() == cut_mark;
}

inline Trace without_cut_mark(Trace trace) {
    return trace.first(trace.size() - is_cut(trace));
}

// Where blocks come from: a source line, and the stack trace where the report has it.
struct Site {
    std::string_view file;
    int64_t line = 0;
    std::string_view type;
    Trace trace;
};

std::strong_ordering operator<=>(const Site &left, const Site &right);

// Without stack traces, the source file stands for one.
inline Trace trace_of(const Site &site) {
    return site.trace.empty() ? Trace(&site.file, 1) : site.trace;
}

struct Counter {
    uint64_t blocks = 0;
    uint64_t bytes = 0;

    Counter &operator+=(const Counter &other) {
        blocks += other.blocks;
        bytes += other.bytes;
        return *this;
    }
};

// What one site held in one cycle, if anything.
struct Holding {
    uint32_t site = 0;   // in Report
    uint32_t oldest = 0; // cycles that its oldest block had survived
    Counter held;
    uint64_t largest = 0; // bytes of its largest block
    Counter lost = {};    // of what it held, by itself or with other blocks, where a search was made
    Counter allocated = {}, temporary = {}; // since the start; the latter was released within a cycle
};

// Something that leads to blocks, and to how many of a site's.
struct Holder {
    std::string_view root; // "variable `sessions` in server+0x40c0"
    Counter held;
};

// A block on the way from a root.
struct HeldLink {
    std::optional<uint32_t> site; // in Report; none of a block that was released meanwhile
    uint64_t size = 0;
    uint64_t offset = 0; // where in it the pointer to the next is
};

// What holds a site's blocks.
struct HeldBy {
    std::vector<Holder> roots;  // of most bytes first
    Counter others;             // what other roots hold
    std::vector<HeldLink> path; // from the first root to one of the blocks
    uint64_t left_out = 0;      // of the path, from its middle
};

struct Cycle {
    uint32_t number = 0;
    Counter live;          // listed or not
    bool searched = false; // for lost blocks
    std::vector<Holding> holdings = {};
    std::map<uint32_t, HeldBy> held_by = {}; // of the largest sites, where a search was made
    uint64_t time = 0;                       // seconds since 1970, where it is known
};

struct Damage {
    enum class Kind { past_end, before_start, after_release };

    Kind kind = Kind::past_end;
    uint32_t site =
        0; // in Report: of the allocation; of the release, where the block was written after it
    uint32_t cycles = 0;
    uint64_t address = 0;
    uint64_t size = 0;
    Trace allocation = {}; // of a block that was written after its release

    std::string_view code() const;    // "WO", "WU", "WF"
    std::string address_text() const; // "0x55D0C0"
};

struct DescriptorEvent {
    std::string_view type; // "OPEN", "CLOSE", "READ", "WRITE"
    std::string_view who;
    std::string_view time;
    Trace trace;
};

struct Descriptor {
    int number = 0;
    bool open = false;
    bool alarm = false;
    std::vector<DescriptorEvent> events; // oldest first

    bool is_standard() const { return number <= 2; }
    // Open at the time of the report, and opened under the checker's eyes.
    bool is_left_open() const {
        return open && !alarm && !is_standard() && events.back().type != "CLOSE";
    }
};

// What stopped a process, or was told of one that goes on: a defect, or a signal.
struct Stop {
    int process = 0;
    std::string_view text;
    std::string_view words; // the same for people; empty in older reports
    Trace trace;            // of the release or the access that found it, or of where the signal struck
    Trace block;            // of the allocation, or of the release before
    std::string_view signal = {}; // its name, where it was one
    Trace release = {};           // of the block that was accessed, if it was released
    bool goes_on = false;

    bool is_double_free() const { return text.starts_with("k42mc detected DF"); }
    bool is_access() const { return text.find(" access(") != std::string_view::npos; }
    bool is_read() const { return text.starts_with("k42mc detected R"); }
};

// Something to know of a process, and where it happened, if anywhere.
struct Note {
    std::string_view text;
    Trace trace;
};

// What became of a program in which an allocation failed on purpose, worst first; and of others alike.
struct FailedRun {
    struct Happening {
        std::string_view outcome, text; // "crash", "ended by SIGSEGV"
        Trace trace;
    };
    std::vector<Happening> happened;
    std::string_view failure; // "allocation 30 failed on purpose: 136 bytes"
    Trace failed;
    std::string_view repeat; // the command that does it again
    uint64_t runs = 1;

    bool is_bad() const; // it should have been handled in another way
    bool is_like(const FailedRun &other) const;
};

// One run of a program under the checker, or many of them.
struct Process {
    std::string_view name;
    std::vector<Cycle> cycles;
    // As of the last report.
    std::vector<Damage> damages;
    std::vector<Descriptor> descriptors;
    std::vector<Stop> stops;
    std::string_view unchecked = {}; // why nobody looked after it, if so
    std::vector<Note> notes;
    std::string_view suppressions = {}; // the program's own, as lines
    std::vector<FailedRun> failed_runs = {};
};

// Something in a file that could not be read, and was left out.
struct Problem {
    std::string file;
    uint64_t line = 0; // 0 for the whole file
    std::string text;
};

// Texts, traces and sites are kept once, and as long as the report.
class Report {
public:
    std::string_view text(std::string_view text);
    Trace trace(std::span<const std::string_view> pcs);

    uint32_t site_number(const Site &site);
    const Site &site(uint32_t number) const { return sites_[number].front(); }
    size_t site_count() const { return sites_.size(); }

    std::vector<Process> processes;
    std::vector<Problem> problems;

private:
    Pool<char> texts_;
    Pool<std::string_view> traces_;
    Pool<Site> sites_;
};

// Bytes that a site held in a cycle, counted from 0.
struct Point {
    uint32_t cycle = 0;
    uint64_t bytes = 0;
    uint64_t left = 0; // of these, in processes that had no later cycle: it counts from then on
};

// One site over all cycles of all processes.
struct SiteHistory {
    uint32_t site = 0;
    uint32_t oldest = 0;
    Counter held; // in the last cycle of each process
    Counter lost; // of those, where a search was made
    uint64_t largest = 0;
    uint64_t peak = 0;               // bytes at once, as far as reports saw them
    const HeldBy *held_by = nullptr; // in the last cycle of the process where it holds most
    int64_t growth = 0;              // from the first cycle of each process to its last
    Counter allocated, temporary;    // since each process's start
    std::span<const Point> bytes;    // of the cycles that it was seen in

    // From cycle to cycle, with what processes left that ended before.
    template <class Action> void each_cycle(uint32_t cycles, Action action) const;
};

template <class Action> void SiteHistory::each_cycle(uint32_t cycles, Action action) const {
    uint64_t left = 0;
    auto point = bytes.begin();
    for (uint32_t cycle = 0; cycle < cycles; ++cycle) {
        const bool is_seen = point != bytes.end() && point->cycle == cycle;
        action(cycle, left + (is_seen ? point->bytes : 0));
        if (is_seen)
            left += (point++)->left;
    }
}

enum class Order { bytes, growth, blocks, age, peak, allocations, allocated, temporary };

// Whether it is by what was counted since the start, whoever holds something now.
bool is_by_counts(Order order);

// Those that held something in any cycle, or have allocated something.
class Histories {
public:
    Histories(const Report &report, Order order);

    const std::vector<SiteHistory> &sites() const { return sites_; }
    uint32_t cycles() const { return cycles_; }
    bool were_searched() const { return searched_; } // in the last cycle of any process
    void keep_lost();                                // sites that have lost something
    void drop_idle();                                // sites that no cycle saw anything of

private:
    void count_points(const Report &report);
    void add_growth(const Cycle &first, const Cycle &last);
    void add_counts(const Cycle &last);
    void add_cycle(const Cycle &cycle, uint32_t index, bool is_last);
    void find_holders(const Report &report);

    uint32_t cycles_ = 0;
    bool searched_ = false;
    std::vector<SiteHistory> sites_;
    std::vector<Point> points_;
};

// What the last cycles of all processes hold, listed or not.
Counter total_of(const Report &report);
