// Counts how often a file is saved: a rename over it (the way the daemon
// saves its working configuration) or a write into it.
#pragma once

#include <string>

class FileSaves {
  public:
    // Watches dir for saves of the file called name, from now on.
    FileSaves(const std::string &dir, const std::string &name);
    ~FileSaves();
    FileSaves(const FileSaves &) = delete;
    FileSaves &operator=(const FileSaves &) = delete;
    // Saves seen so far.
    int count();

  private:
    int fd_;
    std::string name_;
    int count_ = 0;
};
