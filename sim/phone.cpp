#include "sim/phone.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "sim/blob_device.h"
#include "sim/control_device.h"
#include "sim/device_root.h"
#include "sim/fake_logd.h"
#include "sim/fake_qmi_service.h"
#include "sim/kgsl_stamp.h"
#include "sim/logger_device.h"
#include "sim/ramdump_device.h"
#include "sim/trace_device.h"

namespace fs = std::filesystem;

const std::vector<std::string> kSimSubsystems = {
    "adsp",    "modem", "pronto", "venus", "smem", "cdsp", "slpi", "spss",
    "ipa_fws", "wcnss", "lpass",  "gss",   "dsps", "mba",  "npu",  "a5",
};

const std::vector<SimLink> kSimLinks = {
    {"coresight-tmc-etf", "/dev/coresight-tmc-etf"},
    {"coresight-tmc-etr", "/dev/coresight-tmc-etr"},
    {"byte-cntr", "/dev/byte-cntr"},
    {"log_main", "/dev/log/main"},
    {"log_radio", "/dev/log/radio"},
    {"log_events", "/dev/log/events"},
    {"log_system", "/dev/log/system"},
    {"kgsl_timestamp", "/sys/class/kgsl/kgsl-3d0/snapshot/timestamp"},
    {"kgsl_dump", "/sys/class/kgsl/kgsl-3d0/snapshot/dump"},
};

namespace {

constexpr size_t kEtfSize = 65536;
constexpr size_t kEtrSize = 1048576;

const char *const kBuffers[] = {"main", "radio", "events", "system", "crash"};

std::vector<std::string> words(std::string_view line, size_t max) {
    std::vector<std::string> out;
    size_t i = 0;
    while (i < line.size() && out.size() + 1 < max) {
        while (i < line.size() && line[i] == ' ')
            i++;
        size_t end = line.find(' ', i);
        if (end == std::string_view::npos)
            end = line.size();
        if (end > i)
            out.emplace_back(line.substr(i, end - i));
        i = end;
    }
    while (i < line.size() && line[i] == ' ')
        i++;
    if (i < line.size())
        out.emplace_back(line.substr(i));  // the rest, blanks and all
    return out;
}

std::string ramdump_path(const std::string &subsys) {
    return "/dev/ramdump_" + subsys;
}

bool number(const std::string &s, unsigned long long *v) {
    if (s.empty())
        return false;
    char *end = nullptr;
    errno = 0;
    *v = strtoull(s.c_str(), &end, 10);
    return errno == 0 && *end == '\0' && s[0] != '-';
}

}  // namespace

std::string sim_mount_dir(const std::string &root) {
    return root + "/sim/dev";
}
std::string sim_control_path(const std::string &root) {
    return sim_mount_dir(root) + "/control";
}

void remove_sim_links(const std::string &root) {
    std::vector<std::string> paths;
    for (const SimLink &l : kSimLinks)
        paths.push_back(l.path);
    for (const std::string &s : kSimSubsystems)
        paths.push_back(ramdump_path(s));
    for (const std::string &path : paths) {
        std::string host = root + path;
        std::error_code ec;
        if (fs::is_symlink(fs::symlink_status(host, ec)))
            unlink(host.c_str());
    }
}

std::string gpu_snapshot_bytes(int n) {
    std::string head = "KGSL snapshot " + std::to_string(n) + "\n";
    return head + trace_bytes(32768 - head.size());
}

SimPhone::SimPhone(std::string root) : root_(std::move(root)) {
    size_t count =
        std::min(static_cast<size_t>(device_root_ramdumps(root_)), kSimSubsystems.size());
    for (size_t i = 0; i < count; i++)
        ramdumps_[kSimSubsystems[i]] = fs_.add<RamdumpDevice>("ramdump_" + kSimSubsystems[i]);
    fs_.add<BlobDevice>("coresight-tmc-etf", trace_bytes(kEtfSize));
    fs_.add<BlobDevice>("coresight-tmc-etr", trace_bytes(kEtrSize));
    trace_ = fs_.add<TraceDevice>("byte-cntr");
    for (const char *b : {"main", "radio", "events", "system"})
        loggers_[b] = fs_.add<LoggerDevice>(std::string("log_") + b);
    stamp_ = fs_.add<KgslStamp>("kgsl_timestamp");
    snapshot_ = fs_.add<BlobDevice>("kgsl_dump", gpu_snapshot_bytes(0));
    fs_.add<ControlDevice>(
        "control", [this](std::string_view line) { return command(line); },
        [this] { return status(); });
}

SimPhone::~SimPhone() {
    down();
}

