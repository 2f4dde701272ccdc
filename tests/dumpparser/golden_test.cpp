// Golden dumps: generated dump directories run through the parser and
// compared with the kmsg.txt and broadcast stored in tests/snapshots/<case>/.
// VORN_UPDATE_SNAPSHOTS=1 rewrites the stored files from the current output.
#include <cstdlib>
#include <filesystem>

#include "dumpparser/dumpparser.h"
#include "tests/dumpparser/dump_env.h"

namespace {

using namespace dumpgen;

const std::vector<Rec> kBoot = {
    {0x0, "Booting Linux on physical CPU 0x0"},
    {0x3b9aca00, "Machine: Qualcomm Technologies, Inc. MSM 8974"},
    {0x77359400, "pil-q6v5-mss fc880000.qcom,mss: modem: Brought out of reset"},
    {0xb2d05e00, "subsys-restart: Resetting the SoC - modem crashed."},
    // Only the first line with a reason counts.
    {0xee6b2800, "Kernel panic - not syncing: subsys-restart: Resetting the SoC - modem crashed."},
};

// Format 2 with a ring whose oldest record lies near the end: the walk
// follows the wrap marker back to the start.
void v2_wrap(DumpDir &d) {
    simple_dump(d, 310, make_ring(kBoot, 512, 320));
}

// Format 1; the record after the panic claims 993 bytes of text, which ends
// the walk with what was written so far.
void v1_implausible(DumpDir &d) {
    simple_dump(d, 304,
                flat_ring(record(10, "init: starting service 'adbd'") +
                          record(20, "Kernel panic - not syncing: Fatal exception") +
                          record(30, "SMP: stopping secondary CPUs") +
                          record(40, "garbage", 0, 993) + record(50, "never reached")));
}

// Format 2 without a first index: the buffer is copied as raw text.
void v2_raw(DumpDir &d) {
    simple_dump(d, 310,
                flat_ring("<6>[    0.000000] Booting Linux on physical CPU 0x0\n"
                          "<2>[   42.101010] msm_watchdog: Watchdog bark! Now = 42.101010\n"
                          "<0>[   42.101200] Kernel panic - not syncing: Apps watchdog bark "
                          "received!\n"),
                false);
}

// Two images; the log and its first index lie in the second one.
void image1(DumpDir &d) {
    Layout l;
    l.idx = 0x90000100;
    l.log_buf = 0x90010000;
    d.image(0x80000000, 1 << 20);
    d.image(0x90000000, 4 << 20);
    write_tables(d, 310, l, make_ring({{1, "first image is only tables"}, {2, "ok"}}, 4096, 0));
    d.finish();
}

// The line for the second image lacks "noclear": no base, no parse.
void missing_noclear(DumpDir &d) {
    image1(d);
    d.set_load_cmm(
        "d.load.binary DDRCS0.BIN 0x80000000 /noclear\n"
        "d.load.binary DDRCS1.BIN 0x90000000\n");
    d.finish();
}

struct GoldenCase {
    const char *name;
    int version;
    void (*build)(DumpDir &);
};

const GoldenCase kCases[] = {
    {"dump_v2_wrap", 310, v2_wrap},
    {"dump_v1_implausible", 304, v1_implausible},
    {"dump_v2_raw", 310, v2_raw},
    {"dump_image1", 310, image1},
    {"dump_missing_noclear", 310, missing_noclear},
};

class GoldenTest : public DumpEnv, public ::testing::WithParamInterface<GoldenCase> {};

TEST_P(GoldenTest, MatchesSnapshot) {
    const GoldenCase &c = GetParam();
    DumpDir d = dump(c.name);
    c.build(d);
    dumpparser_parse_dir_version(dev(c.name).c_str(), c.version);

    namespace fs = std::filesystem;
    std::string snap = std::string(VORN_SOURCE_DIR) + "/tests/snapshots/" + c.name;
    bool has_kmsg = fs::exists(d.path("kmsg.txt"));
    std::string bc = read_file(root.at("/data/broadcasts.log"));
    if (getenv("VORN_UPDATE_SNAPSHOTS") != nullptr) {
        fs::remove(snap + "/kmsg.txt");
        if (has_kmsg) {
            write_file(snap + "/kmsg.txt", read_file(d.path("kmsg.txt")));
        }
        write_file(snap + "/broadcast", bc);
        GTEST_SKIP() << "snapshot written to " << snap;
    }
    ASSERT_TRUE(fs::exists(snap + "/broadcast")) << snap;
    EXPECT_EQ(bc, read_file(snap + "/broadcast"));
    // A case without a stored kmsg.txt must not write one.
    ASSERT_EQ(has_kmsg, fs::exists(snap + "/kmsg.txt"));
    if (has_kmsg) {
        EXPECT_EQ(read_file(d.path("kmsg.txt")), read_file(snap + "/kmsg.txt"));
    }
}

INSTANTIATE_TEST_SUITE_P(Dumps, GoldenTest, ::testing::ValuesIn(kCases),
                         [](const auto &info) { return std::string(info.param.name); });

}  // namespace
