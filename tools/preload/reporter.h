// Reports while the process runs, as the environment asks.
#pragma once

using Report = void (*)();

void start_reporter(Report report);
