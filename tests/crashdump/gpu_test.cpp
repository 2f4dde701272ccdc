// The GPU hang snapshot: the hang rule, the copy and its "ZIP GPU" notice,
// recorded by the stand-in am first on PATH.
#include "crashdump/crashdump.h"
#include "crashdump/gpu_snapshot.h"
#include "tests/crashdump/crash_env.h"
#include "tests/support/text.h"

namespace {

class GpuSnapshot : public CrashEnv {
  protected:
    void SetUp() override {
        CrashEnv::SetUp();
        gpu_last_hang_timestamp = 0;
        path_ = getenv("PATH");
        setenv("PATH", (std::string(VORN_SOURCE_DIR "/tools/demo/bin:") + path_).c_str(), 1);
        root.mkdir("/data");
        setenv("VORN_AM_LOG", root.at("/data/broadcasts.log").c_str(), 1);
    }
    void TearDown() override {
        setenv("PATH", path_.c_str(), 1);
        CrashEnv::TearDown();
    }
    void kgsl(const std::string &timestamp, const std::string &dump) const {
        root.write("/sys/class/kgsl/kgsl-3d0/snapshot/timestamp", timestamp);
        root.write("/sys/class/kgsl/kgsl-3d0/snapshot/dump", dump);
    }
    std::vector<std::string> broadcasts() const {
        return lines_of(root.read("/data/broadcasts.log"));
    }
    std::vector<std::string> dumps() const { return entries("/sdcard/logs/GPU"); }

    std::string path_;
};

TEST_F(GpuSnapshot, NewHangIsCopiedAndAnnounced) {
    std::string dump = pattern(5000, "snapshot");
    kgsl("1234\n", dump);
    gpu_snapshot_copy("GPU");

    ASSERT_EQ(dumps().size(), 1u);
    std::string name = dumps()[0];
    ASSERT_TRUE(has_shape(name, "dump_1234.bin.9999_99_99-99_99_99")) << name;
    EXPECT_EQ(root.read("/sdcard/logs/GPU/" + name), dump);
    EXPECT_EQ(mode_of("/sdcard/logs/GPU/" + name), 0600u);
    // The device path, and the text after its last dot.
    std::string file = "/sdcard/logs//GPU/" + name;
    EXPECT_EQ(broadcasts(),
              std::vector<std::string>{"am broadcast -a action.kymbal.from_vornd "
                                       "--ei result 1 --es para ZIP GPU " +
                                       file + " " + name.substr(name.rfind('.') + 1)});
    EXPECT_TRUE(log.has("gpu: hang detected, timestamp is 1234"));
    EXPECT_TRUE(log.has("gpu: snapshot was dumped to " + file));
}

// Nothing is copied or sent for a timestamp that is not new (a spurious
// wake-up after a hang: e2e SimCrashTest), or a new one without the dump
// attribute.
TEST_F(GpuSnapshot, TimestampTextsThatAreNotNewAndAMissingDump) {
    struct Case {
        const char *text;
        const char *message;  // "" for none
    };
    const Case cases[] = {
        {"0\n", ""},  // the first snapshot after start-up with timestamp 0
        {"", "gpu: failed to read /sys/class/kgsl/kgsl-3d0/snapshot/timestamp\n"},
        {"9", "gpu: failed to open /sys/class/kgsl/kgsl-3d0/snapshot/dump"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text);
        log.clear();
        kgsl(c.text, "dump");
        if (*c.text == '9')
            unlink(root.at("/sys/class/kgsl/kgsl-3d0/snapshot/dump").c_str());
        gpu_snapshot_copy("GPU");
        EXPECT_TRUE(dumps().empty());
        if (*c.message) {
            EXPECT_TRUE(log.has(c.message)) << log.dump();
        } else {
            EXPECT_TRUE(log.lines().empty()) << log.dump();
        }
    }
    EXPECT_TRUE(broadcasts().empty());
}

TEST_F(GpuSnapshot, FortyCharacterTimestampUsesItsFirstFifteen) {
    kgsl("000000000000077" + std::string(25, '9'), "dump");
    gpu_snapshot_copy("GPU");
    EXPECT_TRUE(log.has("gpu: invalid timestamp\n"));
    ASSERT_EQ(dumps().size(), 1u);
    EXPECT_EQ(dumps()[0].rfind("dump_77.bin.", 0), 0u) << dumps()[0];
}

TEST_F(GpuSnapshot, FailedWriteStillAnnouncesThePartialFile) {
    kgsl("55", pattern(5000));
    {
        FileSizeLimit limit(2048);
        gpu_snapshot_copy("GPU");
    }
    EXPECT_TRUE(log.has("gpu: write out snapshot dump error"));
    ASSERT_EQ(dumps().size(), 1u);
    EXPECT_EQ(root.read("/sdcard/logs/GPU/" + dumps()[0]), pattern(2048));
    EXPECT_EQ(broadcasts().size(), 1u);
}

TEST_F(GpuSnapshot, OldSnapshotsArePrunedButNeverWithAnEmptyPrefix) {
    // Eleven entries of the log root begin with the node's prefix "GPU": the
    // two smallest go, but the folder itself holds the new dump and stays.
    for (int i = 0; i < 10; i++)
        root.write("/sdcard/logs/GPU_old" + std::to_string(i), "old");
    kgsl("1", "a");
    gpu_snapshot_copy("GPU");
    EXPECT_FALSE(root.exists("/sdcard/logs/GPU_old0"));
    EXPECT_TRUE(root.exists("/sdcard/logs/GPU_old1"));
    EXPECT_EQ(dumps().size(), 1u);

    // With an empty log_filepath every file of the log root would match.
    for (int i = 0; i < 12; i++)
        root.write("/sdcard/logs/other" + std::to_string(i), "keep");
    kgsl("2", "b");
    gpu_snapshot_copy("");
    for (int i = 0; i < 12; i++)
        EXPECT_TRUE(root.exists("/sdcard/logs/other" + std::to_string(i))) << i;
}

TEST_F(GpuSnapshot, SwitchAndMonitorWithoutTimestampAttribute) {
    EXPECT_EQ(gpu_dump_disable(nullptr, nullptr), 0);
    EXPECT_EQ(gpu_dump_switch.load(), 0);
    EXPECT_EQ(gpu_dump_enable(nullptr, nullptr), 0);
    EXPECT_EQ(gpu_dump_switch.load(), 1);

    vorn_node node{};
    pthread_mutex_init(&node.lock, nullptr);
    EXPECT_EQ(gpu_monitor_thread(&node), nullptr);
    EXPECT_TRUE(log.has("gpu: failed to open /sys/class/kgsl/kgsl-3d0/snapshot/timestamp\n"));
    EXPECT_EQ(node.worker_thread, 0u);
    gpu_monitor_thread(nullptr);
    EXPECT_TRUE(log.has("gpu: Invalid argument"));
    pthread_mutex_destroy(&node.lock);
}

}  // namespace
