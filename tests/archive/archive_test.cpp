// Archive requests run directly on mini_zip; every archive written is read
// back with Python's zipfile.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <cstring>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "archive/mini_zip.h"
#include "core/ctrl_msg.h"
#include "core/gbl_config.h"
#include "tests/support/full_disk.h"
#include "tests/support/log_capture.h"
#include "tests/support/process.h"
#include "tests/support/temp_root.h"
#include "tests/support/text.h"

namespace {

using Files = std::map<std::string, std::string>;  // name -> content
using Names = std::vector<std::string>;

const std::string kSrc = "/sdcard/logs/crash/dump1";
const std::string kUpload = "/sdcard/logs//upload/ssr";

std::string random_bytes(size_t n, unsigned seed) {
    std::mt19937 gen(seed);
    std::string s(n, '\0');
    for (auto &c : s)
        c = static_cast<char>(gen());
    return s;
}

// The archive holds exactly these entries for Python's zipfile (which checks
// every CRC), deflated, without date or attributes.
void expect_zip(const std::string &host, const Files &want) {
    const char *script =
        "import sys, zipfile\n"
        "z = zipfile.ZipFile(sys.argv[1])\n"
        "bad = z.testzip()\n"
        "if bad: sys.exit('bad entry ' + bad)\n"
        "for i in sorted(z.infolist(), key=lambda i: i.filename):\n"
        "    print(i.filename, i.file_size, i.CRC, i.compress_type,\n"
        "          '-'.join(map(str, i.date_time)), i.external_attr)\n";
    ProcessResult p = run_process({"/usr/bin/env", "python3", "-c", script, host}, 60000);
    EXPECT_EQ(p.exit_status, 0) << p.err;
    std::string expected;
    for (const auto &[name, data] : want) {
        // minizip stores the zeroed date as month 1, day 0 of 1980.
        uLong crc =
            crc32(0, reinterpret_cast<const Bytef *>(data.data()), static_cast<uInt>(data.size()));
        expected += name + " " + std::to_string(data.size()) + " " + std::to_string(crc) +
                    " 8 1980-1-0-0-0-0 0\n";
    }
    EXPECT_EQ(p.out, expected) << host;
}

class ArchiveTest : public ::testing::Test {
  protected:
    void SetUp() override {
        memset(&gbl_config, 0, sizeof gbl_config);
        snprintf(gbl_config.log_path, sizeof gbl_config.log_path, "%s", "/sdcard/logs/");
        path_ = getenv("PATH");
        setenv("PATH", (std::string(VORN_SOURCE_DIR "/tools/demo/bin:") + path_).c_str(), 1);
        root.mkdir("/data");
        setenv("VORN_AM_LOG", root.at("/data/broadcasts.log").c_str(), 1);
    }
    void TearDown() override { setenv("PATH", path_.c_str(), 1); }

    // Hands mini_zip its own heap copy of a type-8 message, as the socket does.
    static void request(const std::string &dir, const char *logname = "ssr") {
        auto *msg = static_cast<vorn_ctrl_msg *>(calloc(1, sizeof(vorn_ctrl_msg)));
        msg->msg_type = VORN_MSG_ARCHIVE;
        snprintf(msg->logname, sizeof msg->logname, "%s", logname);
        snprintf(msg->mask, sizeof msg->mask, "%s", dir.c_str());
        mini_zip(msg);
    }

    // Results of the upload notices recorded by am, in order.
    std::vector<int> results() const {
        std::vector<int> out;
        int r;
        for (const std::string &l : lines_of(root.read("/data/broadcasts.log"))) {
            if (sscanf(l.c_str(), "am broadcast -a action.kymbal.from_vornd --ei result %d", &r) &&
                l.ends_with(" --es para UPLOAD"))
                out.push_back(r);
        }
        return out;
    }

    Files make_source(const Files &files, const std::string &dir = kSrc) const {
        root.mkdir(dir);
        for (const auto &[name, content] : files)
            root.write(dir + "/" + name, content);
        return files;
    }

    // Names of dir's visible entries in the order a walk meets them.
    Names walk_order(const std::string &dir) const {
        Names names;
        std::error_code ec;
        for (const auto &e : std::filesystem::directory_iterator(root.at(dir), ec)) {
            if (e.path().filename().string()[0] != '.')
                names.push_back(e.path().filename());
        }
        return names;
    }

