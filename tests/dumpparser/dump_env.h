// Fixture of the dump parser's tests: a temporary device root, a recording
// `am` first on PATH and the daemon's log captured.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/dumpparser/dump_builder.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_root.h"

class DumpEnv : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    // Device path of a dump directory, and a generator writing into it.
    static std::string dev(const std::string &name) { return "/data/dumps/" + name; }
    dumpgen::DumpDir dump(const std::string &name) const {
        return dumpgen::DumpDir(root.at(dev(name)));
    }

    // The broadcasts sent so far, one "am ..." line each.
    std::vector<std::string> broadcasts() const;
    // The line `am` records for a dump parser broadcast.
    static std::string broadcast(int status, const std::string &reason, const std::string &dir);

    TempRoot root;
    LogCapture log;

  private:
    std::string old_path_;
};
