#include "tools/preload/failing.h"

#include "tools/preload/output.h"
#include "tools/preload/settings.h"
#include "wrappers/failures.h"

#include <k42mc/extra.h>

#include <stdio.h>
#include <stdlib.h>

namespace {

using k42mc::internal::PurposefulFailure;

constexpr size_t most_told = 20;

// Null for one that is not set.
const char *text_in(const char *variable) {
    const char *const text = getenv(variable);
    return text != nullptr && *text != '\0' ? text : nullptr;
}

void tell(const PurposefulFailure &failure) {
    if (k42mcx_failed() > most_told)
        return;
    char text[128];
    snprintf(text, sizeof text, "allocation %llu failed on purpose: %zu byte%s",
             static_cast<unsigned long long>(failure.number), failure.size,
             failure.size == 1 ? "" : "s");
    write_note(text, failure.trace);
}

} // namespace

void choose_failures() {
    k42mcx_failures which = {};
    which.nth = static_cast<uint64_t>(number_in("K42MC_RUN_FAIL_NTH", 0));
    which.one_in = static_cast<uint32_t>(number_in("K42MC_RUN_FAIL_ONE_IN", 0));
    which.seed = static_cast<uint32_t>(number_in("K42MC_RUN_FAIL_SEED", 0));
    which.above = static_cast<size_t>(number_in("K42MC_RUN_FAIL_ABOVE", 0));
    which.at = text_in("K42MC_RUN_FAIL_AT");
    which.only = text_in("K42MC_RUN_FAIL_ONLY");
    which.except = text_in("K42MC_RUN_FAIL_NOT");
    if (which.nth == 0 && which.one_in == 0 && which.above == 0 && which.at == nullptr)
        return;
    k42mc::internal::failure_listener = tell;
    if (k42mcx_fail(&which) != 0)
        write_note("no allocation fails: a pattern is too long");
}

void sum_up_failures() {
    const size_t count = k42mcx_failed();
    if (count <= most_told)
        return;
    char text[128];
    snprintf(text, sizeof text, "%zu more allocations failed on purpose", count - most_told);
    write_note(text);
}