    // The one archive in the upload directory.
    std::string archive() const {
        Names names = walk_order(kUpload);
        EXPECT_EQ(names.size(), 1u);
        return names.empty() ? "" : root.at(kUpload + "/" + names[0]);
    }

    TempRoot root;
    LogCapture log;
    std::string path_;
};

TEST_F(ArchiveTest, DescriptionStampNamesTheArchiveAndRepeatsAddIntoIt) {
    Files src = make_source({{"description_2016_01_02.txt", "modem crashed\n"},
                             {"ramdump.bin", random_bytes(100000, 1)},
                             {"empty.log", ""}});
    request(kSrc);
    EXPECT_EQ(results(), std::vector<int>{0});
    EXPECT_TRUE(log.has("mini_zip: logname->ssr, logpath->/sdcard/logs/crash/dump1.\n"));
    EXPECT_TRUE(
        log.has("broadcast: am broadcast -a action.kymbal.from_vornd --ei result 0 "
                "--es para \"UPLOAD\""));
    EXPECT_FALSE(root.exists(kSrc));
    std::string zip = root.at(kUpload + "/log_2016_01_02.txt.zip");
    EXPECT_EQ(archive(), zip);
    Files want{{"description_2016_01_02.txt", src["description_2016_01_02.txt"]},
               {"Crash/ramdump.bin", src["ramdump.bin"]},
               {"Crash/empty.log", ""}};
    expect_zip(zip, want);

    // A second folder with the same stamp is added into the existing archive.
    make_source({{"modem_description_2016_01_02.txt", "again\n"}, {"b.bin", "2"}},
                "/sdcard/logs/d2");
    request("/sdcard/logs/d2");
    EXPECT_EQ(results(), (std::vector<int>{0, 0}));
    want.insert({{"modem_description_2016_01_02.txt", "again\n"}, {"Crash/b.bin", "2"}});
    expect_zip(zip, want);
}

TEST_F(ArchiveTest, HiddenFilesAreSkippedAndLeftBehind) {
    make_source({{".description_1999.txt", "h"}, {"notes_description.txt", "n"}, {"a.log", "a"}});
    request(kSrc);
    EXPECT_EQ(results(), std::vector<int>{0});
    // No "description_" file is visible: the local time is the stamp.
    EXPECT_TRUE(log.has("There is no description file in crash dump folder.\n"));
    std::string zip = archive();
    int y, mo, d, h, mi, s, end = 0;
    EXPECT_EQ(sscanf(zip.c_str() + root.at(kUpload).size(), "/log_%4d_%2d_%2d-%2d_%2d_%2d.zip%n",
                     &y, &mo, &d, &h, &mi, &s, &end),
              6);
    EXPECT_EQ(end, static_cast<int>(strlen("/log_2016_01_02-03_04_05.zip"))) << zip;
    expect_zip(zip, {{"notes_description.txt", "n"}, {"Crash/a.log", "a"}});
    EXPECT_EQ(walk_order(kSrc), Names{});
    EXPECT_EQ(root.read(kSrc + "/.description_1999.txt"), "h");
    EXPECT_TRUE(log.has_containing("vornd: Failed to remove"));
}

// An entry that cannot be read stops the walk; the archive of what came
// before still closes, so the result is 0 and the whole source is removed.
// A link to a directory elsewhere is removed as a link.
TEST_F(ArchiveTest, UnreadableEntryStopsTheWalk) {
    enum Kind { kDir, kFifo, kLink };
    const struct {
        const char *name;
        Kind kind;
        const char *message;
    } cases[] = {
        {"dump.bin", kDir, "vornd: error in reading /sdcard/logs/crash/dump1/dump.bin\n"},
        {"pipe.bin", kFifo,
         "vornd: error in opening /sdcard/logs/crash/dump1/pipe.bin for reading\n"},
        {"link.bin", kLink, "vornd: error in reading /sdcard/logs/crash/dump1/link.bin\n"},
    };
    root.write("/data/keep/precious.log", "p");
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        log.clear();
        root.write("/data/broadcasts.log", "");
        Files src = make_source({{"description_x.txt", "d"}, {"a.log", "a"}, {"b.log", "b"}});
        std::string bad = root.at(kSrc + "/" + c.name);
        if (c.kind == kFifo)
            ASSERT_EQ(mkfifo(bad.c_str(), 0644), 0);
        else if (c.kind == kLink)
            ASSERT_EQ(symlink(root.at("/data/keep").c_str(), bad.c_str()), 0);
        else
            root.write(kSrc + "/" + c.name + "/inner.log", "lost with the tree");
        Files want;
        for (const auto &name : walk_order(kSrc)) {
            if (name == c.name) {
                if (c.kind != kFifo)
                    want["Crash/" + name] = "";
                break;
            }
            want[name == "description_x.txt" ? name : "Crash/" + name] = src[name];
        }
        request(kSrc);
        EXPECT_EQ(results(), std::vector<int>{0});
        EXPECT_TRUE(log.has(c.message)) << log.dump();
        EXPECT_FALSE(root.exists(kSrc));
        expect_zip(archive(), want);
        unlink(archive().c_str());
    }
    EXPECT_EQ(root.read("/data/keep/precious.log"), "p");
}

