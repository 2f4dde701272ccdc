#include "tests/agent/agent_fixture.h"

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <vector>

uint32_t agent_run(const std::string &line, dagt_result *result) {
    std::vector<char> buf(line.begin(), line.end());
    buf.push_back('\0');
    return dagt_execute(buf.data(), result);
}

void agent_setup(const TempRoot &root, const FileList &files) {
    for (const auto &[path, content] : files) {
        if (content == AGENT_DIR) {
            std::error_code ec;
            std::filesystem::remove(root.at(path), ec);
            root.mkdir(path);
        } else
            root.write(path, content);
    }
}

RecordingServices::RecordingServices(const TempRoot &root, bool stop_fails) {
    const char *path = getenv("PATH");
    old_path_ = path ? path : "";
    for (const char *name : {"stop", "start"}) {
        std::string script = "#!/bin/sh\necho \"" + std::string(name) + " $*\" >> " +
                             root.at("/services.log") + "\n";
        if (stop_fails && std::string(name) == "stop")
            script += "exit 1\n";
        root.write(std::string("/bin/") + name, script);
        chmod(root.at(std::string("/bin/") + name).c_str(), 0755);
    }
    setenv("PATH", (root.at("/bin") + ":" + old_path_).c_str(), 1);
}

RecordingServices::~RecordingServices() {
    setenv("PATH", old_path_.c_str(), 1);
}
