#include <k42mc/avl.hpp>
#include <k42mc/bh.hpp>
#include <k42mc/dl.hpp>
#include <k42mc/ht.hpp>
#include <k42mc/pt.hpp>
#include <k42mc/px.hpp>
#include <k42mc/sl.hpp>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>

// One job can be in five containers at once, through a link for each.
struct Job {
    uint32_t id;
    uint32_t due;
    uint32_t rank;
    const char *what;
    DLLink waiting{};
    SLLink done{};
    HTLink by_id{};
    AVLNode by_due{};
    BHNode in_queue{};
};

static void jobs() {
    Job jobs[] = {{17, 300, 3, "mail"}, {4, 100, 1, "bread"}, {23, 200, 2, "rent"}};

    k42mc::dl_list<Job, &Job::waiting> waiting;
    for (Job &job : jobs)
        waiting.insert_last(job);
    waiting.remove(jobs[1]);
    for (const Job &job : waiting)
        std::printf("waiting: %s\n", job.what);

    k42mc::sl_list<Job, &Job::done> done;
    done.insert_first(jobs[1]);

    k42mc::ht_table<Job, &Job::by_id, &Job::id> by_id;
    for (Job &job : jobs)
        by_id.insert(job);
    std::printf("23: %s\n", by_id.search(23)->what);

    k42mc::avl_tree<Job, &Job::by_due, &Job::due> by_due;
    for (Job &job : jobs)
        by_due.insert(job);
    std::printf("after 150: %s\n", by_due.next_by_key(150)->what);
    std::printf("in order: %d\n", std::ranges::is_sorted(by_due, {}, &Job::due));

    k42mc::bh_heap<Job, &Job::in_queue, &Job::rank> queue;
    for (Job &job : jobs)
        queue.insert(job);
    jobs[0].rank = 0;
    queue.change(jobs[0]);
    std::printf("next: %s\n", queue.remove_root()->what);
}

using Address = std::array<uint8_t, 4>;

struct Host {
    Address address;
    const char *name;
    PTNode node{};
};

struct Route {
    Address prefix;
    uint16_t length; // in bits
    const char *to;
    Route *chain = nullptr;
};

static void network() {
    Host hosts[] = {{{10, 1, 0, 7}, "printer"}, {{10, 1, 0, 9}, "scanner"}};
    k42mc::pt_tree<Host, &Host::node, &Host::address> by_address;
    for (Host &host : hosts)
        by_address.insert(host);
    std::printf("10.1.0.9: %s\n", by_address.search({10, 1, 0, 9})->name);

    Route routes[] = {{{10, 0, 0, 0}, 8, "inside"}, {{10, 1, 0, 0}, 16, "office"}};
    k42mc::px_table<Route, &Route::chain, &Route::prefix, &Route::length> table;
    for (Route &route : routes)
        table.insert(route);
    std::printf("10.1.0.7: %s\n", table.search_longest({10, 1, 0, 7})->to);
}

int main() {
    jobs();
    network();
}