bool SimPhone::up(std::string *err) {
    std::error_code ec;
    fs::create_directories(sim_mount_dir(root_), ec);
    if (!fs_.mount(sim_mount_dir(root_), err))
        return false;
    std::vector<std::pair<std::string, std::string>> links;  // device, path
    for (const SimLink &l : kSimLinks)
        links.emplace_back(l.device, l.path);
    for (const auto &[subsys, dev] : ramdumps_)
        links.emplace_back(dev->name(), ramdump_path(subsys));
    for (const auto &[device, path] : links) {
        std::string host = root_ + path;
        fs::create_directories(fs::path(host).parent_path(), ec);
        std::string target =
            fs::relative(sim_mount_dir(root_) + "/" + device, fs::path(host).parent_path(), ec)
                .string();
        unlink(host.c_str());
        if (symlink(target.c_str(), host.c_str()) != 0) {
            *err = host + ": cannot link";
            down();
            return false;
        }
    }
    logd_ = std::make_unique<FakeLogd>(root_ + "/dev/socket/logdr");
    for (uint32_t instance : {2u, 3u, 6u})
        qmi_.push_back(std::make_unique<FakeQmiService>(root_, instance));
    return true;
}

void SimPhone::down() {
    // What the services received stays readable after the session.
    if (logd_)
        std::ofstream(root_ + "/data/sim/last-status.txt") << status();
    qmi_.clear();
    logd_.reset();
    if (fs_.mounted())
        remove_sim_links(root_);
    fs_.unmount();
}

int SimPhone::command(std::string_view line) {
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
        line.remove_suffix(1);
    std::vector<std::string> w = words(line, 5);
    if (w.empty())
        return -EINVAL;
    unsigned long long v = 0;
    if (w[0] == "crash" && w.size() == 4) {
        // crash SUBSYS SIZE ELF
        auto dev = ramdumps_.find(w[1]);
        if (dev == ramdumps_.end() || !number(w[2], &v) || v == 0 || v > (1ull << 30))
            return -EINVAL;
        dev->second->inject(w[1], v, w[3] == "1");
        return 0;
    }
    if (w[0] == "gpu-hang" && w.size() == 1) {
        int n = stamp_->get() + 1;
        snapshot_->set(gpu_snapshot_bytes(n));
        stamp_->set(n);
        return 0;
    }
    if (w[0] == "gpu-hang" && w.size() == 2 && w[1] == "same") {
        // The driver notifies without a new snapshot: the timestamp stays.
        stamp_->set(stamp_->get());
        return 0;
    }
    if (w[0] == "trace" && w.size() == 2 && number(w[1], &v)) {
        trace_->set_rate(v);
        return 0;
    }
    if (w[0] == "overflow" && w.size() == 1) {
        trace_->overflow();
        return 0;
    }
    if (w[0] == "log" && w.size() >= 4) {
        // log BUFFER PRIO TAG [MESSAGE]
        int lid = -1;
        for (int i = 0; i < 5; i++)
            if (w[1] == kBuffers[i])
                lid = i;
        if (lid < 0 || !number(w[2], &v) || v > 8)
            return -EINVAL;
        std::string msg = w.size() > 4 ? w[4] : "";
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        auto dev = loggers_.find(w[1]);  // the crash buffer has no device
        if (dev != loggers_.end())
            dev->second->append(logger_entry(static_cast<int>(v), w[3], msg, getpid(), getpid(),
                                             static_cast<int32_t>(now.tv_sec),
                                             static_cast<int32_t>(now.tv_nsec)));
        if (logd_)
            logd_->send(FakeLogd::text_entry(static_cast<log_id_t>(lid), static_cast<int>(v), w[3],
                                             msg, getpid(), static_cast<uint32_t>(now.tv_sec),
                                             static_cast<uint32_t>(now.tv_nsec)));
        return 0;
    }
    return -EINVAL;
}

std::string SimPhone::status() const {
    std::ostringstream out;
    for (const auto &[subsys, dev] : ramdumps_)
        out << "ramdump_" << subsys << " pending " << dev->pending() << "\n";
    out << "kgsl timestamp " << stamp_->get() << "\n";
    out << "trace streamed " << trace_->streamed() << "\n";
    if (logd_) {
        out << "logd readers " << logd_->readers() << " queued " << logd_->queued() << "\n";
        for (const std::string &c : logd_->commands())
            out << "logd command " << c << "\n";
    }
    static const uint32_t kInstances[] = {2, 3, 6};
    for (size_t i = 0; i < qmi_.size(); i++) {
        auto reqs = qmi_[i]->requests();
        out << "qmi " << kInstances[i] << " requests " << reqs.size() << "\n";
        for (const auto &r : reqs) {
            out << "qmi " << kInstances[i] << " request";
            static const char kHex[] = "0123456789abcdef";
            out << " ";
            for (uint8_t b : r)
                out << kHex[b >> 4] << kHex[b & 15];
            out << "\n";
        }
    }
    return out.str();
}
