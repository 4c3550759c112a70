// What the command reads from reports, and what it makes of them.
#include "tools/report/diff.h"
#include "tools/report/html.h"
#include "tools/report/machine.h"
#include "tools/report/reader.h"
#include "tools/report/symbolize.h"
#include "tools/report/table.h"
#include "tools/run/suppressions.h"

#include <dlfcn.h>
#include <fstream>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>

namespace {

using Json = nlohmann::json;

constexpr const char *counters = "\n#### This cycle: 1 bytes held by 1 allocations ####\n"
                                 "STD:          1(1); +1(1), -0(0)\n\n";

std::string cycle(int number, const std::string &blocks, const std::string &total) {
    return "-----------<cycle " + std::to_string(number) + ">-----------\n{\n" + blocks + counters +
           "#### Since reset: " + total + " ####\nSTD:          1(1); +1(1), -0(0)\n}\n";
}

Report text(const std::string &contents) {
    Report report;
    read_text(report, "r.txt", contents);
    return report;
}

Report json(const std::string &contents) {
    Report report;
    read_json(report, "r.json", contents);
    return report;
}

std::string table(const Report &report, Order order = Order::bytes, size_t top = 20) {
    std::ostringstream out;
    Symbolizer symbolizer;
    print_table(out, report, {order, top, false}, symbolizer);
    return out.str();
}

std::string problems(const Report &report) {
    std::string all;
    for (const Problem &problem : report.problems)
        all += problem.file + ":" + std::to_string(problem.line) + ": " + problem.text + "\n";
    return all;
}

const std::string three_cycles =
    "MC: Reporting to stderr\nwhat the program says: 1\n==========MC init==========\n" +
    cycle(1, "a.c:1:LK:STD:0xA0:10:1\nb:\\c:7.c:2:LK:SHM:0xB0:5:1\n", "15 bytes held by 2 allocations") +
    "noise\r\n" +
    cycle(2, "a.c:1:LK:STD:0xA0:10:2\na.c:1:LK:STD:0xC0:30:1\n", "41 bytes held by 3 allocations") +
    "d.c:3:WO:STD:0xD0:4:2\nBacktrace of the allocation:\n/no/p(f+0x1) [0x55]\n/no/p(+0x2) "
    "[0x56]\n------\n"
    "d.c:3:WO:STD:0xD0:4:3\nNo backtrace available\n" +
    cycle(3, "a.c:1:LK:STD:0xA0:10:3\na.c:1:LK:STD:0xC0:30:2\ne.c:9:LK:FIX:0xE0:50:1\n",
          "90 bytes held by 3 allocations");

TEST(Tools, TextReportsBecomeATable) {
    const Report report = text(three_cycles);
    EXPECT_EQ(problems(report), "");
    EXPECT_EQ(table(report), "WO: a block of 4 bytes at 0xD0 was written past its end in r.txt\n"
                             "  allocated at d.c:3 (STD)\n"
                             "         BYTES    BLOCKS     AGE        GROWTH    SITE\n"
                             "            50         1       1           +50    █  e.c:9 (FIX)\n"
                             "            40         2       3           +30  ▂██  a.c:1 (STD)\n"
                             "             0         0       0            -5  █    b:\\c:7.c:2 (SHM)\n"
                             "\n"
                             "total: 90 bytes in 3 blocks; 3 sites, 3 cycles, 1 process\n");
    const std::string by_age = table(report, Order::age, 1);
    EXPECT_NE(by_age.find("a.c:1"), std::string::npos);
    EXPECT_NE(by_age.find("and 2 sites more"), std::string::npos);
    EXPECT_EQ(sites_of(report, Order::growth).back().growth(), -5);
    EXPECT_EQ(sites_of(report, Order::blocks).front().held.blocks, 2u);
    // The checker was switched on again: another process, as far as cycles go.
    const Report again = text(three_cycles + cycle(3, "a.c:1:LK:STD:0xA0:7:1\n", ""));
    EXPECT_EQ(again.processes.size(), 2u);
    const Site both = sites_of(again, Order::age).front();
    EXPECT_EQ(both.held.bytes, 47u);
    EXPECT_EQ(both.oldest, 3u);
    EXPECT_EQ(both.series, (std::vector<uint64_t>{17, 40, 40}));
}

TEST(Tools, DamagedTextIsToldAndTheRestShown) {
    const std::string whole = cycle(1, "a.c:1:LK:STD:0xA0:10:1\n", "10 bytes held by 1 allocations");
    for (const auto &[contents, told] : std::map<std::string, std::string>{
             {"", "r.txt:0: no report in this file\n"},
             {"root:x:0:0:root:/root:/bin/bash\n", "r.txt:1: no report in this file\n"},
             {whole.substr(0, whole.size() - 3), "r.txt:9: the report is cut off here\n"},
             {whole.substr(0, 50), "r.txt:3: no line of a report: a.c:1:LK:STD:0xA\n"
                                   "r.txt:3: the report is cut off here\n"},
             {whole.substr(0, 57) + whole, "r.txt:4: a report ahead of this one is cut off\n"},
             {"-----------<cycle x>-----------\n" + whole, "r.txt:1: no cycle number\n"},
             {cycle(1,
                    "a.c:1:LK:STD:A0:10:1\n:1:LK:STD:0xA0:10:1\na.c:1:XX:STD:0xA0:10:1\n"
                    "a.c:1:LK:STD:0xA0:-1:1\na.c:1:LK:STD:0xA0:10:99999999999\na.c:1:LK:STD:0xA0:10:1\n",
                    "10 bytes held by 1 allocations"),
              "r.txt:3: no line of a report: a.c:1:LK:STD:A0:10:1\n"
              "r.txt:4: no line of a report: :1:LK:STD:0xA0:10:1\n"
              "r.txt:5: no line of a report: a.c:1:XX:STD:0xA0:10:1\n"
              "r.txt:6: no line of a report: a.c:1:LK:STD:0xA0:-1:1\n"
              "r.txt:7: no line of a report: a.c:1:LK:STD:0xA0:10:99999999999\n"},
             {cycle(1, "a.c:1:LK:STD:0xA0:10:1\n", "many bytes"), "r.txt:8: no total\n"}}) {
        const Report report = text(contents);
        EXPECT_EQ(problems(report), told) << contents;
        if (contents.find("0xA0:10:1\n") != std::string::npos) {
            EXPECT_EQ(sites_of(report, Order::bytes).front().held.bytes % 10, 0u) << contents;
        }
    }
}

const std::string json_lines =
    R"({"kind":"cycle","program":"p","pid":12,"time":1,"width":64,"cycle":1,"limit":1,"blocks":9,"bytes":90,"allocated":{"blocks":9,"bytes":90},"freed":{"blocks":0,"bytes":0}}
{"kind":"site","cycle":1,"file":"a.c","line":12,"type":"STD","chain":["/no/p+0x1a","/no/p+0x2b"],"blocks":5,"bytes":50,"oldest":3,"largest":20}
{"kind":"site","cycle":1,"file":"p+0x9","line":0,"type":"FIX","chain":["/no/p+0x9","/no/libk42mc_preload.so+0x1","/no/p+0x2b"],"blocks":1,"bytes":7,"oldest":1,"largest":7}
{"kind":"site","cycle":1,"file":"common/lib/libk42mc/k42mc_ds","line":180,"type":"STD","chain":[],"blocks":3,"bytes":120,"oldest":1,"largest":40}
{"kind":"damage","cycle":1,"defect":"WU","file":"b.c","line":2,"type":"STD","address":"0x55D0","size":100,"cycles":2,"chain":["/no/p+0x3"]}
{"kind":"end","sites":3,"damaged":1}
{"kind":"descriptor","descriptor":1,"open":true,"alarms":0,"opens":1,"closes":0,"events":[{"type":"OPEN","operator":"dup2","time":"1/2 3:4:5","chain":[]}]}
{"kind":"descriptor","descriptor":5,"open":true,"alarms":0,"opens":1,"closes":0,"events":[{"type":"OPEN","operator":"socket","time":"1/2 3:4:5","chain":["/no/p+0x4"]}]}
{"kind":"descriptor","descriptor":6,"open":false,"alarms":1,"opens":1,"closes":2,"events":[{"type":"CLOSE","operator":"fclose","time":"1/2 3:4:5","chain":["/no/p+0x5"]},{"type":"CLOSE","operator":"close","time":"1/2 3:4:6","chain":["/no/p+0x6"]}]}
{"kind":"descriptor","descriptor":7,"open":true,"alarms":0,"opens":2,"closes":0,"events":[{"type":"OPEN","operator":"socket","time":"1/2 3:4:7","chain":["/no/p+0x4"]}]}
{"kind":"defect","pid":12,"text":"k42mc detected DF: alloc(STD) free(STD) usrPtr(0x1) usrSize(10) trace buffer: 0x1","chain":["/no/p+0x7"],"block":["/no/p+0x8"]}
)";

