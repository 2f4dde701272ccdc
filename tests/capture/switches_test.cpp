// The DynamicDebug and Bluetooth switches, with the debugfs control file and
// the system partition under the test root and a recording mount on PATH.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "capture/switches.h"
#include "tests/capture/capture_env.h"
#include "tests/support/log_capture.h"

namespace {

class SwitchesTest : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        root_ = &capture_root();  // the root is process-wide: one for the binary
        root_->write("/bin/mount", "#!/bin/sh\necho \"$*\" >> " + root_->at("/mount.log") +
                                       "\n[ -e " + root_->at("/mount.fail") +
                                       " ] && exit 1\nexit 0\n");
        chmod(root_->at("/bin/mount").c_str(), 0755);
        setenv("PATH", (root_->at("/bin") + ":" + getenv("PATH")).c_str(), 1);
        root_->mkdir("/sys/kernel/debug/dynamic_debug");
        root_->mkdir("/data");
    }

    static vorn_ctrl_msg msg(uint8_t enable, const std::string &mask = "") {
        vorn_ctrl_msg m{};
        m.msg_type = VORN_MSG_SET_NODE;
        m.enable = enable;
        snprintf(m.mask, sizeof m.mask, "%s", mask.c_str());
        return m;
    }
    static std::string control() { return root_->read("/sys/kernel/debug/dynamic_debug/control"); }

    static inline TempRoot *root_ = nullptr;
    LogCapture log_;
};

TEST_F(SwitchesTest, DynamicDebugRunsEveryQueryLineAndSkipsCommentsAndBlanks) {
    root_->write("/data/dd.txt", "# networking\n\nfile net/core.c\n#off\nmodule usbcore\n");
    vorn_ctrl_msg on = msg(2, "/data/dd.txt");  // only the new-file bit: still on
    EXPECT_EQ(vorn_set_dynamic_debug(nullptr, &on), 0);
    const std::string ctl = root_->at("/sys/kernel/debug") + "/dynamic_debug/control";
    EXPECT_TRUE(log_.has("set_dynamic_debug_mask:  echo -n 'file net/core.c +p' > " + ctl + "\n"))
        << log_.dump();
    EXPECT_EQ(log_.count_containing("echo -n"), 2u);
    EXPECT_EQ(control(), "module usbcore +p");
    vorn_ctrl_msg off = msg(0, "/data/dd.txt");
    EXPECT_EQ(vorn_set_dynamic_debug(nullptr, &off), 0);
    EXPECT_EQ(control(), "module usbcore -p");

    // A quote inside a query does not end the command's quoting.
    const std::string evil = "func x'$(touch " + root_->at("/pwned") + ")'";
    root_->write("/data/evil.txt", evil + "\n");
    vorn_ctrl_msg quoted = msg(1, "/data/evil.txt");
    EXPECT_EQ(vorn_set_dynamic_debug(nullptr, &quoted), 0);
    EXPECT_EQ(control(), evil + " +p");
    EXPECT_FALSE(root_->exists("/pwned"));

    // Comments and blank lines only: nothing runs, and that is success.
    root_->write("/data/none.txt", "# nothing\n\n\n#  here\n");
    log_.clear();
    vorn_ctrl_msg none = msg(1, "/data/none.txt");
    EXPECT_EQ(vorn_set_dynamic_debug(nullptr, &none), 0);
    EXPECT_EQ(log_.count_containing("echo -n"), 0u);

    // Without the control file's directory every query still runs, and fails.
    std::string dir = root_->at("/sys/kernel/debug/dynamic_debug");
    rename(dir.c_str(), (dir + ".away").c_str());
    EXPECT_NE(set_dynamic_debug_mask(strdup("/data/dd.txt"), 1), 0);
    rename((dir + ".away").c_str(), dir.c_str());
    EXPECT_EQ(log_.count_containing("set_dynamic_debug_mask: Failed to run cmd  echo -n '"), 2u);

    // Every query file read was closed again.
    EXPECT_EQ(open_fds_naming(".txt"), 0u);

    vorn_ctrl_msg missing = msg(1, "/data/missing.txt");
    EXPECT_EQ(vorn_set_dynamic_debug(nullptr, &missing), -1);
    EXPECT_EQ(vorn_set_dynamic_debug(nullptr, nullptr), -1);
}

