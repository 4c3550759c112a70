#include "tools/report/model.h"

#include <algorithm>

size_t Report::place(Place place) {
    const auto [known, is_new] = numbers_.try_emplace(place, places_.size());
    if (is_new)
        places_.push_back(std::move(place));
    return known->second;
}

int64_t Site::growth() const {
    return static_cast<int64_t>(series.back() - series.front());
}

namespace {

void add_cycle(std::vector<Site> &by_place, const Cycle &cycle, size_t index, bool is_last) {
    for (const Holding &holding : cycle.holdings) {
        Site &site = by_place[holding.place];
        site.series[index] += holding.held.bytes;
        site.largest = std::max(site.largest, holding.largest);
        if (!is_last)
            continue;
        site.held += holding.held;
        site.oldest = std::max(site.oldest, holding.oldest);
    }
}

bool comes_before(const Site &left, const Site &right, Order order) {
    switch (order) {
    case Order::growth:
        return left.growth() > right.growth();
    case Order::blocks:
        return left.held.blocks > right.held.blocks;
    case Order::age:
        return left.oldest > right.oldest;
    default:
        return left.held.bytes > right.held.bytes;
    }
}

} // namespace

std::vector<Site> sites_of(const Report &report, Order order) {
    const size_t cycles = cycles_of(report);
    std::vector<Site> by_place(report.places().size());
    for (size_t i = 0; i < by_place.size(); ++i) {
        by_place[i].place = i;
        by_place[i].series.resize(std::max<size_t>(cycles, 1));
    }
    for (const Process &process : report.processes)
        for (size_t i = 0; i < process.cycles.size(); ++i)
            add_cycle(by_place, process.cycles[i], i, i + 1 == process.cycles.size());
    std::erase_if(by_place, [](const Site &site) { return site.largest == 0 && site.held.blocks == 0; });
    std::ranges::stable_sort(by_place, [order](const Site &left, const Site &right) {
        return comes_before(left, right, order);
    });
    return by_place;
}

Counter total_of(const Report &report) {
    Counter total;
    for (const Process &process : report.processes)
        if (!process.cycles.empty())
            total += process.cycles.back().live;
    return total;
}

size_t cycles_of(const Report &report) {
    size_t most = 0;
    for (const Process &process : report.processes)
        most = std::max(most, process.cycles.size());
    return most;
}