TEST(Tools, JsonReportsBecomeATable) {
    const Report report = json(json_lines);
    EXPECT_EQ(problems(report), "");
    EXPECT_EQ(table(report), R"(k42mc detected DF: alloc(STD) free(STD) usrPtr(0x1) usrSize(10) in p.12
  released by
    /no/p+0x7
  released before by
    /no/p+0x8
WU: a block of 100 bytes at 0x55D0 was written past its start in p.12
  allocated at b.c:2 (STD)
    /no/p+0x3
descriptor 6: closed twice in p.12
  CLOSE by fclose at 1/2 3:4:5
    /no/p+0x5
  CLOSE by close at 1/2 3:4:6
    /no/p+0x6
descriptors left open: 5, 7 in p.12
  OPEN by socket at 1/2 3:4:5
    /no/p+0x4
         BYTES    BLOCKS     AGE  SITE
            50         5       3  a.c:12 (STD)
             7         1       1  /no/p+0x9 < /no/p+0x2b (FIX)

50 bytes in 5 blocks from
    /no/p+0x1a
    /no/p+0x2b

7 bytes in 1 block from
    /no/p+0x9
    /no/p+0x2b

total: 90 bytes in 9 blocks; 2 sites, 1 cycle, 1 process
)");
    const Process later = json(json_lines + json_lines).processes[0]; // the last report counts
    EXPECT_EQ(later.damages.size(), 1u);
    EXPECT_EQ(later.descriptors.size(), 4u);
}

