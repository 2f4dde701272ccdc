// End-to-end fixture on a simulated phone: the daemon fixture's root made a
// device root by vornsim create, brought up by vornsim up before the daemon
// starts, and taken down after the daemon has been stopped.
//
//   SimDaemonFixture d;
//   if (!d.sim_up()) GTEST_SKIP() << d.skip_reason();
//   d.write_config(...);  ASSERT_TRUE(d.start());
//   d.vornsim({"crash", d.path(), "modem"});
#pragma once

#include <string>
#include <vector>

#include "tests/support/daemon_fixture.h"

class SimDaemonFixture : public DaemonFixture {
  public:
    SimDaemonFixture();   // vornsim create
    ~SimDaemonFixture();  // stops the daemon, then vornsim down

    // vornsim up; false (with skip_reason()) where FUSE cannot mount.
    bool sim_up();
    const std::string &skip_reason() const { return skip_; }
    ProcessResult vornsim(const std::vector<std::string> &args) const;
    // Host paths of the files in a log-root folder whose names start with prefix.
    std::vector<std::string> files(const std::string &device_dir, const std::string &prefix) const;

  private:
    std::string skip_;
    bool up_ = false;
};
