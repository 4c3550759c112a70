#include "tools/report/model.h"

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdio>
#include <functional>
#include <tuple>

std::strong_ordering operator<=>(const Site &left, const Site &right) {
    const auto place = [](const Site &site) { return std::tie(site.file, site.line, site.type); };
    if (const auto order = place(left) <=> place(right); order != 0)
        return order;
    return std::lexicographical_compare_three_way(left.trace.begin(), left.trace.end(),
                                                  right.trace.begin(), right.trace.end());
}

bool FailedRun::is_bad() const {
    constexpr std::array<std::string_view, 5> bad = {"damaged", "crash", "hang", "lost", "wrong"};
    return std::ranges::count(bad, happened.front().outcome) != 0;
}

// Traces are kept once.
bool FailedRun::is_like(const FailedRun &other) const {
    const Happening &here = happened.front(), &there = other.happened.front();
    return here.outcome == there.outcome &&
           here.text.substr(0, here.text.find(':')) == there.text.substr(0, there.text.find(':')) &&
           here.trace.data() == there.trace.data() &&
           (!here.trace.empty() || failed.data() == other.failed.data());
}

std::string_view Damage::code() const {
    return kind == Kind::past_end ? "WO" : kind == Kind::before_start ? "WU" : "WF";
}

std::string Damage::address_text() const {
    char text[20];
    std::snprintf(text, sizeof text, "0x%" PRIX64, address);
    return text;
}

std::string_view Report::text(std::string_view text) {
    const std::span<const char> kept = texts_[texts_.number_of(text)];
    return {kept.data(), kept.size()};
}

Trace Report::trace(std::span<const std::string_view> pcs) {
    std::vector<std::string_view> kept;
    kept.reserve(pcs.size());
    for (const std::string_view pc : pcs)
        kept.push_back(text(pc));
    return traces_[traces_.number_of(kept)];
}

uint32_t Report::site_number(const Site &site) {
    const Site kept = {text(site.file), site.line, text(site.type), trace(site.trace)};
    return sites_.number_of({&kept, 1});
}

bool is_by_counts(Order order) {
    return order == Order::allocations || order == Order::allocated || order == Order::temporary;
}

namespace {

bool is_idle(const SiteHistory &site) {
    return site.largest == 0 && site.held.blocks == 0;
}

bool comes_before(const SiteHistory &left, const SiteHistory &right, Order order) {
    switch (order) {
    case Order::growth:
        return left.growth > right.growth;
    case Order::blocks:
        return left.held.blocks > right.held.blocks;
    case Order::age:
        return left.oldest > right.oldest;
    case Order::peak:
        return left.peak > right.peak;
    case Order::allocations:
        return left.allocated.blocks > right.allocated.blocks;
    case Order::allocated:
        return left.allocated.bytes > right.allocated.bytes;
    case Order::temporary:
        return left.temporary.blocks > right.temporary.blocks;
    default:
        return left.held.bytes > right.held.bytes;
    }
}

// Those with the most cycles first.
std::vector<const Process *> by_length(const Report &report) {
    std::vector<const Process *> processes;
    processes.reserve(report.processes.size());
    for (const Process &process : report.processes)
        processes.push_back(&process);
    std::ranges::stable_sort(processes, std::greater(),
                             [](const Process *process) { return process->cycles.size(); });
    return processes;
}

Counter sum_of(const HeldBy &held_by) {
    Counter sum = held_by.others;
    for (const Holder &holder : held_by.roots)
        sum += holder.held;
    return sum;
}

} // namespace

// All points lie in one row, where each site gets a part that has room for what it was seen in.
void Histories::count_points(const Report &report) {
    std::vector<size_t> counts(report.site_count());
    size_t all = 0;
    for (const Process &process : report.processes)
        for (const Cycle &cycle : process.cycles)
            for (const Holding &holding : cycle.holdings) {
                ++counts[holding.site];
                ++all;
            }
    points_.resize(all);
    sites_.resize(counts.size());
    size_t begin = 0;
    for (size_t i = 0; i < counts.size(); ++i) {
        sites_[i].site = static_cast<uint32_t>(i);
        sites_[i].bytes = std::span(points_).subspan(begin, 0);
        begin += counts[i];
    }
}