TEST(Tools, DamagedJsonIsToldAndTheRestShown) {
    const size_t second = json_lines.find('\n') + 1;
    const auto told = [](const std::string &contents) { return problems(json(contents)); };
    EXPECT_EQ(told("{\"kind\":\"end\"}\n"), "r.json:1: what is ahead of this line is missing\n"
                                            "r.json:1: no report in this file\n");
    EXPECT_EQ(told(json_lines.substr(0, second)), "r.json:1: the report is cut off here\n");
    EXPECT_TRUE(told(json_lines.substr(0, second + 30)).starts_with("r.json:2: no line of a report: "));
    EXPECT_EQ(told(json_lines.substr(0, second) + json_lines),
              "r.json:2: a report ahead of this one is cut off\n");
    const std::string odd =
        "[1]\n{\"kind\":3}\n{\"kind\":\"defect\",\"pid\":1e33,\"text\":\"\",\"chain\":[],"
        "\"block\":[]}\n{\"kind\":\"site\",\"file\":\"a\"}\n";
    const Report report = json(json_lines.substr(0, second) + odd + json_lines.substr(second));
    EXPECT_EQ(report.problems.size(), 4u);
    EXPECT_TRUE(report.processes[0].stops.size() == 1);
    EXPECT_EQ(report.problems[1].line, 3u);
    EXPECT_EQ(sites_of(report, Order::bytes).size(), 2u);
}

TEST(Tools, OtherProgramsGetAllThereIs) {
    const Report report = json(json_lines);
    Symbolizer symbolizer;
    std::ostringstream csv, folded, page;
    print_csv(csv, report, Order::bytes, symbolizer);
    EXPECT_EQ(csv.str(), "bytes,blocks,oldest,largest,growth,type,file,line,site\n"
                         "50,5,3,20,0,STD,\"a.c\",12,\"a.c:12 (STD)\"\n"
                         "7,1,1,7,0,FIX,\"p+0x9\",0,\"/no/p+0x9 < /no/p+0x2b (FIX)\"\n");
    print_folded(folded, report, symbolizer);
    EXPECT_EQ(folded.str(), "/no/p+0x2b;/no/p+0x1a;a.c:12 50\n/no/p+0x2b;/no/p+0x9 7\n");
    Report odd;
    read_text(odd, "r",
              cycle(1, "</script>\xff.c:1:LK:STD:0xA0:10:1\n", "10 bytes held by 1 allocations"));
    print_html(page, json_of(odd, Order::bytes, symbolizer));
    const std::string html = page.str();
    std::smatch data;
    ASSERT_TRUE(std::regex_search(html, data, std::regex("id=\"report\">([^<]*)</script>")));
    EXPECT_EQ(Json::parse(data[1].str())["sites"][0]["file"], "</script>\xef\xbf\xbd.c");
    EXPECT_EQ(html.find("http://"), html.find("http://www.w3.org/2000/svg")); // nothing from elsewhere
}

