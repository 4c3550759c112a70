// What the command shows of reports, to people and to programs.
#include "reports.h"
#include "text.h"
#include "tools/report/columns.h"
#include "tools/report/diff.h"
#include "tools/report/findings.h"
#include "tools/report/html.h"
#include "tools/report/machine.h"
#include "tools/report/sarif.h"
#include "tools/report/table.h"
#include "tools/report/trace_match.h"

#include <regex>
#include <simdjson.h>
#include <sstream>

namespace {

std::string table(const Report &report, Order order = Order::bytes, size_t top = 20) {
    std::ostringstream out;
    Symbolizer symbolizer;
    Names names(symbolizer);
    print_table(out, report, {order, top, false}, names);
    return out.str();
}

std::string summary(const Report &report, LeakCheck leak_check = LeakCheck::held) {
    std::ostringstream out;
    Symbolizer symbolizer;
    Findings(report, leak_check, "").print(out, symbolizer);
    return out.str();
}

bool finds_nothing(const Report &report) {
    return Findings(report, LeakCheck::lost, "").empty();
}

std::string as_json(const Report &report) {
    std::string whole;
    Symbolizer symbolizer;
    Names names(symbolizer);
    put_json([&](std::string_view piece) { whole += piece; }, report, Order::bytes, names);
    return whole;
}

simdjson::dom::element parsed_sarif(const Report &report, simdjson::dom::parser &parser) {
    std::string whole;
    Symbolizer symbolizer;
    put_sarif([&](std::string_view piece) { whole += piece; }, Findings(report, LeakCheck::lost, ""),
              "/no", symbolizer);
    return parser.parse(whole).value()["runs"].at(0);
}

// The data in a page.
std::string embedded(const std::string &page) {
    std::smatch data;
    EXPECT_TRUE(std::regex_search(page, data, std::regex("id=\"report\">([^<]*)</script>")));
    return data[1];
}

// What a parser makes of it.
std::string parsed(const std::string &json) {
    simdjson::dom::parser parser;
    return simdjson::minify(parser.parse(json).value());
}

TEST(Outputs, TextReportsBecomeATable) {
    const Report report = text(three_cycles);
    EXPECT_EQ(problems(report), "");
    EXPECT_EQ(table(report), "WO: a block of 4 bytes at 0xD0 was written past its end in r.txt\n"
                             "  allocated at d.c:3 (STD)\n"
                             "  BYTES  BLOCKS  AGE  GROWTH       SITE\n"
                             "     50       1    1     +50    █  e.c:9 (FIX)\n"
                             "     40       2    3     +30  ▂██  a.c:1 (STD)\n"
                             "      0       0    0      -5  █    b:\\c:7.c:2 (SHM)\n"
                             "\n"
                             "total: 90 bytes in 3 blocks; 3 sites, 3 cycles, 1 process\n");
    const std::string by_age = table(report, Order::age, 1);
    EXPECT_NE(by_age.find("a.c:1"), std::string::npos);
    EXPECT_NE(by_age.find("and 2 more sites"), std::string::npos);
    EXPECT_EQ(Histories(report, Order::growth).sites().back().growth, -5);
    EXPECT_EQ(Histories(report, Order::blocks).sites().front().held.blocks, 2u);
    // The checker was switched on again: another process, as far as cycles go.
    const Report again = text(three_cycles + cycle(3, "a.c:1:LK:STD:0xA0:7:1\n", ""));
    EXPECT_EQ(again.processes.size(), 2u);
    const Histories histories(again, Order::age);
    const SiteHistory &both = histories.sites().front();
    EXPECT_EQ(both.held.bytes, 47u);
    EXPECT_EQ(both.oldest, 3u);
    // What it held counts on, and its growth is its own.
    std::string bytes;
    both.each_cycle(4, [&](uint32_t, uint64_t held) { bytes += std::to_string(held) + " "; });
    EXPECT_EQ(bytes, "17 47 47 47 ");
    EXPECT_EQ(both.peak, 47u);
    EXPECT_EQ(both.growth, 30);
    EXPECT_EQ(sparkline(both, 3, 8), "▃██");
}

TEST(Outputs, JsonReportsBecomeATable) {
    const Report report = json(json_lines);
    EXPECT_EQ(problems(report), "");
    EXPECT_EQ(
        table(report),
        R"(k42mc detected DF: alloc(STD) free(STD) usrPtr(0x1) usrSize(10): a second release of a block of 10 bytes in p.12
  released by
    /no/p+0x7
  released before by
    /no/p+0x8
WU: a block of 100 bytes at 0x55D0 was written before its start in p.12
  allocated at b.c:2 (STD)
    /no/p+0x3
descriptor 6 closed twice in p.12
  CLOSE by fclose at 1/2 3:4:5
    /no/p+0x5
  CLOSE by close at 1/2 3:4:6
    /no/p+0x6
descriptors left open: 5, 7 in p.12
  OPEN by socket at 1/2 3:4:5
    /no/p+0x4
  BYTES  BLOCKS  AGE  SITE
     50       5    3  a.c:12 (STD)
      7       1    1  /no/p+0x9 < /no/p+0x2b (FIX)

50 bytes in 5 blocks from
    /no/p+0x1a
    /no/p+0x2b

7 bytes in 1 block from
    /no/p+0x9
    /no/p+0x2b

total: 90 bytes in 9 blocks; 2 sites, 1 cycle, 1 process
)");
    EXPECT_TRUE(
        contains(table(report, Order::temporary), // of all that allocated, whoever holds something
                 "  BYTES  BLOCKS  AGE  ALLOCATIONS  TEMPORARY  SITE\n"
                 "      0       0    0            9          8  idle.c:1 (STD)\n"
                 "     50       5    3            0          0  a.c:12 (STD)\n"));
    const std::string busiest = table(report, Order::allocated);
    EXPECT_TRUE(contains(busiest, "            9         99  idle.c:1 (STD)\n"));
    EXPECT_TRUE(
        contains(busiest, "\n9 allocations of 99 bytes, 8 of them temporary, from\n    /no/p+0x2b\n"));
    const Process later = json(json_lines + json_lines).processes[0]; // the last report counts
    EXPECT_EQ(later.damages.size(), 1u);
    EXPECT_EQ(later.descriptors.size(), 4u);
}

TEST(Outputs, TheSummaryOfARunGroupsByTrace) {
    Report report = json(json_lines);
    Lines again(json_lines); // of a child of fork, which is told apart
    read_json(report, "child", again);
    const std::string each = R"(k42mc: p.12: 7 blocks, 157 bytes at 3 sites
  written before the start (WU): 1 block, 100 bytes
    /no/p+0x3
  left: 5 blocks, 50 bytes
    /no/p+0x1a
    /no/p+0x2b
  left: 1 block, 7 bytes
    /no/p+0x9
    /no/p+0x2b
k42mc: p.12: descriptors
  closed twice: 1 descriptor
    /no/p+0x6
   and before by
    /no/p+0x5
  open: 2 descriptors
    /no/p+0x4
k42mc: process 12 was stopped: k42mc detected DF: alloc(STD) free(STD) usrPtr(0x1) usrSize(10): a second release of a block of 10 bytes
  released by
    /no/p+0x7
  released before by
    /no/p+0x8
)";
    EXPECT_EQ(summary(report), "k42mc: 14 blocks, 314 bytes at 3 sites in 2 processes\n" + each + each);
    // What is no fault is said, and does not count.
    const auto ended_by = [](const std::string &signal) {
        return json(R"({"kind":"signal","pid":7,"program":"p","name":")" + signal +
                    R"(","address":"0x10","chain":["/no/p+0x1"]})" + "\n");
    };
    EXPECT_EQ(summary(ended_by("SIGSEGV")), "k42mc: 0 blocks, 0 bytes at 0 sites in 1 process\n"
                                            "k42mc: p.7: ended by SIGSEGV at address 0x10\n"
                                            "  in\n    /no/p+0x1\n");
    EXPECT_FALSE(finds_nothing(ended_by("SIGSEGV")));
    EXPECT_TRUE(finds_nothing(ended_by("SIGTERM")));
    const Report unchecked =
        json("{\"kind\":\"unchecked\",\"pid\":7,\"program\":\"p\",\"reason\":\"why\"}\n"
             "{\"kind\":\"note\",\"pid\":7,\"program\":\"p\",\"text\":\"so\"}\n");
    EXPECT_EQ(summary(unchecked), "k42mc: 0 blocks, 0 bytes at 0 sites in 1 process\n"
                                  "k42mc: p.7: not checked: why\nk42mc: p.7: so\n");
    EXPECT_TRUE(finds_nothing(unchecked));
    // Of what is left, that which is lost counts, unless all of it is to.
    const Report searched = json(
        R"({"kind":"cycle","program":"p","pid":7,"cycle":1,"blocks":6,"bytes":55,"searched":true})"
        "\n"
        R"({"kind":"site","file":"a.c","line":1,"type":"STD","chain":[],"blocks":5,"bytes":50,"oldest":1,)"
        R"("largest":10,"lost":{"blocks":1,"bytes":10},"indirect":{"blocks":2,"bytes":20}})"
        "\n"
        R"({"kind":"site","file":"b.c","line":2,"type":"STD","chain":[],"blocks":1,"bytes":5,"oldest":1,)"
        R"("largest":5,"lost":{"blocks":0,"bytes":0},"indirect":{"blocks":0,"bytes":0}})"
        "\n{\"kind\":\"end\"}\n");
    EXPECT_TRUE(contains(as_json(searched), R"("bytes":50,"lost":{"blocks":3,"bytes":30},"oldest")"));
    EXPECT_TRUE(contains(as_json(searched), R"("cycles":1,"searched":true,"sites")"));
    const std::string held = "k42mc: held to the end: ", listed = "; --leak-check=held lists them\n";
    EXPECT_EQ(summary(searched, LeakCheck::lost),
              "k42mc: 3 blocks, 30 bytes at 1 site in 1 process\n  lost: 3 blocks, 30 bytes\n    a.c\n" +
                  held + "3 blocks, 25 bytes" + listed);
    EXPECT_FALSE(finds_nothing(searched));
    EXPECT_EQ(summary(searched),
              "k42mc: 6 blocks, 55 bytes at 2 sites in 1 process\n"
              "  left: 5 blocks, 50 bytes\n    a.c\n  left: 1 block, 5 bytes\n    b.c\n");
    EXPECT_EQ(summary(searched, LeakCheck::no), "k42mc: 0 blocks, 0 bytes at 0 sites in 1 process\n" +
                                                    held + "6 blocks, 55 bytes" + listed);
    const std::string heading = "  BYTES  BLOCKS  AGE  LOST  SITE\n",
                      lost = "     50       5    1    30  a.c:1 (STD)\n",
                      kept = "      5       1    1     0  b.c:2 (STD)\n";
    EXPECT_TRUE(table(searched).starts_with(heading + lost + kept));
    std::ostringstream only_lost;
    Symbolizer symbolizer;
    Names names(symbolizer);
    print_table(only_lost, searched, {.only_lost = true}, names);
    EXPECT_TRUE(only_lost.str().starts_with(heading + lost + "\n"));
    // Without traces, the file tells sites apart.
    EXPECT_EQ(summary(text("a:1:WO:STD:0xA0:4:2\n------\nb:1:WO:STD:0xB0:5:2\n------\n")),
              "k42mc: 2 blocks, 9 bytes at 2 sites in 1 process\n"
              "  written past the end (WO): 1 block, 5 bytes\n    b\n"
              "  written past the end (WO): 1 block, 4 bytes\n    a\n");
}

