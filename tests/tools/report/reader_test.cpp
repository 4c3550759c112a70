// What is read from reports, whole, damaged and hostile.
#include "reports.h"
#include "tools/report/finding.h"

#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <malloc.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

TEST(Reader, DamagedTextIsToldAndTheRestShown) {
    const std::string whole = cycle(1, "a.c:1:LK:STD:0xA0:10:1\n", "10 bytes held by 1 allocations");
    for (const auto &[contents, told] : std::map<std::string, std::string>{
             {"", "r.txt:0: no report in this file\n"},
             {"root:x:0:0:root:/root:/bin/bash\n", "r.txt:1: no report in this file\n"},
             {whole.substr(0, whole.size() - 3), "r.txt:9: the report is cut off here\n"},
             {whole.substr(0, 50), "r.txt:3: not a report line: a.c:1:LK:STD:0xA\n"
                                   "r.txt:3: the report is cut off here\n"},
             {whole.substr(0, 57) + whole, "r.txt:4: a report before this one is cut off\n"},
             {"-----------<cycle x>-----------\n" + whole, "r.txt:1: no cycle number\n"},
             {cycle(1,
                    "a.c:1:LK:STD:A0:10:1\n:1:LK:STD:0xA0:10:1\na.c:1:XX:STD:0xA0:10:1\n"
                    "a.c:1:LK:STD:0xA0:-1:1\na.c:1:LK:STD:0xA0:10:99999999999\na.c:1:LK:STD:0xA0:10:1\n",
                    "10 bytes held by 1 allocations"),
              "r.txt:3: not a report line: a.c:1:LK:STD:A0:10:1\n"
              "r.txt:4: not a report line: :1:LK:STD:0xA0:10:1\n"
              "r.txt:5: not a report line: a.c:1:XX:STD:0xA0:10:1\n"
              "r.txt:6: not a report line: a.c:1:LK:STD:0xA0:-1:1\n"
              "r.txt:7: not a report line: a.c:1:LK:STD:0xA0:10:99999999999\n"},
             {cycle(1, "a.c:1:LK:STD:0xA0:10:1\n", "many bytes"), "r.txt:8: no total\n"}}) {
        const Report report = text(contents);
        EXPECT_EQ(problems(report), told) << contents;
        if (contents.find("0xA0:10:1\n") != std::string::npos) {
            EXPECT_EQ(Histories(report, Order::bytes).sites().front().held.bytes % 10, 0u) << contents;
        }
    }
}

TEST(Reader, DamagedJsonIsToldAndTheRestShown) {
    const size_t second = json_lines.find('\n') + 1;
    const auto told = [](const std::string &contents) { return problems(json(contents)); };
    EXPECT_EQ(told("{\"kind\":\"end\"}\n"), "r.json:1: what comes before this line is missing\n"
                                            "r.json:1: no report in this file\n");
    EXPECT_EQ(told(json_lines.substr(0, second)), "r.json:1: the report is cut off here\n");
    EXPECT_TRUE(told(json_lines.substr(0, second + 30)).starts_with("r.json:2: not a report line: "));
    EXPECT_EQ(told(json_lines.substr(0, second) + json_lines),
              "r.json:2: a report before this one is cut off\n");
    const std::string odd =
        "[1]\n{\"kind\":3}\n{\"kind\":\"defect\",\"pid\":1e33,\"text\":\"\",\"chain\":[],"
        "\"block\":[]}\n{\"kind\":\"site\",\"file\":\"\xff\"}\n{\"kind\":\"later\",\"pid\":[]}\n"
        "{\"kind\":\"note\",\"pid\":4294967297,\"program\":\"p\",\"text\":\"\"}\n";
    const Report report = json(json_lines.substr(0, second) + odd + json_lines.substr(second));
    EXPECT_EQ(problems(report),
              "r.json:2: not a report line: kind: The JSON element does not have the requested type.\n"
              "r.json:3: not a report line: kind: The JSON element does not have the requested type.\n"
              "r.json:4: not a report line: pid: The JSON element does not have the requested type.\n"
              "r.json:5: not a report line: JSON: The input is not valid UTF-8\n"
              "r.json:7: not a report line: pid: a number that is out of range\n");
    EXPECT_TRUE(report.processes[0].stops.size() == 1);
    EXPECT_EQ(Histories(report, Order::bytes).sites().size(), 3u);
}

