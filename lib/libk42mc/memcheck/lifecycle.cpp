#include "base/checker_lock.h"
#include "memcheck/control_lock.h"
#include "memcheck/exit_actions.h"
#include "memcheck/registry.h"
#include "memcheck/report.h"
#include "memcheck/sink.h"
#include "memcheck/state.h"

#include <stdlib.h>

namespace k42mc::internal {
namespace {

void MCExit();

bool valid_arguments(uint32_t file_type, uint32_t bitmap) {
    if ((bitmap & ~supported_bitmap) != 0) {
        StandardErrorText()->print("%s: ERROR: invalid MC type bitmap 0x%x. Supported bitmap is 0x%x\n",
                                   "MCInit", bitmap, supported_bitmap);
        return false;
    }
    if (file_type != MC_TO_STDERR && file_type != MC_TO_FILE) {
        StandardErrorText()->print(
            "%s: ERROR: invalid file type 0x%x. Specify either 0 (stderr) or 1 (tmp file)\n", "MCInit",
            file_type);
        return false;
    }
    return true;
}

// Returns the bitmap to put in force, or 0 when the checker has to stay off.
uint32_t first_initialisation(uint32_t file_type, uint32_t bitmap) {
    MCOpenSink(file_type == MC_TO_FILE);
    if (!sink_is_open()) {
        StandardErrorText()->print("%s: Failed to open report file\n", "MCInit");
        return 0;
    }
    SinkText()->put("==========MC init==========\n");
    if (!create_containers()) {
        SinkText()->print("%s: Memory allocation failure!\n", "MCInit");
        MCCloseSink();
        return 0;
    }
    if (!gMCExitHooked) {
        gMCExitHooked = true;
        atexit(MCExit);
    }
    gMCDone = false;
    bitmap &= ~MC_TYPE_LK_RESET;
    return bitmap != 0 ? bitmap : MC_TYPE_LKBF;
}

// Returns the bitmap to put in force.
uint32_t reinitialisation(uint32_t bitmap) {
    SinkText out;
    out->put("==========MC re-init==========\n");
    if (bitmap & MC_TYPE_LK_RESET) {
        out->put("Resetting LK detection\n");
        MCResetStats();
        unlist_all_records();
        bitmap &= ~MC_TYPE_LK_RESET;
    }
    return bitmap != 0 ? bitmap : gMCTypeBitmap;
}

void put_in_force(uint32_t bitmap) {
    SinkText out;
    out->put(bitmap & MC_TYPE_LKBF ? "Monitoring LK/BF\n" : "By default monitoring LK/BF\n");
    set_type_bitmap(bitmap | MC_TYPE_LKBF);
    if (bitmap & MC_TYPE_SHM)
        out->put("Also monitoring shared memory\n");
    out->put(bitmap & MC_TYPE_BT_OFF ? "Disabling backtrace collection, subject to MCBTFilterIn\n"
                                     : "Enabling backtrace collection, subject to MCBTFilterOut\n");
}

// The flag goes first: the filter lists' headers are released through the checked free, which would want
// the lock again.
void switch_off() {
    set_checker_on(false);
    ++gMCGeneration;
    set_type_bitmap(0);
    gMCCycle = 0;
    release_registry();
    MCResetStats();
}

// Writes the farewell unless MCDeinit did. Returns whether there is anything to report.
bool announce_exit() {
    hook_fork();
    const Printing printing;
    const CheckerLock lock(take_checker_lock());
    if (gMCDone)
        return false;
    SinkText()->put("==========MC exit==========\n");
    return true;
}

// What the process still allocates and frees after this is guarded and no more.
void MCExit() {
    if (!announce_exit())
        return;
    verify_at_exit();
    report(0);
    list_lost_at_exit();
    write_json_at_exit();
    const ControlLock lock("MCExit");
    if (!lock || !registry_exists())
        return;
    switch_off();
    MCCloseSink();
}

} // namespace
} // namespace k42mc::internal

using namespace k42mc::internal;

void MCInit(uint32_t file_type, uint32_t bitmap) {
    file_type = __builtin_bswap32(file_type);
    bitmap = __builtin_bswap32(bitmap);
    if (!valid_arguments(file_type, bitmap))
        return;
    const ControlLock lock("MCInit");
    if (!lock)
        return;
    const uint32_t wanted =
        checker_on() ? reinitialisation(bitmap) : first_initialisation(file_type, bitmap);
    if (wanted == 0)
        return;
    put_in_force(wanted);
    set_checker_on(true);
}

void MCDeinit() {
    const ControlLock lock("MCDeinit");
    if (!lock)
        return;
    if (!checker_on()) {
        StandardErrorText()->print("%s: MC not currently initialized\n", "MCDeinit");
        return;
    }
    gMCDone = true;
    switch_off();
    SLDeinit(&gMCFilterIn);
    SLDeinit(&gMCFilterOut);
    SinkText()->print("========== %s: Done ==========\n", "MCDeinit");
    MCCloseSink();
}

K42MC_EXPORT(MCInit);
K42MC_EXPORT(MCDeinit);
