// Runs a program to completion for black-box tests, and looks at this
// process's own descriptors.
#pragma once

#include <string>
#include <vector>

struct ProcessResult {
    int exit_status = -1;  // WEXITSTATUS, or -1 when killed or timed out
    std::string out;       // standard output
    std::string err;       // standard error
};

// Runs argv[0] (a path) with argv, killing it after timeout_ms.
ProcessResult run_process(const std::vector<std::string> &argv, int timeout_ms);

// Descriptors of this process open on a path containing needle ("": all).
size_t open_fds_naming(const std::string &needle);
