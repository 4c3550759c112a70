#include "tools/run/environment.h"

#include "tools/run/source_code.h"
#include "tools/run/verdicts.h"

#include <k42mc/extra.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>

namespace {

uint32_t page_flags(const RunOptions &options) {
    uint32_t flags = options.go_on ? K42MCX_PAGES_GO_ON : 0;
    if (options.page_alignment == "exact")
        flags |= K42MCX_PAGES_EXACT;
    if (options.page_side == "start")
        flags |= K42MCX_PAGES_START;
    else if (options.page_side == "mixed")
        flags |= K42MCX_PAGES_MIXED;
    return flags;
}

// Of a pattern that can be one of source files: function names have a bracket there.
std::string code_for(const RunOptions &options, const std::string &pattern) {
    const bool is_none = pattern.empty() || pattern.find_first_of("(+[") != std::string::npos;
    return is_none ? "" : code_of_sources(options.program, pattern);
}

std::vector<Setting> failures(const RunOptions &options) {
    return {{"K42MC_RUN_FAIL_NTH", std::to_string(options.fail_nth)},
            {"K42MC_RUN_FAIL_ONE_IN", std::to_string(options.fail_one_in)},
            {"K42MC_RUN_FAIL_SEED", std::to_string(options.fail_seed)},
            {"K42MC_RUN_FAIL_ABOVE", std::to_string(options.fail_above)},
            {"K42MC_RUN_FAIL_AT", options.fail_at},
            {"K42MC_RUN_FAIL_ONLY", options.fail_only},
            {"K42MC_RUN_FAIL_NOT", options.fail_not},
            {"K42MC_RUN_FAIL_STACK", options.fail_stack},
            {"K42MC_RUN_FAIL_AT_CODE", code_for(options, options.fail_at)},
            {"K42MC_RUN_FAIL_ONLY_CODE", code_for(options, options.fail_only)},
            {"K42MC_RUN_FAIL_NOT_CODE", code_for(options, options.fail_not)},
            {"K42MC_RUN_FAIL_FDS", options.fail_fds ? "1" : "0"}};
}

} // namespace

std::vector<Setting> environment_for(const RunOptions &options) {
    std::string preload = preload_path(options.program);
    if (const char *others = getenv("LD_PRELOAD"); others != nullptr && *others != '\0')
        preload += std::string(":") + others;
    std::vector<Setting> settings = {{"K42MC_RUN_LIMIT", std::to_string(options.limit)},
                                     {"K42MC_RUN_SEARCH", options.leak_check == "lost" ? "1" : "0"},
                                     {"K42MC_RUN_EVERY", std::to_string(options.every)},
                                     {"K42MC_RUN_BACKTRACE", options.no_backtrace ? "0" : "1"},
                                     {"K42MC_RUN_DEPTH", std::to_string(options.depth)},
                                     {"K42MC_RUN_TEXT", options.text ? "1" : "0"},
                                     {"K42MC_RUN_SIGNAL", std::to_string(options.signal)},
                                     {"K42MC_RUN_VERIFY", options.verify ? "1" : "0"},
                                     {"K42MC_RUN_QUARANTINE", std::to_string(options.quarantine)},
                                     {"K42MC_RUN_FILL", options.fill.empty() ? "-1" : options.fill},
                                     {"K42MC_RUN_FDS", options.fds ? "1" : "0"},
                                     {"K42MC_RUN_FOLLOW", options.follow ? "1" : "0"}};
    if (!stands_no_shim(options.program))
        settings.push_back({"LD_PRELOAD", preload});
    if (options.page_guards != 0) {
        settings.push_back({"K42MC_RUN_PAGES", std::to_string(options.page_guards)});
        settings.push_back({"K42MC_RUN_PAGE_FLAGS", std::to_string(page_flags(options))});
        settings.push_back({"K42MC_RUN_PAGE_MEMORY", std::to_string(options.page_memory)});
    }
    std::ranges::move(failures(options), std::back_inserter(settings));
    std::string filters;
    for (const std::string &line : options.filters)
        filters += line + '\n';
    settings.push_back({"K42MC_RUN_FILTERS", filters});
    return settings;
}
