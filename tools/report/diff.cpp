#include "tools/report/diff.h"

#include "tools/common/counted.h"
#include "tools/common/printable.h"

#include <algorithm>
#include <iomanip>

std::vector<Change> changes_between(const Report &before, const Report &after) {
    std::map<Site, Change> by_site;
    const auto enter = [&](const Report &report, Counter Change::*held) {
        Histories histories(report, Order::bytes);
        histories.drop_idle();
        for (const SiteHistory &history : histories.sites())
            by_site[report.site(history.site)].*held = history.held;
    };
    enter(before, &Change::before);
    enter(after, &Change::after);
    std::vector<Change> changes;
    for (auto &[site, change] : by_site) {
        change.site = site;
        if (change.bytes() != 0 || change.blocks() != 0)
            changes.push_back(change);
    }
    std::ranges::stable_sort(changes, std::greater(), &Change::bytes);
    return changes;
}

void print_changes(std::ostream &out, const std::vector<Change> &changes, size_t top, Names &names) {
    uint64_t bytes = 0;
    uint64_t blocks = 0;
    for (const Change &change : changes) {
        bytes += change.after.bytes - change.before.bytes;
        blocks += change.after.blocks - change.before.blocks;
    }
    if (!changes.empty())
        out << std::setw(14) << "GROWTH" << std::setw(10) << "BLOCKS" << std::setw(14) << "BYTES"
            << "  SITE\n";
    for (size_t i = 0; i < std::min(top, changes.size()); ++i)
        out << std::showpos << std::setw(14) << changes[i].bytes() << std::setw(10)
            << changes[i].blocks() << std::noshowpos << std::setw(14) << changes[i].after.bytes << "  "
            << names.name(changes[i].site).fitted(any_width) << '\n';
    if (top < changes.size())
        out << "  and " << counted(changes.size() - top, "more site") << '\n';
    out << "total: " << std::showpos << static_cast<int64_t>(bytes) << " bytes, "
        << static_cast<int64_t>(blocks) << " blocks" << std::noshowpos << " at "
        << counted(changes.size(), "site") << '\n';
}