// Of the process where a site holds most, whatever was released meanwhile.
TEST(Outputs, TellWhatHoldsASite) {
    const auto process = [](const std::string &pid, const std::string &roots, const std::string &path) {
        return R"({"kind":"cycle","program":"p","pid":)" + pid +
               R"(,"cycle":1,"blocks":5,"bytes":50,"searched":true})"
               "\n"
               R"({"kind":"site","file":"a.c","line":1,"type":"STD","chain":["/no/p+0x1"],"blocks":5,)"
               R"("bytes":50,"oldest":1,"largest":10,"lost":{"blocks":0,"bytes":0},)"
               R"("indirect":{"blocks":0,"bytes":0},"held_by":{"roots":[)" +
               roots + "],\"path\":[" + path + "}}\n{\"kind\":\"end\"}\n";
    };
    const auto root = [](const std::string &name, const std::string &bytes) {
        return R"({"root":")" + name + R"(","blocks":1,"bytes":)" + bytes + "}";
    };
    const std::string
        a = R"({"file":"a.c","line":1,"type":"STD","chain":["/no/p+0x1"],"size":10,"offset":0})",
        b = R"({"file":"b.c","line":2,"type":"FIX","chain":[],"size":1,"offset":8})";
    const Report report =
        json(process("7", root("one", "9"), a + "],\"left_out\":0") +
             process("8",
                     root("variable `_ZN3app8sessionsE` in p+0x8", "9") + "," +
                         root("stack of thread 9, frame `main`", "5"),
                     b + ",{}," + a + R"(],"left_out":7,"others":{"blocks":2,"bytes":3})") +
             process("9", root("other", "16"), "],\"left_out\":0"));
    EXPECT_EQ(problems(report), "");
    const std::string path[] = {"1 byte from b.c:2 (FIX), from byte 8 on", "... 7 more blocks ...",
                                "a block that was released meanwhile", "10 bytes from a.c:1 (STD)"};
    std::string lines = "  held by\n"
                        "    variable `app::sessions` in p+0x8: 9 bytes in 1 block\n"
                        "    stack of thread 9, frame `main`: 5 bytes in 1 block\n"
                        "    others: 3 bytes in 2 blocks\n"
                        "  which leads, for one, to\n";
    for (const std::string &line : path)
        lines += "    " + line + "\n";
    EXPECT_TRUE(contains(table(report), "from\n    /no/p+0x1\n" + lines + "\n")) << table(report);
    EXPECT_TRUE(contains(
        as_json(report),
        R"("held_by":{"roots":[{"root":"variable `app::sessions` in p+0x8","blocks":1,"bytes":9},)"
        R"({"root":"stack of thread 9, frame `main`","blocks":1,"bytes":5}],)"
        R"("others":{"blocks":2,"bytes":3},"path":["1 byte from b.c:2 (FIX), from byte 8 on",)"));
}

