// What sites have allocated, as reports tell it.
#include "checker.h"
#include "ended.h"
#include "random.h"

#include <atomic>
#include <map>
#include <thread>
#include <vector>

namespace {

struct Sum {
    unsigned long long blocks = 0, bytes = 0;

    void add(unsigned long long size) {
        ++blocks;
        bytes += size;
    }
    Sum &operator+=(const Sum &other) {
        blocks += other.blocks;
        bytes += other.bytes;
        return *this;
    }
    bool operator==(const Sum &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Sum &sum) {
    return out << sum.blocks << " blocks, " << sum.bytes << " bytes";
}

struct Told {
    Sum held, allocated, temporary;
    bool operator==(const Told &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Told &told) {
    return out << "holds " << told.held << " of " << told.allocated << "; temporary: " << told.temporary;
}

Sum sum_in(const std::string &line, const char *ahead) {
    Sum sum;
    const size_t at = line.find(ahead);
    if (at != std::string::npos)
        sscanf(line.c_str() + at + strlen(ahead), "\"blocks\":%llu,\"bytes\":%llu", &sum.blocks,
               &sum.bytes);
    return sum;
}

struct Report {
    std::map<int, Told> sites; // by source line
    std::vector<int> in_order;
    Told listed, unlisted;
    Sum allocated;

