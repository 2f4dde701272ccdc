// The collector as a whole: its set-up failures, and a run on a FIFO standing
// in for a ramdump device, with the side threads started and torn down. Eleven
// devices, and a second device whose dump wakes no sink, are in e2e
// sim_crash_test on the simulated phone.
#include <atomic>

#include "capture/worker_util.h"
#include "crashdump/crashdump.h"
#include "tests/crashdump/crash_env.h"

namespace {

class SsrCollector : public CrashEnv {
  protected:
    void SetUp() override {
        CrashEnv::SetUp();
        // The collector makes its own folder and semaphores.
        std::filesystem::remove_all(root.at(RAMDUMP_FOLDER));
        free(st.folder);
        st.folder = nullptr;
        install_selfsig_handler();
    }
    void ramdumps(const char *setting) const {
        root.write("/sys/module/subsystem_restart/parameters/enable_ramdumps", setting);
    }
    // Runs the collector on a thread of its own until it returns.
    void start() {
        done_ = false;
        pthread_create(
            &thread_, nullptr,
            [](void *p) -> void * {
                auto *self = static_cast<SsrCollector *>(p);
                ssr_collect(&self->st);
                self->done_ = true;
                return nullptr;
            },
            this);
    }
    // SIGUSR1 ends the poll; a signal that lands while a dump is copied is
    // retried, so it is sent until the collector has returned.
    bool stop() {
        bool ended = wait_until(
            [&] {
                if (!done_)
                    pthread_kill(thread_, SIGUSR1);
                return done_.load();
            },
            10000, 50);
        pthread_join(thread_, nullptr);
        return ended;
    }
    // A device FIFO held open by the test, so the collector's open returns.
    int device_fifo(const std::string &name) const {
        std::string path = root.at("/dev/" + name);
        mkfifo(path.c_str(), 0600);
        return open(path.c_str(), O_RDWR | O_NONBLOCK);
    }