std::string joined(Trace trace) {
    std::string all;
    for (const std::string_view pc : trace)
        all += std::string(pc) + ";";
    return all;
}

std::string all_of(const Stop &stop) {
    return std::string(stop.text) + "|" + std::string(stop.words) + "|" + joined(stop.trace) + "|" +
           joined(stop.block) + "|" + joined(stop.release) + (stop.goes_on ? "|goes on" : "|stops");
}

std::string stops_of(const Report &report) {
    std::string all = problems(report);
    for (const Process &process : report.processes)
        for (const Stop &stop : process.stops)
            all += all_of(stop) + "\n";
    return all;
}

// In what a program and the checker have printed: an access that it survived, a write that was found late, a second
// release, one that is cut off, and what other lines look like.
TEST(Reader, TextTellsOfStopsAsJsonDoes) {
    const std::string head = "k42mc detected ";
    const std::string abort =
        "assertion \"0\" failed: file \"common/lib/libk42mc/k42mc_debug\", line 369, "
        "function \"k42mc_guard_free\"\n";
    const std::string access =
        head + "RF: alloc(STD) usrPtr(0x1) usrSize(9) access(0x1+8) trace buffer: 0x1";
    const std::string late =
        head + "WF: alloc(STD) usrPtr(0x1) usrSize(9) access(0x1+8) trace buffer: 0x1";
    const std::string second =
        head + "DF: alloc(STD) free(STD) usrPtr(0x1) usrSize(9) trace buffer: 0x1";
    const std::string over =
        head + "WO: alloc(UNKNOWN) free(STD) usrPtr(0x1) usrSize(9) trace buffer: 0x1";
    const std::string contents =
        "noise\nBacktrace of the access:\n/no/p(+0x99) [0x99]\n------\n" + access +
        "\r\nk42mc: a read\nk42mc: more\n" +
        "Backtrace of the access by thread 7:\n/no/p(+0x1) [0x1]\nnoise\n/no/p(+0x2) [0x2]\n------\n"
        "Backtrace of the allocation by thread 7:\n/no/p(+0x3) [0x3]\n------\n"
        "Backtrace of the release by thread 8:\n/no/p(+0x4) [0x4]\n------\n"
        "a.c:1:STD:0xA0:10:1\nBacktrace of the allocation:\n/no/p(+0x99) [0x99]\n------\n" +
        cycle(1, "a.c:1:LK:STD:0xA0:10:1\n", "10 bytes held by 1 allocations") + late +
        "\nk42mc: a late write\nBacktrace of the allocation:\n/no/p(+0x5) [0x5]\n------\n"
        "Backtrace of the release:\n/no/p(+0x6) [0x6]\n------\n" +
        abort + second +
        "\nk42mc: a second release\nBacktrace of the release:\n/no/p(+0x7) [0x7]\n------\n"
        "Backtrace of the first release:\n/no/p(+0x8) [0x8]\n------\n" +
        abort + over + "\nk42mc: a write\n";
    const auto line = [](const std::string &text, const std::string &words, const std::string &chain,
                         const std::string &block, const std::string &rest) {
        return R"({"kind":"defect","pid":1,"text":")" + text + R"(","words":")" + words +
               R"(","chain":[)" + chain + R"(],"block":[)" + block + "]" + rest + "}\n";
    };
    const auto frame = [](const std::string &n) { return "\"/no/p(+0x" + n + ") [0x" + n + "]\""; };
    EXPECT_EQ(
        stops_of(text(contents)),
        stops_of(json(line(access, "a read", frame("1") + "," + frame("2"), frame("3"),
                           R"(,"release":[)" + frame("4") + R"(],"goes_on":true)") +
                      line(late, "a late write", "", frame("5"), R"(,"release":[)" + frame("6") + "]") +
                      line(second, "a second release", frame("7"), frame("8"), "") +
                      line(over, "a write", "", "", ""))));
    EXPECT_EQ(text(contents).processes.size(), 1u);
}

