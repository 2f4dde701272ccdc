#include "tests/dumpparser/dump_env.h"

#include <sys/stat.h>

#include <cstdlib>
#include <sstream>

void DumpEnv::SetUp() {
    // After recording it waits while the file VORN_AM_HOLD exists, so that a
    // test can act while a parse is still running.
    root.write("/bin/am",
               "#!/bin/sh\n"
               "echo \"am $*\" >>\"$VORN_AM_LOG\"\n"
               "while [ -e \"$VORN_AM_HOLD\" ]; do sleep 0.05; done\n");
    chmod(root.at("/bin/am").c_str(), 0755);
    root.mkdir("/data/dumps");
    const char *path = getenv("PATH");
    old_path_ = path ? path : "/usr/bin:/bin";
    setenv("PATH", (root.at("/bin") + ":" + old_path_).c_str(), 1);
    setenv("VORN_AM_LOG", root.at("/data/broadcasts.log").c_str(), 1);
    setenv("VORN_AM_HOLD", root.at("/data/am.hold").c_str(), 1);
}

void DumpEnv::TearDown() {
    setenv("PATH", old_path_.c_str(), 1);
}

std::vector<std::string> DumpEnv::broadcasts() const {
    std::vector<std::string> out;
    std::istringstream in(root.read("/data/broadcasts.log"));
    for (std::string line; std::getline(in, line);)
        out.push_back(line);
    return out;
}

std::string DumpEnv::broadcast(int status, const std::string &reason, const std::string &dir) {
    return "am broadcast -a action.kymbal.from_vornd --ei result " + std::to_string(status) +
           " --es para DumpParser " + reason + " " + dir;
}
