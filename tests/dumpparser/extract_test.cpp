// The pieces of an extraction: load.cmm, the image count, table lookups,
// positioned reads, the record walk and the crash reason.
#include "dumpparser/dumpparser.h"
#include "tests/dumpparser/dump_env.h"

namespace {

using namespace dumpgen;

class ExtractTest : public DumpEnv {};

TEST_F(ExtractTest, SegmentBaseFromLoadCmm) {
    const struct {
        const char *cmm;
        int index;
        int ret;
        uint64_t base;
    } cases[] = {
        {"d.load.binary DDRCS0.BIN 0x80000000 /noclear\n", 0, 0, 0x80000000},
        // Only the positions count, not the command word or the separator.
        {"x DDRCS1.BIN 0x1f000 ,noclear\n", 1, 0, 0x1f000},
        // A line without "noclear" is ignored; a later one is used.
        {"d.load.binary DDRCS0.BIN 0x10\nd.load.binary DDRCS0.BIN 0x20 /noclear\n", 0, 0, 0x20},
        // DDRCS11 is not DDRCS1.
        {"d.load.binary DDRCS11.BIN 0x11 /noclear\nd.load.binary DDRCS1.BIN 0x1 /noclear\n", 1, 0,
         1},
        // "noclear" too close to the name leaves no digits.
        {"DDRCS0.BIN noclear\nDDRCS0.BIN/noclear\n", 0, -1, 0},
    };
    for (const auto &c : cases) {
        root.write(dev("s") + "/load.cmm", c.cmm);
        uint64_t base = 0;
        EXPECT_EQ(dumpparser_segment_base(dev("s").c_str(), c.index, &base), c.ret) << c.cmm;
        EXPECT_EQ(base, c.base) << c.cmm;
    }
    uint64_t base;
    EXPECT_EQ(dumpparser_segment_base("/data/none", 0, &base), -1);
    EXPECT_TRUE(log.has("DumpParser: /data/none/load.cmm open failed: No such file or directory"));
}

TEST_F(ExtractTest, TableLookupsStopAtTheEnd) {
    // Format 1 at offset 100: id 11 after id 5; an id above 12 or a zero
    // start ends the table.
    root.write("/t1", std::string(100, 'p') +
                          table_v1({{5, 1, 2}, {11, 0x10, 0x20}, {13, 3, 4}, {12, 5, 6}}));
    uint64_t s = 0, e = 0;
    EXPECT_EQ(dumpparser_table_find_v1(100, 11, "/t1", &s, &e), 0);
    EXPECT_EQ(s, 0x10u);
    EXPECT_EQ(e, 0x20u);
    EXPECT_EQ(dumpparser_table_find_v1(100, 12, "/t1", &s, &e), -1);
    EXPECT_TRUE(log.has("DumpParser: unable to find 12.\n"));
    EXPECT_EQ(dumpparser_table_find_v1(100, 7, "/t1", &s, &e), -1);

    root.write("/t2", table_v2({{0, 0x100}, {273, 0x200}, {288, 0x300}, {272, 0x400}}));
    uint64_t a = 0;
    EXPECT_EQ(dumpparser_table_find_v2(0, "/t2", 273, &a), 0);
    EXPECT_EQ(a, 0x200u);
    EXPECT_EQ(dumpparser_table_find_v2(0, "/t2", 272, &a), -1);
    // A table without its end runs into the end of the file.
    root.write("/t3", table_v2({{1, 5}}).substr(0, 8 + 48));
    EXPECT_EQ(dumpparser_table_find_v2(0, "/t3", 5, &a), -1);
    EXPECT_TRUE(log.has("DumpParser: Failed to read, rlen(0) != len(48): Success"));
}

// The walk over hand-made rings placed at offset 4096 of an image.
TEST_F(ExtractTest, RecordWalk) {
    const struct {
        const char *name;
        std::string ring;
        uint32_t len;
        int64_t first;
        int ret;
        std::string kmsg;
        const char *message;
    } cases[] = {
        {"text of 992 bytes is fine", record(1, std::string(992, 't')), 1008, 0, 0,
         "0000000000000001: " + std::string(992, 't') + "\n", nullptr},
        {"body above 4096 ends the walk", record(1, "a") + record(2, "b", 16 + 4097), 1000, 0, 0,
         "0000000000000001: a\n", "DumpParser: log line format is wrong, maybe end."},
        {"total below the header ends the walk", record(1, "a") + record(2, "b", 8), 1000, 0, 0,
         "0000000000000001: a\n", "DumpParser: log line format is wrong, maybe end."},
        {"text longer than its record is cut there", record(1, "abcd", 0, 900), 20, 0, 0,
         "0000000000000001: abcd\n", nullptr},
        // Later passes would only repeat the silent one: the walk ends at once
        // whatever the length.
        {"silent loop", record(1, "") + std::string(16, '\0'), 0xffffffff, 16, 0, "",
         "DumpParser: Back to log buf start addr."},
        {"unaligned total: the next record starts at a multiple of 4",
         record(1, "hello", 21) + record(2, "b"), 44, 0, 0,
         "0000000000000001: hello\n0000000000000002: b\n", nullptr},
        {"empty text writes no line", record(1, "") + record(2, "b"), 36, 0, 0,
         "0000000000000002: b\n", nullptr},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        log.clear();
        root.write("/img", std::string(4096, 'x') + c.ring);
        EXPECT_EQ(dumpparser_dump_kmsg(4096, c.len, c.first, "/img", "/kmsg.txt"), c.ret);
        EXPECT_EQ(root.read("/kmsg.txt"), c.kmsg);
        if (c.message != nullptr) {
            EXPECT_TRUE(log.has(c.message)) << log.dump();
        }
    }
    EXPECT_EQ(dumpparser_dump_kmsg(0, 16, 0, "/data/DDRCS1.BIN", "/kmsg.txt"), -1);
    EXPECT_TRUE(log.has("DumpParser: Failed to open DDRCS0: No such file or directory"));
    EXPECT_EQ(dumpparser_dump_kmsg(0, 16, 0, "/img", "/no/dir/kmsg.txt"), -1);
    EXPECT_TRUE(log.has("DumpParser: Failed to create kmsg:No such file or directory"));
}

TEST_F(ExtractTest, CrashReason) {
    const std::string modem = "1: subsys-restart: Resetting the SoC - modem crashed.\n";
    const struct {
        std::string kmsg;
        const char *reason;
    } cases[] = {
        {"0: boot\n" + modem, "modem"},
        {"0: msm_watchdog: Watchdog bark! Now = 12.3\n" + modem, "AP"},
        // The subsystem pattern is tested first within a line.
        {"0: Kernel panic - not syncing: subsys-restart: Resetting the SoC - adsp crashed\n",
         "adsp"},
        {"0: subsys-restart: Resetting the SoC - modem\n", "UNKNOWN"},
        {"0: subsys-restart: Resetting the SoC - crashed\n", ""},
        {"0: subsys-restart: Resetting the SoC - " + std::string(100, 'w') + " crashed\n",
         "wwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwww"},
    };
    for (const auto &c : cases) {
        root.write("/k", c.kmsg);
        char reason[DUMPPARSER_REASON_LEN] = "UNKNOWN";
        get_reason("/k", reason);
        EXPECT_STREQ(reason, c.reason) << c.kmsg;
    }
    EXPECT_TRUE(log.has("DumpParser: get_reason: modem"));
    EXPECT_TRUE(log.has("DumpParser: get_reason: AP"));
    char reason[DUMPPARSER_REASON_LEN] = "UNKNOWN";
    get_reason("/none", reason);
    EXPECT_STREQ(reason, "UNKNOWN");
    EXPECT_TRUE(log.has("Failed to open /none!"));
}

}  // namespace
