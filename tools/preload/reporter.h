// Reports while the process runs, as the environment asks.
#pragma once

// Returns false when there are to be no more.
using Report = bool (*)();

void start_reporter(Report report);

// In a child of fork, where the thread that reports is not.
void restart_reporter();

// The program has set an action of its own for a signal.
void signal_is_taken(int number);