TEST_F(ArchiveTest, FailuresAreReportedAndTheSourceKept) {
    const struct {
        const char *what;
        int result;
        const char *message;
    } cases[] = {
        {"missing source", -3, "vornd: Refused to archive /c0/logs/src: not a directory inside"},
        {"upload area is a file", -3,
         "vornd: Failed to create /c1/logs//upload/ssr/log_x.zip.zip: "},
        {"archive name taken by a non-zip", -1, "vornd: Zip Open failed.\n"},
        {"file of 4 GiB", -3,
         "vornd: /c3/logs/src/core.bin is too large for an archive without zip64\n"},
    };
    for (int i = 0; i < static_cast<int>(std::size(cases)); i++) {
        SCOPED_TRACE(cases[i].what);
        log.clear();
        std::string base = "/c" + std::to_string(i), src = base + "/logs/src";
        std::string upload = base + "/logs//upload/ssr";
        snprintf(gbl_config.log_path, sizeof gbl_config.log_path, "%s/logs/", base.c_str());
        if (i != 0)
            root.write(src + "/description_x.zip", "d");
        if (i == 1)
            root.write(base + "/logs/upload", "not a directory");
        if (i == 2)
            root.write(upload + "/log_x.zip.zip", "not a zip");
        if (i == 3) {
            int fd = open(root.at(src + "/core.bin").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
            ASSERT_EQ(ftruncate(fd, 4LL << 30), 0);  // sparse: no data is written
            close(fd);
        }
        request(src);
        ASSERT_EQ(results().size(), static_cast<size_t>(i + 1));
        EXPECT_EQ(results().back(), cases[i].result);
        EXPECT_TRUE(log.has_containing(cases[i].message)) << log.dump();
        EXPECT_EQ(root.exists(src + "/description_x.zip"), i != 0);
        EXPECT_EQ(root.exists(src + "/core.bin"), i == 3);
        // A file that was there before the request is left as it was.
        EXPECT_EQ(walk_order(upload), i == 2 ? Names{"log_x.zip.zip"} : Names{});
    }
}

// Only a directory strictly inside the log path is packed and removed, and
// only under a log kind that is one plain name; anything else is refused
// with -3 before anything is created or removed.
TEST_F(ArchiveTest, RequestsReachingOutsideTheLogPathAreRefused) {
    root.write("/etc/vorn-conf.xml", "conf");
    root.write("/data/vorn-conf.xml", "conf");
    root.write("/outside/keep.log", "k");
    root.write("/sdcard/logs/Dmesg/dmesg.1", "d");
    ASSERT_EQ(symlink(root.at("/outside").c_str(), root.at("/sdcard/logs/link").c_str()), 0);
    ASSERT_EQ(symlink("../../outside", root.at("/sdcard/logs/rel").c_str()), 0);
    const struct {
        const char *logname;
        const char *src;
    } cases[] = {
        {"ssr", "/"},
        {"ssr", "/etc"},
        {"ssr", "/data"},
        {"ssr", "/sdcard/logs"},
        {"ssr", "/sdcard/logs/"},
        {"ssr", "/sdcard/logs/.."},
        {"ssr", "/sdcard/logs/Dmesg/../../.."},
        {"ssr", "../../.."},
        {"ssr", "sdcard/logs/Dmesg"},
        {"ssr", "/sdcard/logs/link"},
        {"ssr", "/sdcard/logs/rel"},
        {"ssr", "/sdcard/logs/Dmesg/dmesg.1"},
        {"../../../../x", "/sdcard/logs/Dmesg"},
        {"a/b", "/sdcard/logs/Dmesg"},
        {"..", "/sdcard/logs/Dmesg"},
        {"", "/sdcard/logs/Dmesg"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.logname) + " " + c.src);
        request(c.src, c.logname);
        EXPECT_EQ(results().back(), -3);
        EXPECT_TRUE(log.has_containing("vornd: Refused")) << log.dump();
    }
    EXPECT_EQ(results().size(), std::size(cases));
    EXPECT_EQ(root.read("/etc/vorn-conf.xml"), "conf");
    EXPECT_EQ(root.read("/data/vorn-conf.xml"), "conf");
    EXPECT_EQ(root.read("/outside/keep.log"), "k");
    EXPECT_EQ(root.read("/sdcard/logs/Dmesg/dmesg.1"), "d");
    EXPECT_FALSE(root.exists("/sdcard/logs/upload"));
    EXPECT_FALSE(root.exists("/x"));

    // A source reached through ".." that stays inside is packed as its
    // resolved path.
    make_source({{"a.log", "a"}}, "/sdcard/logs/crash/inside");
    request("/sdcard/logs/Dmesg/../crash/./inside");
    EXPECT_EQ(results().back(), 0);
    EXPECT_FALSE(root.exists("/sdcard/logs/crash/inside"));
    EXPECT_EQ(root.read("/sdcard/logs/Dmesg/dmesg.1"), "d");
}

