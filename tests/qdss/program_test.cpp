// Programming the trace blocks: the mask file replay and the reset, on the
// simulated phone's sysfs tree.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <string>

#include "qdss/qdss.h"
#include "tests/qdss/qdss_env.h"
#include "tests/support/log_capture.h"

namespace {

const char *const kStm = "/sys/bus/coresight/devices/coresight-stm/enable";
const char *const kEtm1 = "/sys/bus/coresight/devices/coresight-etm1/enable";
const char *const kHwe = "/sys/bus/coresight/devices/coresight-hwevent/enable";

class QdssProgram : public ::testing::Test {
  protected:
    void SetUp() override {
        for (const char *f : {kStm, kEtm1, kHwe})
            root.write(f, "0\n");
    }
    void TearDown() override { SetUp(); }
    // The first character of a sysfs file.
    char state(const char *path) const { return root.read(path).c_str()[0]; }

    TempRoot &root = qdss_root();
    LogCapture log;
};

TEST_F(QdssProgram, ConfigureRunsEveryLineButCommentsAndRefusesWhatIsNoFile) {
    root.write("/data/comments.mask", "# nothing to do\n#stm enable\n");
    EXPECT_EQ(qdss_configure("/data/comments.mask"), 0);
    EXPECT_TRUE(log.has("QDSS : configure\n"));
    EXPECT_FALSE(log.has_containing("to run command"));
    EXPECT_EQ(state(kStm), '0');

    root.write("/data/on.mask", "# STM on\nstm enable\n");
    EXPECT_EQ(qdss_configure("/data/on.mask"), 0);
    EXPECT_EQ(state(kStm), '1');

    log.clear();
    EXPECT_EQ(qdss_configure(nullptr), -1);
    EXPECT_TRUE(log.has("qdss_configure: No mask file\n"));
    EXPECT_EQ(qdss_configure("/data/none.mask"), -1);
    EXPECT_TRUE(log.has("Failed to open file /data/none.mask\n"));
    // Not a regular file: neither a FIFO (no writer would ever come) nor a
    // directory is read.
    mkfifo(root.at("/data/fifo.mask").c_str(), 0600);
    root.mkdir("/data/dir.mask");
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(qdss_configure("/data/fifo.mask"), -1);
    EXPECT_EQ(qdss_configure("/data/dir.mask"), -1);
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(1));
}

TEST_F(QdssProgram, ConfigureSurvivesLongManyAndBinaryLines) {
    // A comment longer than a line buffer: its tail is not run as a line.
    std::string comment = "#" + std::string(254, 'x') + "stm enable\n";
    // 10,000 lines, lines of 1,000 characters, 1,000 tokens.
    std::string many;
    for (int i = 0; i < 10000; i++)
        many += i % 2 ? "stm get state\n" : "# comment\n";
    std::string tokens;
    for (int i = 0; i < 1000; i++)
        tokens += "stm ";
    std::string binary;
    for (int i = 0; i < 65536; i++)
        binary.push_back(static_cast<char>((i * 7919) >> 3));
    root.write("/data/big.mask", comment + many + std::string(1000, 'z') + "\n" + tokens + "\n" +
                                     binary + "\nhwe enable\n");
    EXPECT_EQ(qdss_configure("/data/big.mask"), 0);
    EXPECT_EQ(state(kStm), '0');
    EXPECT_EQ(log.count_containing("Success to run command: stm->get->state"), 5000u);
    EXPECT_TRUE(log.has("Agent max param cnt exceeded."));
    // The line after all that still ran.
    EXPECT_EQ(root.read(kHwe), "0x1\n");
}

TEST_F(QdssProgram, ResetSwitchesOffWhatIsOnAndStopsAtTheFirstFailure) {
    root.write(kStm, "1\n");
    root.write(kEtm1, "1\n");
    root.write(kHwe, "1\n");
    EXPECT_EQ(qdss_reset(), 0);
    EXPECT_EQ(state(kStm), '0');
    EXPECT_EQ(state(kEtm1), '0');
    EXPECT_EQ(state(kHwe), '0');
    EXPECT_TRUE(
        log.has_containing("Success to run command: etm->apps->get->state->etm_name->etm3"));

    // An STM that cannot be read fails the reset before any ETM is asked.
    log.clear();
    std::string saved = root.read(kStm);
    unlink(root.at(kStm).c_str());
    root.write(kHwe, "1\n");
    EXPECT_NE(qdss_reset(), 0);
    EXPECT_FALSE(log.has_containing("etm->apps"));
    EXPECT_EQ(state(kHwe), '1');
    root.write(kStm, saved);
}

}  // namespace
