#include "sim/device_root.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

namespace {

constexpr char kPhoneConf[] = "/sim/phone.conf";

struct Platform {
    const char *name;
    int sdk;
};
constexpr Platform kPlatforms[] = {
    {"msm8974", 19}, {"msm8226", 19}, {"msm8916", 22}, {"msm8994", 23}, {"msm8996", 26},
};

class Tree {
  public:
    explicit Tree(std::string dir) : dir_(std::move(dir)) {}
    void file(const std::string &path, const std::string &content, mode_t mode = 0644) {
        std::string host = dir_ + path;
        std::error_code ec;
        fs::create_directories(fs::path(host).parent_path(), ec);
        std::ofstream out(host, std::ios::binary | std::ios::trunc);
        out << content;
        out.close();
        if (!out)
            fail(host);
        chmod(host.c_str(), mode);
    }
    void dir(const std::string &path) {
        std::error_code ec;
        fs::create_directories(dir_ + path, ec);
        if (ec)
            fail(dir_ + path);
    }
    void link(const std::string &path, const std::string &target) {
        std::string host = dir_ + path;
        std::error_code ec;
        fs::create_directories(fs::path(host).parent_path(), ec);
        unlink(host.c_str());
        if (symlink(target.c_str(), host.c_str()) != 0)
            fail(host);
    }
    bool ok(std::string *err) const {
        if (!error_.empty())
            *err = error_;
        return error_.empty();
    }

  private:
    void fail(const std::string &what) {
        if (error_.empty())
            error_ = what + ": " + strerror(errno);
    }
    std::string dir_;
    std::string error_;
};

// A program in /system/bin that appends its arguments to data/sim/NAME.log
// and succeeds. The path is taken from the script's own place so that the
// root can move.
std::string recorder(const std::string &name) {
    return "#!/bin/sh\n"
           "# Recording stand-in: appends its arguments to data/sim/" +
           name +
           ".log.\n"
           "root=$(cd \"$(dirname \"$0\")/../..\" && pwd)\n"
           "mkdir -p \"$root/data/sim\"\n"
           "echo \"$*\" >>\"$root/data/sim/" +
           name + ".log\"\n";
}

void coresight(Tree &t, const DeviceRootOptions &opts) {
    const std::string cs = "/sys/bus/coresight/devices/";
    t.file(cs + "coresight-stm/enable", "0\n");
    t.file(cs + "coresight-stm/hwevent_enable", "0\n");
    t.file(cs + "coresight-stm/reset", "0\n");
    t.file(cs + "coresight-hwevent/enable", "0\n");
    t.file(cs + "coresight-hwevent/setreg", "");
    t.file(cs + "coresight-tmc-etf/curr_sink", "1\n");
    t.file(cs + "coresight-tmc-etf/enable", "0\n");
    t.file(cs + "coresight-tmc-etr/curr_sink", "0\n");
    t.file(cs + "coresight-tmc-etr/out_mode", "mem\n");
    t.file(cs + "coresight-tmc-etr/byte_cntr_value", "0\n");
    t.file(cs + "coresight-tmc-etr/enable", "0\n");
    t.file(cs + "coresight-tpiu/curr_sink", "0\n");
    t.file(cs + "coresight-tpiu/out_mode", "mictor\n");
    t.file(cs + "coresight-tpiu/set", "");
    for (int i = 0; i < opts.cpus; i++) {
        std::string etm = cs + "coresight-etm" + std::to_string(i) + "/";
        t.file(etm + "enable", "0\n");
        t.file(etm + "cpu", std::to_string(i) + "\n");
        t.file(etm + "reset", "0\n");
        t.dir("/sys/devices/system/cpu/cpu" + std::to_string(i));
        t.file("/sys/devices/system/cpu/cpu" + std::to_string(i) + "/online", "1\n");
    }
    t.file("/sys/devices/system/cpu/present", "0-" + std::to_string(opts.cpus - 1) + "\n");
    for (const char *remote : {"modem", "wcn", "audio", "rpm", "venus"})
        t.file(cs + "coresight-" + std::string(remote) + "-etm0/enable", "0\n");
    std::string ctis[] = {"cti0",       "cti1",       "cti2",     "cti3",     "cti4",
                          "cti5",       "cti6",       "cti7",     "cti8",     "cti-cpu0",
                          "audio-cpu0", "modem-cpu0", "rpm-cpu0", "wcn-cpu0", "venus-cpu0"};
    for (const std::string &c : ctis)
        for (const char *attr : {"map_trigin", "map_trigout", "unmap_trigin", "unmap_trigout",
                                 "reset", "show_trigin", "show_trigout"})
            t.file(cs + "coresight-" + c + "/" + attr, "");
}

}  // namespace

