// Source files to the process, which knows nothing of debug information.
#pragma once

#include <string>

// Where the code of the files that match a pattern lies in a program and the libraries that it is linked to:
// "server:1190-12f0 libfoo.so.1:2040-20a7 ", by the names of the modules and the addresses of their files. Throws
// std::runtime_error where that is too much.
std::string code_of_sources(const std::string &program, const std::string &pattern);
