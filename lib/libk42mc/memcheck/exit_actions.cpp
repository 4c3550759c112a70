#include "memcheck/exit_actions.h"

#include "memcheck/control_lock.h"
#include "memcheck/json_report.h"
#include "memcheck/sink.h"

#include <atomic>
#include <unistd.h>

namespace k42mc::internal {
namespace {

constinit std::atomic<uint32_t> actions = 0;

int open_json_file() {
    const ControlLock lock("MCExit");
    return lock ? open_beside_sink(".json") : -1;
}

} // namespace

void verify_at_exit() {
    if (actions & K42MCX_EXIT_VERIFY)
        k42mcx_verify();
}

void list_lost_at_exit() {
    if (actions & K42MCX_EXIT_LOST)
        k42mcx_lost(0);
}

void write_json_at_exit() {
    const int file = actions & K42MCX_EXIT_JSON ? open_json_file() : -1;
    if (file < 0)
        return;
    (actions & K42MCX_EXIT_LOST ? search_and_report_json : k42mcx_report_json)(file, 0);
    close(file);
}

} // namespace k42mc::internal

void k42mcx_at_exit(uint32_t flags) {
    k42mc::internal::actions = flags;
}

K42MC_EXPORT(k42mcx_at_exit);