TEST(Reader, TextTellsOfBlocksWrittenAfterTheirRelease) {
    const std::string late = "a.c:7:WF:STD:0xA0:200\n";
    const Report report = text(late +
                               "Backtrace of the allocation:\n/no/p(+0x1) [0x1]\n------\n"
                               "Backtrace of the release:\n/no/p(+0x2) [0x2]\n------\n"
                               "Backtrace of the release:\n/no/p(+0x99) [0x99]\n------\n"
                               "b:3:WO:SHM:0xB0:5:2\nNo backtrace available\n------\n"
                               "Backtrace of the allocation:\n/no/p(+0x99) [0x99]\n------\n"
                               "c.c:7:WF:STD:0xC0:200:1\nc.c:7:WO:STD:0xC0:200\n" +
                               cycle(1, late, "0 bytes held by 0 allocations"));
    EXPECT_EQ(problems(report), "r.txt:21: not a report line: a.c:7:WF:STD:0xA0:200\n");
    std::string all;
    each_finding(report, report.processes.at(0), [&](const Finding &finding) {
        all += finding.what + " " + finding.title + "\n";
        for (const Trail &trail : finding.trails)
            all += "  " + trail.heading + " " + joined(trail.trace) + "\n";
    });
    EXPECT_EQ(
        all,
        "written after the release (WF) WF: a block of 200 bytes at 0xA0 was written after its release\n"
        "  released at a.c:7 (STD) /no/p(+0x2) [0x2];\n"
        "  allocated by /no/p(+0x1) [0x1];\n"
        "written past the end (WO) WO: a block of 5 bytes at 0xB0 was written past its end\n"
        "  allocated at b:3 (SHM) \n");
}

// A child that nobody told of its fork writes where its parent does.
TEST(Reader, ProcessesInOneFileAreKeptApart) {
    const auto cycle = [](int pid, int number) {
        return R"({"kind":"cycle","program":"p","pid":)" + std::to_string(pid) + R"(,"cycle":)" +
               std::to_string(number) + R"(,"blocks":)" + std::to_string(pid) +
               R"(,"bytes":0})"
               "\n"
               R"({"kind":"end"})"
               "\n";
    };
    const Report report = json(cycle(1, 1) + cycle(2, 1) + cycle(1, 2) + cycle(2, 2));
    EXPECT_TRUE(report.problems.empty());
    ASSERT_EQ(report.processes.size(), 2u);
    for (const Process &process : report.processes) {
        EXPECT_EQ(process.cycles.size(), 2u);
        EXPECT_EQ(process.cycles[0].live.blocks, process.cycles[1].live.blocks);
    }
    const size_t last = json_lines.find("{\"kind\":\"descriptor\"");
    EXPECT_EQ(json(json_lines.substr(last) + json_lines.substr(0, last)).processes.size(), 1u);
    // One may say something in the midst of another's report.
    const size_t end = json_lines.find("{\"kind\":\"site\"");
    const Report between =
        json(json_lines.substr(0, end) +
             "{\"kind\":\"unchecked\",\"pid\":7,\"program\":\"p\",\"reason\":\"why\"}\n" +
             json_lines.substr(end));
    EXPECT_EQ(problems(between), "");
    ASSERT_EQ(between.processes.size(), 2u);
    const std::vector<Holding> &holdings = between.processes[0].cycles[0].holdings;
    ASSERT_EQ(holdings.size(), 3u); // one of them nothing
    EXPECT_EQ(holdings[1].allocated.blocks, 0u);
    EXPECT_EQ(holdings[2].allocated.bytes, 99u);
    EXPECT_EQ(holdings[2].temporary.blocks, 8u);
    EXPECT_EQ(between.processes[0].descriptors.size(), 4u);
    EXPECT_EQ(between.processes[1].unchecked, "why");
}

