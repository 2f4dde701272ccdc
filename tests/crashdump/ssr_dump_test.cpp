// The per-device dump and its helpers, on regular files and FIFOs standing in
// for ramdump devices.
#include <thread>

#include "tests/crashdump/crash_env.h"
#include "tests/support/text.h"

namespace {

constexpr const char *kStamp = "-2024-01-31_23-59-07";

class SsrDump : public CrashEnv {
  protected:
    // A device in /dev with the given content, polled as ready in the next slot.
    int add_device(const std::string &name, const std::string &content) {
        root.write("/dev/" + name, content);
        return add_slot(name, open(root.at("/dev/" + name).c_str(), O_RDONLY));
    }
    int add_slot(const std::string &name, int fd) {
        int i = st.count++;
        snprintf(ramdump_list[i], SSR_NAME_LEN, "%s", name.c_str());
        st.fds[i] = fd;
        st.index[i] = i;
        st.pfds[i] = pollfd{fd, POLLIN, POLLIN};
        return i;
    }
    std::string dump_path(const std::string &name) const {
        return std::string(RAMDUMP_FOLDER "/") + name;
    }
};

TEST_F(SsrDump, ElfAndBinDumpsAreWholeReadOnlyFiles) {
    std::string elf = pattern(100000,
                              "\x7f"
                              "ELF\x02");
    int modem = add_device("ramdump_modem", elf);
    int adsp = add_device("ramdump_adsp", "plain data");

    EXPECT_EQ(ssr_dump_device(modem, &st, kStamp), static_cast<long>(elf.size()));
    EXPECT_EQ(ssr_dump_device(adsp, &st, kStamp), 10);

    std::string elf_name = dump_path("ramdump_modem-2024-01-31_23-59-07.elf");
    std::string bin_name = dump_path("ramdump_adsp-2024-01-31_23-59-07.bin");
    EXPECT_EQ(root.read(elf_name), elf);
    EXPECT_EQ(root.read(bin_name), "plain data");
    EXPECT_EQ(mode_of(elf_name), 0400u);
    EXPECT_EQ(mode_of(bin_name), 0400u);
    EXPECT_TRUE(log.has_containing("SSR: logs rotation ,dump->dir = " RAMDUMP_FOLDER
                                   " ,filter_name = ramdump_modem-"));
}

TEST_F(SsrDump, WhichDevicesWakeTheSinkAndModemCopies) {
    struct Case {
        const char *name;
        bool qsc;
        int qdss_posts;
        int ext_posts;
    };
    const Case cases[] = {
        {"ramdump_smem", true, 0, 0},     {"ramdump_audio-ocmem", true, 0, 0},
        {"ramdump_modem_sw", true, 0, 0}, {"ramdump_modem", true, 1, 1},
        {"ramdump_modem", false, 1, 0},   {"ramdump_venus", true, 1, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.name) + (c.qsc ? " with QSC" : ""));
        st.flags.store(c.qsc ? SSR_QSC_PRESENT : 0);
        while (sem_trywait(&st.qdss_sem) == 0) {
        }
        int i = add_device(c.name, "x");
        EXPECT_EQ(ssr_dump_device(i, &st, kStamp), 1);
        EXPECT_EQ(sem_value(&st.qdss_sem), c.qdss_posts);
        EXPECT_EQ(sem_value(&st.ext_modem_sem), c.ext_posts);
        EXPECT_EQ((st.flags.load() & SSR_QSC_PENDING) != 0, c.ext_posts == 1);
        while (sem_trywait(&st.ext_modem_sem) == 0) {
        }
    }
}

TEST_F(SsrDump, SecondDumpInTheSameSecondKeepsTheFirst) {
    int i = add_device("ramdump_modem", pattern(5000));
    EXPECT_EQ(ssr_dump_device(i, &st, kStamp), 5000);
    // The next crash of the same device, shorter, within the same second.
    root.write("/dev/ramdump_modem", "short");
    lseek(st.fds[i], 0, SEEK_SET);
    EXPECT_EQ(ssr_dump_device(i, &st, kStamp), 5);

    EXPECT_EQ(root.read(dump_path("ramdump_modem-2024-01-31_23-59-07.bin")), pattern(5000));
    EXPECT_EQ(root.read(dump_path("ramdump_modem-2024-01-31_23-59-07_0001.bin")), "short");
}