// Two requests at once, one of them of 10,000 small files.
TEST_F(ArchiveTest, TwoRequestsAtOnceOneOfTenThousandFiles) {
    Files many{{"description_many", "many"}}, want{{"description_many", "many"}};
    for (int i = 0; i < 10000; i++) {
        std::string name = "f" + std::to_string(i) + ".log";
        many[name] = want["Crash/" + name] = "<6>[" + std::to_string(i) + ".000000] " + name + "\n";
    }
    make_source(many, "/sdcard/logs/d/a");
    Files b = make_source({{"description_B", "b"}, {"b.bin", random_bytes(3 << 20, 3)}},
                          "/sdcard/logs/d/b");
    std::thread ta([] { request("/sdcard/logs/d/a"); });
    request("/sdcard/logs/d/b");
    ta.join();
    EXPECT_EQ(results(), (std::vector<int>{0, 0}));
    EXPECT_EQ(walk_order(kUpload).size(), 2u);
    expect_zip(root.at(kUpload + "/log_many.zip"), want);
    expect_zip(root.at(kUpload + "/log_B.zip"),
               {{"description_B", "b"}, {"Crash/b.bin", b["b.bin"]}});
    EXPECT_FALSE(root.exists("/sdcard/logs/d/a") || root.exists("/sdcard/logs/d/b"));
}

// The other files vanish while the first one is being compressed: the walk
// stops at the next one, and the archive of the first still closes.
TEST_F(ArchiveTest, SourceFileDisappearsMidWalk) {
    Files src = make_source({{"a.bin", random_bytes(4 << 20, 4)},
                             {"b.bin", random_bytes(4 << 20, 5)},
                             {"c.bin", random_bytes(4 << 20, 6)}});
    Names order = walk_order(kSrc);
    int fd = inotify_init1(IN_CLOEXEC);
    ASSERT_GE(inotify_add_watch(fd, root.at(kSrc).c_str(), IN_OPEN), 0);
    std::thread worker([] { request(kSrc); });
    // The walk's first open of a file (not of the directory) is order[0].
    alignas(struct inotify_event) char buf[4096];
    for (bool opened = false; !opened;) {
        ssize_t n = read(fd, buf, sizeof buf);
        ASSERT_GT(n, 0);
        for (char *p = buf; p < buf + n; p += sizeof(struct inotify_event)) {
            auto *ev = reinterpret_cast<struct inotify_event *>(p);
            opened = opened || !(ev->mask & IN_ISDIR);
            p += ev->len;
        }
    }
    unlink(root.at(kSrc + "/" + order[1]).c_str());
    unlink(root.at(kSrc + "/" + order[2]).c_str());
    worker.join();
    close(fd);
    EXPECT_EQ(results(), std::vector<int>{0});
    EXPECT_TRUE(log.has("vornd: error in opening " + kSrc + "/" + order[1] + " for reading\n"));
    expect_zip(archive(), {{"Crash/" + order[0], src[order[0]]}});
    EXPECT_FALSE(root.exists(kSrc));
}