// The newest line that says a format decides: nothing after it is understood.
TEST(Reader, NewerFormatsAreRefused) {
    const std::string known = R"({"format":1,)" + json_lines.substr(1);
    EXPECT_EQ(problems(json(known)), "");
    EXPECT_EQ(json(known).processes[0].descriptors.size(), 4u);
    const Report newer = json(R"({"format":2,"kind":"cycle","pages":[]})"
                              "\n" +
                              json_lines);
    EXPECT_EQ(problems(newer), "r.json:1: format 2 is newer than this k42mc, which reads 1\n");
    EXPECT_TRUE(newer.processes.empty());
    EXPECT_TRUE(problems(json(R"({"format":"x","kind":"cycle"})"
                              "\n"))
                    .starts_with("r.json:1: not a report line: "));
}

TEST(Reader, TheDescriptionShowsLinesThatAreRead) {
    const fs::path from_here = fs::path(__FILE__) / "../../../../docs/json.md";
    std::ifstream description(from_here.lexically_normal());
    std::string lines;
    for (std::string line; std::getline(description, line);)
        if (line.starts_with("{\""))
            lines += line + "\n";
    const Report report = json(lines);
    EXPECT_EQ(problems(report), "");
    ASSERT_EQ(report.processes.size(), 1u);
    const Process &process = report.processes[0];
    EXPECT_EQ(process.cycles.size() + process.damages.size() + process.descriptors.size() +
                  process.stops.size() + process.notes.size() + process.cycles[0].holdings.size() +
                  process.failed_runs.size(),
              10u);
    EXPECT_TRUE(process.stops[1].is_access() && process.stops[1].goes_on);
    EXPECT_EQ(process.stops[1].release.size(), 1u);
    EXPECT_EQ(process.unchecked, "it has a malloc of its own");
}

TEST(Reader, LinesAreReadWithMemoryForOne) {
    const std::string longest(Lines::longest, 'x');
    for (const std::string contents : {"", "\n", "a", "a\n", "a\n\nb"}) {
        Lines lines(contents);
        std::string all;
        while (lines.next())
            all += std::string(lines.line()) + "\n";
        EXPECT_EQ(all, contents + (contents.empty() || contents.ends_with('\n') ? "" : "\n"));
    }
    // Through a pipe, whose pieces end anywhere.
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0);
    std::thread writer([&] {
        fcntl(ends[1], F_SETFL, 0);
        const std::string all = "one\n" + longest + "\n" + longest + "y\nthree\n" + longest + longest +
                                longest + "\nend\n" + longest + "z";
        for (size_t done = 0; done < all.size();)
            done +=
                size_t(write(ends[1], all.data() + done, std::min<size_t>(all.size() - done, 40001)));
        close(ends[1]);
    });
    uint64_t bytes = 0;
    Lines lines(ends[0], [&](uint64_t got) { bytes += got; });
    EXPECT_FALSE(lines.begin_with("one\nx!"));
    EXPECT_TRUE(lines.begin_with("one\nxx"));
    std::string seen;
    while (lines.next()) {
        EXPECT_LE(lines.line().size(), Lines::longest);
        seen += std::string(lines.line().substr(0, 5)) + (lines.is_too_long() ? "!" : "") + " ";
    }
    writer.join();
    close(ends[0]);
    EXPECT_EQ(seen, "one xxxxx xxxxx! three xxxxx! end xxxxx! ");
    EXPECT_EQ(lines.number(), 7u);
    EXPECT_EQ(bytes, 6 * longest.size() + 19);
}