bool known_platform(const std::string &platform) {
    for (const Platform &p : kPlatforms)
        if (platform == p.name)
            return true;
    return false;
}

int platform_sdk(const std::string &platform) {
    for (const Platform &p : kPlatforms)
        if (platform == p.name)
            return p.sdk;
    return 22;
}

std::string default_config(const DeviceRootOptions &opts) {
    // Below API level 20 the Android buffers are the kernel's logger devices.
    bool logger = platform_sdk(opts.platform) < 20;
    auto adb = [&](const char *name, const char *buffers, const char *dev, const char *file) {
        std::string s = std::string("  <") + name + " logname=\"" + name +
                        "\" enable=\"0\" logtype=\"2\" size=\"10485760\" log_provider=\"" +
                        (logger ? dev : buffers) + "\" log_filepath=\"" + file + "\"/>\n";
        return s;
    };
    std::string x = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<vornconf version=\"1.0\">\n";
    x += "  <global enable=\"1\" loglevel=\"0\" time=\"-1\" size=\"104857600\" "
         "log_path=\"/sdcard/logs/\"/>\n";
    x += "  <ssr logname=\"ssr\" enable=\"0\" logtype=\"32\"/>\n";
    x += "  <GPU logname=\"GPU\" enable=\"0\" logtype=\"32\" log_filepath=\"GPU/dump\"/>\n";
    x += "  <DynamicDebug logname=\"DynamicDebug\" enable=\"0\" logtype=\"0\" "
         "mask=\"/data/dynamic_debug.conf\"/>\n";
    x += "  <Bluetooth logname=\"Bluetooth\" enable=\"0\" logtype=\"0\"/>\n";
    x += adb("AdbMain", "main;system", "/dev/log/main", "Adb/main");
    x += adb("AdbRadio", "radio", "/dev/log/radio", "Adb/radio");
    x += adb("AdbEvents", "events", "/dev/log/events", "Adb/events");
    // The kernel log through dmesg, which a host has too (exec: the program
    // itself gets the SIGHUP that stops the node).
    x += "  <Dmesg logname=\"Dmesg\" enable=\"0\" logtype=\"128\" size=\"10485760\" "
         "log_provider=\"exec dmesg -w\" log_filepath=\"Dmesg/dmesg\"/>\n";
    x += "  <RPM logname=\"RPM\" enable=\"0\" logtype=\"0\" size=\"1048576\" "
         "log_provider=\"/sys/kernel/debug/rpm_log\" log_filepath=\"RPM/rpm\"/>\n";
    x += "  <QDSS logname=\"QDSS\" enable=\"0\" logtype=\"0\" size=\"104857600\" "
         "log_provider=\"/dev/byte-cntr\" log_filepath=\"QDSS/qdss\" "
         "mask=\"/data/qdss.mask\"/>\n";
    x += "  <QXDM logname=\"QXDM\" enable=\"0\" logtype=\"128\" size=\"104857600\" "
         "log_provider=\"diag_mdlog -o /sdcard/logs/QXDM\" log_filepath=\"QXDM/qxdm\"/>\n";
    x += "  <WlanTcp logname=\"WlanTcp\" enable=\"0\" logtype=\"64\" size=\"52428800\" "
         "log_provider=\"tcpdump -i wlan0 -w - %s\" log_filepath=\"Tcp/wlan\"/>\n";
    x += "  <DataTcp logname=\"DataTcp\" enable=\"0\" logtype=\"64\" size=\"52428800\" "
         "log_provider=\"tcpdump -i rmnet0 -w - %s\" log_filepath=\"Tcp/data\"/>\n";
    x += "  <DumpParser logname=\"DumpParser\" enable=\"0\" logtype=\"32\"/>\n";
    x += "  <Default logname=\"Default\" enable=\"0\" logtype=\"128\" size=\"1048576\" "
         "log_provider=\"logcat -v threadtime\" log_filepath=\"Default/default\"/>\n";
    x += "</vornconf>\n";
    return x;
}

