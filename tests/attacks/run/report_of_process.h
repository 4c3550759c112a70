// What a process has left in the folder for reports.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <unistd.h>

inline std::string report_of(pid_t process) {
    const std::string end = "." + std::to_string(process) + ".json";
    for (const auto &entry : std::filesystem::directory_iterator(getenv("K42MC_RUN_OUTPUT"))) {
        std::ifstream file(entry.path());
        if (entry.path().string().ends_with(end))
            return {std::istreambuf_iterator(file), {}};
    }
    return {};
}

inline bool is_left_alone() {
    return report_of(getpid()).find(R"("kind":"unchecked")") != std::string::npos;
}