// Of two processes that lost the same, one says that it knows.
TEST(Outputs, LeaveOutWhatAProgramSuppressesItself) {
    const auto process = [](const std::string &pid, const std::string &more) {
        return more + R"({"kind":"cycle","program":"p","pid":)" + pid +
               R"(,"cycle":1,"blocks":5,"bytes":50,"searched":true})"
               "\n"
               R"({"kind":"site","file":"a.c","line":1,"type":"STD","chain":["/no/p+0x1"],"blocks":5,)"
               R"("bytes":50,"oldest":1,"largest":10,"lost":{"blocks":1,"bytes":10},)"
               R"("indirect":{"blocks":2,"bytes":20}})"
               "\n{\"kind\":\"end\"}\n";
    };
    Report report =
        json(process("7", R"({"kind":"suppressions","pid":7,"program":"p",)"
                          R"("text":"# known\nleak:nowhere\nno pattern\n leak:^/no/*p$ \r\n"})"
                          "\n") +
             process("8", ""));
    EXPECT_EQ(problems(report), "");
    Symbolizer symbolizer;
    Findings findings(report, LeakCheck::lost, "");
    std::vector<Suppression> users;
    findings.suppress(users, symbolizer);
    std::ostringstream said;
    findings.print(said, symbolizer);
    EXPECT_EQ(said.str(), "k42mc: 3 blocks, 30 bytes at 1 site in 2 processes\n"
                          "k42mc: p.8: 3 blocks, 30 bytes at 1 site\n"
                          "  lost: 3 blocks, 30 bytes\n    /no/p+0x1\n"
                          "k42mc: held to the end: 4 blocks, 40 bytes; --leak-check=held lists them\n"
                          "k42mc: suppressed by the program: leak:^/no/*p$: 3 blocks, 30 bytes\n");
    heed_own_suppressions(report, symbolizer);
    EXPECT_TRUE(contains(table(report), "    100      10    1    30  "));
}

