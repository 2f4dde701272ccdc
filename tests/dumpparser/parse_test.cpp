// The pieces of an extraction (load.cmm, table lookups, the record walk, the
// crash reason) and whole-directory parses: the release rule and broken dumps.
// A wrapped ring is in golden_test.cpp; this host's own kernel log goes
// through a DDR dump in tests/e2e/sim_dump_test.cpp.
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "dumpparser/dumpparser.h"
#include "tests/dumpparser/dump_env.h"
#include "tests/support/full_disk.h"

namespace {

using namespace dumpgen;

class ParseTest : public DumpEnv {};

TEST_F(ParseTest, SegmentBaseFromLoadCmm) {
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

TEST_F(ParseTest, TableLookupsStopAtTheEnd) {
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
TEST_F(ParseTest, RecordWalk) {
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

// A full disk: the lines written stay, the write error is reported.
TEST_F(ParseTest, FullDiskKeepsTheLinesWrittenAndFails) {
    std::string ring;
    for (int i = 1; i <= 40; i++)
        ring += record(static_cast<uint64_t>(i), std::string(60, static_cast<char>('a' + i % 26)));
    root.write("/img", std::string(4096, 'x') + ring);
    ASSERT_EQ(
        dumpparser_dump_kmsg(4096, static_cast<uint32_t>(ring.size()), 0, "/img", "/kmsg.txt"), 0);
    std::string whole = root.read("/kmsg.txt");
    ASSERT_EQ(whole.size(), 40u * 79u);
    int ret;
    {
        FileSizeLimit limit(1000);
        ret =
            dumpparser_dump_kmsg(4096, static_cast<uint32_t>(ring.size()), 0, "/img", "/kmsg.txt");
    }
    EXPECT_EQ(ret, -1);
    EXPECT_EQ(root.read("/kmsg.txt"), whole.substr(0, 1000));
    EXPECT_TRUE(log.has("DumpParser: Failed to write, wlen(1000) != len(3160): File too large"))
        << log.dump();
}

TEST_F(ParseTest, CrashReason) {
    const std::string modem = "1: subsys-restart: Resetting the SoC - modem crashed.\n";
    const struct {
        std::string kmsg;
        std::string reason;
    } cases[] = {
        {"0: msm_watchdog: Watchdog bark! Now = 12.3\n" + modem, "AP"},
        // The subsystem pattern is tested first within a line.
        {"0: Kernel panic - not syncing: subsys-restart: Resetting the SoC - adsp crashed\n",
         "adsp"},
        {"0: subsys-restart: Resetting the SoC - modem\n", "UNKNOWN"},
        {"0: subsys-restart: Resetting the SoC - crashed\n", ""},
        {"0: subsys-restart: Resetting the SoC - " + std::string(100, 'w') + " crashed\n",
         std::string(63, 'w')},
    };
    for (const auto &c : cases) {
        root.write("/k", c.kmsg);
        char reason[DUMPPARSER_REASON_LEN] = "UNKNOWN";
        get_reason("/k", reason);
        EXPECT_EQ(reason, c.reason) << c.kmsg;
    }
    EXPECT_TRUE(log.has("DumpParser: get_reason: AP"));
    char reason[DUMPPARSER_REASON_LEN] = "UNKNOWN";
    get_reason("/none", reason);
    EXPECT_STREQ(reason, "UNKNOWN");
    EXPECT_TRUE(log.has("Failed to open /none!"));
}

TEST_F(ParseTest, ReleaseSelectsTableFormat) {
    const struct {
        const char *release;
        int version;
    } cases[] = {{"3.4.0", 304}, {"3.10.49", 310}, {"3.0.8", 300}, {"6.1.0-13-amd64", 601},
                 {"", -1},       {"linux", -1},    {"3", -1},      {"3.x", -1}};
    for (const auto &c : cases)
        EXPECT_EQ(dumpparser_kernel_version(c.release), c.version) << c.release;

    DumpDir d = dump("v1");
    Ring ring = make_ring({{7, "hello"}}, 256, 0);
    simple_dump(d, 304, ring);
    // 3.4.0: format 1, table address at 20500 of OCIMEM.
    EXPECT_EQ(dumpparser_parse_dir_version(dev("v1").c_str(), 304), 0);
    EXPECT_EQ(read_file(d.path("kmsg.txt")), kmsg_text({{7, "hello"}}));
    EXPECT_TRUE(log.has("DumpParser, table addr is 2147487744.\n"));
    // 3.10.49: format 2 reads offset 16, where this dump holds nothing.
    EXPECT_EQ(dumpparser_parse_dir_version(dev("v1").c_str(), 310), -1);
    EXPECT_TRUE(log.has("DumpParser: memtab 0 is not in ddr dump."));
    // 3.0.8: refused before any file is read.
    unlink(d.path("kmsg.txt").c_str());
    EXPECT_EQ(dumpparser_parse_dir_version(dev("v1").c_str(), 300), -1);
    EXPECT_TRUE(log.has("DumpParser: unable to get version.\n"));
    EXPECT_FALSE(root.exists(dev("v1") + "/kmsg.txt"));
    EXPECT_EQ(broadcasts(), (std::vector<std::string>{broadcast(0, "UNKNOWN", dev("v1")),
                                                      broadcast(-1, "UNKNOWN", dev("v1")),
                                                      broadcast(-1, "UNKNOWN", dev("v1"))}));
    // Every message but the shell runner's broadcast line carries the parser's tag.
    for (const LogLine &l : log.lines()) {
        if (l.tag != "DumpParser") {
            EXPECT_EQ(l.tag + ": " + l.msg.substr(0, 11), "vornd: broadcast: ");
        }
    }
}

// Broken dumps: each ends with the given status and message, broadcasts
// "UNKNOWN" and neither crashes nor hangs. Most change a dump whose ring holds
// two records.
struct BadDump {
    const char *name;
    int version;
    bool changed;  // build changes the two-record dump instead of writing its own
    void (*build)(DumpDir &);
    int status;
    const char *message;  // a log message containing this
    int kmsg_lines;       // lines kmsg.txt must hold, -1 when not checked
};

void truncate_image(DumpDir &d, off_t size) {
    ASSERT_EQ(truncate(d.path("DDRCS0.BIN").c_str(), size), 0);
}

const Layout l;

const BadDump kBadDumps[] = {
    {"image shorter than the ring", 310, true, [](DumpDir &d) { truncate_image(d, 0x100000 + 20); },
     -1, "DumpParser: Failed to read, rlen(", 1},
    {"image shorter than the raw buffer", 310, false,
     [](DumpDir &d) {
         simple_dump(d, 310, flat_ring(std::string(10000, 'a')), false);
         truncate_image(d, 0x100000 + 5000);
     },
     -1, "DumpParser: Failed to read, rlen(904) != len(4096)", -1},
    {"table address outside every image", 310, true, [](DumpDir &d) { d.ocimem(310, 0x1234); }, -1,
     "DumpParser: memtab 1234 is not in ddr dump.", -1},
    {"log buffer outside every image", 304, true,
     [](DumpDir &d) {
         d.write(l.table, table_v1({{11, 0x70000000, 0x70001000}, {12, l.idx, 0}}));
     },
     -1, "DumpParser: log_buf 70000000 is not in ddr dump.", -1},
    {"first index outside every image", 310, true,
     [](DumpDir &d) { d.write(l.idx_rec, data_record(0x1000, 4)); }, -1,
     "DumpParser, first idx 1000 is not in ddr dump.\n", -1},
    // 0x1000 - base wraps to 0x2000, inside the image were it not below the base.
    {"image at the top of the address space", 310, true,
     [](DumpDir &d) {
         d.set_load_cmm("d.load.binary DDRCS0.BIN 0xfffffffffffff000 /noclear\n");
         d.finish();
         d.ocimem(310, 0x1000);
     },
     -1, "DumpParser: memtab 1000 is not in ddr dump.", -1},
    {"first index far past the buffer", 310, true,
     [](DumpDir &d) { d.write(l.idx, le(0xfffffff0, 4)); }, -1,
     "DumpParser: Failed to read, rlen(0) != len(16)", -1},
    {"ring of one record and a marker repeats it until the length is consumed", 310, false,
     [](DumpDir &d) {
         Ring r = make_ring({{1, "again"}}, 64, 0);
         r.len = 10 * 40;  // 24 bytes of record and 16 of marker per turn
         simple_dump(d, 310, r);
     },
     0, "DumpParser: Back to log buf start addr.", 10},
    {"log length of 4 GiB is taken as 0: one record", 310, true,
     [](DumpDir &d) { d.write(l.log_rec, data_record(l.log_buf, 1ull << 32)); }, 0,
     "DumpParser, log_buf is 80100000, buf_len is 0.", 1},
    {"format 1 log of 4 GiB is taken as 0: one record", 304, true,
     [](DumpDir &d) {
         d.write(l.table, table_v1({{11, l.log_buf, l.log_buf + (1ull << 32)}, {12, l.idx, 0}}));
     },
     0, "DumpParser, log_buf is 80100000, buf_len is 0.", 1},
    {"load.cmm of one 100 KB line", 310, true,
     [](DumpDir &d) {
         d.set_load_cmm(std::string(100 * 1024, 'x'));
         d.finish();
     },
     -1, "DumpParser: unable to find DDRCS0.BIN in load.cmm.\n", -1},
    {"100 images, the log in the last", 310, false,
     [](DumpDir &d) {
         for (uint64_t i = 0; i < 100; i++)
             d.image(0x80000000 + (i << 24), 1 << 24);
         Layout top;
         top.idx = 0x80000000 + (99ull << 24);
         top.log_buf = top.idx + 0x1000;
         write_tables(d, 310, top, make_ring({{1, "one"}, {2, "two"}}, 256, 0));
         d.finish();
     },
     0, "DumpParser, log_buf is e3001000", 2},
    {"empty image", 310, true, [](DumpDir &d) { truncate_image(d, 0); }, -1,
     "DumpParser: /data/dumps/bad/DDRCS0.BIN is empty.\n", -1},
    {"no OCIMEM.BIN", 310, true, [](DumpDir &d) { unlink(d.path("OCIMEM.BIN").c_str()); }, -1,
     "DumpParser: /data/dumps/bad/OCIMEM.BIN open failed: No such file or directory", -1},
};

TEST_F(ParseTest, BrokenDumps) {
    for (const BadDump &c : kBadDumps) {
        SCOPED_TRACE(c.name);
        std::filesystem::remove_all(root.at(dev("bad")));
        std::filesystem::remove(root.at("/data/broadcasts.log"));
        log.clear();
        DumpDir d = dump("bad");
        if (c.changed)
            simple_dump(d, c.version, make_ring({{1, "one"}, {2, "two"}}, 256, 0));
        c.build(d);
        EXPECT_EQ(dumpparser_parse_dir_version(dev("bad").c_str(), c.version), c.status);
        EXPECT_TRUE(log.has_containing(c.message)) << log.dump();
        EXPECT_EQ(broadcasts(),
                  std::vector<std::string>{broadcast(c.status, "UNKNOWN", dev("bad"))});
        if (c.kmsg_lines >= 0) {
            std::string k = read_file(d.path("kmsg.txt"));
            EXPECT_EQ(std::count(k.begin(), k.end(), '\n'), c.kmsg_lines) << k;
        }
    }
}

}  // namespace
