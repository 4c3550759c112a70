// Random graphs of blocks that point to each other, and what a search should make of them.
#pragma once

#include "random.h"

#include <algorithm>
#include <climits>
#include <deque>
#include <vector>

struct PointerGraph {
    static constexpr size_t nodes = 60,
                            slots = 40; // pointers in a node, of which each is to one node at most

    explicit PointerGraph(Random &random) : edges(nodes) {
        for (unsigned edge = random() % 120; edge > 0; --edge) {
            std::vector<size_t> &from = edges[random() % nodes];
            if (const size_t to = random() % nodes; from.size() < slots && !std::ranges::count(from, to))
                from.push_back(to);
        }
    }

    // How many pointers away each node is; INT_MAX for those that it does not lead to.
    std::vector<int> distances(size_t from) const {
        std::vector<int> distances(nodes, INT_MAX);
        distances[from] = 0;
        for (std::deque<size_t> queue{from}; !queue.empty(); queue.pop_front())
            for (const size_t to : edges[queue.front()])
                if (distances[to] == INT_MAX) {
                    distances[to] = distances[queue.front()] + 1;
                    queue.push_back(to);
                }
        return distances;
    }

    // Of a pointer that a chain goes along.
    bool has(size_t from, size_t offset, size_t to) const {
        const size_t slot = offset / sizeof(void *);
        return offset % sizeof(void *) == 0 && slot < edges[from].size() && edges[from][slot] == to;
    }

    std::vector<std::vector<size_t>> edges; // by node and slot
};
