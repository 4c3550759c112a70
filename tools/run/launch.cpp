#include "tools/run/launch.h"

#include "tools/run/signals.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <elf.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

constexpr const char *shim = "k42mc/libk42mc_preload.so";

struct Width {
    int bits;
    unsigned char elf_class;
    std::vector<const char *> folders; // what the system's loaders put for $LIB
    const char *package;               // with the shim for it
};

const std::array widths = {Width{64, ELFCLASS64, {"lib/x86_64-linux-gnu"}, "k42mc-r-tools"},
                           Width{32, ELFCLASS32, {"lib32", "lib/i386-linux-gnu"}, "lib32k42mc-r-tools"}};

// Of a script, its interpreter's class; 0 for what cannot be read.
unsigned char elf_class_of(const std::string &program, int most_interpreters = 4) {
    std::ifstream file(program, std::ios::binary);
    std::string head(EI_NIDENT, '\0');
    if (!file.read(head.data(), EI_NIDENT))
        file.clear();
    if (head.starts_with(ELFMAG))
        return static_cast<unsigned char>(head[EI_CLASS]);
    if (!head.starts_with("#!") || most_interpreters == 0)
        return 0;
    file.seekg(2);
    std::string interpreter;
    file >> interpreter;
    return elf_class_of(interpreter, most_interpreters - 1);
}

// The folder that this command's is in.
fs::path installation() {
    return fs::read_symlink("/proc/self/exe").parent_path().parent_path();
}

} // namespace

std::string find_program(const std::string &name) {
    if (name.find('/') != std::string::npos)
        return name;
    const char *path = getenv("PATH");
    std::istringstream folders(path != nullptr ? path : "/usr/bin:/bin");
    for (std::string folder; std::getline(folders, folder, ':');) {
        folder.append("/").append(name);
        if (access(folder.c_str(), X_OK) == 0)
            return folder;
    }
    return name;
}

std::string missing_shim(const std::string &program) {
    const fs::path prefix = installation();
    const unsigned char wanted = elf_class_of(find_program(program));
    for (const Width &width : widths) {
        const bool installed = std::ranges::any_of(width.folders, [&](const char *folder) {
            return elf_class_of(prefix / folder / shim) == width.elf_class;
        });
        if (!installed && width.elf_class == wanted)
            return "no " + std::to_string(width.bits) + "-bit " + shim + " is installed below " +
                   prefix.string() + "; it is in the package " + width.package;
    }
    return {};
}

std::string preload_path(const std::string &program) {
    const fs::path prefix = installation();
    if (prefix.string().find_first_of(" :$") != std::string::npos)
        throw std::runtime_error("the loader cannot read folder names with blanks, colons or dollars: " +
                                 prefix.string());
    if (const std::string missing = missing_shim(program); !missing.empty())
        throw std::runtime_error(missing);
    return prefix / "$LIB" / shim;
}

std::vector<std::string> in_gdb(const std::vector<std::string> &command,
                                const std::vector<Setting> &environment) {
    std::vector<std::string> words = {"gdb", "-q"};
    const auto add = [&words](const std::string &order) { words.insert(words.end(), {"-ex", order}); };
    add("set startup-with-shell off"); // a shell is no program to be checked
    add("set breakpoint pending on");
    for (const Setting &setting : environment)
        add("set environment " + setting.variable + " " + setting.value);
    add("break k42mc_allocation_fails");
    add("run");
    add("bt");
    words.emplace_back("--args");
    words.insert(words.end(), command.begin(), command.end());
    return words;
}

Ended launch(const std::vector<std::string> &command, const std::vector<Setting> &environment) {
    std::vector<char *> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string &word : command)
        arguments.push_back(const_cast<char *>(word.c_str()));
    arguments.push_back(nullptr);
    const SignalRelay relay;
    const pid_t child = fork();
    if (child < 0)
        throw std::runtime_error(std::string("fork: ") + strerror(errno));
    if (child == 0) {
        for (const Setting &setting : environment)
            setenv(setting.variable.c_str(), setting.value.c_str(), 1);
        relay.release();
        execvp(arguments[0], arguments.data());
        const int cause = errno;
        fprintf(stderr, "k42mc run: %s: %s\n", arguments[0], strerror(cause));
        _exit(cause == ENOENT ? 127 : 126);
    }
    return {child, relay.wait_for(child)};
}
