// Captures what a piece of code writes to standard output or standard error, at the level of
// descriptors: whatever goes through the streams, past them, or comes from a child process.
#pragma once

#include <cstdio>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

// Runs action and returns what it wrote to the descriptor. Parent and child of a fork write to one file.
template <class Action> std::string captured(int descriptor, Action action) {
    std::fflush(nullptr);
    const int file = memfd_create("captured", MFD_CLOEXEC);
    const int saved = dup(descriptor);
    dup2(file, descriptor);
    action();
    std::fflush(nullptr);
    dup2(saved, descriptor);
    close(saved);

    std::string text(static_cast<size_t>(lseek(file, 0, SEEK_END)), '\0');
    const ssize_t size = pread(file, text.data(), text.size(), 0);
    close(file);
    text.resize(size < 0 ? 0 : static_cast<size_t>(size));
    return text;
}

template <class Action> std::string captured_stdout(Action action) {
    return captured(STDOUT_FILENO, action);
}

template <class Action> std::string captured_stderr(Action action) {
    return captured(STDERR_FILENO, action);
}
