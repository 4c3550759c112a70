#include "tools/run/each/trial.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr std::chrono::seconds time_to_report{5};

[[noreturn]] void give_up(const std::string &what) {
    dprintf(STDERR_FILENO, "k42mc run: %s\n", what.c_str());
    _exit(own_trouble);
}

// Returns what is wrong with how it ended; empty for nothing.
std::string run_and_wait(const std::vector<const char *> &command) {
    const pid_t child = fork();
    if (child == 0) {
        execvp(command[0], const_cast<char *const *>(command.data()));
        _exit(127);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child)
        return strerror(errno);
    if (WIFSIGNALED(status))
        return std::string("ended by SIG") + sigabbrev_np(WTERMSIG(status));
    return status == 0 ? "" : "exit status " + std::to_string(WEXITSTATUS(status));
}

void enter_copy(const std::string &copy) {
    const std::string fault = run_and_wait({"cp", "-a", ".", copy.c_str(), nullptr});
    if (!fault.empty() || chdir(copy.c_str()) != 0)
        give_up("no copy of the folder in " + copy + ": " + fault);
    setenv("PWD", copy.c_str(), 1);
}

void set_up(const std::string &command) {
    const std::string fault = run_and_wait({"/bin/sh", "-c", command.c_str(), nullptr});
    if (!fault.empty())
        give_up("--each-setup: " + command + ": " + fault);
}

// From its start each time: so the file is opened anew.
void open_input(bool reads_input) {
    int input = reads_input ? open("/proc/self/fd/0", O_RDONLY) : -1;
    if (input < 0)
        input = open("/dev/null", O_RDONLY);
    dup2(input, STDIN_FILENO);
    close(input);
}

[[noreturn]] void become(const TrialOrder &order, int output, int errors) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    setsid();
    constexpr rlimit no_core = {0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    open_input(order.reads_input);
    dup2(output, STDOUT_FILENO);
    dup2(errors, STDERR_FILENO);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    if (!order.copy.empty())
        enter_copy(order.copy);
    if (!order.setup.empty())
        set_up(order.setup);
    std::vector<char *> arguments;
    for (const std::string &word : order.command)
        arguments.push_back(const_cast<char *>(word.c_str()));
    arguments.push_back(nullptr);
    for (const Setting &setting : order.settings)
        setenv(setting.variable.c_str(), setting.value.c_str(), 1);
    execvp(arguments[0], arguments.data());
    const int cause = errno;
    dprintf(STDERR_FILENO, "k42mc run: %s: %s\n", arguments[0], strerror(cause));
    _exit(cause == ENOENT ? 127 : 126);
}

// Up to its end, or for now.
void read_into(Said &said, File &file) {
    char piece[1 << 14];
    ssize_t size = -1;
    while (file.is_open() && (size = read(file.descriptor(), piece, sizeof piece)) > 0)
        said.add({piece, static_cast<size_t>(size)});
    if (size == 0)
        file.close();
}

void signal_session(pid_t leader, int number) {
    kill(-leader, number); // none before it has one
    kill(leader, number);
}

} // namespace

Trial::Pipe::Pipe() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        throw std::runtime_error(std::string("pipe: ") + strerror(errno));
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    reading = File(ends[0]);
    writing = File(ends[1]);
}

Trial::Trial(const TrialOrder &order) : Trial(order, Pipe(), Pipe()) {}

Trial::Trial(const TrialOrder &order, Pipe output, Pipe errors)
    : output_file_(std::move(output.reading)), errors_file_(std::move(errors.reading)), process_(fork()),
      start_(Clock::now()), end_(start_),
      deadline_(order.limit.count() != 0 ? start_ + order.limit : Clock::time_point::max()) {
    if (process_ == 0)
        become(order, output.writing.descriptor(), errors.writing.descriptor());
    if (process_ < 0)
        throw std::runtime_error(std::string("fork: ") + strerror(errno));
    // By the system call, as the C library declares it for C alone.
    ending_ = File(static_cast<int>(syscall(SYS_pidfd_open, process_, 0)));
}

Trial::~Trial() {
    if (!ended_)
        end();
}

void Trial::watch(pollfd *descriptors) const {
    for (const File *file : {&output_file_, &errors_file_, &ending_})
        *descriptors++ = {file->descriptor(), POLLIN, 0};
}

std::string Trial::own_fault() const {
    constexpr std::string_view own_voice = "k42mc run: ";
    if (!WIFEXITED(status_) || WEXITSTATUS(status_) != own_trouble)
        return "";
    const size_t at = ("\n" + errors_.start).rfind("\n" + std::string(own_voice));
    return at != std::string::npos ? errors_.start.substr(at + own_voice.size()) : "";
}

// What is left of the session goes while nobody else can have its number.
void Trial::end() {
    signal_session(process_, SIGKILL);
    waitpid(process_, &status_, 0);
    ended_ = true;
    end_ = Clock::now();
}

bool Trial::proceed() {
    if (Clock::now() >= deadline_) {
        signal_session(process_, late_ ? SIGKILL : SIGABRT);
        late_ = true;
        deadline_ = Clock::now() + time_to_report;
    }
    siginfo_t change{};
    const bool has_ended =
        waitid(P_PID, static_cast<id_t>(process_), &change, WEXITED | WNOHANG | WNOWAIT) == 0 &&
        change.si_pid == process_;
    read_into(output_, output_file_);
    read_into(errors_, errors_file_);
    if (has_ended)
        end();
    return has_ended;
}
