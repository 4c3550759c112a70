#include "tools/run/launch.h"

#include <array>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <elf.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

constexpr const char *shim_name = "libk42mc_preload.so";

struct Width {
    int bits;
    unsigned char elf_class;
    std::vector<const char *> folders; // what the system's loaders put for $LIB
};

const std::array widths = {Width{64, ELFCLASS64, {"lib/x86_64-linux-gnu"}},
                           Width{32, ELFCLASS32, {"lib32", "lib/i386-linux-gnu"}}};

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

// Beside the command, in the build of the other width, or where libraries of the width are installed.
fs::path find_shim(const Width &width) {
    const fs::path here = fs::read_symlink("/proc/self/exe").parent_path();
    std::string sibling = here;
    if (const size_t at = sibling.rfind("64"); at != std::string::npos)
        sibling.replace(at, 2, std::to_string(width.bits));
    std::vector<fs::path> candidates = {sibling};
    for (const char *folder : width.folders)
        candidates.push_back(here.parent_path() / folder / "k42mc");
    if (width.elf_class == ELFCLASS64) // the command's own
        candidates.push_back(here.parent_path() / K42MC_LIBDIR / "k42mc");
    for (const fs::path &folder : candidates)
        if (elf_class_of(folder / shim_name) == width.elf_class)
            return folder;
    return {};
}

// As the shell finds it.
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

} // namespace

std::string lay_out_preload(const std::string &folder, const std::string &program) {
    if (folder.find_first_of(" :$") != std::string::npos)
        throw std::runtime_error("the loader cannot read folder names with blanks, colons or dollars: " +
                                 folder);
    const unsigned char wanted = elf_class_of(find_program(program));
    fs::create_directories(folder + "/lib");
    for (const Width &width : widths) {
        const fs::path shims = find_shim(width);
        if (shims.empty() && width.elf_class == wanted)
            throw std::runtime_error("no " + std::to_string(width.bits) + "-bit " + shim_name +
                                     " is installed");
        for (const char *name : width.folders) {
            const fs::path link = fs::path(folder) / name;
            fs::remove(link);
            if (!shims.empty())
                fs::create_directory_symlink(shims, link);
        }
    }
    return folder + "/$LIB/" + shim_name;
}

int launch(const std::vector<std::string> &command, const std::vector<Setting> &environment) {
    std::vector<char *> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string &word : command)
        arguments.push_back(const_cast<char *>(word.c_str()));
    arguments.push_back(nullptr);
    const pid_t child = fork();
    if (child < 0)
        throw std::runtime_error(std::string("fork: ") + strerror(errno));
    if (child == 0) {
        for (const Setting &setting : environment)
            setenv(setting.variable.c_str(), setting.value.c_str(), 1);
        execvp(arguments[0], arguments.data());
        fprintf(stderr, "k42mc run: %s: %s\n", arguments[0], strerror(errno));
        _exit(errno == ENOENT ? 127 : 126);
    }
    // The keyboard's signals are the program's to answer.
    signal(SIGINT, SIG_IGN);
    signal(SIGQUIT, SIG_IGN);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR)
        continue;
    return status;
}