TEST(Outputs, OtherProgramsGetAllThereIs) {
    const Report report = json(json_lines);
    Symbolizer symbolizer;
    Names names(symbolizer);
    std::ostringstream csv, folded, page;
    print_csv(csv, report, Order::bytes, names);
    EXPECT_EQ(csv.str(), "bytes,blocks,oldest,largest,growth,type,file,line,site,"
                         "peak,allocations,allocated,temporary\n"
                         "50,5,3,20,0,\"STD\",\"a.c\",12,\"a.c:12 (STD)\",50,0,0,0\n"
                         "7,1,1,7,0,\"FIX\",\"p+0x9\",0,\"/no/p+0x9 < /no/p+0x2b (FIX)\",7,0,0,0\n"
                         "0,0,0,0,0,\"STD\",\"idle.c\",1,\"idle.c:1 (STD)\",0,9,99,8\n");
    print_folded(folded, report, names);
    EXPECT_EQ(folded.str(), "/no/p+0x2b;/no/p+0x1a;a.c:12 50\n/no/p+0x2b;/no/p+0x9 7\n");
    simdjson::dom::parser parser;
    const simdjson::dom::element all = parser.parse(as_json(report));
    const simdjson::dom::element process = all["processes"].at(0);
    EXPECT_EQ(process["damages"].at(0)["address"].get_string().value(), "0x55D0");
    EXPECT_EQ(process["descriptors"].get_array().size(), 4u);
    std::string titles;
    for (const simdjson::dom::element finding : process["findings"])
        for (const auto &[member, end] : {std::pair{"kind", ": "}, {"title", "\n"}})
            titles += std::string(finding[member].get_string().value()) + end;
    EXPECT_EQ(titles, "stopped: k42mc detected DF: alloc(STD) free(STD) usrPtr(0x1) usrSize(10): a "
                      "second release of a block of 10 bytes\n"
                      "damaged: WU: a block of 100 bytes at 0x55D0 was written before its start\n"
                      "misused descriptor: descriptor 6 closed twice\n"
                      "left open: descriptors left open: 5, 7\n");
    print_html(page, report, Order::bytes, names);
    simdjson::dom::parser page_parser;
    EXPECT_EQ(page_parser.parse(embedded(page.str()))["findings"].get_array().size(), 4u);
    EXPECT_EQ(page.str().find("http://"),
              page.str().find("http://www.w3.org/2000/svg")); // nothing from elsewhere
}

