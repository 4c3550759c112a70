#include "tools/commands.h"
#include "tools/report/name_options.h"
#include "tools/watch/feed.h"
#include "tools/watch/view.h"

#include <CLI/CLI.hpp>
#include <clocale>
#include <ctime>
#include <curses.h>
#include <iostream>
#include <unistd.h>

namespace {

struct Options {
    std::string what;
    unsigned every = 5;
    Names::Options names;
};

// The whole terminal, until it goes.
class Screen {
public:
    Screen() {
        setlocale(LC_ALL, "");
        if (MB_CUR_MAX == 1) // the characters of the plots are none of such a locale
            setlocale(LC_CTYPE, "C.UTF-8");
        screen_ = newterm(nullptr, stdout, stdin);
        if (screen_ == nullptr)
            throw std::runtime_error("watch: this terminal is not known (TERM)");
        constexpr int patience_ms = 200, escape_ms = 25;
        cbreak();
        noecho();
        nonl();
        keypad(stdscr, TRUE);
        set_escdelay(escape_ms);
        timeout(patience_ms);
        curs_set(0);
    }
    ~Screen() {
        endwin();
        delscreen(screen_);
    }
    Screen(const Screen &) = delete;
    Screen &operator=(const Screen &) = delete;

    static size_t height() { return static_cast<size_t>(getmaxy(stdscr)); }
    static size_t width() { return static_cast<size_t>(getmaxx(stdscr)); }

    static void draw(const std::vector<Line> &lines) {
        erase();
        for (size_t i = 0; i < lines.size(); ++i) {
            attrset(look_of(lines[i].style));
            mvaddstr(static_cast<int>(i), 0, lines[i].text.c_str());
        }
        refresh();
    }

private:
    static int look_of(Line::Style style) {
        switch (style) {
        case Line::Style::heading:
            return A_BOLD;
        case Line::Style::chosen:
            return A_REVERSE;
        case Line::Style::faint:
            return A_DIM;
        default:
            return A_NORMAL;
        }
    }

    SCREEN *screen_ = nullptr;
};

void press(View &view, int key) {
    static const std::map<int, View::Key> keys = {{KEY_UP, View::Key::up},
                                                  {KEY_DOWN, View::Key::down},
                                                  {KEY_PPAGE, View::Key::page_up},
                                                  {KEY_NPAGE, View::Key::page_down},
                                                  {KEY_HOME, View::Key::first},
                                                  {KEY_END, View::Key::last},
                                                  {KEY_ENTER, View::Key::enter},
                                                  {'\r', View::Key::enter},
                                                  {'\n', View::Key::enter},
                                                  {'\033', View::Key::escape},
                                                  {KEY_BACKSPACE, View::Key::backspace},
                                                  {'\b', View::Key::backspace},
                                                  {'\177', View::Key::backspace}};
    constexpr int first_letter = ' ', last_letter = 255;
    if (const auto known = keys.find(key); known != keys.end())
        view.press(known->second);
    else if (key >= first_letter && key <= last_letter)
        view.type(static_cast<char>(key));
}

std::string clock_time() {
    char text[16];
    const time_t now = time(nullptr);
    tm local = {};
    strftime(text, sizeof text, "%H:%M:%S", localtime_r(&now, &local));
    return text;
}

void watch(const Options &options) {
    if (isatty(STDIN_FILENO) == 0 || isatty(STDOUT_FILENO) == 0)
        throw std::runtime_error("watch needs a terminal; k42mc report shows what there is");
    Feed feed(options.what, std::chrono::seconds(options.every));
    Symbolizer symbolizer;
    View view(symbolizer, options.names);
    const Screen screen;
    std::string read_at, trouble;
    for (int key = ERR; key != 'q' || view.is_typing(); key = getch()) {
        if (key == 'r' && !view.is_typing())
            feed.ask();
        else if (key != ERR && key != KEY_RESIZE)
            press(view, key);
        try {
            if (std::optional<Report> report = feed.next()) {
                view.show(std::move(*report));
                read_at = "; read at " + clock_time();
                trouble.clear();
            }
        } catch (const std::exception &error) { // a file that went away, maybe to come back
            trouble = error.what();
        }
        Screen::draw(view.lines(trouble.empty() ? feed.title() + read_at : trouble, Screen::height(),
                                Screen::width()));
    }
}

} // namespace

void add_watch(CLI::App &app) {
    const auto options = std::make_shared<Options>();
    CLI::App *command = app.add_subcommand("watch", "Show reports as they are written");
    command->footer("Keys: arrows, enter for a site's stack, / to filter, a letter to sort, r for a "
                    "report now, q to quit.");
    command
        ->add_option("what", options->what, "Reports, or the number of a process of k42mc run --signal")
        ->type_name("DIR|FILE|PID")
        ->required();
    command->add_option("--every", options->every, "Ask a process so often, in seconds (default 5)")
        ->type_name("SECONDS")
        ->check(CLI::Range(1U, 86400U));
    add_name_options(*command, options->names, "In stacks");
    command->callback([options] { watch(*options); });
}
