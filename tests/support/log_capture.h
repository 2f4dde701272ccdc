// Captures the daemon's log messages in a test (liblog's logger is process-wide).
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

struct LogLine {
    int prio;
    std::string tag;
    std::string msg;
};

class LogCapture {
  public:
    LogCapture();   // installs the capturing logger and clears earlier lines
    ~LogCapture();  // restores the host stderr logger
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    std::vector<LogLine> lines() const;
    // Number of messages equal to text (exact match of the whole message).
    size_t count(std::string_view text) const;
    // Number of messages containing text.
    size_t count_containing(std::string_view text) const;
    bool has(std::string_view text) const { return count(text) > 0; }
    bool has_containing(std::string_view text) const { return count_containing(text) > 0; }
    // The first message containing text, with its priority; prio -1 when none.
    LogLine find(std::string_view text) const;
    void clear();
    // Runs hook on every message, on the logging thread, before it is recorded.
    void on_message(std::function<void(const std::string &)> hook);
    // All messages, one per line, for failure output.
    std::string dump() const;
};