TEST(Outputs, JsonIsAsciiAndHasALineForEachSite) {
    const Report report =
        text(cycle(1,
                   "\"\\/\x1f \x7f\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80\xff\xf0\x9f:1:LK:"
                   "STD:0xA0:10:1\nb:2:LK:FIX:0xB0:5:2\n",
                   "15 bytes held by 2 allocations") +
             "a:3:WU:STD:0xD0:4:2\nBacktrace of the allocation:\n/no/p(+0x2) [0x56]\n------\n");
    const std::string name = R"("\"\\/\u001f \u007f\u00e9\u20ac\ud83d\ude00\ufffd\ufffd\ufffd)";
    const std::string expected =
        R"({"format":1,"total":{"blocks":2,"bytes":15},"cycles":1,"sites":[
{"name":)" +
        name + R"-(:1 (STD)","label":)-" + name + R"-(:1","file":)-" + name +
        R"-(","line":1,"type":"STD","chain":[],"blocks":1,"bytes":10,"oldest":1,"largest":10,"growth":0,"peak":10,"series":[[1,10]]},
{"name":"b:2 (FIX)","label":"b:2","file":"b","line":2,"type":"FIX","chain":[],"blocks":1,"bytes":5,"oldest":2,"largest":5,"growth":0,"peak":5,"series":[[1,5]]}],"processes":[{"name":"r.txt","cycles":[
{"blocks":2,"bytes":15}],"sites":[
[0,[1,10,1]],
[1,[1,5,1]]],"findings":[
{"kind":"damaged","what":"written before the start (WU)","title":"WU: a block of 4 bytes at 0xD0 was written before its start","count":1,"bytes":4,"trails":[{"heading":"allocated at a:3 (STD)","chain":[{"pc":"/no/p(+0x2) [0x56]","function":"","file":"","line":0,"inlined":false}]}]}],"damages":[
{"name":"a:3 (STD)","label":"a:3","file":"a","line":3,"type":"STD","chain":[{"pc":"/no/p(+0x2) [0x56]","function":"","file":"","line":0,"inlined":false}],"defect":"WU","address":"0xD0","size":4,"cycles":2}],"descriptors":[]}]}
)-";
    EXPECT_EQ(as_json(report), expected);
}

