// The fake logd with several readers at once, as the simulated phone's logd
// nodes connect: each gets the entries of its own buffers; entries queued
// while nobody reads wait for the first reader.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <string>

#include "platform/io.h"
#include "sim/fake_logd.h"
#include "tests/support/temp_root.h"
#include "tests/support/wait.h"

namespace {

unique_fd reader(const std::string &path, const char *cmd) {
    unique_fd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    if (connect(fd.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0)
        return unique_fd();
    send(fd.get(), cmd, strlen(cmd), 0);
    timeval tv{3, 0};
    setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    return fd;
}

std::string next(int fd) {
    char buf[5120];
    ssize_t n = recv(fd, buf, sizeof buf, 0);
    return n > 0 ? std::string(buf, static_cast<size_t>(n)) : "";
}

TEST(FakeLogdTest, ReadersGetTheirOwnBuffersSideBySide) {
    TempRoot root;
    FakeLogd logd(root.at("/logdr"));
    std::string early = FakeLogd::text_entry(LOG_ID_MAIN, 4, "T", "before anyone");
    logd.send(early);
    unique_fd main_reader = reader(root.at("/logdr"), "stream lids=0,3");
    ASSERT_TRUE(main_reader.valid());
    EXPECT_EQ(next(main_reader.get()), early);

    unique_fd radio_reader = reader(root.at("/logdr"), "stream lids=1");
    ASSERT_TRUE(wait_until([&] { return logd.readers() == 2; }, 3000));
    std::string m = FakeLogd::text_entry(LOG_ID_MAIN, 4, "T", "main");
    std::string r = FakeLogd::text_entry(LOG_ID_RADIO, 4, "T", "radio");
    std::string s = FakeLogd::text_entry(LOG_ID_SYSTEM, 4, "T", "system");
    logd.send_all({m, r, s});
    EXPECT_EQ(next(main_reader.get()), m);
    EXPECT_EQ(next(main_reader.get()), s);
    EXPECT_EQ(next(radio_reader.get()), r);  // the first reader was not replaced
    EXPECT_TRUE(wait_until([&] { return logd.drained(); }, 3000));

    // One reader hangs up; the other goes on.
    radio_reader.reset();
    logd.send(m);
    EXPECT_EQ(next(main_reader.get()), m);
}

}  // namespace