TEST(Reader, LongLinesAndManyProblemsAreToldInShort) {
    const std::string noise(3 << 20, 'n');
    EXPECT_EQ(problems(text(noise + "\n" +
                            cycle(1, noise + "\n" + std::string(999, 'm') + "\n",
                                  "1 bytes held by 1 allocations"))),
              "r.txt:4: a line is too long\nr.txt:5: not a report line: " + std::string(181, 'm') +
                  " ...\n");
    EXPECT_EQ(problems(json(noise + "\n" + json_lines)), "r.json:1: a line is too long\n");
    std::string many;
    for (int i = 0; i < 1000; ++i)
        many += "x\n";
    const Report report = text(cycle(1, many, "1 bytes held by 1 allocations"));
    ASSERT_EQ(report.problems.size(), 6u);
    EXPECT_EQ(report.problems.back().text, "and 995 more problems");
}

// Each site is seen in one cycle of many.
TEST(Reader, MemoryGrowsWithTheInput) {
    constexpr int cycles = 3000;
    std::string input;
    for (int i = 1; i <= cycles; ++i)
        input += R"({"kind":"cycle","program":"p","pid":12,"cycle":)" + std::to_string(i) +
                 R"(,"blocks":9,"bytes":90})"
                 "\n"
                 R"({"kind":"site","cycle":1,"file":"p+0x)" +
                 std::to_string(i) + R"(","line":0,"type":"STD","chain":["/bin/p+0x)" +
                 std::to_string(i) +
                 R"("],"blocks":5,"bytes":50,"oldest":3,"largest":20})"
                 "\n"
                 R"({"kind":"end","sites":1,"damaged":0})"
                 "\n";
    const auto in_use = [] {
        const struct mallinfo2 info = mallinfo2(); // nothing under a sanitizer
        return info.uordblks + info.hblkhd;
    };
    const size_t before = in_use();
    const Report report = json(input);
    const Histories histories(report, Order::growth);
    EXPECT_LE(in_use() - before, 4 * input.size());
    ASSERT_EQ(histories.sites().size(), size_t(cycles));
    EXPECT_EQ(histories.cycles(), unsigned(cycles));
    EXPECT_EQ(histories.sites().front().growth, 50); // held at the end only
    EXPECT_EQ(histories.sites().back().growth, -50);
}

class ReportFolder : public testing::Test {
protected:
    ReportFolder() { fs::create_directory(folder); }
    ~ReportFolder() override { fs::remove_all(folder); }

    std::string at(const std::string &name) const { return folder / name; }

    const fs::path folder = fs::temp_directory_path() / ("k42mc_reader_" + std::to_string(getpid()));
};

TEST_F(ReportFolder, OnlyFilesAndPipesAreRead) {
    ASSERT_EQ(mkfifo(at("a.json").c_str(), 0600), 0);
    std::ofstream(at("b.json")) << json_lines;
    std::ofstream(at("b.txt")) << "of the same process\n";
    std::ofstream(at("c.txt")) << three_cycles;
    std::ofstream(at("d.log")) << "no report";
    const std::string named[] = {folder};
    const Report report = read_reports(named);
    ASSERT_EQ(report.processes.size(), 2u);
    EXPECT_EQ(report.processes[0].name, "p.12");
    EXPECT_EQ(report.processes[1].name, at("c.txt"));
    // Nobody writes into this one.
    const std::string pipe[] = {at("a.json")};
    EXPECT_EQ(problems(read_reports(pipe)), pipe[0] + ":0: no report in this file\n");
    for (const auto &[path, told] : {std::pair{std::string("/dev/zero"), "neither a file nor a pipe"},
                                     {at("missing"), "No such file or directory"}}) {
        const std::string paths[] = {path};
        try {
            read_reports(paths);
            FAIL() << path;
        } catch (const std::runtime_error &error) {
            EXPECT_EQ(error.what(), path + ": " + told);
        }
    }
}

} // namespace
