#include "tests/support/log_capture.h"

#include <android/log.h>

#include <mutex>

#include "platform/log.h"

namespace {
std::mutex g_mutex;
std::vector<LogLine> g_lines;
std::function<void(const std::string &)> g_hook;

void capture_logger(const struct __android_logger_data *data, const char *message) {
    LogLine line{data->priority, data->tag ? data->tag : "", message ? message : ""};
    std::function<void(const std::string &)> hook;
    {
        std::lock_guard<std::mutex> g(g_mutex);
        hook = g_hook;
    }
    if (hook)
        hook(line.msg);
    std::lock_guard<std::mutex> g(g_mutex);
    g_lines.push_back(std::move(line));
}
}  // namespace

LogCapture::LogCapture() {
    clear();
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    __android_log_set_logger(capture_logger);
}

LogCapture::~LogCapture() {
    __android_log_set_logger(vorn_log_stderr_logger);
    on_message(nullptr);
}

void LogCapture::on_message(std::function<void(const std::string &)> hook) {
    std::lock_guard<std::mutex> g(g_mutex);
    g_hook = std::move(hook);
}

std::vector<LogLine> LogCapture::lines() const {
    std::lock_guard<std::mutex> g(g_mutex);
    return g_lines;
}

size_t LogCapture::count(std::string_view text) const {
    std::lock_guard<std::mutex> g(g_mutex);
    size_t n = 0;
    for (const auto &l : g_lines)
        n += l.msg == text;
    return n;
}

size_t LogCapture::count_containing(std::string_view text) const {
    std::lock_guard<std::mutex> g(g_mutex);
    size_t n = 0;
    for (const auto &l : g_lines)
        n += l.msg.find(text) != std::string::npos;
    return n;
}

LogLine LogCapture::find(std::string_view text) const {
    std::lock_guard<std::mutex> g(g_mutex);
    for (const auto &l : g_lines) {
        if (l.msg.find(text) != std::string::npos)
            return l;
    }
    return {-1, "", ""};
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> g(g_mutex);
    g_lines.clear();
}

std::string LogCapture::dump() const {
    std::lock_guard<std::mutex> g(g_mutex);
    std::string out;
    for (const auto &l : g_lines)
        out += std::to_string(l.prio) + " " + l.tag + ": " + l.msg + "\n";
    return out;
}
