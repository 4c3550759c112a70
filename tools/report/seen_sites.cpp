#include "tools/report/seen_sites.h"

#include <algorithm>
#include <functional>
#include <utility>

namespace {

constexpr size_t most_processes = 1000;
constexpr size_t most_sites = 60'000;
constexpr size_t most_busy = 1000;                       // sites that are shown for what they allocate
constexpr size_t all_cycles = 30'000, most_cycles = 120; // of all processes, and of one

// Evenly, with the first and the last.
std::vector<uint32_t> some_of(size_t count, size_t most) {
    std::vector<uint32_t> chosen;
    const size_t shown = std::min(count, most);
    for (size_t i = 0; i < shown; ++i)
        chosen.push_back(static_cast<uint32_t>(shown == 1 ? count - 1 : i * (count - 1) / (shown - 1)));
    return chosen;
}

} // namespace

SeenSites::SeenSites(const Report &report) : report_(report), most_(report.site_count()) {
    choose_cycles();
    rank();
    prefer_busy();
    collect();
}

void SeenSites::choose_cycles() {
    const size_t count = std::min(report_.processes.size(), most_processes);
    const size_t most = std::clamp(all_cycles / std::max<size_t>(count, 1), size_t{2}, most_cycles);
    processes_.resize(count);
    for (size_t i = 0; i < count; ++i)
        processes_[i].shown = some_of(report_.processes[i].cycles.size(), most);
    if (report_.processes.size() > most_processes)
        processes_.push_back({{0}, true});
}

void SeenSites::rank() {
    std::vector<uint64_t> in_cycle(most_.size()), in_process(most_.size());
    std::vector<bool> is_known(most_.size()); // only the paths to others' blocks name some
    for (const Process &process : report_.processes) {
        std::vector<uint32_t> touched;
        for (const Cycle &cycle : process.cycles) {
            for (const Holding &holding : cycle.holdings)
                in_cycle[holding.site] += holding.held.bytes;
            for (const Holding &holding : cycle.holdings) {
                touched.push_back(holding.site);
                uint64_t &most = in_process[holding.site];
                most = std::max(most, std::exchange(in_cycle[holding.site], 0));
            }
        }
        for (const uint32_t site : touched) {
            most_[site] += std::exchange(in_process[site], 0);
            is_known[site] = true;
        }
    }
    for (uint32_t site = 0; site < most_.size(); ++site)
        if (is_known[site])
            ranked_.push_back(site);
    std::ranges::stable_sort(ranked_, std::greater(), [this](uint32_t site) { return most_[site]; });
}

// They may hold nothing.
void SeenSites::prefer_busy() {
    std::vector<uint64_t> allocations(most_.size());
    for (const Process &process : report_.processes)
        if (!process.cycles.empty())
            for (const Holding &holding : process.cycles.back().holdings) {
                allocations[holding.site] += holding.allocated.blocks;
                have_counts_ = have_counts_ || holding.allocated.blocks != 0;
            }
    if (!have_counts_)
        return;
    std::vector<uint32_t> busy = ranked_;
    busy.resize(std::min(busy.size(), most_busy));
    std::partial_sort_copy(
        ranked_.begin(), ranked_.end(), busy.begin(), busy.end(),
        [&](uint32_t left, uint32_t right) { return allocations[left] > allocations[right]; });
    std::vector<bool> is_busy(most_.size());
    for (const uint32_t site : busy)
        is_busy[site] = true;
    std::stable_partition(ranked_.begin(), ranked_.end(), [&](uint32_t site) { return is_busy[site]; });
}

size_t SeenSites::within_reach() const {
    return std::min(ranked_.size(), most_sites);
}

// They lie in one row, where each site has a part.
void SeenSites::collect() {
    std::vector<bool> is_shown(most_.size());
    for (size_t i = 0; i < within_reach(); ++i)
        is_shown[ranked_[i]] = true;
    const auto each = [&](const auto &take) {
        for (size_t i = 0; i < report_.processes.size(); ++i) {
            const uint32_t process = static_cast<uint32_t>(std::min(i, most_processes));
            const std::vector<Cycle> &cycles = report_.processes[i].cycles;
            const size_t first = i < most_processes || cycles.empty() ? 0 : cycles.size() - 1;
            for (size_t cycle = first; cycle < cycles.size(); ++cycle)
                for (const Holding &holding : cycles[cycle].holdings)
                    if (is_shown[holding.site])
                        take(Sighting{process, static_cast<uint32_t>(cycle - first), &holding});
        }
    };
    begins_.resize(most_.size() + 1);
    each([&](const Sighting &sighting) { ++begins_[sighting.holding->site + 1]; });
    for (size_t i = 1; i < begins_.size(); ++i)
        begins_[i] += begins_[i - 1];
    sightings_.resize(begins_.back());
    std::vector<size_t> ends(begins_);
    each([&](const Sighting &sighting) { sightings_[ends[sighting.holding->site]++] = sighting; });
}

bool SeenSites::is_last(const Sighting &sighting) const {
    return processes_[sighting.process].is_rest ||
           sighting.cycle + 1 == report_.processes[sighting.process].cycles.size();
}

// All of one process, whose cycles are in order.
SeenSite SeenSites::seen(std::span<const Sighting> sightings) const {
    SeenSite site;
    site.process = sightings.front().process;
    const SeenProcess &process = processes_[site.process];
    std::map<uint32_t, uint64_t> by_cycle;
    for (const Sighting &sighting : sightings) {
        const Holding &holding = *sighting.holding;
        by_cycle[sighting.cycle] += holding.held.bytes;
        site.largest = std::max(site.largest, holding.largest);
        if (is_last(sighting)) {
            site.held += holding.held;
            site.lost += holding.lost;
            site.allocated += holding.allocated;
            site.temporary += holding.temporary;
            site.oldest = std::max(site.oldest, holding.oldest);
        }
    }
    uint64_t before = 0;
    for (uint32_t i = 0; i < process.shown.size(); ++i) {
        const auto found = by_cycle.find(process.shown[i]);
        const uint64_t bytes = found == by_cycle.end() ? 0 : found->second;
        if (bytes != before)
            site.bytes.push_back({i, bytes});
        before = bytes;
    }
    for (const auto &[cycle, bytes] : by_cycle)
        site.most = std::max(site.most, bytes);
    if (!process.is_rest) {
        const auto &holders = report_.processes[site.process].cycles.back().held_by;
        const auto found = holders.find(sightings.front().holding->site);
        site.held_by = found == holders.end() ? nullptr : &found->second;
    }
    return site;
}

std::vector<SeenSite> SeenSites::in_processes(uint32_t site) const {
    const std::span all =
        std::span(sightings_).subspan(begins_[site], begins_[site + 1] - begins_[site]);
    std::vector<SeenSite> sites;
    for (auto first = all.begin(); first != all.end();) {
        const auto next = std::find_if(
            first, all.end(), [&](const Sighting &each) { return each.process != first->process; });
        sites.push_back(seen({first, next}));
        first = next;
    }
    return sites;
}