TEST(Tools, DiffListsWhatChanged) {
    const Report before =
        text(cycle(1, "a:1:LK:STD:0xA0:10:1\nb:1:LK:STD:0xB0:10:1\nc:1:LK:STD:0xC0:9:1\n", ""));
    const Report after = text(cycle(1,
                                    "a:1:LK:STD:0xA0:10:1\nb:1:LK:STD:0xB0:10:1\nb:1:LK:STD:0xB1:20:1\n"
                                    "d:1:LK:STD:0xD0:5:1\n",
                                    ""));
    std::ostringstream out;
    Symbolizer symbolizer;
    print_changes(out, changes_between(before, after), 2, symbolizer);
    EXPECT_EQ(out.str(), "        GROWTH    BLOCKS         BYTES  SITE\n"
                         "           +20        +1            30  b:1 (STD)\n"
                         "            +5        +1             5  d:1 (STD)\n"
                         "  and 1 site more\n"
                         "total: +16 bytes, +1 blocks at 3 sites\n");
}

// Where a call in this program comes from, in both forms that places are written in.
[[gnu::noinline]] void *here() {
    return __builtin_return_address(0);
}

constexpr int line_of_call = __LINE__ + 3;

extern "C" [[gnu::noinline, gnu::visibility("default")]] void *known_function() {
    void *place = here();
    __asm__ volatile("" ::: "memory");
    return place;
}

TEST(Tools, PlacesBecomeFunctionsAndLines) {
    auto *address = static_cast<char *>(known_function());
    Dl_info info;
    ASSERT_NE(dladdr(address, &info), 0);
    char offset[32], trace[4200];
    snprintf(offset, sizeof offset, "+0x%zx", size_t(address - static_cast<char *>(info.dli_fbase)));
    snprintf(trace, sizeof trace, "%s(known_function+0x%zx) [%p]", info.dli_fname,
             size_t(address - reinterpret_cast<char *>(&known_function)), static_cast<void *>(address));
    Symbolizer symbolizer;
    for (const std::string &place : {info.dli_fname + std::string(offset), std::string(trace)}) {
        const SourceFrame &frame = symbolizer.lookup(place).front();
        EXPECT_EQ(frame.function, "known_function") << place;
        EXPECT_TRUE(frame.file.ends_with("tools_test.cpp")) << place;
        EXPECT_EQ(frame.line, line_of_call) << place;
    }
    std::istringstream in("plain [0x1]\n" + std::string(trace) + "\n/no/p(f+0x1) [0x2]\nlast");
    std::ostringstream out;
    symbolize(in, out, symbolizer);
    EXPECT_TRUE(std::regex_match(
        out.str(),
        std::regex(R"(plain \[0x1\]\n\S+tools_test\(known_function\+0x\w+\) \[0x\w+\]  )"
                   R"(known_function at \S+tools_test.cpp:\d+\n/no/p\(f\+0x1\) \[0x2\]\nlast)")))
        << out.str();
}

TEST(Tools, SuppressionsMatchAsPatternsDo) {
    for (const auto &[pattern, text, expected] : {std::tuple{"leak", "a_leaky_b", true},
                                                  {"^leak", "a_leak", false},
                                                  {"^a*b$", "a_leaky_b", true},
                                                  {"^a*b$", "a_leaky_bc", false},
                                                  {"*", "", true},
                                                  {"^$", "", true},
                                                  {"^$", "a", false},
                                                  {"a*b*c", "xaxbxbxcx", true},
                                                  {"a*b*c", "xaxcxbx", false},
                                                  {"ab*ab$", "abab_ab", true}})
        EXPECT_EQ(matches_pattern(pattern, text), expected) << pattern << " " << text;
}

} // namespace
