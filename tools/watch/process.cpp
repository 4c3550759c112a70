#include "tools/watch/process.h"

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <stdexcept>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

[[noreturn]] void refuse(pid_t pid, const std::string &why) {
    throw std::runtime_error("process " + std::to_string(pid) + ": " + why);
}

std::ifstream open_of(pid_t pid, const char *name) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/" + name);
    if (!file)
        refuse(pid, strerror(errno));
    return file;
}

// As the process was started.
std::string setting_of(pid_t pid, const std::string &name) {
    std::ifstream environment = open_of(pid, "environ");
    for (std::string setting; std::getline(environment, setting, '\0');)
        if (setting.starts_with(name + "="))
            return setting.substr(name.size() + 1);
    return {};
}

} // namespace

WatchedProcess::WatchedProcess(pid_t pid)
    : pid_(pid), descriptor_(static_cast<int>(syscall(SYS_pidfd_open, pid, 0))) {
    if (descriptor_ < 0)
        refuse(pid, strerror(errno));
    folder_ = setting_of(pid, "K42MC_RUN_OUTPUT");
    const std::string signal = setting_of(pid, "K42MC_RUN_SIGNAL");
    std::from_chars(signal.data(), signal.data() + signal.size(), signal_);
    if (folder_.empty() || signal_ == 0) {
        close(descriptor_);
        refuse(pid, "it can be asked for reports where it was started by k42mc run --signal SIG");
    }
}

WatchedProcess::~WatchedProcess() {
    close(descriptor_);
}

bool WatchedProcess::has_ended() const {
    pollfd end = {descriptor_, POLLIN, 0};
    return poll(&end, 1, 0) > 0;
}

// It would end who does not.
bool WatchedProcess::takes_signal() const {
    static const std::string caught = "SigCgt:";
    std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with(caught))
            return (std::stoull(line.substr(caught.size()), nullptr, 16) >> (signal_ - 1) & 1) != 0;
    return false;
}

void WatchedProcess::ask() const {
    if (takes_signal())
        syscall(SYS_pidfd_send_signal, descriptor_, signal_, nullptr, 0);
}

std::vector<std::string> WatchedProcess::reports() const {
    const std::string number = "." + std::to_string(pid_);
    std::vector<std::string> found;
    std::error_code error;
    for (const fs::directory_entry &entry : fs::directory_iterator(folder_, error))
        // "server.812.json", or "server.812-2.json" where there was one.
        if (const std::string stem = entry.path().stem();
            entry.path().extension() == ".json" &&
            (stem.ends_with(number) || stem.find(number + "-") != std::string::npos))
            found.push_back(entry.path());
    return found;
}