int device_root_ramdumps(const std::string &dir) {
    std::ifstream in(dir + kPhoneConf);
    std::string key;
    int n = 0;
    if (in >> key >> n && key == "ramdumps" && n > 0)
        return n;
    return DeviceRootOptions{}.ramdumps;
}

bool create_device_root(const std::string &dir, const DeviceRootOptions &opts, std::string *err) {
    Tree t(dir);
    // What the phone is made of, read by its server at up.
    t.file(kPhoneConf, "ramdumps " + std::to_string(opts.ramdumps) + "\n");
    t.file("/etc/vorn-conf.xml", default_config(opts));
    t.file("/system/build.prop",
           "ro.build.version.sdk=" + std::to_string(platform_sdk(opts.platform)) +
               "\nro.board.platform=" + opts.platform + "\nro.product.board=" + opts.platform +
               "\ninit.svc.mpdecision=running\n");
    t.link("/system/bin/sh", "/bin/sh");
    for (const char *prog : {"am", "mount", "stop", "start"})
        t.file(std::string("/system/bin/") + prog, recorder(prog), 0755);
    t.file("/system/etc/event-log-tags",
           "42 answer (to life the universe etc|3)\n"
           "2718 e\n"
           "30001 am_finish_activity (User|1|5),(Token|1|5),(Component Name|3),(Reason|3)\n");
    t.file("/etc/bluetooth/bt_stack.conf",
           "# Bluetooth stack configuration\nBtSnoopLogOutput=false\n"
           "BtSnoopFileName=/sdcard/btsnoop_hci.log\nTraceConf=true\n");
    t.file("/data/qdss.mask",
           "# QDSS trace: STM, the first CPU's ETM and the modem's diag trace into DDR\n"
           "sink set ddr\n"
           "stm enable\n"
           "etm apps enable etm_name etm0\n"
           "swt modem enable diag\n");
    t.file("/data/dynamic_debug.conf", "# dynamic debug queries\nmodule msm_bus +p\n");
    for (const char *d : {"/data/sim", "/dev/socket", "/dev/qrtr", "/dev/mdm", "/sdcard/logs",
                          "/tombstones/mdm", "/sim/dev"})
        t.dir(d);
    // /dev/mdm stands for the external modem's device: present, so the
    // collector watches diag_bridge uevents.
    // The exec worker looks for its command's children in /proc: the host's,
    // where the providers run. A root made before holds a folder there.
    std::error_code ec;
    if (fs::is_directory(fs::symlink_status(dir + "/proc", ec)))
        fs::remove_all(dir + "/proc", ec);
    t.link("/proc", "/proc");
    coresight(t, opts);
    t.file("/sys/module/subsystem_restart/parameters/enable_ramdumps", "0\n");
    for (int i = 0; i < 4; i++)
        t.file("/sys/bus/msm_subsys/devices/subsys" + std::to_string(i) + "/restart_level",
               "SYSTEM\n");
    t.file("/sys/kernel/debug/tracing/tracing_on", "0\n");
    for (const char *ev : {"sched/sched_switch", "irq/irq_handler_entry", "power/cpu_idle"})
        t.file(std::string("/sys/kernel/debug/tracing/events/") + ev + "/enable", "0\n");
    t.file("/sys/kernel/debug/dynamic_debug/control", "");
    t.file("/sys/kernel/debug/rpm_log", "");
    t.dir("/sys/class/kgsl/kgsl-3d0/snapshot");
    return t.ok(err);
}