    explicit Report(uint32_t limit) {
        const std::string text =
            captured_stdout([&] { EXPECT_EQ(k42mcx_report_json(STDOUT_FILENO, limit), 0); });
        for (size_t at = 0; at < text.size();) {
            const std::string line = line_at(text, at);
            at += line.size() + 1;
            if (contains(line, "\"kind\":\"site\""))
                add(line);
            else if (contains(line, "\"kind\":\"cycle\""))
                allocated = sum_in(line, "\"allocated\":{");
            else if (contains(line, "\"kind\":\"end\""))
                unlisted = {{},
                            sum_in(line, "\"unlisted\":{\"allocations\":{"),
                            sum_in(line, "\"temporary\":{")};
        }
        Sum all = listed.allocated;
        EXPECT_EQ(all += unlisted.allocated, allocated);
    }

private:
    void add(const std::string &line) {
        const int number = atoi(line.c_str() + line.find("\"line\":") + 7);
        const Told told = {sum_in(line, "[],"), sum_in(line, "\"allocations\":{"),
                           sum_in(line, "\"temporary\":{")};
        EXPECT_TRUE(sites.emplace(number, told).second);
        in_order.push_back(number);
        listed.allocated += told.allocated;
        listed.temporary += told.temporary;
    }
};

// Without traces, a line of the source is a site.
class SiteCounts : public testing::Test {
protected:
    void SetUp() override { checker_on(MC_TYPE_BT_OFF); }
    void TearDown() override { checker_off(); }
};

// More sites than a thread keeps in mind, and threads that take over from others.
TEST_F(SiteCounts, AreThoseOfAModelOverRandomOperations) {
    struct Block {
        void *address;
        int line;
        size_t size;
        unsigned cycles;
        bool counted;
    };
    Random random;
    std::vector<Block> blocks;
    std::map<int, Told> model;
    const auto allocated = [&](void *address, int line, size_t size) {
        blocks.push_back({address, line, size, 0, true});
        model[line].allocated.add(size);
    };
    const auto released = [&](size_t index) {
        const Block block = std::exchange(blocks[index], blocks.back());
        blocks.pop_back();
        if (block.counted && block.cycles == 0)
            model[block.line].temporary.add(block.size);
    };
    const auto operate = [&] {
        const int line = int(random() % 100 * (random() % 3));
        const size_t size = random() % 200, index = blocks.empty() ? 0 : random() % blocks.size();
        if (blocks.empty() || random() % 8 > blocks.size() / 16) {
            allocated(k42MC_malloc("a.c", line, size), line, size);
        } else if (random() % 4 == 0) {
            void *const moved = k42MC_realloc("a.c", line, blocks[index].address, size + 1);
            released(index);
            allocated(moved, line, size + 1);
        } else {
            k42MC_free("a.c", line, blocks[index].address);
            released(index);
        }
    };
    const auto compare = [&](uint32_t limit) {
        std::map<int, Told> expected = model;
        for (const Block &block : blocks)
            if (block.counted && block.cycles >= limit)
                expected[block.line].held.add(block.size);
        EXPECT_EQ(Report(limit).sites, expected);
    };
    for (int step = 0; step < 20000; ++step) {
        switch (random() % 400) {
        case 0:
            report(99);
            for (Block &block : blocks)
                ++block.cycles;
            break;
        case 1:
            if (random() % 4 != 0)
                break;
            checker_on(MC_TYPE_BT_OFF | MC_TYPE_LK_RESET);
            for (Block &block : blocks)
                block.counted = false;
            model.clear();
            break;
        case 2:
            compare(random() % 3);
            break;
        case 3:
        case 4:
        case 5:
            std::thread([&] {
                for (unsigned left = random() % 100; left != 0; --left)
                    operate();
            }).join();
            break;
        default:
            operate();
        }
    }
    compare(0);
    for (const Block &block : blocks)
        k42MC_free("a.c", 0, block.address);
    checker_off(), checker_on(MC_TYPE_BT_OFF);
    EXPECT_TRUE(Report(0).sites.empty());
}

// Each report is of one moment.
TEST_F(SiteCounts, AddUpWhateverThreadsDo) {
    constexpr int threads = 4, sites = 150, rounds = 4000;
    std::vector<void *> old(threads * sites);
    for (size_t i = 0; i < old.size(); ++i)
        old[i] = k42MC_malloc("a.c", int(i) % sites, 10);
    report(99);
    std::atomic<int> working = threads;
    std::vector<std::thread> workers;
    for (int thread = 0; thread < threads; ++thread)
        workers.emplace_back([&, thread] {
            for (int i = 0; i < rounds; ++i) {
                void *const block = k42MC_malloc("a.c", i % sites, 1);
                if (i < sites)
                    k42MC_free("a.c", 1, old[size_t(threads * i + thread)]);
                k42MC_free("a.c", 2, block);
            }
            --working;
        });
    int reports = 0;
    for (; working != 0 || reports == 0; ++reports)
        for (const auto &[line, told] : Report(0).sites)
            EXPECT_GE(told.allocated.blocks, told.temporary.blocks + told.held.blocks);
    for (std::thread &worker : workers)
        worker.join();
    const Report end(0);
    EXPECT_EQ(end.sites.size(), size_t{sites});
    for (const auto &[line, told] : end.sites) {
        const unsigned long long temporary = threads * (rounds / sites + (line < rounds % sites));
        EXPECT_EQ(told,
                  (Told{{}, {temporary + threads, temporary + threads * 10}, {temporary, temporary}}))
            << line;
    }
}

// What is allocated at once, and released: more than memory has.
void pass_by(int line, size_t size, int times) {
    char block[4];
    MCLock();
    for (int i = 0; i < times; ++i) {
        MCAlloc("a.c", line, MC_STD, number(block), size);
        MCFree("a.c", 0, MC_STD, number(block));
    }
    MCUnlock();
}

TEST_F(SiteCounts, OfTheBusiestOutliveThousandsOfOthers) {
    constexpr int busy = 3000, others = 20000;
    constexpr size_t size = 3'000'000'000;
    for (int line = 1; line <= busy; ++line)
        pass_by(line, size, 5);
    pass_by(busy, 1, 100);
    for (int line = 0; line < others; ++line)
        k42MC_free("a.c", 0, k42MC_malloc("a.c", busy + 1 + line, 7));
    const Report end(0);
    EXPECT_EQ(end.sites.size(), 500u);
    ASSERT_FALSE(end.in_order.empty());
    EXPECT_EQ(end.in_order.front(), busy);
    const Sum of_busiest = {105, 5ull * size + 100}, of_busy = {5, 5ull * size};
    for (const auto &[line, told] : end.sites)
        EXPECT_EQ(told, (line == busy ? Told{{}, of_busiest, of_busiest} : Told{{}, of_busy, of_busy}))
            << line;
    EXPECT_EQ(end.allocated,
              (Sum{5ull * busy + 100 + others, 5ull * size * busy + 100 + 7ull * others}));
    EXPECT_EQ(end.unlisted.allocated, end.unlisted.temporary);
}

// A thread that remembers where a trace led to is not led there when that is another site.
TEST(SitesWithTraces, AreToldApartWhenNumbersGoToOthers) {
    checker_on(0);
    constexpr int others = 20000, pairs = 6;
    void *block = nullptr;
#pragma GCC unroll 1
    for (int time = 0; time < 5; ++time) {
        k42MC_free("a.c", 0, block);
        if (time == 4)
#pragma GCC unroll 1
            for (int line = 2; line < others; ++line)
#pragma GCC unroll 1
                for (int pair = 0; pair < pairs; ++pair)
                    k42MC_free("b.c", 0, k42MC_malloc("b.c", line, 7));
        block = k42MC_malloc("a.c", 1, 5);
    }
    const Report end(0);
    EXPECT_TRUE(end.sites.contains(1));
    k42MC_free("a.c", 0, block);
    checker_off();
}

// A child has what its parent had counted, and counts on by itself.
TEST_F(SiteCounts, GoOnInAChild) {
    void *const block = k42MC_malloc("a.c", 1, 10);
    pass_by(1, 5, 1);
    const Ended end = ended([&] {
        const bool whole = Report(0).sites[1] == Told{{1, 10}, {2, 15}, {1, 5}};
        k42MC_free("a.c", 2, block);
        _exit(whole && Report(0).sites[1] == Told{{}, {2, 15}, {2, 15}} ? 0 : 1);
    });
    EXPECT_TRUE(end.exited(0)) << end.err;
    EXPECT_EQ(Report(0).sites[1], (Told{{1, 10}, {2, 15}, {1, 5}}));
    k42MC_free("a.c", 2, block);
}

} // namespace