// Whatever stands in a name, it stays a name.
const std::string escape = "\x1b]0;owned\a\x1b[2J";
const std::string hostile = "=cmd|'/c calc'!A0\r\n\"" + escape +
                            ";</script>\xc2\x9b"
                            "\xe2\x80\xae\xff";

// JSON has no bytes that are no text, but all control characters.
Report hostile_report() {
    std::string name;
    const Put put = [&](std::string_view piece) { name += piece; };
    JsonWriter(put).value(hostile.substr(0, hostile.size() - 1));
    name.pop_back();
    return json(R"({"kind":"cycle","program":)" + name +
                R"(,"pid":1,"cycle":1,"blocks":1,"bytes":1})"
                "\n"
                R"({"kind":"site","file":)" +
                name + R"(,"line":3,"type":)" + name + R"(,"chain":[)" + name +
                R"(],"blocks":1,"bytes":1,"oldest":1,"largest":1})"
                "\n"
                R"({"kind":"damage","defect":"WO","file":)" +
                name + R"(,"line":3,"type":)" + name +
                R"(,"address":"0x1","size":1,"cycles":1,"chain":[)" + name +
                "]}\n"
                R"({"kind":"end","sites":1,"damaged":1})"
                "\n"
                R"({"kind":"descriptor","descriptor":7,"open":true,"alarms":1,"events":[)"
                R"({"type":)" +
                name + R"(,"operator":)" + name + R"(,"time":)" + name +
                R"(,"chain":[]},)"
                R"({"type":"CLOSE","operator":)" +
                name +
                R"(,"time":"","chain":[]}]})"
                "\n"
                R"({"kind":"defect","pid":1,"text":)" +
                name + R"(,"words":)" + name + R"(,"chain":[)" + name +
                R"(],"block":[]})"
                "\n");
}

