// The files that processes under k42mc run leave, which begin with a line that tells of the run.
#pragma once

#include <string>
#include <vector>

struct RunFile {
    std::string name;
    std::string run_id;
    bool is_json;  // or text
    bool is_empty; // but for that line
    bool is_idle;  // no process is going to write there any more
};

constexpr size_t run_id_size = 16;

// Those in a folder, of any run. Nobody else's file is taken for one.
std::vector<RunFile> run_files_in(int folder);
