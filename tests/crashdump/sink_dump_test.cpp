// The trace-sink dump and the thread that runs it after each crash.
#include "tests/crashdump/crash_env.h"

namespace {

#define CS "/sys/bus/coresight/devices/"

class SinkDump : public CrashEnv {
  protected:
    void sinks(const char *etf, const char *etr, const char *mode = "mem\n") const {
        root.write(CS "coresight-tmc-etf/curr_sink", etf);
        root.write(CS "coresight-tmc-etr/curr_sink", etr);
        root.write(CS "coresight-tmc-etr/out_mode", mode);
    }
    // Contents of the dump files of one sink, oldest first.
    std::vector<std::string> saved(const std::string &name) const {
        std::vector<std::string> out;
        for (const std::string &e : entries(RAMDUMP_FOLDER)) {
            if (e.rfind(name + "-", 0) == 0)
                out.push_back(root.read(RAMDUMP_FOLDER "/" + e));
        }
        return out;
    }
    void start() { thread_ = start_blocked(qdss_sink_thread, &st); }
    // Stops a thread still waiting; true when it ended by itself.
    bool finish() {
        if (thread_ == pthread_t{})
            return true;
        bool ended = pthread_tryjoin_np(thread_, nullptr) == 0;
        if (!ended) {
            st.stopping.store(true);
            sem_post(&st.qdss_sem);
            pthread_join(thread_, nullptr);
        }
        thread_ = pthread_t{};
        return ended;
    }
    void TearDown() override {
        finish();
        CrashEnv::TearDown();
    }
    pthread_t thread_{};
};

TEST_F(SinkDump, SinkOfTheExpectedSizeIsSaved) {
    std::string etf = pattern(65536);
    root.write("/dev/coresight-tmc-etf", etf);
    EXPECT_EQ(qdss_sink_dump(&st, "coresight-tmc-etf", 65536), 0);
    ASSERT_EQ(saved("coresight-tmc-etf"), std::vector<std::string>{etf});
    std::string name = only_entry(RAMDUMP_FOLDER, "coresight-tmc-etf-");
    EXPECT_EQ(name.size(), std::string("coresight-tmc-etf-2024-01-31_23-59-07.bin").size());
    EXPECT_EQ(mode_of(RAMDUMP_FOLDER "/" + name), 0400u);
    LogLine ok = log.find("qdss coresight-tmc-etf ramdump saved successfully");
    EXPECT_EQ(ok.prio, ANDROID_LOG_INFO);
}

TEST_F(SinkDump, BadArgumentsMissingDeviceSizeMismatchAndFullDisk) {
    EXPECT_EQ(qdss_sink_dump(&st, nullptr, 65536), -22);
    EXPECT_EQ(qdss_sink_dump(&st, "coresight-tmc-etf", 0), -22);
    EXPECT_EQ(log.count("Invalid qdss device or size\n"), 2u);
    EXPECT_EQ(qdss_sink_dump(&st, "coresight-tmc-etf", 65536), -1);
    EXPECT_TRUE(log.has("Unable to open /dev/coresight-tmc-etf\n"));
    // A short sink: the file is kept.
    root.write("/dev/coresight-tmc-etf", pattern(1000));
    EXPECT_EQ(qdss_sink_dump(&st, "coresight-tmc-etf", 65536), -22);
    EXPECT_TRUE(log.has("qdss coresight-tmc-etf ramdump size mismatch\n"));
    EXPECT_EQ(saved("coresight-tmc-etf"), std::vector<std::string>{pattern(1000)});

    // A full disk: what was written stays, and the dump fails with its message.
    root.write("/dev/coresight-tmc-etr", pattern(65536));
    {
        FileSizeLimit limit(40000);
        EXPECT_EQ(qdss_sink_dump(&st, "coresight-tmc-etr", 65536), -EIO);
    }
    EXPECT_TRUE(log.has("Writing qdss ramdump error\n"));
    EXPECT_EQ(saved("coresight-tmc-etr"), std::vector<std::string>{pattern(40000)});
}

TEST_F(SinkDump, ThreadSavesTheCurrentSinksOnEachPost) {
    std::string etf = pattern(65536, "etf");
    std::string etr = pattern(1048576, "etr");
    root.write("/dev/coresight-tmc-etf", etf);
    root.write("/dev/coresight-tmc-etr", etr);
    // Both are current (the ETR in memory mode): one post saves both, the
    // ETR with its full megabyte.
    sinks("1\n", "1\n");
    start();
    sem_post(&st.qdss_sem);
    ASSERT_TRUE(wait_until([&] { return log.has_containing("etr ramdump saved"); }, 5000));
    EXPECT_TRUE(log.has_containing("etf ramdump saved"));

    // Neither is the current sink: nothing is written and the thread waits
    // on (the stop lets it finish this post first).
    sinks("0\n", "0\n");
    sem_post(&st.qdss_sem);
    EXPECT_FALSE(finish());
    EXPECT_EQ(saved("coresight-tmc-etf"), std::vector<std::string>{etf});
    EXPECT_EQ(saved("coresight-tmc-etr"), std::vector<std::string>{etr});
}

TEST_F(SinkDump, ThreadEndsAtTheFirstFailure) {
    struct Case {
        const char *etf, *etr, *mode;
        const char *message;
    };
    const Case cases[] = {
        {"0\n", "1\n", "usb\n", "Invalid qdss etr out_mode usb\n\n"},
        {"0\n", "1\n", "", "Unable to read qdss etr mode data\n"},
        {"", "0\n", "mem", "Unable to read qdss etf data\n"},
        {"1\n", "0\n", "mem", "qdss coresight-tmc-etf ramdump size mismatch\n"},
    };
    root.write("/dev/coresight-tmc-etf", "short");
    for (const Case &c : cases) {
        SCOPED_TRACE(c.message);
        log.clear();
        sinks(c.etf, c.etr, c.mode);
        start();
        sem_post(&st.qdss_sem);
        ASSERT_TRUE(joins_within(thread_, 5000));
        thread_ = pthread_t{};
        EXPECT_TRUE(log.has(c.message)) << log.dump();
        bool etf_step = std::string(c.message).find("etf") != std::string::npos;
        EXPECT_TRUE(log.has(etf_step ? "Failed to save qdss etf dump\n"
                                     : "Failed to save qdss etr dump\n"));
    }
}

}  // namespace