void Histories::add_growth(const Cycle &first, const Cycle &last) {
    for (const Holding &holding : first.holdings)
        sites_[holding.site].growth -= static_cast<int64_t>(holding.held.bytes);
    for (const Holding &holding : last.holdings)
        sites_[holding.site].growth += static_cast<int64_t>(holding.held.bytes);
}

void Histories::add_counts(const Cycle &last) {
    for (const Holding &holding : last.holdings) {
        sites_[holding.site].allocated += holding.allocated;
        sites_[holding.site].temporary += holding.temporary;
    }
}

void Histories::add_cycle(const Cycle &cycle, uint32_t index, bool is_last) {
    searched_ = searched_ || (is_last && cycle.searched);
    for (const Holding &holding : cycle.holdings) {
        if (holding.held.blocks == 0)
            continue;
        SiteHistory &site = sites_[holding.site];
        const std::span<const Point> seen = site.bytes;
        if (seen.empty() || seen.back().cycle != index)
            site.bytes = std::span(seen.data(), seen.size() + 1);
        Point &point = points_[static_cast<size_t>(&site.bytes.back() - points_.data())];
        point.cycle = index;
        point.bytes += holding.held.bytes;
        site.largest = std::max(site.largest, holding.largest);
        if (!is_last)
            continue;
        point.left += holding.held.bytes;
        site.held += holding.held;
        site.lost += holding.lost;
        site.oldest = std::max(site.oldest, holding.oldest);
    }
}

// Of the process where a site holds most.
void Histories::find_holders(const Report &report) {
    std::map<uint32_t, uint64_t> most;
    for (const Process &process : report.processes) {
        if (process.cycles.empty())
            continue;
        for (const auto &[site, held_by] : process.cycles.back().held_by) {
            const Counter held = sum_of(held_by);
            const auto [known, is_new] = most.try_emplace(site, held.bytes);
            if (!is_new && held.bytes <= known->second)
                continue;
            known->second = held.bytes;
            sites_[site].held_by = &held_by;
        }
    }
}

Histories::Histories(const Report &report, Order order) {
    count_points(report);
    const std::vector<const Process *> processes = by_length(report);
    if (!processes.empty())
        cycles_ = static_cast<uint32_t>(processes.front()->cycles.size());
    for (uint32_t i = 0; i < cycles_; ++i)
        for (const Process *process : processes) {
            if (i >= process->cycles.size())
                break;
            add_cycle(process->cycles[i], i, i + 1 == process->cycles.size());
        }
    for (const Process *process : processes)
        if (!process->cycles.empty()) {
            add_growth(process->cycles.front(), process->cycles.back());
            add_counts(process->cycles.back());
        }
    find_holders(report);
    std::erase_if(sites_,
                  [](const SiteHistory &site) { return is_idle(site) && site.allocated.blocks == 0; });
    for (SiteHistory &site : sites_)
        site.each_cycle(cycles_,
                        [&](uint32_t, uint64_t bytes) { site.peak = std::max(site.peak, bytes); });
    std::ranges::stable_sort(sites_, [order](const SiteHistory &left, const SiteHistory &right) {
        return comes_before(left, right, order);
    });
}

void Histories::drop_idle() {
    std::erase_if(sites_, is_idle);
}

void Histories::keep_lost() {
    std::erase_if(sites_, [](const SiteHistory &site) { return site.lost.blocks == 0; });
}

Counter total_of(const Report &report) {
    Counter total;
    for (const Process &process : report.processes)
        if (!process.cycles.empty())
            total += process.cycles.back().live;
    return total;
}