TEST(Outputs, HostileNamesStayNames) {
    const Report report = hostile_report();
    EXPECT_EQ(problems(report), "");
    const Report bytes =
        text(cycle(1, "=1+\xff\x1b;b\"\t:1:LK:STD:0xA0:10:1\n", "1 bytes held by 1 allocations"));
    Symbolizer symbolizer;
    Names names(symbolizer);
    for (const Report *each : {&report, &bytes}) {
        std::ostringstream changes;
        print_changes(changes, changes_between(Report(), *each), 20, names);
        for (const std::string &out : {table(*each), summary(*each), changes.str()}) {
            EXPECT_EQ(out.find_first_of(escape.substr(0, 1) + "\a\r\t\xff"), std::string::npos) << out;
            EXPECT_EQ(out.find("\xc2\x9b"), std::string::npos) << out;
            EXPECT_EQ(out.find("\xe2\x80\xae"), std::string::npos) << out;
        }
    }
    EXPECT_EQ(table(bytes).find("=1+\\xff\\x1b;b\"\\x09:1 (STD)\n"), table(bytes).find("=1+"));

    std::ostringstream csv, folded, page;
    print_csv(csv, bytes, Order::bytes, names);
    EXPECT_EQ(csv.str().substr(csv.str().find('\n') + 1),
              "10,1,1,10,0,\"STD\",\"'=1+\\xff\\x1b;b\"\"\\x09\",1,"
              "\"'=1+\\xff\\x1b;b\"\"\\x09:1 (STD)\",10,0,0,0\n");
    for (const char *formula : {"=a", "+a", "-a", "@a"}) {
        std::ostringstream one;
        print_csv(one, text(cycle(1, std::string(formula) + ":1:LK:" + formula + ":0xA0:10:1\n", "")),
                  Order::bytes, names);
        EXPECT_NE(
            one.str().find(std::string(",\"'") + formula + "\",\"'" + formula + "\",1,\"'" + formula),
            std::string::npos)
            << one.str();
    }
    print_folded(folded, bytes, names);
    EXPECT_EQ(folded.str(), "=1+\\xff\\x1b:b\"\\x09:1 10\n");
    print_html(page, bytes, Order::bytes, names);
    EXPECT_NE(parsed(embedded(page.str())).find("\"=1+\xef\xbf\xbd\\u001b;b"), std::string::npos);

    std::ostringstream hostile_page;
    print_html(hostile_page, report, Order::bytes, names);
    simdjson::dom::parser parser;
    const simdjson::dom::element all = parser.parse(embedded(hostile_page.str()));
    const auto texts = all["texts"].get_array().value();
    EXPECT_TRUE(std::any_of(texts.begin(), texts.end(), [&](auto text) {
        return text.get_string().value() == hostile.substr(0, hostile.size() - 1) + ":3";
    }));
}

TEST(Outputs, DiffListsWhatChanged) {
    const Report before =
        text(cycle(1, "a:1:LK:STD:0xA0:10:1\nb:1:LK:STD:0xB0:10:1\nc:1:LK:STD:0xC0:9:1\n", ""));
    const Report after = text(cycle(1,
                                    "a:1:LK:STD:0xA0:10:1\nb:1:LK:STD:0xB0:10:1\nb:1:LK:STD:0xB1:20:1\n"
                                    "d:1:LK:STD:0xD0:5:1\n",
                                    ""));
    std::ostringstream out;
    Symbolizer symbolizer;
    Names names(symbolizer);
    print_changes(out, changes_between(before, after), 2, names);
    EXPECT_EQ(out.str(), "        GROWTH    BLOCKS         BYTES  SITE\n"
                         "           +20        +1            30  b:1 (STD)\n"
                         "            +5        +1             5  d:1 (STD)\n"
                         "  and 1 more site\n"
                         "total: +16 bytes, +1 blocks at 3 sites\n");
}

const std::string outcomes =
    R"({"kind":"fail-each","command":["/no/bin/p","-x"]}
{"kind":"outcome","happened":[{"outcome":"handled","what":"exit status 1","chain":[]}],"process":"p.1","failure":"allocation 1 failed on purpose: 9 bytes","failed":["/no/p+0x1"],"message":"","stack":"01","repeat":"k42mc a"}
{"kind":"outcome","happened":[{"outcome":"crash","what":"ended by SIGSEGV","chain":["/no/p+0x2"]},{"outcome":"lost","what":"1 block","chain":["/no/p+0x3"]}],"process":"p.1","failure":"allocation 2 failed on purpose: 9 bytes","failed":["/no/p+0x4"],"message":"","stack":"02","repeat":"k42mc b"}
{"kind":"outcome","happened":[{"outcome":"crash","what":"ended by SIGSEGV","chain":["/no/p+0x2"]}],"process":"p.1","failure":"allocation 3 failed on purpose: 9 bytes","failed":["/no/p+0x5"],"message":"","stack":"03","repeat":"k42mc c"}
{"kind":"outcome","happened":[{"outcome":"crash","what":"ended by SIGSEGV","chain":["/no/p+0x8"]}],"process":"p.1","failure":"allocation 6 failed on purpose: 9 bytes","failed":["/no/p+0x5"],"message":"","stack":"06","repeat":"k42mc f"}
{"kind":"outcome","happened":[{"outcome":"hang","what":"no end in time","chain":[]}],"process":"p.1","failure":"allocation 4 failed on purpose: 9 bytes","failed":["/no/p+0x6"],"message":"","stack":"04","repeat":"k42mc d"}
{"kind":"outcome","happened":[{"outcome":"hang","what":"no end in time","chain":[]}],"process":"p.1","failure":"allocation 5 failed on purpose: 9 bytes","failed":["/no/p+0x7"],"message":"","stack":"05","repeat":"k42mc e"}
)";

