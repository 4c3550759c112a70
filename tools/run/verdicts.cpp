#include "tools/run/verdicts.h"

#include "tools/common/file.h"
#include "tools/common/printable.h"
#include "tools/run/launch.h"

#include <algorithm>
#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace {

template <class Header, class Segment> bool names_loader(int file) {
    Header header{};
    if (pread(file, &header, sizeof header, 0) != static_cast<ssize_t>(sizeof header))
        return true; // somebody else's to complain about
    for (int i = 0; i < header.e_phnum; ++i) {
        Segment segment{};
        const auto at = static_cast<off_t>(header.e_phoff) + i * off_t{header.e_phentsize};
        if (pread(file, &segment, sizeof segment, at) != static_cast<ssize_t>(sizeof segment) ||
            segment.p_type == PT_INTERP)
            return true;
    }
    return false;
}

bool is_static(int file) {
    unsigned char identity[EI_NIDENT];
    if (pread(file, identity, sizeof identity, 0) != static_cast<ssize_t>(sizeof identity) ||
        !std::equal(identity, identity + SELFMAG, ELFMAG))
        return false; // a script
    return identity[EI_CLASS] == ELFCLASS64 ? !names_loader<Elf64_Ehdr, Elf64_Phdr>(file)
                                            : !names_loader<Elf32_Ehdr, Elf32_Phdr>(file);
}

// For the superuser, capabilities of a file add nothing.
bool has_special_rights(int file) {
    struct stat status;
    if (fstat(file, &status) != 0)
        return false;
    const bool other_user = (status.st_mode & S_ISUID) != 0 && status.st_uid != geteuid();
    const bool other_group = (status.st_mode & S_ISGID) != 0 && status.st_gid != getegid();
    return other_user || other_group ||
           (geteuid() != 0 && fgetxattr(file, "security.capability", nullptr, 0) > 0);
}

std::string reason_of(const SilentProcess &process) {
    if (process.still_runs)
        return "it still runs";
    if (process.went_on_as.empty())
        return "it was killed ahead of its report, or ended past libc";
    const std::string reason = reason_against(process.went_on_as);
    return "it went on as " + process.went_on_as +
           (reason.empty() ? ", which left no report" : ": " + reason);
}

} // namespace

std::vector<Verdict> verdicts_on(const Report &report, const std::vector<SilentProcess> &silent) {
    std::vector<Verdict> verdicts;
    for (const Process &process : report.processes)
        verdicts.push_back({std::string(process.name), std::string(process.unchecked)});
    for (const SilentProcess &process : silent)
        verdicts.push_back({process.name, reason_of(process), false});
    return verdicts;
}

std::string reason_against(const std::string &program) {
    const File file(open(find_program(program).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!file.is_open())
        return {};
    if (is_static(file.descriptor()))
        return "it is linked statically";
    return has_special_rights(file.descriptor()) ? "it has special rights" : missing_shim(program);
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