TEST_F(SsrDump, RotationKeepsFiveOfTheDeviceBeforeTheNewDump) {
    for (int day = 1; day <= 7; day++) {
        char name[64];
        snprintf(name, sizeof name, "ramdump_modem-2020-01-%02d_00-00-00.bin", day);
        root.write(dump_path(name), "old");
    }
    root.write(dump_path("ramdump_modem_sw-2019-01-01_00-00-00.bin"), "other device");
    root.write(dump_path("ramdump_adsp-2019-01-01_00-00-00.bin"), "other device");
    int i = add_device("ramdump_modem", "new");
    EXPECT_EQ(ssr_dump_device(i, &st, kStamp), 3);

    std::vector<std::string> want = {
        "ramdump_adsp-2019-01-01_00-00-00.bin",  "ramdump_modem-2020-01-03_00-00-00.bin",
        "ramdump_modem-2020-01-04_00-00-00.bin", "ramdump_modem-2020-01-05_00-00-00.bin",
        "ramdump_modem-2020-01-06_00-00-00.bin", "ramdump_modem-2020-01-07_00-00-00.bin",
        "ramdump_modem-2024-01-31_23-59-07.bin", "ramdump_modem_sw-2019-01-01_00-00-00.bin",
    };
    EXPECT_EQ(entries(RAMDUMP_FOLDER), want);
}

TEST_F(SsrDump, NothingToDumpAndBadSlots) {
    int empty = add_device("ramdump_adsp", "");
    int idle = add_device("ramdump_modem", "data");
    st.pfds[idle].revents = 0;
    EXPECT_EQ(ssr_dump_device(-1, &st, kStamp), -22);
    EXPECT_EQ(ssr_dump_device(SSR_MAX_DEVICES, &st, kStamp), -22);
    EXPECT_EQ(ssr_dump_device(idle, &st, kStamp), 0);
    EXPECT_EQ(ssr_dump_device(empty, &st, kStamp), 0);
    EXPECT_TRUE(entries(RAMDUMP_FOLDER).empty());
}

TEST_F(SsrDump, MissingFolderIsMadeOrTheDumpSkipped) {
    std::filesystem::remove_all(root.at(RAMDUMP_FOLDER));
    int i = add_device("ramdump_modem", "data");
    EXPECT_EQ(ssr_dump_device(i, &st, kStamp), 4);
    EXPECT_TRUE(log.has("SSR: create " RAMDUMP_FOLDER "\n"));
    EXPECT_EQ(root.read(dump_path("ramdump_modem-2024-01-31_23-59-07.bin")), "data");

    // A file where the log root should be: the dump is skipped with an error.
    std::filesystem::remove_all(root.at("/sdcard/logs"));
    root.write("/sdcard/logs", "not a folder");
    lseek(st.fds[i], 0, SEEK_SET);
    EXPECT_LT(ssr_dump_device(i, &st, kStamp), 0);
    EXPECT_TRUE(log.has("SSR: create " RAMDUMP_FOLDER " err, skip dump ramdump_modem\n"));
}

TEST_F(SsrDump, DumpLargerThanTheSpaceLeftFailsWithItsMessage) {
    int i = add_device("ramdump_modem", pattern(300000));
    long ret;
    {
        FileSizeLimit limit(100000);
        ret = ssr_dump_device(i, &st, kStamp);
    }
    EXPECT_EQ(ret, -EFBIG);
    std::string name = dump_path("ramdump_modem-2024-01-31_23-59-07.bin");
    EXPECT_TRUE(log.has("Failed to write to dump file " + name + "\n")) << log.dump();
    EXPECT_EQ(root.read(name).size(), 100000u);
}

TEST_F(SsrDump, FifoSourceIsCopiedToItsEnd) {
    std::string fifo = root.at("/dev/ramdump_venus");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    int rd = open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
    fcntl(rd, F_SETFL, 0);
    // The writer is there before the first read, which would see the end
    // of the data otherwise.
    int wr = open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
    fcntl(wr, F_SETFL, 0);
    int i = add_slot("ramdump_venus", rd);
    std::string data = pattern(1 << 20,
                               "\x7f"
                               "ELF");
    std::thread writer([&] {
        // Small pieces, so the dump sees short reads.
        for (size_t off = 0; off < data.size(); off += 10000)
            write(wr, data.data() + off, std::min<size_t>(10000, data.size() - off));
        close(wr);
    });
    EXPECT_EQ(ssr_dump_device(i, &st, kStamp), static_cast<long>(data.size()));
    writer.join();
    EXPECT_EQ(root.read(dump_path("ramdump_venus-2024-01-31_23-59-07.elf")), data);
}

TEST(SsrHelpers, TimestampNeedsTwentyOneBytes) {
    LogCapture log;
    char buf[32];
    EXPECT_EQ(ssr_timestamp(buf, 20), nullptr);
    EXPECT_TRUE(log.has("Invalid timestamp buffer\n"));
    ASSERT_EQ(ssr_timestamp(buf, 21), buf);
    EXPECT_TRUE(has_shape(buf, "-9999-99-99_99-99-99")) << buf;
}

}  // namespace
