// The files that processes under k42mc run leave, which begin with a line that tells of the run.
#pragma once

#include <string>
#include <vector>

struct RunFile {
    std::string name;
    std::string run_id;
    bool is_json;           // or text, or the list of processes
    bool is_empty;          // but for that line, and one of what the process went on as
    std::string went_on_as; // another program, if it said so and nothing else
    bool is_idle;           // no process is going to write there any more
};

constexpr size_t run_id_size = 16;

// What a list of a run's processes begins with; its name ends in ".list".
std::string first_line_of_list(const std::string &run_id);

// Those in a folder, of any run. Nobody else's file is taken for one.
std::vector<RunFile> run_files_in(int folder);