    pthread_t thread_{};
    std::atomic<bool> done_{false};
};

TEST_F(SsrCollector, EndsEarlyWhenRamdumpsAreOffOrUnreadable) {
    struct Case {
        const char *setting;  // null: no file
        const char *message;
    };
    const Case cases[] = {
        {"0\n", nullptr},
        {"x\n", "Invalid ramdump setting x\n\n"},
        {"", "Unable to read /sys/module/subsystem_restart/parameters/enable_ramdumps\n"},
        {nullptr, "Unable to open /sys/module/subsystem_restart/parameters/enable_ramdumps\n"},
    };
    root.write("/dev/ramdump_modem", "");
    for (const Case &c : cases) {
        SCOPED_TRACE(c.setting ? c.setting : "(none)");
        log.clear();
        std::filesystem::remove(root.at(SSR_ENABLE_RAMDUMPS));
        if (c.setting)
            ramdumps(c.setting);
        ssr_collect(&st);
        EXPECT_TRUE(log.has("Ramdump is not enable\n"));
        if (c.message) {
            EXPECT_TRUE(log.has(c.message)) << log.dump();
        }
        EXPECT_EQ(ramdump_list[0][0], '\0');  // /dev was not scanned
        EXPECT_FALSE(root.exists(RAMDUMP_FOLDER));
    }
}

TEST_F(SsrCollector, DeviceThatVanishesAfterTheScan) {
    ramdumps("1\n");
    root.write("/dev/ramdump_adsp", "");
    // Listed in /dev, but there is nothing to open behind the name.
    ASSERT_EQ(symlink("/dev/gone", root.at("/dev/ramdump_modem").c_str()), 0);
    ssr_collect(&st);
    EXPECT_TRUE(log.has("Unable to open /dev/ramdump_modem\n"));
    EXPECT_TRUE(log.has("Failed to open ramdump devices\n"));
    EXPECT_TRUE(log.has("Failed to initialize ramdump\n"));
    EXPECT_EQ(st.folder, nullptr);
    for (int fd : st.fds)
        EXPECT_EQ(fd, -1);
}

TEST_F(SsrCollector, DumpsEachCrashAndStopsItsSideThreads) {
    ramdumps("1\n");
    // An external MDM modem: the uevent monitor and the collector run too.
    root.write("/dev/mdm", "");
    root.write("/sys/bus/coresight/devices/coresight-tmc-etf/curr_sink", "1");
    root.write("/sys/bus/coresight/devices/coresight-tmc-etr/curr_sink", "0");
    std::string etf = pattern(65536);
    root.write("/dev/coresight-tmc-etf", etf);
    int modem = device_fifo("ramdump_modem");
    ASSERT_GE(modem, 0);
    start();
    ASSERT_TRUE(
        wait_until([&] { return log.has_containing("SSR: subsystem ramdump start"); }, 5000));
    EXPECT_TRUE(log.has("Attemping to create " RAMDUMP_FOLDER "\n"));
    // The collector holds the device open before the test closes its end: a
    // FIFO closed before its reader opens loses its data.
    ASSERT_TRUE(wait_until([&] { return open_fds_naming("ramdump_modem") == 2; }, 10000));

    // The modem crashes: its dump, and the trace sink it wakes.
    std::string elf = pattern(40000,
                              "\x7f"
                              "ELF");
    ASSERT_EQ(write(modem, elf.data(), elf.size()), static_cast<ssize_t>(elf.size()));
    close(modem);
    ASSERT_TRUE(wait_until([&] { return log.has_containing("etf ramdump saved"); }, 20000));
    ASSERT_TRUE(wait_until([&] { return log.has_containing("ramdump_modem hung up"); }, 20000));
    std::string dump = only_entry(RAMDUMP_FOLDER, "ramdump_modem-");
    ASSERT_NE(dump, "");
    EXPECT_EQ(dump.substr(dump.size() - 4), ".elf");
    EXPECT_EQ(root.read(RAMDUMP_FOLDER "/" + dump), elf);

    ASSERT_TRUE(stop());
    EXPECT_TRUE(log.has("Polling ramdump failed: -1\n"));
    EXPECT_FALSE(log.has_containing("Unable to terminate thread"));
    EXPECT_EQ(st.folder, nullptr);
    EXPECT_EQ(st.flags.load(), 0u);
}

TEST(SsrThread, EnableOpRunsFirstAndTheNodeIsFreedAtTheEnd) {
    TempRoot root;
    LogCapture log;
    root.mkdir("/sys/module/subsystem_restart/parameters");
    vorn_node node{};
    pthread_mutex_init(&node.lock, nullptr);
    node.worker_thread = 1;
    // No /dev: the thread ends after its set-up.
    EXPECT_EQ(ssr_thread(&node), nullptr);
    EXPECT_EQ(node.enable, 1);
    EXPECT_EQ(node.worker_thread, 0u);
    EXPECT_EQ(root.read(SSR_ENABLE_RAMDUMPS), "1\n");
    EXPECT_TRUE(log.has("Unable to open /dev\n"));
    EXPECT_TRUE(log.has("Failed to find pil ramdump\n"));
    pthread_mutex_destroy(&node.lock);
}

TEST(SsrOps, EnableAndDisableWriteTheKernelSwitches) {
    TempRoot root;
    LogCapture log;
    root.mkdir("/sys/module/subsystem_restart/parameters");
    for (int i = 0; i < 3; i++)  // subsys3 (Venus) has no folder
        root.mkdir("/sys/bus/msm_subsys/devices/subsys" + std::to_string(i));
    root.write("/dev/ramdump_modem", "");
    chmod(root.at("/dev/ramdump_modem").c_str(), 0600);
    vorn_node node{};

    EXPECT_EQ(ssr_enable(&node, nullptr), 0);
    EXPECT_EQ(node.enable, 1);
    EXPECT_EQ(root.read(SSR_ENABLE_RAMDUMPS), "1\n");
    EXPECT_EQ(root.read("/sys/bus/msm_subsys/devices/subsys0/restart_level"), "related\n");
    EXPECT_EQ(log.count_containing("restart level to RELATED"), 1u);
    EXPECT_TRUE(log.has("Failed to set subsystem Venus restart level to RELATED"));
    EXPECT_EQ(std::filesystem::status(root.at("/dev/ramdump_modem")).permissions(),
              std::filesystem::perms(0664));

    vorn_ctrl_msg msg{};
    msg.enable = 0x03;  // bit 0 is the state
    EXPECT_EQ(ssr_disable(&node, &msg), 0);
    EXPECT_EQ(node.enable, 1);
    EXPECT_EQ(root.read(SSR_ENABLE_RAMDUMPS), "0\n");
    EXPECT_EQ(root.read("/sys/bus/msm_subsys/devices/subsys2/restart_level"), "SYSTEM\n");
}

}  // namespace
