#include "tests/support/sim_fixture.h"

#include <algorithm>
#include <filesystem>

#include "sim/devfs.h"

SimDaemonFixture::SimDaemonFixture() {
    vornsim({"create", path()});
}

SimDaemonFixture::~SimDaemonFixture() {
    // The daemon holds the devices open: stop it first so the mount goes at once.
    stop();
    if (up_)
        vornsim({"down", path()});
}

bool SimDaemonFixture::sim_up() {
    if (!fuse_usable(&skip_))
        return false;
    ProcessResult r = vornsim({"up", path()});
    up_ = r.exit_status == 0;
    if (!up_)
        skip_ = "vornsim up: " + r.err;
    return up_;
}

ProcessResult SimDaemonFixture::vornsim(const std::vector<std::string> &args) const {
    std::vector<std::string> argv = {build_binary("vornsim")};
    argv.insert(argv.end(), args.begin(), args.end());
    return run_process(argv, 30000);
}

std::vector<std::string> SimDaemonFixture::files(const std::string &device_dir,
                                                 const std::string &prefix) const {
    std::vector<std::string> out;
    std::error_code ec;
    for (const auto &e : std::filesystem::directory_iterator(at(device_dir), ec))
        if (e.path().filename().string().rfind(prefix, 0) == 0)
            out.push_back(e.path().string());
    std::sort(out.begin(), out.end());
    return out;
}
