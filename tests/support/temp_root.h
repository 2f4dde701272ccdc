// A temporary device root for a test: created empty, set as the daemon's root,
// removed afterwards.
#pragma once

#include <string>
#include <string_view>
#include <vector>

class TempRoot {
  public:
    TempRoot();   // creates the directory and calls vorn_set_root() on it
    ~TempRoot();  // removes it and clears the root
    TempRoot(const TempRoot &) = delete;
    TempRoot &operator=(const TempRoot &) = delete;

    const std::string &path() const { return path_; }
    // The host path of a device path.
    std::string at(std::string_view device_path) const;
    // Writes a file (parents created).
    void write(std::string_view device_path, std::string_view content) const;
    std::string read(std::string_view device_path) const;
    bool exists(std::string_view device_path) const;
    void mkdir(std::string_view device_path) const;

  private:
    std::string path_;
};

// Reads a whole host file ("" when missing).
std::string read_file(const std::string &path);
// Writes a whole host file, creating its parent directories.
void write_file(const std::string &path, std::string_view content);
// The names in a host directory, sorted (none when it is missing).
std::vector<std::string> list_dir(const std::string &host_dir);
// Every file of a host directory, concatenated in name order.
std::string dir_contents(const std::string &host_dir);
