// Signals for a command that runs a program in its place: whoever signals the one means the other.
#pragma once

#include <csignal>
#include <sys/types.h>

// From here on signals are held back, for good: what the command still has to say once the program has ended
// is brief, and must be said.
class SignalRelay {
public:
    SignalRelay();

    // In the program's process, ahead of the program: signals are as the command was given them.
    void release() const;

    // Waits for the program's end, and returns what wait says. Passes on what would have ended the command, and
    // stops where the program stops.
    int wait_for(pid_t program) const;

private:
    sigset_t relayed_;
    sigset_t mask_before_;
    struct sigaction child_before_;
};

// Ends this process by the signal, without an image of its memory.
void end_by(int number);