TEST_F(SwitchesTest, DynamicDebugReadsOnlyRegularQueryFilesAndClosesThem) {
    // A FIFO nobody writes, an endless device and a directory would stall
    // the dispatcher or read nothing sensible: each fails like a missing file.
    root_->mkdir("/data/qdir");
    ASSERT_EQ(mkfifo(root_->at("/data/fifo").c_str(), 0600), 0);
    ASSERT_EQ(symlink("/dev/zero", root_->at("/data/zero").c_str()), 0);
    for (const char *path : {"/data/fifo", "/data/zero", "/data/qdir"}) {
        vorn_ctrl_msg m = msg(1, path);
        EXPECT_EQ(vorn_set_dynamic_debug(nullptr, &m), -1) << path;
    }
    EXPECT_EQ(log_.count_containing("echo -n"), 0u);

    // Only the first 64 KiB of a large file count; toggling leaks nothing.
    std::string big;
    for (int i = 0; big.size() < 64 * 1024; i++)
        big += "func f" + std::to_string(i) + std::string(400, 'x') + "\n";
    root_->write("/data/big.txt", big + "func beyond\n");
    size_t before = open_fds_naming("");  // every descriptor
    for (int i = 0; i < 20; i++) {
        vorn_ctrl_msg m = msg(i % 2, "/data/big.txt");
        log_.clear();
        EXPECT_EQ(vorn_set_dynamic_debug(nullptr, &m), 0);
    }
    EXPECT_EQ(open_fds_naming(""), before);
    EXPECT_FALSE(log_.has_containing("func beyond"));
}

TEST_F(SwitchesTest, BluetoothRewritesEveryKeyLineBetweenTwoRemounts) {
    struct {
        const char *name;
        std::string conf;
        uint8_t enable;
        int result;
        std::string want;  // the configuration afterwards
        std::string mounts;
        bool mount_fails = false;
    } cases[] = {
        {"key twice", "A=1\nBtSnoopLogOutput=false\nB=2\nBtSnoopLogOutput=maybe\n", 1, 0,
         "A=1\nBtSnoopLogOutput=true\nB=2\nBtSnoopLogOutput=true\n", "rw ro"},
        {"switched off", "BtSnoopLogOutput=true\n", 0, 0, "BtSnoopLogOutput=false\n", "rw ro"},
        {"new-file bit counts as on", "BtSnoopLogOutput=false\n", 2, 0, "BtSnoopLogOutput=true\n",
         "rw ro"},
        {"no key", "A=1\n# BtSnoopLogOutput=true\n", 1, -1, "A=1\n# BtSnoopLogOutput=true\n", "rw"},
        {"overlong line read in pieces",
         std::string(70, 'x') + "\n" + std::string(63, 'y') + "BtSnoopLogOutput=false\n", 1, 0,
         std::string(70, 'x') + "\n" + std::string(63, 'y') + "BtSnoopLogOutput=true\n", "rw ro"},
        {"remount fails", "BtSnoopLogOutput=false\n", 1, -1, "BtSnoopLogOutput=false\n", "rw",
         true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        root_->write("/etc/bluetooth/bt_stack.conf", c.conf);
        root_->write("/mount.log", "");
        if (c.mount_fails)
            root_->write("/mount.fail", "");
        log_.clear();
        vorn_ctrl_msg m = msg(c.enable);
        EXPECT_EQ(vorn_set_bluetooth(nullptr, &m), c.result) << log_.dump();
        EXPECT_EQ(root_->read("/etc/bluetooth/bt_stack.conf"), c.want);
        std::string want_mounts;
        for (const char *mode : {"rw", "ro"}) {
            if (c.mounts.find(mode) != std::string::npos)
                want_mounts +=
                    std::string("-o remount,") + mode + " " + root_->at("/system") + "\n";
        }
        EXPECT_EQ(root_->read("/mount.log"), want_mounts);
        EXPECT_EQ(log_.has("update_bt_conf: Failed to find BtSnoopLogOutput\n"),
                  c.result != 0 && !c.mount_fails);
        EXPECT_EQ(log_.has("Failed to remount system as RW\n"), c.mount_fails);
        unlink(root_->at("/mount.fail").c_str());
    }
}

}  // namespace
