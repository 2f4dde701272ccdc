// End-to-end fixture: the real vornd, started against a temporary device root
// and driven over its control socket, with its stderr captured to a file.
//
//   DaemonFixture d;
//   d.write_config(make_conf("1", "log_path=\"/sdcard/logs/\"", pipe_node("Dmesg")));
//   ASSERT_TRUE(d.start()) << d.log();
//   CtrlExchange r = d.exchange(ctrl_msg(VORN_MSG_QUERY_NODE, "Dmesg"));
//   EXPECT_FALSE(d.wait_for_log("Send 256 bytes out").empty());
//
// The root holds etc/, data/, dev/socket/, sdcard/logs/, system/bin/sh ->
// /bin/sh, system/build.prop, and host/: bin/am (a recording activity manager,
// first on the daemon's PATH) and vornd.stderr. The daemon and every process
// it started are killed when the fixture goes away; when the test has failed
// the end of the daemon's log is printed first.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include "core/ctrl_msg.h"
#include "tests/support/file_saves.h"
#include "tests/support/process.h"
#include "tests/support/temp_root.h"

// What one connection to the control socket saw.
struct CtrlExchange {
    bool connected = false;  // the connect succeeded
    bool closed = false;     // the daemon closed the connection (as opposed to the timeout)
    std::string reply;       // every byte read before the close or the timeout
};

class DaemonFixture : public TempRoot {
  public:
    DaemonFixture();
    ~DaemonFixture();

    // The system copy, which the first start copies to the working copy.
    void write_config(std::string_view xml) const { write("/etc/vorn-conf.xml", xml); }
    std::string working_xml() const { return read("/data/vorn-conf.xml"); }
    // Counts the saves of the working copy from now on.
    FileSaves working_saves() const { return FileSaves(at("/data"), "vorn-conf.xml"); }

    // The lines of the recording am: the arguments of each run.
    std::vector<std::string> broadcasts() const;
    // Waits for a broadcast containing text; returns the last such line, or
    // "" on timeout.
    std::string wait_for_broadcast(std::string_view text, int timeout_ms = 10000) const;

    // Starts vornd --root <root> and any further args, and waits until it
    // listens: its "After listen" line, or a connection it accepts when args
    // keep debug lines off its log. False when it exited or did not listen in
    // time.
    bool start(int timeout_ms = 10000, const std::vector<std::string> &args = {});
    bool alive();
    // Kills the daemon and every process it started.
    void stop();
    // The daemon's pid (-1 before the first start).
    pid_t pid() const { return pid_; }
    // Exit status once it has exited, -1 before or when killed.
    int exit_status();

    // The daemon's stderr (threadtime log lines) from byte `from` on.
    const std::string &stderr_path() const { return stderr_path_; }
    std::string log(size_t from = 0) const;
    // The current end of the log: pass it as `from` to look only at later lines.
    size_t log_mark() const { return log().size(); }
    // Waits for a complete line containing text at or after from. Returns the
    // line (without its newline) or "" on timeout; *next receives the offset
    // just after the line.
    std::string wait_for_log(std::string_view text, int timeout_ms = 10000, size_t from = 0,
                             size_t *next = nullptr) const;
    // Every line containing text at or after from.
    std::vector<std::string> log_lines(std::string_view text, size_t from = 0) const;

    // A connected client socket, or -1.
    int connect_socket() const;
    // Connects, sends bytes (none: shuts the sending side at once) and reads
    // until the daemon closes or timeout_ms passes.
    CtrlExchange exchange(std::string_view bytes, int timeout_ms = 10000) const;
    CtrlExchange exchange(const vorn_ctrl_msg &msg, int timeout_ms = 10000) const;

    // Runs the vornctl of the build directory with --root <root> first.
    ProcessResult vornctl(const std::vector<std::string> &args) const;

  private:
    std::string stderr_path_;
    pid_t pid_ = -1;
    int status_ = 0;
    bool reaped_ = false;
};

// A control message of the given type with its name, enable byte and mask.
vorn_ctrl_msg ctrl_msg(uint8_t type, const char *logname = "", uint8_t enable = 0,
                       const char *mask = "");
// A type-4 message setting the log path.
vorn_ctrl_msg log_path_msg(const char *path);
// The message as the bytes a client sends.
std::string msg_bytes(const vorn_ctrl_msg &msg);

// Milliseconds since the epoch of a threadtime log line's local stamp
// ("MM-DD HH:MM:SS.mmm ..."), or -1 when the line has none. The year is the
// one of now, or the one before when the month lies ahead of now's.
long long log_line_ms(std::string_view line, time_t now = time(nullptr));

// The path of a binary of the build directory.
std::string build_binary(const char *name);
