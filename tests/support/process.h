// Runs a program to completion for black-box tests, and looks at this
// process's own descriptors.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

struct ProcessResult {
    int exit_status = -1;  // WEXITSTATUS, or -1 when killed or timed out
    std::string out;       // standard output
    std::string err;       // standard error
};

// Runs argv[0] (a path) with argv, killing it after timeout_ms.
ProcessResult run_process(const std::vector<std::string> &argv, int timeout_ms);

// A program left running while the test goes on (tail -f, say); its standard
// output is read as it grows. Killed when the object goes away.
class BackgroundProcess {
  public:
    explicit BackgroundProcess(const std::vector<std::string> &argv);
    ~BackgroundProcess();
    BackgroundProcess(const BackgroundProcess &) = delete;
    BackgroundProcess &operator=(const BackgroundProcess &) = delete;

    // Standard output so far (all of it once stopped).
    std::string out() const;
    // Kills it (once) and returns its exit status, -1 when it did not exit by itself.
    int stop();

  private:
    pid_t pid_ = -1;
    int out_ = -1;
    int status_ = -1;
};

// Descriptors of this process open on a path containing needle ("": all).
size_t open_fds_naming(const std::string &needle);
// True when pid has exited, or is a zombie whose parent is gone too.
bool process_gone(pid_t pid);
// Resident memory of a process in KiB, or -1.
long resident_kib(pid_t pid);
