#include "tools/watch/view.h"

#include "../report/reports.h"
#include "text.h"

namespace {

using Key = View::Key;

Report two_sites(int more) {
    const auto site = [](const std::string &pc, int blocks, int bytes) {
        return R"({"kind":"site","cycle":1,"file":"p","line":0,"type":"STD","chain":["/no/)" + pc +
               R"(","/no/caller+0x1"],"blocks":)" + std::to_string(blocks) +
               ",\"bytes\":" + std::to_string(bytes) + ",\"oldest\":1,\"largest\":1}\n";
    };
    return json(R"({"kind":"cycle","program":"p","pid":7,"cycle":1,"blocks":3,"bytes":30})"
                "\n" +
                site("one+0x1", 2, 10 + more) + site("two+0x2", 1, 20) + "{\"kind\":\"end\"}\n");
}

std::string screen(View &view, size_t height = 7, size_t width = 60) {
    std::string text;
    for (const Line &line : view.lines("title", height, width))
        text += (line.style == Line::Style::chosen ? ">" : "") + line.text + "\n";
    return text;
}

TEST(View, ListsFiltersAndKeepsWhatIsChosen) {
    Symbolizer symbolizer;
    View view(symbolizer, {});
    EXPECT_CONTAINS(screen(view), "title\nno reports yet\n");
    view.show(two_sites(0));
    const std::string rows = "     20       1    1  /no/two+0x2 < /no/caller+0x1 (STD)\n"
                             "     10       2    1  /no/one+0x1 < /no/caller+0x1 (STD)\n";
    EXPECT_EQ(screen(view), "title\n30 bytes in 3 blocks; 2 sites, 1 cycle, 1 process\n"
                            "  BYTES  BLOCKS  AGE  SITE\n>" +
                                rows +
                                "\nq quit, / filter, enter b*bytes g-growth n-blocks a-age p-pe\n");
    view.press(Key::down);
    view.press(Key::down); // there is no more
    view.show(two_sites(50));
    EXPECT_CONTAINS(screen(view), "SITE\n>     60       2 ");
    view.type('b'); // as it is
    view.type('g');
    EXPECT_CONTAINS(screen(view), "g*growth");
    for (const char letter : std::string("/TWO"))
        view.type(letter);
    EXPECT_CONTAINS(screen(view), "1 site with TWO,");
    EXPECT_CONTAINS(screen(view), "\nfilter: TWO_\n");
    view.type('b'); // a letter of the filter
    EXPECT_CONTAINS(screen(view), "0 sites with TWOb,");
    view.press(Key::backspace);
    view.press(Key::enter); // the filter stands
    view.press(Key::enter);
    EXPECT_EQ(screen(view, 7, 20), "title\n30 bytes in 3 blocks\n20 bytes in 1 block \n  /no/two+0x2\n"
                                   "  /no/caller+0x1\n\nq quit, enter back\n");
    view.press(Key::last); // nothing below to see
    EXPECT_CONTAINS(screen(view), "  /no/caller+0x1\n");
    view.press(Key::last);
    EXPECT_CONTAINS(screen(view, 5), "\n  /no/two+0x2\n  /no/caller+0x1\n");
    view.press(Key::escape);
    view.press(Key::escape);
    EXPECT_CONTAINS(screen(view), "; 2 sites,");
    for (size_t height : {0, 1, 2, 3, 4}) // whatever room there is
        EXPECT_LE(view.lines("title", height, 1).size(), std::max<size_t>(height, 1));
}

} // namespace
