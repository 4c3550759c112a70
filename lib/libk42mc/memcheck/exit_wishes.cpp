#include "memcheck/exit_wishes.h"

#include "memcheck/control_lock.h"
#include "memcheck/sink.h"

#include <atomic>
#include <unistd.h>

namespace k42mc {
namespace {

constinit std::atomic<uint32_t> wishes = 0;

int open_json_file() {
    const ControlLock lock("MCExit");
    return lock ? open_beside_report(".json") : -1;
}

} // namespace

void verify_at_exit() {
    if (wishes & K42MCX_EXIT_VERIFY)
        k42mcx_verify();
}

void write_json_at_exit() {
    const int file = wishes & K42MCX_EXIT_JSON ? open_json_file() : -1;
    if (file < 0)
        return;
    k42mcx_report_json(file, 0);
    close(file);
}

} // namespace k42mc

void k42mcx_at_exit(uint32_t flags) {
    k42mc::wishes = flags;
}

K42MC_EXPORT(k42mcx_at_exit);
