// Names of a node's log files, shared by the writer that makes them and the
// tools that read them. A file is "<prefix>.<opening time>" while it is the
// node's current file, with "_NNNN" after the time when an earlier file of the
// node already took that second; a roll-over appends the time it closed the
// file: "<prefix>.<opening time>[_NNNN].<roll-over time>". Names sort in the
// order the files were opened.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// Length of a time stamp in VORN_TIME_FORMAT ("2024_05_01-13_02_03").
#define VORN_LOG_STAMP_LEN 19

// "." and the local time in VORN_TIME_FORMAT into out (len bytes, always
// terminated; just "." if the clock cannot be formatted).
void vorn_log_time_suffix(char *out, size_t len);

// The name of the seq-th file opened in one second: base itself for 0,
// otherwise base + "_NNNN".
std::string vorn_log_sequence_name(const std::string &base, int seq);

// The sequence a name carries after its opening stamp, given what follows the
// stamp: 0 for "" or a roll-over suffix ("." ...), NNNN for "_NNNN" (followed
// by anything), -1 for anything else.
int vorn_log_name_sequence(const char *after_stamp);

// One file of a node, parsed from its name.
struct vorn_log_name {
    std::string opened;  // opening stamp
    int sequence = 0;    // the "_NNNN" of a name opened in an occupied second
    std::string rolled;  // roll-over stamp; empty for a file that was not rolled over
};

// Parses name as a file of the node whose file-name prefix is prefix. False
// when it is not one (another node's file sharing the directory, or anything
// else).
bool vorn_log_name_parse(std::string_view name, std::string_view prefix, vorn_log_name *out);

// True when a was opened before b (both parsed from names of one node); a
// file renamed by its roll-over stays the same file.
bool vorn_log_name_before(const vorn_log_name &a, const vorn_log_name &b);
