// Reports for the tests of what reads and shows them.
#pragma once

#include "tools/report/reader.h"

#include <gtest/gtest.h>
#include <string>

inline constexpr const char *counters = "\n#### This cycle: 1 bytes held by 1 allocations ####\n"
                                        "STD:          1(1); +1(1), -0(0)\n\n";

inline std::string cycle(int number, const std::string &blocks, const std::string &total) {
    return "-----------<cycle " + std::to_string(number) + ">-----------\n{\n" + blocks + counters +
           "#### Since reset: " + total + " ####\nSTD:          1(1); +1(1), -0(0)\n}\n";
}

inline Report text(const std::string &contents) {
    Report report;
    Lines lines(contents);
    read_text(report, "r.txt", lines);
    return report;
}

inline Report json(const std::string &contents) {
    Report report;
    Lines lines(contents);
    read_json(report, "r.json", lines);
    return report;
}

inline std::string problems(const Report &report) {
    std::string all;
    for (const Problem &problem : report.problems)
        all += problem.file + ":" + std::to_string(problem.line) + ": " + problem.text + "\n";
    return all;
}

inline const std::string three_cycles =
    "MC: Reporting to stderr\nwhat the program says: 1\n==========MC init==========\n" +
    cycle(1, "a.c:1:LK:STD:0xA0:10:1\nb:\\c:7.c:2:LK:SHM:0xB0:5:1\n", "15 bytes held by 2 allocations") +
    "noise\r\n" +
    cycle(2, "a.c:1:LK:STD:0xA0:10:2\na.c:1:LK:STD:0xC0:30:1\n", "41 bytes held by 3 allocations") +
    "d.c:3:WO:STD:0xD0:4:2\nBacktrace of the allocation:\n/no/p(f+0x1) [0x55]\n/no/p(+0x2) "
    "[0x56]\n------\n"
    "d.c:3:WO:STD:0xD0:4:3\nNo backtrace available\n" +
    cycle(3, "a.c:1:LK:STD:0xA0:10:3\na.c:1:LK:STD:0xC0:30:2\ne.c:9:LK:FIX:0xE0:50:1\n",
          "90 bytes held by 3 allocations");

inline const std::string json_lines =
    R"({"kind":"cycle","program":"p","pid":12,"time":1,"width":64,"cycle":1,"limit":1,"blocks":9,"bytes":90,"allocated":{"blocks":9,"bytes":90},"freed":{"blocks":0,"bytes":0}}
{"kind":"site","cycle":1,"file":"a.c","line":12,"type":"STD","chain":["/no/p+0x1a","/no/p+0x2b"],"blocks":5,"bytes":50,"oldest":3,"largest":20}
{"kind":"site","cycle":1,"file":"p+0x9","line":0,"type":"FIX","chain":["/no/p+0x9","/no/libk42mc_preload.so+0x1","/no/p+0x2b"],"blocks":1,"bytes":7,"oldest":1,"largest":7}
{"kind":"site","cycle":1,"file":"common/lib/libk42mc/k42mc_ds","line":180,"type":"STD","chain":[],"blocks":3,"bytes":120,"oldest":1,"largest":40}
{"kind":"site","cycle":1,"file":"idle.c","line":1,"type":"STD","chain":["/no/p+0x2b"],"blocks":0,"bytes":0,"oldest":0,"largest":0,"allocations":{"blocks":9,"bytes":99},"temporary":{"blocks":8,"bytes":88}}
{"kind":"damage","cycle":1,"defect":"WU","file":"b.c","line":2,"type":"STD","address":"0x55D0","size":100,"cycles":2,"chain":["/no/p+0x3"]}
{"kind":"end","sites":4,"damaged":1}
{"kind":"descriptor","descriptor":1,"open":true,"alarms":0,"opens":1,"closes":0,"events":[{"type":"OPEN","operator":"dup2","time":"1/2 3:4:5","chain":[]}]}
{"kind":"descriptor","descriptor":5,"open":true,"alarms":0,"opens":1,"closes":0,"events":[{"type":"OPEN","operator":"socket","time":"1/2 3:4:5","chain":["/no/p+0x4"]}]}
{"kind":"descriptor","descriptor":6,"open":false,"alarms":1,"opens":1,"closes":2,"events":[{"type":"CLOSE","operator":"fclose","time":"1/2 3:4:5","chain":["/no/p+0x5"]},{"type":"CLOSE","operator":"close","time":"1/2 3:4:6","chain":["/no/p+0x6"]}]}
{"kind":"descriptor","descriptor":7,"open":true,"alarms":0,"opens":2,"closes":0,"events":[{"type":"OPEN","operator":"socket","time":"1/2 3:4:7","chain":["/no/p+0x4"]}]}
{"kind":"defect","pid":12,"text":"k42mc detected DF: alloc(STD) free(STD) usrPtr(0x1) usrSize(10) trace buffer: 0x1","words":"a second release of a block of 10 bytes","chain":["/no/p+0x7"],"block":["/no/p+0x8"]}
)";
