#include "tests/support/sim_fixture.h"

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
    for (const std::string &name : list_dir(at(device_dir)))
        if (name.rfind(prefix, 0) == 0)
            out.push_back(at(device_dir) + "/" + name);
    return out;
}
