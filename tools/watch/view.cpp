#include "tools/watch/view.h"

#include "tools/common/counted.h"
#include "tools/common/printable.h"
#include "tools/report/columns.h"
#include "tools/report/holder_lines.h"

#include <algorithm>
#include <array>

namespace {

struct Choice {
    char key;
    Order order;
    const char *name;
};

constexpr std::array<Choice, 7> choices = {{{'b', Order::bytes, "bytes"},
                                            {'g', Order::growth, "growth"},
                                            {'n', Order::blocks, "blocks"},
                                            {'a', Order::age, "age"},
                                            {'p', Order::peak, "peak"},
                                            {'c', Order::allocations, "count"},
                                            {'t', Order::temporary, "temp"}}};

// Tells a site apart from one reading of the reports to the next.
std::string identity_of(const Site &site) {
    std::string identity =
        std::string(site.file) + ':' + std::to_string(site.line) + ':' + std::string(site.type);
    for (const std::string_view pc : site.trace)
        identity.append("\n").append(pc);
    return identity;
}

char lower(char letter) {
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter + ('a' - 'A')) : letter;
}

bool contains(std::string_view text, std::string_view part) {
    const auto is_same = [](char left, char right) { return lower(left) == lower(right); };
    return part.empty() ||
           std::search(text.begin(), text.end(), part.begin(), part.end(), is_same) != text.end();
}

} // namespace

void View::show(Report report) {
    histories_.reset();
    names_ = std::make_unique<Names>(symbolizer_, options_);
    report_ = std::move(report);
    sort();
}

void View::sort() {
    histories_ = std::make_unique<Histories>(report_, order_);
    if (!is_by_counts(order_))
        histories_->drop_idle();
    filter();
}

void View::filter() {
    rows_.clear();
    for (const SiteHistory &site : histories_->sites())
        if (Row row{&site, names_->name(report_.site(site.site)).text()}; contains(row.name, filter_))
            rows_.push_back(std::move(row));
    keep_chosen();
}

void View::keep_chosen() {
    const auto is_chosen = [this](const Row &row) {
        return identity_of(report_.site(row.site->site)) == chosen_site_;
    };
    const auto found = std::ranges::find_if(rows_, is_chosen);
    choose(found != rows_.end() ? static_cast<size_t>(found - rows_.begin()) : chosen_);
    is_open_ = is_open_ && !rows_.empty();
}

void View::choose(size_t row) {
    chosen_ = rows_.empty() ? 0 : std::min(row, rows_.size() - 1);
    chosen_site_ = rows_.empty() ? "" : identity_of(report_.site(rows_[chosen_].site->site));
}

void View::press(Key key) {
    size_t &place = is_open_ ? scrolled_ : chosen_;
    const size_t before = place;
    switch (key) {
    case Key::up:
        place -= std::min<size_t>(place, 1);
        break;
    case Key::down:
        ++place;
        break;
    case Key::page_up:
        place -= std::min(place, page_);
        break;
    case Key::page_down:
        place += page_;
        break;
    case Key::first:
        place = 0;
        break;
    case Key::last:
        place = rows_.size();
        break;
    case Key::enter:
        is_open_ = !is_typing_ && !is_open_ && !rows_.empty();
        is_typing_ = false;
        scrolled_ = 0;
        break;
    case Key::escape:
        if (!is_open_ && !filter_.empty()) {
            filter_.clear();
            filter();
        }
        is_open_ = is_typing_ = false;
        break;
    case Key::backspace:
        if (is_typing_ && !filter_.empty()) {
            filter_.pop_back();
            filter();
        }
        break;
    }
    if (!is_open_ && chosen_ != before)
        choose(chosen_);
}

void View::type(char letter) {
    if (is_typing_) {
        filter_ += letter;
        filter();
        return;
    }
    is_typing_ = letter == '/' && !is_open_;
    for (const Choice &choice : choices)
        if (choice.key == letter && choice.order != order_) {
            order_ = choice.order;
            sort();
        }
}

std::string View::footer() const {
    if (is_typing_)
        return "filter: " + filter_ + "_";
    if (is_open_)
        return "q quit, enter back";
    std::string keys = "q quit, / filter, enter";
    for (const Choice &choice : choices)
        keys += std::string(" ") + choice.key + (choice.order == order_ ? '*' : '-') + choice.name;
    return keys;
}

std::vector<Line> View::table(size_t height, size_t width) {
    page_ = std::max<size_t>(height, 2) - 1; // below the heading
    first_ = std::min(first_, chosen_);
    first_ = std::max(first_, chosen_ + 1 - std::min(chosen_ + 1, page_));
    std::vector<SiteHistory> sites;
    for (size_t row = first_; row < std::min(rows_.size(), first_ + page_); ++row)
        sites.push_back(*rows_[row].site);
    const std::vector<Column> columns = columns_of(*histories_, sites, order_, width);
    const std::string heading = heading_of(columns);
    std::vector<Line> lines = {{heading + "SITE", Line::Style::heading}};
    for (size_t i = 0; i < sites.size(); ++i)
        lines.push_back(
            {row_of(columns, i) +
                 names_->name(report_.site(sites[i].site)).fitted(left_behind(width_of(heading), width)),
             first_ + i == chosen_ ? Line::Style::chosen : Line::Style::plain});
    return lines;
}

std::vector<Line> View::stack(size_t height, size_t width) {
    const SiteHistory &history = *rows_[chosen_].site;
    const Site &site = report_.site(history.site);
    std::vector<Line> lines = {{amount_of(history, order_) + " from", Line::Style::heading}};
    const auto add = [&](const std::string &text) { lines.push_back({"  " + printable(text)}); };
    for (const StackFrame &frame : names_->frames(site.trace))
        lines.push_back({"  " + frame.text(left_behind(2, width))});
    if (site.line != 0 || site.trace.empty())
        add(names_->name(site).text());
    if (history.held_by != nullptr) {
        lines.push_back({"held by", Line::Style::heading});
        for (const Holder &holder : history.held_by->roots)
            add(describe(holder.root, holder.held));
        for (const std::string &line : describe_path(*history.held_by, report_, *names_))
            add(line);
    }
    scrolled_ = std::min(scrolled_, lines.size() - std::min(lines.size(), height));
    lines.erase(lines.begin(), lines.begin() + static_cast<ptrdiff_t>(scrolled_));
    return lines;
}

std::vector<Line> View::lines(const std::string &title, size_t height, size_t width) {
    constexpr size_t around = 3; // the title, the total and the keys
    const size_t inner = height - std::min(height, around);
    std::vector<Line> lines = {{printable(title), Line::Style::heading}};
    if (histories_ == nullptr || report_.processes.empty()) {
        lines.push_back({"no reports yet"});
    } else {
        const Counter total = total_of(report_);
        lines.push_back({counted(total.bytes, "byte") + " in " + counted(total.blocks, "block") + "; " +
                         counted(rows_.size(), "site") +
                         (filter_.empty() ? "" : " with " + printable(filter_)) + ", " +
                         counted(histories_->cycles(), "cycle") + ", " +
                         counted(report_.processes.size(), "process")});
        std::ranges::move(is_open_ ? stack(inner, width) : table(inner, width),
                          std::back_inserter(lines));
    }
    lines.resize(std::max<size_t>(height, 1) - 1);
    lines.push_back({footer(), Line::Style::faint});
    for (Line &line : lines)
        line.text = first_of(line.text, width);
    return lines;
}