TEST(Outputs, RunsWithoutMemoryAreFindingsWhereTheyWereNotHandled) {
    const Report report = json(outcomes);
    EXPECT_EQ(problems(report), "");
    EXPECT_EQ(
        table(report),
        R"(crash: ended by SIGSEGV, and lost: 1 block, where allocation 2 failed on purpose: 9 bytes; 1 more run alike; repeat it with: k42mc b in p
  crash: ended by SIGSEGV
    /no/p+0x2
  lost: 1 block
    /no/p+0x3
  allocation 2 failed on purpose: 9 bytes
    /no/p+0x4
crash: ended by SIGSEGV, where allocation 6 failed on purpose: 9 bytes; repeat it with: k42mc f in p
  crash: ended by SIGSEGV
    /no/p+0x8
  allocation 6 failed on purpose: 9 bytes
    /no/p+0x5
hang: no end in time, where allocation 4 failed on purpose: 9 bytes; repeat it with: k42mc d in p
  allocation 4 failed on purpose: 9 bytes
    /no/p+0x6
hang: no end in time, where allocation 5 failed on purpose: 9 bytes; repeat it with: k42mc e in p
  allocation 5 failed on purpose: 9 bytes
    /no/p+0x7
total: 0 bytes in 0 blocks; 0 sites, 0 cycles, 1 process
)");
    EXPECT_NE(problems(json(R"({"kind":"outcome","happened":[]})")), "");
}

// Fingerprints have no lines or addresses: so the two last ones differ by their order alone.
TEST(Outputs, SarifHasRulesPlacesAndFlows) {
    simdjson::dom::parser parser;
    const auto run = parsed_sarif(json(json_lines + outcomes), parser);
    std::string ids, fingerprints;
    for (const auto result : run["results"].get_array()) {
        ids += std::string(result["ruleId"].get_string().value()) + " ";
        const std::string_view fingerprint = result["partialFingerprints"]["k42mc/v1"].value();
        fingerprints += fingerprint.substr(fingerprint.find(':'));
        bool is_rule = false;
        for (const auto rule : run["tool"]["driver"]["rules"].get_array())
            is_rule |= rule["id"].get_string().value() == result["ruleId"].get_string().value();
        EXPECT_TRUE(is_rule) << ids;
    }
    EXPECT_EQ(ids, "k42mc/WU k42mc/descriptor k42mc/left-open k42mc/DF k42mc/failed-allocation "
                   "k42mc/failed-allocation k42mc/failed-allocation k42mc/failed-allocation ");
    EXPECT_EQ(fingerprints, ":1:1:1:1:1:2:3:4");
    const auto stop = run["results"].at(3);
    EXPECT_EQ(simdjson::minify(stop["locations"].at(0)["physicalLocation"].value()),
              R"({"artifactLocation":{"uri":"p","uriBaseId":"SRCROOT"}})");
    EXPECT_EQ(stop["codeFlows"].get_array().value().size(), 2u);
    EXPECT_EQ(stop["codeFlows"].at(1)["message"]["text"].get_string().value(), "released before by");
    EXPECT_EQ(simdjson::minify(parsed_sarif(json(json_lines), parser)["originalUriBaseIds"].value()),
              R"({"SRCROOT":{"uri":"file:///no/"}})");
}

} // namespace
