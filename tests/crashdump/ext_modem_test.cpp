// The uevent receiver and monitor on a socketpair the test owns, and the
// external-modem collector's folder copies.
#include <sys/socket.h>

#include "tests/crashdump/crash_env.h"

namespace {

#define REMOVE "remove@/devices/platform/diag_bridge"
#define ADD "add@/devices/platform/diag_bridge"

class ExtModem : public CrashEnv {
  protected:
    void SetUp() override {
        CrashEnv::SetUp();
        ssr_install_stop_handler();
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, sock_), 0);
    }
    void TearDown() override {
        stop();
        close(sock_[0]);
        close(sock_[1]);
        CrashEnv::TearDown();
    }
    void send_event(const std::string &text) const {
        ASSERT_EQ(send(sock_[1], text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    }
    // The monitor's loop on the test's socket, on a thread of its own.
    void start_monitor() {
        thread_ = start_blocked(
            [](void *p) -> void * {
                auto *self = static_cast<ExtModem *>(p);
                uevent_monitor_loop(self->sock_[0], &self->st);
                return nullptr;
            },
            this);
        running_ = true;
    }
    void start_collector() {
        thread_ = start_blocked(ext_modem_thread, &st);
        running_ = true;
    }
    // The tear-down's way: flag, post, signal, join.
    void stop() {
        if (!running_)
            return;
        st.stopping.store(true);
        sem_post(&st.ext_modem_sem);
        EXPECT_EQ(ssr_stop_thread(thread_, SIGUSR2), 0);
        running_ = false;
    }
    bool ended_by_itself() {
        running_ = !joins_within(thread_, 5000);
        return !running_;
    }
    // Waits for the pending MDM copy to be taken, as the collector does.
    bool mdm_pending() const { return (st.flags.load() & SSR_MDM_PENDING) != 0; }

    int sock_[2] = {-1, -1};
    pthread_t thread_{};
    bool running_ = false;
};

TEST_F(ExtModem, ReceiverSkipsEmptyMessagesAndTerminatesFullOnes) {
    char buf[1024];
    send_event("");
    send_event(ADD);
    EXPECT_EQ(uevent_recv(sock_[0], buf, sizeof buf, &st), static_cast<int>(strlen(ADD)));
    EXPECT_STREQ(buf, ADD);
    EXPECT_EQ(log.count("Receiving uevent failed\n"), 1u);

    send_event(std::string(1024, 'u'));
    EXPECT_EQ(uevent_recv(sock_[0], buf, sizeof buf, &st), 1023);
    EXPECT_EQ(strlen(buf), 1023u);

    st.stopping.store(true);
    EXPECT_EQ(uevent_recv(sock_[0], buf, sizeof buf, &st), -1);
}

TEST_F(ExtModem, RemovalsMarkOneDumpAndTheAdditionWakesTheCollector) {
    start_monitor();
    // diag_bridge only beyond the 36th character: ignored.
    send_event("change@/devices/platform/soc/0.qcom/" REMOVE);
    send_event(ADD);
    ASSERT_TRUE(wait_until([&] { return sem_value(&st.ext_modem_sem) == 1; }, 5000));
    EXPECT_FALSE(mdm_pending());

    // Kernel uevents: the header, then NUL-separated variables.
    static const char removal[] = REMOVE "\0ACTION=remove\0DEVPATH=/devices/platform/diag_bridge";
    static const char addition[] = ADD "\0ACTION=add";
    for (int i = 0; i < 3; i++)
        send_event(std::string(removal, sizeof removal - 1));
    send_event(std::string(addition, sizeof addition - 1));
    ASSERT_TRUE(wait_until([&] { return sem_value(&st.ext_modem_sem) == 2; }, 5000));
    EXPECT_TRUE(mdm_pending());
    // Hung in its wait for the next message: the stop still ends it.
    stop();
}

TEST_F(ExtModem, FolderCopyTakesFilesAndSubfoldersButNotHiddenOrFifoEntries) {
    root.write("/tombstones/mdm/mdm_dump.bin", pattern(70000));
    root.write("/tombstones/mdm/log.txt", "modem log");
    root.write("/tombstones/mdm/.hidden", "skip me");
    root.write("/tombstones/mdm/sub/inner.bin", "inner");
    ASSERT_EQ(mkfifo(root.at("/tombstones/mdm/pipe").c_str(), 0600), 0);

    EXPECT_EQ(ext_modem_copy_dir(&st, "/mdm", "/tombstones/mdm", "-2024-01-31_23-59-07"), 0);
    std::string target = RAMDUMP_FOLDER "/mdm-2024-01-31_23-59-07";
    EXPECT_EQ(entries(target), (std::vector<std::string>{"log.txt", "mdm_dump.bin", "sub"}));
    EXPECT_EQ(root.read(target + "/mdm_dump.bin"), pattern(70000));
    EXPECT_EQ(root.read(target + "/sub/inner.bin"), "inner");
}

TEST_F(ExtModem, FailedFolderCopiesLeaveNoTarget) {
    EXPECT_EQ(ext_modem_copy_dir(&st, "/qsc", "/tombstones/none", "-stamp"), -22);
    EXPECT_TRUE(log.has("Unable to open /tombstones/none\n"));

    root.write("/tombstones/mdm/a.bin", "a");
    ASSERT_EQ(symlink("/nowhere", root.at("/tombstones/mdm/broken").c_str()), 0);
    EXPECT_EQ(ext_modem_copy_dir(&st, "/mdm", "/tombstones/mdm", "-stamp"), -22);
    EXPECT_FALSE(root.exists(RAMDUMP_FOLDER "/mdm-stamp"));

    // The target cannot be made (a file holds its place).
    root.write(RAMDUMP_FOLDER "/qsc-stamp", "");
    EXPECT_EQ(ext_modem_copy_dir(&st, "/qsc", "/tombstones/mdm", "-stamp/x"), -22);
    EXPECT_TRUE(log.has("Unable to create directory " RAMDUMP_FOLDER "/qsc-stamp/x\n"));

    // The disk fills during the copy: the modem's own files stay as they were.
    unlink(root.at("/tombstones/mdm/broken").c_str());
    root.write("/tombstones/mdm/mdm_dump.bin", pattern(70000));
    int rc;
    {
        FileSizeLimit limit(50000);
        rc = ext_modem_copy_dir(&st, "/mdm", "/tombstones/mdm", "-full");
    }
    EXPECT_EQ(rc, -22);
    EXPECT_TRUE(log.has("copy_file: Failed to write file\n"));
    EXPECT_FALSE(root.exists(RAMDUMP_FOLDER "/mdm-full"));
    EXPECT_EQ(root.read("/tombstones/mdm/mdm_dump.bin"), pattern(70000));
}

TEST_F(ExtModem, CollectorCopiesWhatIsPendingForTheModemsPresent) {
    root.write("/tombstones/mdm/m.bin", "mdm");
    root.write("/tombstones/mdm2/q.bin", "qsc");
    st.flags.store(SSR_UEVENT_MON | SSR_QSC_PRESENT);
    start_collector();
    // A post with nothing pending is absorbed.
    sem_post(&st.ext_modem_sem);
    st.flags.fetch_or(SSR_MDM_PENDING);
    sem_post(&st.ext_modem_sem);
    ASSERT_TRUE(wait_until([&] { return log.has("QSC ramdump completed\n"); }, 5000));
    EXPECT_EQ(log.count("MDM ramdump completed\n"), 1u);
    EXPECT_FALSE(mdm_pending());
    std::string mdm = only_entry(RAMDUMP_FOLDER, "mdm-");
    std::string qsc = only_entry(RAMDUMP_FOLDER, "qsc-");
    EXPECT_EQ(root.read(RAMDUMP_FOLDER "/" + mdm + "/m.bin"), "mdm");
    EXPECT_EQ(root.read(RAMDUMP_FOLDER "/" + qsc + "/q.bin"), "qsc");
    stop();
}

TEST_F(ExtModem, CollectorEndsWhenTheTombstonesAreMissing) {
    struct Case {
        uint32_t modems;
        bool mdm, mdm2;
        const char *message;
    };
    const Case cases[] = {
        {SSR_UEVENT_MON, false, false, "Directory /tombstones/mdm does not exist\n"},
        {SSR_UEVENT_MON | SSR_QSC_PRESENT, true, false,
         "Directory /tombstones/mdm2 does not exist\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.message);
        log.clear();
        if (c.mdm)
            root.write("/tombstones/mdm/m.bin", "mdm");
        st.flags.store(c.modems | SSR_QSC_PENDING);
        start_collector();
        sem_post(&st.ext_modem_sem);
        EXPECT_TRUE(ended_by_itself());
        EXPECT_TRUE(log.has(c.message));
    }
    EXPECT_TRUE(entries(RAMDUMP_FOLDER).empty());
}

}  // namespace
