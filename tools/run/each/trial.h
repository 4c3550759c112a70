// One of many runs of a program, beside others: in a session of its own, with nothing to read but what a file has, and
// what it says kept from the terminal.
#pragma once

#include "tools/common/file.h"
#include "tools/run/each/said.h"
#include "tools/run/launch.h"

#include <chrono>
#include <poll.h>
#include <string>
#include <sys/types.h>
#include <vector>

using Clock = std::chrono::steady_clock;

struct TrialOrder {
    std::vector<std::string> command;
    std::vector<Setting> settings;
    std::string copy =
        {}; // the current folder is copied there, and the program runs in that; empty for none
    std::string setup = {};            // a shell's command, in the same folder
    bool reads_input = false;          // standard input, from its start
    std::chrono::milliseconds limit{}; // 0 for none
};

class Trial {
public:
    // Throws std::runtime_error where none can be started.
    explicit Trial(const TrialOrder &order);
    ~Trial(); // ends it
    Trial(const Trial &) = delete;
    Trial &operator=(const Trial &) = delete;

    // What there is to wait for: its end, and what it says.
    static constexpr size_t watched = 3;
    void watch(pollfd *descriptors) const;

    // Reads what was said. Past the limit, the program gets a signal that it reports on, and then is killed. Returns
    // whether it has ended; then what it has left running is killed, too.
    bool proceed();

    // When there is something to do for proceed, whatever is said.
    Clock::time_point deadline() const { return deadline_; }

    int status() const { return status_; }
    pid_t process() const { return process_; }
    bool is_late() const { return late_; }
    Clock::duration duration() const { return end_ - start_; }
    const Said &output() const { return output_; }
    const Said &errors() const { return errors_; }

    // Why the program was not even begun: no copy, or no set-up. Else empty.
    std::string own_fault() const;

private:
    struct Pipe {
        File reading, writing;
        Pipe();
    };

    Trial(const TrialOrder &order, Pipe output, Pipe errors);
    void end();

    File output_file_, errors_file_;
    pid_t process_;
    File ending_; // readable from then on
    Said output_, errors_;
    Clock::time_point start_, end_, deadline_;
    bool late_ = false;
    bool ended_ = false;
    int status_ = 0;
};
