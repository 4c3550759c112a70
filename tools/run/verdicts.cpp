#include "tools/run/verdicts.h"

#include "tools/common/file.h"
#include "tools/common/printable.h"
#include "tools/run/launch.h"
#include "tools/shared/program_file.h"

#include <fcntl.h>

namespace {

std::string reason_of(const SilentProcess &process, bool follows) {
    if (process.still_runs)
        return "it still runs";
    if (process.went_on_as.empty())
        return "it was killed ahead of its report, or ended past libc";
    if (!follows)
        return "it went on as " + process.went_on_as + ", which --no-follow leaves alone";
    const std::string reason = reason_against(process.went_on_as);
    return "it went on as " + process.went_on_as +
           (reason.empty() ? ", which left no report" : ": " + reason);
}

} // namespace

std::vector<Verdict> verdicts_on(const Report &report, const std::vector<SilentProcess> &silent,
                                 bool follows) {
    std::vector<Verdict> verdicts;
    for (const Process &process : report.processes)
        verdicts.push_back({std::string(process.name), std::string(process.unchecked)});
    for (const SilentProcess &process : silent)
        verdicts.push_back({process.name, reason_of(process, follows), false});
    return verdicts;
}

std::string reason_against(const std::string &program) {
    const File file(open(find_program(program).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!file.is_open())
        return {};
    const char *const reason = reason_against_file(file.descriptor());
    return reason != nullptr ? reason : missing_shim(program);
}

bool stands_no_shim(const std::string &program) {
    return reason_against(program) == brings_sanitizer;
}

std::string list_of(const std::vector<Verdict> &verdicts) {
    std::string text;
    for (const Verdict &verdict : verdicts) {
        const std::string name = printable(verdict.process);
        text += verdict.reason.empty() ? "checked " + name + "\n"
                                       : "not checked " + name + ": " + printable(verdict.reason) + "\n";
    }
    return text;
}
