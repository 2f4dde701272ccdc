// The real vornd binary, run against a temporary root: options and start-up
// exit paths as a tester sees them.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "tests/core/daemon_state.h"
#include "tests/support/process.h"
#include "tests/support/temp_root.h"

namespace {

const std::string kVornd = std::string(VORN_BINARY_DIR) + "/vornd";

TEST(StartupTest, HelpVersionAndUsageErrors) {
    ProcessResult help = run_process({kVornd, "--help"}, 5000);
    EXPECT_EQ(help.exit_status, 0);
    EXPECT_NE(help.out.find("--root DIR"), std::string::npos);
    ProcessResult version = run_process({kVornd, "--version"}, 5000);
    EXPECT_EQ(version.exit_status, 0);
    EXPECT_EQ(version.out.rfind("vornd ", 0), 0u);
    for (const char *bad : {"--bogus", "--root", "extra"}) {
        ProcessResult r = run_process({kVornd, bad}, 5000);
        EXPECT_EQ(r.exit_status, 2) << bad;
        EXPECT_NE(r.err.find("Usage: vornd"), std::string::npos) << bad;
    }
}

TEST(StartupTest, MissingSystemConfigurationExitsWith255) {
    TempRoot root;
    root.write("/data/vorn-conf.xml", make_conf("1", "", pipe_node("Dmesg")));
    ProcessResult r = run_process({kVornd, "--root", root.path()}, 10000);
    EXPECT_EQ(r.exit_status, 255);
    EXPECT_NE(r.err.find(" E vornd   : Can't find /etc/vorn-conf.xml\n"), std::string::npos)
        << r.err;
    EXPECT_NE(r.err.find("return: -1, error:"), std::string::npos) << r.err;
}

TEST(StartupTest, BindFailureReachesTheServingLoopAndEndsAtAccept) {
    TempRoot root;  // no /dev/socket directory: bind fails
    root.mkdir("/data");
    root.write("/etc/vorn-conf.xml", make_conf("1", "", pipe_node("Dmesg")));
    ProcessResult r = run_process({kVornd, "--root", root.path()}, 10000);
    EXPECT_EQ(r.exit_status, 255);
    EXPECT_NE(r.err.find("Failed to bind socket.  err:No such file or directory"),
              std::string::npos)
        << r.err;
    EXPECT_NE(r.err.find("Failed to accept socket."), std::string::npos) << r.err;
    // The revert copied the system file into place before the socket.
    EXPECT_TRUE(root.exists("/data/vorn-conf.xml"));
    // Every line on stderr is a threadtime log line.
    size_t pos = 0;
    while (pos < r.err.size()) {
        size_t nl = r.err.find('\n', pos);
        std::string line = r.err.substr(pos, nl - pos);
        EXPECT_EQ(line.size() > 33 && line[2] == '-' && line[5] == ' ' && line[8] == ':' &&
                      line[14] == '.',
                  true)
            << line;
        pos = nl == std::string::npos ? r.err.size() : nl + 1;
    }
}

TEST(StartupTest, ServesOnItsSocketAndIgnoresABadInheritedSocket) {
    TempRoot root;
    root.mkdir("/dev/socket");
    root.mkdir("/data");
    root.write("/etc/vorn-conf.xml", make_conf("1", "", pipe_node("Dmesg")));
    std::string errfile = root.path() + "/stderr.txt";
    pid_t pid = fork();
    if (pid == 0) {
        freopen(errfile.c_str(), "w", stderr);
        setenv("ANDROID_SOCKET_vornd", "-1", 1);
        execl(kVornd.c_str(), kVornd.c_str(), "--root", root.path().c_str(), (char *)nullptr);
        _exit(127);
    }
    std::string sock = root.at("/dev/socket/vornd");
    struct stat st;
    bool up = false;
    for (int i = 0; i < 500 && !up; i++) {
        // The socket is opened to everyone just after bind: wait for "After listen".
        up = read_file(errfile).find("After listen") != std::string::npos &&
             stat(sock.c_str(), &st) == 0 && S_ISSOCK(st.st_mode);
        if (!up)
            usleep(10000);
    }
    ASSERT_TRUE(up) << read_file(errfile);
    EXPECT_EQ(st.st_mode & 0777, 0666u);
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", sock.c_str());
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    close(fd);
    usleep(100000);
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, WNOHANG), 0) << "the daemon keeps serving";
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    std::string err = read_file(errfile);
    EXPECT_NE(err.find("Current system configuration file version 1\n"), std::string::npos) << err;
    EXPECT_NE(
        err.find(
            "logid 1, enable 0 , loglevel 0 ,logtype 128 , log_provider echo hi , log_filepath "
            "Dmesg/Dmesg ,logname Dmesg ,mask "),
        std::string::npos)
        << err;
    EXPECT_NE(err.find("After listen"), std::string::npos);
}

}  // namespace
