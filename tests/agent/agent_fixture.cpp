#include "tests/agent/agent_fixture.h"

#include <vector>

uint32_t agent_run(const std::string &line, dagt_result *result) {
    std::vector<char> buf(line.begin(), line.end());
    buf.push_back('\0');
    return dagt_execute(buf.data(), result);
}

void agent_setup(const TempRoot &root, const FileList &files) {
    for (const auto &[path, content] : files) {
        if (content == AGENT_DIR)
            root.mkdir(path);
        else
            root.write(path, content);
    }
}
