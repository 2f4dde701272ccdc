#include "capture/log_name.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <tuple>

#include "core/file_util.h"

namespace {

// True when s starts with a stamp shaped like "2024_05_01-13_02_03".
bool is_stamp(std::string_view s) {
    static const char kShape[] = "dddd_dd_dd-dd_dd_dd";
    if (s.size() < VORN_LOG_STAMP_LEN)
        return false;
    for (size_t i = 0; i < VORN_LOG_STAMP_LEN; i++) {
        bool digit = isdigit(static_cast<unsigned char>(s[i])) != 0;
        if (kShape[i] == 'd' ? !digit : s[i] != kShape[i])
            return false;
    }
    return true;
}

}  // namespace

void vorn_log_time_suffix(char *out, size_t len) {
    if (len < 2) {
        if (len == 1)
            out[0] = '\0';
        return;
    }
    time_t now = time(nullptr);
    struct tm tm;
    localtime_r(&now, &tm);
    out[0] = '.';
    if (strftime(out + 1, len - 1, VORN_TIME_FORMAT, &tm) == 0)
        out[1] = '\0';
}

std::string vorn_log_sequence_name(const std::string &base, int seq) {
    if (seq <= 0)
        return base;
    char tail[16];
    snprintf(tail, sizeof tail, "_%04d", seq);
    return base + tail;
}

int vorn_log_name_sequence(const char *after_stamp) {
    if (*after_stamp == '\0' || *after_stamp == '.')
        return 0;
    if (*after_stamp == '_' && isdigit(static_cast<unsigned char>(after_stamp[1])))
        return atoi(after_stamp + 1);
    return -1;
}

bool vorn_log_name_parse(std::string_view name, std::string_view prefix, vorn_log_name *out) {
    if (name.size() <= prefix.size() + 1 || name.substr(0, prefix.size()) != prefix ||
        name[prefix.size()] != '.')
        return false;
    std::string_view rest = name.substr(prefix.size() + 1);
    if (!is_stamp(rest))
        return false;
    vorn_log_name n;
    n.opened = std::string(rest.substr(0, VORN_LOG_STAMP_LEN));
    rest.remove_prefix(VORN_LOG_STAMP_LEN);
    if (!rest.empty() && rest[0] == '_') {
        size_t digits = 1;
        while (digits < rest.size() && isdigit(static_cast<unsigned char>(rest[digits])))
            digits++;
        if (digits == 1)
            return false;
        n.sequence = vorn_log_name_sequence(std::string(rest.substr(0, digits)).c_str());
        rest.remove_prefix(digits);
    }
    if (!rest.empty()) {
        if (rest[0] != '.' || rest.size() != VORN_LOG_STAMP_LEN + 1 || !is_stamp(rest.substr(1)))
            return false;
        n.rolled = std::string(rest.substr(1));
    }
    *out = std::move(n);
    return true;
}

bool vorn_log_name_before(const vorn_log_name &a, const vorn_log_name &b) {
    return std::tie(a.opened, a.sequence) < std::tie(b.opened, b.sequence);
}
