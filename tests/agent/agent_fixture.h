// Running Debug Agent lines against a temporary device root.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "agent/dagt.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_root.h"

// File content that makes a test path a directory (so that an echo into it
// fails), or that stands for "no such file" in an expectation.
#define AGENT_DIR "<dir>"
#define AGENT_NONE "<none>"

using FileList = std::vector<std::pair<std::string, std::string>>;

// One line, the device files before it, and what must follow.
struct AgentCase {
    std::string line;
    FileList before;
    uint32_t code;
    const char *text;  // the answer or message; null: not checked
    FileList after;    // device path -> content (AGENT_NONE: absent)
};

// A record that a dropped code must leave exactly as it was.
inline dagt_result marked_result() {
    dagt_result r = {};
    r.code = 7;
    r.text_len = 3;
    strcpy(r.text, "old");
    return r;
}

// Runs line (copied into a writable buffer) through dagt_execute.
inline uint32_t agent_run(const std::string &line, dagt_result *result) {
    std::vector<char> buf(line.begin(), line.end());
    buf.push_back('\0');
    return dagt_execute(buf.data(), result);
}

inline void agent_setup(const TempRoot &root, const FileList &files) {
    for (const auto &[path, content] : files) {
        if (content != AGENT_DIR) {
            root.write(path, content);
            continue;
        }
        std::error_code ec;
        std::filesystem::remove(root.at(path), ec);
        root.mkdir(path);
    }
}

// Runs the cases, each against a fresh root made by prepare (which may add
// properties or files shared by all cases).
template <typename Prepare>
void agent_run_cases(const std::vector<AgentCase> &cases, Prepare prepare) {
    for (const AgentCase &c : cases) {
        SCOPED_TRACE(c.line);
        TempRoot root;
        prepare(root);
        agent_setup(root, c.before);
        dagt_result r = {};
        EXPECT_EQ(agent_run(c.line, &r), c.code);
        EXPECT_EQ(static_cast<uint32_t>(r.code), c.code);
        if (c.text != nullptr) {
            EXPECT_STREQ(r.text, c.text);
            EXPECT_EQ(r.text_len, static_cast<int32_t>(strlen(c.text)));
        }
        for (const auto &[path, content] : c.after) {
            if (content == AGENT_NONE)
                EXPECT_FALSE(root.exists(path)) << path;
            else
                EXPECT_EQ(root.read(path), content) << path;
        }
    }
}

inline void agent_run_cases(const std::vector<AgentCase> &cases) {
    agent_run_cases(cases, [](const TempRoot &) {});
}