// Two requests into the same archive at once are written one after the
// other: the archive holds the entries of both.
TEST_F(ArchiveTest, TwoRequestsIntoOneArchiveAreSerialised) {
    Files a = make_source({{"description_same", "a"}, {"a.bin", random_bytes(2 << 20, 8)}},
                          "/sdcard/logs/d/a");
    Files b = make_source({{"description_same", "b"}, {"b.bin", random_bytes(2 << 20, 9)}},
                          "/sdcard/logs/d/b");
    std::thread ta([] { request("/sdcard/logs/d/a"); });
    request("/sdcard/logs/d/b");
    ta.join();
    EXPECT_EQ(results(), (std::vector<int>{0, 0}));
    const char *script =
        "import sys, zipfile\n"
        "z = zipfile.ZipFile(sys.argv[1])\n"
        "if z.testzip(): sys.exit('bad entry')\n"
        "print(' '.join(sorted(i.filename for i in z.infolist())))\n";
    ProcessResult p = run_process({"/usr/bin/env", "python3", "-c", script, archive()}, 60000);
    EXPECT_EQ(p.out, "Crash/a.bin Crash/b.bin description_same description_same\n") << p.err;
}

// The archive cannot be finished: the failed archive and the description file
// (when the walk got to it) are deleted, every other source file stays.
TEST_F(ArchiveTest, FullUploadFileSystem) {
    SmallDisk disk(root.at(kUpload), "64k");
    if (!disk.ok())
        GTEST_SKIP() << "cannot mount a small tmpfs here: " << disk.error();
    Files src = make_source({{"description_full", "d"}, {"ramdump.bin", random_bytes(1 << 20, 7)}});
    Names order = walk_order(kSrc);
    request(kSrc);
    Names left = walk_order(kUpload);
    ASSERT_EQ(results().size(), 1u);
    EXPECT_TRUE(results()[0] != 0 && results()[0] != -3) << results()[0];
    EXPECT_TRUE(log.has("vornd: error in zipClose " + kUpload + "/log_full.zip\n"));
    EXPECT_EQ(left, Names{});
    EXPECT_EQ(root.read(kSrc + "/ramdump.bin"), src["ramdump.bin"]);
    EXPECT_EQ(root.exists(kSrc + "/description_full"), order[0] != "description_full");
}

// A request that fails to close its archive leaves what earlier requests
// wrote into it untouched.
TEST_F(ArchiveTest, FailedCloseKeepsTheArchiveOfEarlierRequests) {
    SmallDisk disk(root.at(kUpload), "64k");
    if (!disk.ok())
        GTEST_SKIP() << "cannot mount a small tmpfs here: " << disk.error();
    make_source({{"description_keep", "first"}, {"small.log", "small"}}, "/sdcard/logs/d/one");
    request("/sdcard/logs/d/one");
    make_source({{"description_keep", "second"}, {"big.bin", random_bytes(1 << 20, 10)}},
                "/sdcard/logs/d/two");
    request("/sdcard/logs/d/two");
    std::string kept = read_file(root.at(kUpload + "/log_keep.zip"));
    Names left = walk_order(kUpload);
    ASSERT_EQ(results().size(), 2u);
    EXPECT_EQ(results()[0], 0);
    EXPECT_NE(results()[1], 0);
    EXPECT_EQ(left, Names{"log_keep.zip"});
    write_file(root.at("/check.zip"), kept);
    expect_zip(root.at("/check.zip"),
               {{"description_keep", "first"}, {"Crash/small.log", "small"}});
    EXPECT_TRUE(root.exists("/sdcard/logs/d/two/big.bin"));
}

}  // namespace
