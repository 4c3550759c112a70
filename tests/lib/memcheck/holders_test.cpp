// What reports say of the roots that hold a site's blocks. Threads of their own allocate, so that no pointer is left on the
// stack of the test.
#include "checker.h"
#include "ended.h"
#include "pointer_graph.h"

#include <algorithm>
#include <filesystem>
#include <functional>
#include <map>
#include <regex>
#include <thread>

extern "C" {
void *volatile table[300]; // nobody reads them but a search
void *volatile list;
void *volatile several_a, *volatile several_b, *volatile several_c,
                                                   *volatile several_d,
                                                       *volatile several_e,
                                                           *volatile several_f,
                                                               *volatile several_g,
                                                                   *volatile several_h,
                                                                       *volatile several_i,
                                                                           *volatile several_j;
thread_local void *volatile of_thread;
void *volatile graph_a, *volatile graph_b, *volatile graph_c;
}

namespace {

namespace fs = std::filesystem;

void aside(const std::function<void()> &work) {
    std::thread(work).join();
}

// By file and line, what a process says at its end of who holds a site's blocks, without the places of variables.
std::map<std::string, std::string> holders(const std::function<void()> &work) {
    const fs::path folder = fs::temp_directory_path() / ("k42mc_holders_" + std::to_string(getpid()));
    const Ended end = ended([&] {
        k42mcx_report_folder(folder.c_str());
        k42mcx_at_exit(K42MCX_EXIT_LOST | K42MCX_EXIT_JSON);
        MCInit(K42MC_BE32(MC_TO_FILE), K42MC_BE32(MC_TYPE_BT_OFF));
        work();
    });
    EXPECT_TRUE(end.exited(0)) << end.err;
    std::map<std::string, std::string> found;
    for (const auto &entry : fs::directory_iterator(folder)) {
        const std::string text = entry.path().extension() == ".json" ? contents(entry.path()) : "";
        const std::regex site("\\{\"kind\":\"site\".*\"file\":\"([^\"]*)\",\"line\":([0-9]*),\"type\".*"
                              "\"held_by\":(.*)\\}");
        for (size_t at = 0; at < text.size();) {
            const std::string line = line_at(text, at);
            at += line.size() + 1;
            std::smatch match;
            if (std::regex_match(line, match, site))
                found[match.str(1) + ":" + match.str(2)] =
                    std::regex_replace(match.str(3), std::regex(" in holders_test\\+0x[0-9a-f]+"), "");
        }
    }
    fs::remove_all(folder);
    return found;
}

std::string root(const std::string &name, size_t blocks, size_t bytes) {
    return "{\"root\":\"" + name + "\",\"blocks\":" + std::to_string(blocks) +
           ",\"bytes\":" + std::to_string(bytes) + "}";
}

std::string link(const std::string &file, size_t size, size_t offset) {
    return "{\"file\":\"" + file +
           "\",\"line\":1,\"type\":\"STD\",\"chain\":[],\"size\":" + std::to_string(size) +
           ",\"offset\":" + std::to_string(offset) + "}";
}

std::string held_by(const std::string &roots, const std::string &path, const std::string &others = "",
                    size_t left_out = 0) {
    return "{\"roots\":[" + roots + "]" + others + ",\"path\":[" + path +
           "],\"left_out\":" + std::to_string(left_out) + "}";
}

TEST(Holders, AreNamedOfTheLargestSites) {
    constexpr size_t links = 40;
    auto found = holders([] {
        aside([] {
            for (auto &cell : table)
                cell = k42MC_malloc("table.c", 1, 10);
            for (size_t i = 0; i < links; ++i) { // the last of them is the largest
                auto **const node = static_cast<void **>(k42MC_calloc("list.c", 1, 1, 100 + (i == 0)));
                node[2] = list;
                list = node;
            }
            size_t size = 20;
            for (void *volatile *const cell :
                 {&several_a, &several_b, &several_c, &several_d, &several_e, &several_f, &several_g,
                  &several_h, &several_i, &several_j})
                *cell = k42MC_malloc("several.c", 1, size--);
            k42MC_malloc("lost.c", 1, 1000);
            for (int line = 1; line < 20; ++line) // too small to be told of
                table[line] = k42MC_malloc("small.c", line, 1);
        });
        of_thread = k42MC_malloc("thread.c", 1, 33);
    });
    EXPECT_EQ(found["table.c:1"],
              held_by(root("variable `table`", 300 - 19, 2810), link("table.c", 10, 0)));
    std::string ends;
    for (size_t i = 0; i < 15; ++i)
        ends += link("list.c", 100, 2 * sizeof(void *)) + ",";
    EXPECT_EQ(found["list.c:1"], held_by(root("variable `list`", links, links * 100 + 1),
                                         ends + link("list.c", 101, 0), "", links - 16));
    std::string roots;
    for (char name = 'a'; name <= 'h'; ++name)
        roots += (name == 'a' ? "" : ",") +
                 root(std::string("variable `several_") + name + "`", 1, size_t(20 - (name - 'a')));
    EXPECT_EQ(found["several.c:1"],
              held_by(roots, link("several.c", 20, 0), ",\"others\":{\"blocks\":2,\"bytes\":23}"));
    EXPECT_EQ(found["thread.c:1"],
              held_by(root("thread-local `of_thread` of the reporting thread", 1, 33),
                      link("thread.c", 33, 0)));
    EXPECT_FALSE(found.contains("lost.c:1"));
    EXPECT_EQ(found.size(), 16u);
}

size_t number_behind(const std::string &text, const std::string &name) {
    const size_t at = text.find(name);
    return at == std::string::npos ? 0 : std::stoul(text.substr(at + name.size()));
}

// The size of a block tells which node it is.
constexpr size_t node_bytes = PointerGraph::slots * sizeof(void *);

void check_path(const std::string &text, const PointerGraph &graph, size_t begins_at,
                const std::vector<int> &distances) {
    const std::regex link("\"size\":([0-9]+),\"offset\":([0-9]+)");
    std::vector<std::pair<size_t, size_t>> path;
    for (std::sregex_iterator at(text.begin(), text.end(), link), end; at != end; ++at)
        path.emplace_back(std::stoul(at->str(1)) - node_bytes, std::stoul(at->str(2)));
    ASSERT_FALSE(path.empty());
    EXPECT_EQ(path.front().first, begins_at);
    const size_t left_out = number_behind(text, "\"left_out\":"); // in the middle
    for (size_t i = 0; i + 1 < path.size(); ++i) {
        const bool is_gap = left_out != 0 && i + 1 == path.size() / 2;
        EXPECT_TRUE(is_gap || graph.has(path[i].first, path[i].second, path[i + 1].first)) << text;
    }
    EXPECT_EQ(int(path.size() + left_out), distances[path.back().first] + 1) << text;
}

TEST(Holders, AreTheNearestRootsInRandomGraphs) {
    constexpr int sites = 3;
    void *volatile *const roots[] = {&graph_a, &graph_b, &graph_c};
    Random random;
    for (int round = 0; round < 5; ++round) {
        const PointerGraph graph(random);
        const size_t first[] = {random() % graph.nodes, random() % graph.nodes, random() % graph.nodes};
        auto found = holders([&] {
            aside([&] {
                std::vector<uintptr_t> inverted(graph.nodes);
                const auto block = [&](size_t node) {
                    return reinterpret_cast<void **>(~inverted[node]);
                };
                for (size_t node = 0; node < graph.nodes; ++node)
                    inverted[node] = ~reinterpret_cast<uintptr_t>(
                        k42MC_calloc("node.c", int(node % sites), 1, node_bytes + node));
                for (size_t node = 0; node < graph.nodes; ++node)
                    for (size_t slot = 0; slot < graph.edges[node].size(); ++slot)
                        block(node)[slot] = block(graph.edges[node][slot]);
                for (size_t i = 0; i < 3; ++i)
                    *roots[i] = block(first[i]);
            });
        });
        const std::vector<int> distances[] = {graph.distances(first[0]), graph.distances(first[1]),
                                              graph.distances(first[2])};
        for (size_t site = 0; site < sites; ++site) {
            size_t held = 0, all = 0;
            const std::string text = found["node.c:" + std::to_string(site)];
            for (size_t i = 0; i < 3; ++i) {
                const std::string name =
                    std::string("variable `graph_") + char('a' + i) + "`\",\"blocks\":";
                size_t fewest = 0, most = 0;
                for (size_t node = site; node < graph.nodes; node += sites) {
                    const int nearest =
                        std::min({distances[0][node], distances[1][node], distances[2][node]});
                    const bool is_near = distances[i][node] == nearest && nearest != INT_MAX;
                    most += is_near;
                    fewest += is_near && (distances[0][node] == nearest) +
                                                 (distances[1][node] == nearest) +
                                                 (distances[2][node] == nearest) ==
                                             1;
                    held += i == 0 && nearest != INT_MAX;
                }
                const size_t blocks = number_behind(text, name);
                EXPECT_GE(blocks, fewest) << text;
                EXPECT_LE(blocks, most) << text;
                all += blocks;
                if (text.starts_with("{\"roots\":[{\"root\":\"" + name))
                    check_path(text, graph, first[i], distances[i]);
            }
            EXPECT_EQ(all, held) << text;
        }
    }
}

} // namespace
