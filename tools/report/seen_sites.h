// Of a report of any size, what a page can hold of its sites: those of most bytes, and of long histories
// some cycles.
#pragma once

#include "tools/report/model.h"

#include <span>
#include <vector>

// What one process held of a site.
struct SeenSite {
    uint32_t process = 0; // of SeenProcess
    uint32_t oldest = 0;
    uint64_t largest = 0;
    uint64_t most = 0;               // bytes at once
    Counter held, lost;              // at last
    Counter allocated, temporary;    // since the start
    const HeldBy *held_by = nullptr; // at last
    std::vector<Point> bytes;        // where they change; by the process's shown cycles
};

struct SeenProcess {
    std::vector<uint32_t> shown; // of its cycles
    bool is_rest = false;        // of many processes, all that follow, with their last cycles alone
};

class SeenSites {
public:
    explicit SeenSites(const Report &report);

    const std::vector<SeenProcess> &processes() const { return processes_; }
    // By the bytes that they held at most, in each process, after some that allocate most.
    const std::vector<uint32_t> &ranked() const { return ranked_; }
    // So many of these can be asked for.
    size_t within_reach() const;
    uint64_t most_of(uint32_t site) const { return most_[site]; }
    bool have_counts() const { return have_counts_; } // of what was allocated
    std::vector<SeenSite> in_processes(uint32_t site) const;

private:
    // Something that a process held at a time.
    struct Sighting {
        uint32_t process, cycle;
        const Holding *holding;
    };

    void choose_cycles();
    void rank();
    void prefer_busy();
    void collect();
    bool is_last(const Sighting &sighting) const;
    SeenSite seen(std::span<const Sighting> sightings) const;

    const Report &report_;
    std::vector<SeenProcess> processes_;
    std::vector<uint64_t> most_; // by site
    std::vector<uint32_t> ranked_;
    bool have_counts_ = false;
    std::vector<size_t> begins_; // of a site's sightings, by site
    std::vector<Sighting> sightings_;
};
