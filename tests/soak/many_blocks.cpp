// Eight threads with a million live blocks each, or as many as the argument says, while reports look at all of
// them. A million takes 3 GB of memory.
#include <cstdio>
#include <cstdlib>
#include <k42mc/k42mc.h>
#include <latch>
#include <string>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr unsigned holding_threads = 8;

void hold_blocks(size_t count, std::latch &all_there, std::latch &looked_at) {
    std::vector<void *> blocks(count);
    for (size_t i = 0; i < count; ++i)
        blocks[i] = k42MC_malloc("many_blocks.cpp", 1, i % 64);
    all_there.arrive_and_wait();
    looked_at.wait();
    for (void *block : blocks)
        k42MC_free("many_blocks.cpp", 2, block);
}

std::string first_line_of_json() {
    char text[512] = "";
    const int file = memfd_create("json", 0);
    k42mcx_report_json(file, 0);
    const ssize_t size = pread(file, text, sizeof text - 1, 0);
    close(file);
    const std::string all(text, size > 0 ? static_cast<size_t>(size) : 0);
    return all.substr(0, all.find('\n'));
}

// Whether every block was counted while it lived, and none is left.
bool counts_blocks(size_t each) {
    MCInit(K42MC_BE32(MC_TO_STDERR), 0);
    std::latch all_there(holding_threads + 1), looked_at(1);
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < holding_threads; ++i)
        threads.emplace_back([&] { hold_blocks(each, all_there, looked_at); });
    all_there.arrive_and_wait();
    const bool sound = k42mcx_verify() == 0;
    MCReport(K42MC_BE32(100));
    const std::string held = first_line_of_json();
    looked_at.count_down();
    for (std::thread &thread : threads)
        thread.join();
    const std::string left = first_line_of_json();
    MCDeinit();
    printf("%s\n%s\n", held.c_str(), left.c_str());
    const std::string count = "\"blocks\":" + std::to_string(holding_threads * each) + ",";
    return sound && held.find(count) != held.npos && left.find("\"blocks\":0,") != left.npos;
}

} // namespace

int main(int argc, char **argv) {
    return counts_blocks(argc > 1 ? strtoul(argv[1], nullptr, 10) : 1'000'000) ? 0 : 1;
}
