#include "tools/run/source_code.h"

#include "tools/common/symbols.h"
#include "tools/run/launch.h"
#include "tools/run/verdicts.h"

#include <cstdio>
#include <cstring>
#include <elf.h>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <unistd.h>

namespace {

struct ClosePipe {
    void operator()(FILE *pipe) const { pclose(pipe); }
};

bool is_elf(const std::string &path) {
    char magic[SELFMAG] = "";
    std::ifstream(path, std::ios::binary).read(magic, SELFMAG);
    return memcmp(magic, ELFMAG, SELFMAG) == 0;
}

// The program among them. The loader lists what it would load: "libc.so.6 => /lib/libc.so.6 (0x7f...)". Who has no loader
// would run, as some shells run a script themselves, so he is not asked.
std::vector<std::string> modules_of(const std::string &program) {
    std::vector<std::string> modules = {find_program(program)};
    if (!is_elf(modules.front()) || !reason_against(program).empty())
        return modules;
    setenv("K42MC_LISTED", modules.front().c_str(), 1);
    const std::unique_ptr<FILE, ClosePipe> list(
        popen("LD_TRACE_LOADED_OBJECTS=1 \"$K42MC_LISTED\" 2>/dev/null </dev/null", "re"));
    unsetenv("K42MC_LISTED");
    std::string text;
    char piece[4096];
    while (list != nullptr && fgets(piece, sizeof piece, list.get()) != nullptr)
        text += piece;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const size_t begin = line.find("=> /"), end = line.rfind(" (0x");
        if (begin != std::string::npos && end != std::string::npos && begin < end)
            modules.push_back(line.substr(begin + 3, end - begin - 3));
    }
    return modules;
}

} // namespace

std::string code_of_sources(const std::string &program, const std::string &pattern) {
    constexpr size_t most = 100'000; // of a variable of the environment
    std::string text;
    Symbolizer symbolizer;
    for (const std::string &module : modules_of(program)) {
        const std::string name = std::filesystem::path(module).filename();
        for (const CodeRange &range : symbolizer.code_of(module, pattern)) {
            char numbers[64];
            snprintf(numbers, sizeof numbers, ":%llx-%llx ",
                     static_cast<unsigned long long>(range.begin),
                     static_cast<unsigned long long>(range.end));
            text.append(name).append(numbers);
        }
    }
    if (text.size() > most)
        throw std::runtime_error("too much code in source files that match " + pattern);
    return text;
}
