// What reports say, whatever form they have: processes, their cycles, and what each cycle found.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

// Where blocks come from: a source line, and the call chain where the report has it, innermost first.
struct Place {
    std::string file;
    int line = 0;
    std::string type;
    std::vector<std::string> chain;

    auto operator<=>(const Place &) const = default;
};

struct Counter {
    uint64_t blocks = 0;
    uint64_t bytes = 0;

    Counter &operator+=(const Counter &other) {
        blocks += other.blocks;
        bytes += other.bytes;
        return *this;
    }
};

// What one place held in one cycle.
struct Holding {
    size_t place = 0; // in Report::places
    Counter held;
    uint32_t oldest = 0;  // cycles that its oldest block had survived
    uint64_t largest = 0; // bytes of its largest block
};

struct Cycle {
    uint32_t number = 0;
    Counter live; // listed or not
    std::vector<Holding> holdings;
};

struct Damage {
    std::string defect; // "WO" or "WU"
    size_t place = 0;
    std::string address;
    uint64_t size = 0;
    uint32_t cycles = 0;
};

struct DescriptorEvent {
    std::string type; // "OPEN", "CLOSE", "READ", "WRITE"
    std::string who;
    std::string time;
    std::vector<std::string> chain;
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

// What stopped a process.
struct Stop {
    int process = 0;
    std::string text;
    std::vector<std::string> chain; // of the release that found it
    std::vector<std::string> block; // of the allocation, or of the release before

    bool is_double_free() const { return text.starts_with("k42mc detected DF"); }
};

// One run of a program under the checker.
struct Process {
    std::string name;
    std::vector<Cycle> cycles;
    // As of the last report.
    std::vector<Damage> damages;
    std::vector<Descriptor> descriptors;
    std::vector<Stop> stops;
};

// Something in a file that could not be read, and was left out.
struct Problem {
    std::string file;
    size_t line = 0;
    std::string text;
};

class Report {
public:
    size_t place(Place place);

    const std::vector<Place> &places() const { return places_; }

    std::vector<Process> processes;
    std::vector<Problem> problems;

private:
    std::vector<Place> places_;
    std::map<Place, size_t> numbers_;
};

// One place over all cycles of all processes.
struct Site {
    size_t place = 0;
    Counter held; // in the last cycle of each process
    uint32_t oldest = 0;
    uint64_t largest = 0;
    std::vector<uint64_t> series; // bytes in the first, second ... cycle

    int64_t growth() const;
};

enum class Order { bytes, growth, blocks, age };

// Those that held something in any cycle.
std::vector<Site> sites_of(const Report &report, Order order);

// What the last cycles of all processes hold, listed or not.
Counter total_of(const Report &report);

size_t cycles_of(const Report &report);
