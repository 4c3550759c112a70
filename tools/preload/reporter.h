// Reports while the process runs, as the environment asks.
#pragma once

// Returns false when there are to be no more.
using Report = bool (*)();

void start_reporter(Report report);
