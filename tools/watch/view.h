// What a terminal shows of reports that keep coming, and what keys do to it.
#pragma once

#include "tools/report/model.h"
#include "tools/report/names.h"

#include <memory>

struct Line {
    enum class Style { plain, heading, chosen, faint };

    std::string text;
    Style style = Style::plain;
};

class View {
public:
    enum class Key { up, down, page_up, page_down, first, last, enter, escape, backspace };

    View(Symbolizer &symbolizer, Names::Options options)
        : symbolizer_(symbolizer), options_(std::move(options)) {}

    void show(Report report);
    void press(Key key);
    void type(char letter); // chooses an order, or goes into the filter
    bool is_typing() const { return is_typing_; }

    // As many lines as there is room for, and no wider.
    std::vector<Line> lines(const std::string &title, size_t height, size_t width);

private:
    struct Row {
        const SiteHistory *site;
        std::string name;
    };

    void sort();
    void filter();
    void keep_chosen();
    void choose(size_t row);
    std::vector<Line> table(size_t height, size_t width);
    std::vector<Line> stack(size_t height, size_t width);
    std::string footer() const;

    Symbolizer &symbolizer_;
    const Names::Options options_;
    Report report_;
    std::unique_ptr<Names> names_;
    std::unique_ptr<Histories> histories_;
    std::vector<Row> rows_; // that match the filter
    Order order_ = Order::bytes;
    std::string filter_;
    bool is_typing_ = false, is_open_ = false;
    size_t chosen_ = 0, first_ = 0, page_ = 1; // rows
    size_t scrolled_ = 0;                      // lines of the stack
    std::string chosen_site_;
};
