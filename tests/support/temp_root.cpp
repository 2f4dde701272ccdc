#include "tests/support/temp_root.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/root.h"

namespace fs = std::filesystem;

TempRoot::TempRoot() {
    const char *tmp = getenv("TMPDIR");
    std::string tmpl = std::string(tmp && *tmp ? tmp : "/tmp") + "/vorn-root-XXXXXX";
    char *p = mkdtemp(tmpl.data());
    path_ = p ? p : "";
    vorn_set_root(path_.c_str());
}

TempRoot::~TempRoot() {
    vorn_set_root(nullptr);
    std::error_code ec;
    if (!path_.empty())
        fs::remove_all(path_, ec);
}

std::string TempRoot::at(std::string_view device_path) const {
    std::string p(device_path);
    if (!p.empty() && p.front() != '/')
        p.insert(p.begin(), '/');
    return path_ + p;
}

void TempRoot::write(std::string_view device_path, std::string_view content) const {
    write_file(at(device_path), content);
}

std::string TempRoot::read(std::string_view device_path) const {
    return read_file(at(device_path));
}

bool TempRoot::exists(std::string_view device_path) const {
    struct stat st;
    return lstat(at(device_path).c_str(), &st) == 0;
}

void TempRoot::mkdir(std::string_view device_path) const {
    std::error_code ec;
    fs::create_directories(at(device_path), ec);
}

std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::vector<std::string> list_dir(const std::string &host_dir) {
    std::vector<std::string> names;
    std::error_code ec;
    for (const auto &e : fs::directory_iterator(host_dir, ec))
        names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

std::string dir_contents(const std::string &host_dir) {
    std::string all;
    for (const std::string &name : list_dir(host_dir))
        all += read_file(host_dir + "/" + name);
    return all;
}

void write_file(const std::string &path, std::string_view content) {
    std::error_code ec;
    fs::create_directories(fs::path(path).parent_path(), ec);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
}
