// Fixture of the dump parser's tests: a temporary device root, a recording
// `am` first on PATH and the daemon's log captured.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "sim/dump_builder.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_root.h"
#include "tests/support/text.h"

class DumpEnv : public ::testing::Test {
  protected:
    void SetUp() override {
        // After recording it waits while the file VORN_AM_HOLD exists, so that
        // a test can act while a parse is still running.
        root.write("/bin/am",
                   "#!/bin/sh\n"
                   "echo \"am $*\" >>\"$VORN_AM_LOG\"\n"
                   "while [ -e \"$VORN_AM_HOLD\" ]; do sleep 0.05; done\n");
        chmod(root.at("/bin/am").c_str(), 0755);
        root.mkdir("/data/dumps");
        setenv("PATH", (root.at("/bin") + ":" + old_path_).c_str(), 1);
        setenv("VORN_AM_LOG", root.at("/data/broadcasts.log").c_str(), 1);
        setenv("VORN_AM_HOLD", root.at("/data/am.hold").c_str(), 1);
    }
    void TearDown() override { setenv("PATH", old_path_.c_str(), 1); }

    // Device path of a dump directory, and a generator writing into it.
    static std::string dev(const std::string &name) { return "/data/dumps/" + name; }
    dumpgen::DumpDir dump(const std::string &name) const {
        return dumpgen::DumpDir(root.at(dev(name)));
    }

    // The broadcasts sent so far, one "am ..." line each.
    std::vector<std::string> broadcasts() const {
        return lines_of(root.read("/data/broadcasts.log"));
    }
    // The line `am` records for a dump parser broadcast.
    static std::string broadcast(int status, const std::string &reason, const std::string &dir) {
        return "am broadcast -a action.kymbal.from_vornd --ei result " + std::to_string(status) +
               " --es para DumpParser " + reason + " " + dir;
    }

    TempRoot root;
    LogCapture log;

  private:
    std::string old_path_ = getenv("PATH") ? getenv("PATH") : "/usr/bin:/bin";
};
