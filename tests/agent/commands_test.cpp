// The command families of the Debug Agent against a temporary root: info,
// stm and hwe; sink and cti; etm (CPU counts, apps ETMs with hot-plug
// handling, remote ETMs) and swt (ftrace, events and groups, remote trace
// entities).
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "agent/dagt_cmds.h"
#include "agent/dagt_state.h"
#include "qmi/qmi_client.h"
#include "sim/fake_qmi_service.h"
#include "tests/agent/agent_fixture.h"

namespace {

#define CS "/sys/bus/coresight/devices/"
const char *const kProp = "/system/build.prop";
const char *const kStm = DAGT_STM_ENABLE;
const char *const kStmHwe = DAGT_STM_HWEVENT_ENABLE;
const char *const kHwe = DAGT_HWEVENT_ENABLE;
const char *const kSetreg = DAGT_HWEVENT_SETREG;

TEST(InfoTest, Answers) {
    agent_run_cases({
        {"info get version", {}, 0, "1.0.0", {}},
        {"INFO GET HLOS", {}, 0, "Linux", {}},
        {"info get sinks", {}, 0, "etb,ddr,tpiu,sd,usb", {}},
        {"info get chipid", {}, 0, "", {}},  // property unset
        {"info get chipid", {{kProp, "ro.product.board=msm8974\n"}}, 0, "msm8974", {}},
        {"info get chipid",
         {{kProp, "ro.product.board=abcdefghijklmnopq\n"}},
         0,
         "abcdefghijklmno",
         {}},
        {"info get version extra", {}, 4, "Param number is not right", {}},
        {"info get foo", {}, 9, "Unknown command", {}},
        {"info", {}, 2, "Debug Agent input param error", {}},
        {"info get", {}, 0, nullptr, {}},             // nothing to dispatch
        {"info check chipid", {}, 0, nullptr, {}},    // the word looked at is missing
        {"info check x chipid", {}, 0, nullptr, {}},  // reaches the (empty) check
    });
}

TEST(StmTest, GetAndSet) {
    agent_run_cases({
        {"stm get state", {{kStm, "0x1"}}, 0, "enable", {}},
        {"stm get state", {{kStm, "1\n"}}, 0, "enable", {}},
        {"stm get state", {{kStm, "0\n"}}, 0, "disable", {}},
        {"stm get state", {{kStm, std::string(4096, '1')}}, 0, "enable", {}},
        {"stm get state", {{kStm, "2"}}, 14, "Unknown state", {}},
        {"stm get state", {{kStm, ""}}, 14, "Unknown state", {}},
        {"stm get state", {}, 6, "Open device failed", {}},
        {"stm get", {{kStm, "1"}}, 4, nullptr, {}},
        {"stm get state now", {{kStm, "1"}}, 4, nullptr, {}},
        {"stm enable", {{kStm, "0"}}, 0, nullptr, {{kStm, "1\n"}}},
        {"Stm Disable", {{kStm, "1"}}, 0, nullptr, {{kStm, "0\n"}}},
        {"stm enable", {}, 0, nullptr, {{kStm, AGENT_NONE}}},  // no STM on this board
        {"stm enable now", {{kStm, "0"}}, 4, nullptr, {{kStm, "0"}}},
        {"stm enable", {{kStm, AGENT_DIR}}, 8, nullptr, {}},
        {"stm", {}, 2, nullptr, {}},
        {"stm foo", {}, 9, nullptr, {}},
    });
}

TEST(HweTest, GetAndSwitch) {
    const FileList off = {{kStmHwe, "0"}, {kHwe, "0"}};
    agent_run_cases({
        {"hwe get state", {{kStmHwe, "0"}, {kHwe, "1"}}, 0, "enable", {}},
        {"hwe get state", {{kStmHwe, "0x1"}, {kHwe, "0x0"}}, 0, "enable", {}},
        {"hwe get state", {{kStmHwe, "0"}, {kHwe, "0\n"}}, 0, "disable", {}},
        // Either bad read falls through to the setreg table, which does not
        // know "state".
        {"hwe get state", {{kHwe, "1"}}, 9, nullptr, {}},
        {"hwe enable", off, 0, nullptr, {{kStmHwe, "0x1\n"}, {kHwe, "0x1\n"}}},
        {"hwe disable", off, 0, nullptr, {{kStmHwe, "0x0\n"}, {kHwe, "0x0\n"}}},
        // The first echo fails: the second is not run.
        {"hwe enable", {{kStmHwe, AGENT_DIR}, {kHwe, "0"}}, 8, nullptr, {{kHwe, "0"}}},
        {"hwe enable x", off, 9, nullptr, {{kStmHwe, "0"}}},
        {"hwe", {}, 2, nullptr, {}},
    });
}

TEST(HweTest, RegisterWrites) {
    agent_run_cases({
        {"hwe apps setreg addr 0x10 value 5", {{kSetreg, ""}}, 0, nullptr, {{kSetreg, "0x10 5\n"}}},
        {"hwe apps setreg addr 1 anything 2", {{kSetreg, ""}}, 0, nullptr, {{kSetreg, "1 2\n"}}},
        // Typed words reach the file as text; the shell never runs them.
        {"hwe apps setreg addr $(echo;touch;x) value a'b&c",
         {{kSetreg, ""}},
         0,
         nullptr,
         {{kSetreg, "$(echo;touch;x) a'b&c\n"}}},
        {"hwe apps setreg ADDR 1 value 2", {{kSetreg, ""}}, 2, nullptr, {{kSetreg, ""}}},
        {"hwe apps setreg addr 1 value", {{kSetreg, ""}}, 4, nullptr, {}},
        {"hwe apps setreg addr 1 value 2 3", {{kSetreg, ""}}, 4, nullptr, {}},
        {"hwe apps setreg addr 1 value 2", {{kSetreg, AGENT_DIR}}, 8, nullptr, {}},
        {"hwe wcn setreg addr 1 value 2", {}, 9, "Unknown command", {}},
        {"hwe foo setreg addr 1 value 2", {}, 13, "Unknown subsystem", {}},
        {"hwe modem setreg addr 1 VALUE 2", {}, 2, nullptr, {}},
        // No modem service: still a success.
        {"hwe modem setreg addr 0x10 value 5", {}, 0, nullptr, {}},
    });
    qmi_qdss_client_release();
}

TEST(HweTest, ModemRegisterWriteGoesOverQmi) {
    TempRoot root;
    LogCapture log;
    FakeQmiService modem(root.path(), 2);
    dagt_result r;
    EXPECT_EQ(agent_run("hwe modem setreg addr 0x10 value 5", &r), 0u);
    EXPECT_EQ(agent_run("hwe modem setreg addr 010 value 0xffffffff", &r), 0u);
    EXPECT_TRUE(log.has("dagt_hwe_mdm_set_reg: 0x8->0xffffffff \n"));
    // A refusal is logged and still reported as a success.
    modem.set_reply(FakeQmiService::Reply::kFailure, 3);
    EXPECT_EQ(agent_run("hwe modem setreg addr 1 value 1", &r), 0u);
    EXPECT_EQ(r.text_len, 0);
    EXPECT_TRUE(log.has("qmi_set_hw_reg: Failed: rc = 0, entity_resp error = 3.\n"));

    auto req = modem.requests();
    ASSERT_EQ(req.size(), 3u);
    EXPECT_EQ(modem.connections(), 1);
    EXPECT_EQ(req[0], (std::vector<uint8_t>{0x00, 0x01, 0x00, 0x2a, 0x00, 0x0e, 0x00,
                                            0x01, 0x04, 0x00, 0x10, 0x00, 0x00, 0x00,
                                            0x02, 0x04, 0x00, 0x05, 0x00, 0x00, 0x00}));
    qmi_qdss_client_release();
}

const char *const kEtf = CS "coresight-tmc-etf/curr_sink";
const char *const kEtr = CS "coresight-tmc-etr/curr_sink";
const char *const kEtrMode = CS "coresight-tmc-etr/out_mode";
const char *const kBytes = CS "coresight-tmc-etr/byte_cntr_value";
const char *const kTpiu = CS "coresight-tpiu/curr_sink";
const char *const kTpiuMode = CS "coresight-tpiu/out_mode";
const char *const kTpiuSet = CS "coresight-tpiu/set";

// Every sink file present and an STM that is on.
void all_sinks(const TempRoot &root) {
    for (const char *f : {kEtf, kEtr, kEtrMode, kBytes, kTpiu, kTpiuMode, kTpiuSet})
        root.write(f, "");
    root.write(kStm, "1");
}

TEST(SinkTest, SelectLeavesTheStmOff) {
    agent_run_cases(
        {
            {"sink set etb", {}, 0, nullptr, {{kEtf, "1\n"}, {kStm, "0\n"}}},
            {"sink set DDR", {}, 0, nullptr, {{kEtr, "1\n"}, {kEtrMode, ""}, {kStm, "0\n"}}},
            {"sink set usb",
             {{kProp, ""}},
             0,
             nullptr,
             {{kEtr, "1\n"}, {kStm, "0\n"}, {kProp, "sys.usb.config=diag,qdss,adb\n"}}},
            {"sink set sd", {}, 0, nullptr, {{kTpiu, "1\n"}, {kTpiuMode, ""}}},
            {"sink set tpiuB",
             {},
             0,
             nullptr,
             {{kTpiu, "1\n"}, {kTpiuMode, "mictor\n"}, {kTpiuSet, "b\n"}, {kStm, "0\n"}}},
            {"sink set TPIUa", {}, 0, nullptr, {{kTpiuMode, "mictor\n"}, {kTpiuSet, "a\n"}}},
            {"sink set tpiuX", {}, 0, nullptr, {{kTpiuSet, "b\n"}}},
            // A curr_sink that cannot be written falls back to the out mode.
            {"sink set ddr", {{kEtr, AGENT_DIR}}, 0, nullptr, {{kEtrMode, "mem\n"}}},
            {"sink set usb", {{kEtr, AGENT_DIR}}, 0, nullptr, {{kEtrMode, "usb\n"}}},
            {"sink set sd", {{kTpiu, AGENT_DIR}}, 0, nullptr, {{kTpiuMode, "sdc\n"}}},
            {"sink set etb", {{kEtf, AGENT_DIR}}, 0, nullptr, {{kStm, "0\n"}}},
            {"sink set ddr", {{kEtr, AGENT_DIR}, {kEtrMode, AGENT_DIR}}, 8, nullptr, {{kStm, "1"}}},
            {"sink set tpiua", {{kTpiu, AGENT_DIR}}, 8, nullptr, {{kTpiuMode, ""}}},
            {"sink set tpiua", {{kTpiuMode, AGENT_DIR}}, 8, nullptr, {{kTpiuSet, ""}}},
            {"sink set ddr", {{kStm, AGENT_DIR}}, 8, nullptr, {{kEtr, "1\n"}}},
            {"sink set nfc", {}, 12, "Unknown sink out mode (must be ddr or usb", {{kStm, "1"}}},
            {"sink set", {}, 4, nullptr, {}},
            {"sink", {}, 2, nullptr, {}},
            {"sink put etb", {}, 9, nullptr, {}},
        },
        all_sinks);
}

TEST(SinkTest, AttributesAndByteCount) {
    agent_run_cases(
        {
            {"sink set ddr byte_count 4096", {}, 0, nullptr, {{kBytes, "4096\n"}, {kStm, "1"}}},
            // Typed text reaches the file as it is and is never run.
            {"sink set ddr byte_count `id`;$(id)|&>x'",
             {},
             0,
             nullptr,
             {{kBytes, "`id`;$(id)|&>x'\n"}}},
            {"sink set ddr byte_count", {}, 4, nullptr, {}},
            {"sink set ddr byte_count 1 2", {}, 4, nullptr, {}},
            {"sink set ddr location x", {}, 0, nullptr, {{kEtr, ""}, {kStm, "1"}}},
            {"sink set ddr buffering", {}, 0, nullptr, {}},
            {"sink set usb hsic_timer 5", {}, 0, nullptr, {}},
            {"sink set usb byte_count 5", {}, 9, nullptr, {{kBytes, ""}}},
        },
        all_sinks);
}

TEST(SinkTest, Get) {
    auto sinks = [](std::vector<const char *> content) {
        const char *files[] = {kEtf, kEtr, kEtrMode, kTpiu, kTpiuMode, kTpiuSet};
        FileList list;
        for (size_t i = 0; i < content.size(); i++)
            list.push_back({files[i], content[i]});
        return list;
    };
    agent_run_cases({
        {"sink get", sinks({"1", "1", "mem", "1", "sdc", "a"}), 0, nullptr, {}},
        {"sink get", sinks({"0", "1\n", "MEM\n", "0", "", ""}), 0, "ddr", {}},
        {"sink get", sinks({"0", "1", "usb", "0", "", ""}), 0, "usb", {}},
        {"sink get", sinks({"0", "1", "pcie", "0", "", ""}), 12, nullptr, {}},
        {"sink get", sinks({"0", "0", "", "1", "sdc", ""}), 0, "sd", {}},
        {"sink get", sinks({"0", "0", "", "1", "mictor", "a"}), 0, "tpiuA", {}},
        {"sink get", sinks({"0", "0", "", "1", "mictor", "b"}), 0, "tpiuB", {}},
        {"sink get", sinks({"0", "0", "", "1", "usb", ""}), 12, nullptr, {}},
        {"sink get", sinks({"0", "0", "", "0", "", ""}), 0, "none", {}},
        {"sink get", {{kEtf, "0"}}, 6, "Open device failed", {}},
        {"sink get now", sinks({"1"}), 4, nullptr, {}},
    });
    // The ETF answer is cut to "et" but keeps the length of "etb".
    TempRoot root;
    root.write(kEtf, "1");
    dagt_result r;
    EXPECT_EQ(agent_run("sink get", &r), 0u);
    EXPECT_STREQ(r.text, "et");
    EXPECT_EQ(r.text_len, 3);
}

// Each map or unmap writes "<trigger> <channel>" into the block's file.
TEST(CtiTest, MapAndUnmap) {
    const struct {
        const char *line;
        const char *file;
        const char *written;
    } cases[] = {
        {"cti map block cti3 type input trigger 0x2 channel 1", "cti3/map_trigin", "2 1\n"},
        {"cti unmap block cpu1 type output trigger 4 channel 0", "cti-cpu1/unmap_trigout", "4 0\n"},
        {"CTI MAP BLOCK VEDIO1 TYPE OUTPUT TRIGGER 10 CHANNEL 0XF", "vedio-cpu0/map_trigout",
         "10 15\n"},
        {"cti unmap block cpuL2 type input trigger 1 channel 1", "l2/unmap_trigin", "1 1\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.line);
        TempRoot root;
        LogCapture log;
        std::string file = std::string(CS "coresight-") + c.file;
        root.write(file, "");
        dagt_result r = {};
        EXPECT_EQ(agent_run(c.line, &r), 0u);
        EXPECT_EQ(root.read(file), c.written);
        if (c.file == cases[0].file) {
            EXPECT_TRUE(
                log.has("__dagt_cti_do_mapunmap: cmd = echo 2  1 > " + root.at(file) + "\n"));
        }
    }
    dagt_result r = {};
    EXPECT_EQ(__dagt_cti_do_mapunmap(&r, "cti0", 2, 0, 1, 1), -1);
    EXPECT_EQ(__dagt_cti_do_mapunmap(&r, "cti0", 0, 2, 1, 1), -1);
    EXPECT_EQ(r.code, 0);
}

TEST(CtiTest, BadMapsAndGet) {
    const std::string long_name(100, 'c');
    const char *const show0 = CS "coresight-cti0/show_trigout";
    const char *const show15 = CS "coresight-cti15/show_trigin";
    agent_run_cases({
        {"cti map block cti3 type input trigger 1 channel 1", {}, 8, nullptr, {}},
        {"cti map block sensor type input trigger 1 channel 1", {}, 16, "Unknown cti name", {}},
        {"cti map block video1 type input trigger 1 channel 1", {}, 16, nullptr, {}},
        {"cti map block " + long_name + " type input trigger 1 channel 1", {}, 16, nullptr, {}},
        {"cti map block cti0 type in trigger 1 channel 1", {}, 17, "Unknown cti type", {}},
        {"cti map block cti0 type input trigger 0xZZ channel 1", {}, 2, nullptr, {}},
        {"cti map block cti0 type input trigger 1 channel 0x", {}, 2, nullptr, {}},
        {"cti map block cti0 type input trigger -1 channel 1", {}, 2, nullptr, {}},
        {"cti map block cti0 type input trigger 1 channel", {}, 2, nullptr, {}},
        {"cti map block cti0 type input trigger 1 channel 1 2", {}, 2, nullptr, {}},
        {"cti get block cti0 type output", {{show0, "1 2\n3\n"}}, 0, "1 2\n3\n", {}},
        {"cti get block cti15 type input", {{show15, ""}}, 0, "", {}},
        {"cti get block cti0 type output", {}, 6, nullptr, {}},
        {"cti get block cti16 type output", {}, 16, nullptr, {}},
        {"cti get block cti0 type", {}, 2, nullptr, {}},
    });
    // The shown text is read up to 128 bytes.
    TempRoot root;
    root.write(CS "coresight-cti0/show_trigin", std::string(4096, 'x'));
    dagt_result r;
    EXPECT_EQ(agent_run("cti get block cti0 type input", &r), 0u);
    EXPECT_EQ(std::string(r.text), std::string(128, 'x'));
}

TEST(CtiTest, Reset) {
    const std::string cti0 = CS "coresight-cti0/reset", cpu1 = CS "coresight-cti-cpu1/reset",
                      etm = CS "coresight-etm0/reset";
    auto blocks = [&](const TempRoot &root) {
        for (const std::string &f : {cti0, cpu1, etm})
            root.write(f, "0");
    };
    agent_run_cases(
        {{"cti reset block all", {}, 0, nullptr, {{cti0, "1\n"}, {cpu1, "1\n"}, {etm, "0"}}},
         {"cti reset x CPU1", {}, 0, nullptr, {{cti0, "0"}, {cpu1, "1\n"}}},
         {"cti reset block cti7", {}, 0, nullptr, {{cti0, "0"}}},  // no such block
         {"cti reset block sensor", {}, 16, nullptr, {}},
         {"cti reset block", {}, 2, nullptr, {}}},
        blocks);
    agent_run_cases({{"cti reset block all", {}, 16, nullptr, {}}});  // no device directory
}

std::string etm(int n, const char *file = "enable") {
    return "/sys/bus/coresight/devices/coresight-etm" + std::to_string(n) + "/" + file;
}
std::string online(int n) {
    return "/sys/devices/system/cpu/cpu" + std::to_string(n) + "/online";
}
const char *const kModem = "/sys/bus/coresight/devices/coresight-modem-etm0/enable";
const char *const kOn = "/sys/kernel/debug/tracing/tracing_on";
const char *const kSched = "/sys/kernel/debug/tracing/events/sched/enable";
const char *const kSwitch = "/sys/kernel/debug/tracing/events/sched/sched_switch/enable";

void msm8974(const TempRoot &root) {
    root.write(kProp, "ro.board.platform=msm8974\n");
}

TEST(EtmTest, CpuCount) {
    const struct {
        const char *platform;
        const char *present;  // null: no file
        int cpu_dirs;
        int32_t count;
    } cases[] = {
        {"", "0-3", 4, 0},          {"msm9999", "0-3", 4, 0},   {"msm8226", nullptr, 0, 4},
        {"MSM8974", nullptr, 0, 4}, {"msm8610", "0-3\n", 0, 4}, {"msm8916", "0-7", 0, 8},
        {"msm8916", "0-0x3", 0, 4}, {"msm8916", "0", 3, 3},     {"msm8916", "0-x", 1, 1},
        {"msm8916", "0,2", 20, 17}, {"msm8916", "0", 0, -1},    {"msm8916", nullptr, 4, -1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.platform) + " " + (c.present ? c.present : "-"));
        TempRoot root;
        root.write(kProp, std::string("ro.board.platform=") + c.platform + "\n");
        if (c.present)
            root.write("/sys/devices/system/cpu/present", c.present);
        for (int i = 0; i < c.cpu_dirs; i++)
            root.mkdir("/sys/devices/system/cpu/cpu" + std::to_string(i));
        EXPECT_EQ(dagt_get_cpu_count(), c.count);
    }
}

TEST(EtmTest, AppsEtms) {
    const std::string long_name = "etm1" + std::string(100, '1');
    agent_run_cases(
        {
            {"etm apps enable etm_name etm3",
             {{etm(3), "0"}, {etm(3, "cpu"), "3"}, {online(3), "0"}},
             0,
             nullptr,
             {{etm(3), "1\n"}, {online(3), "1\n"}}},
            {"ETM APPS DISABLE ETM_NAME ETM1",
             {{etm(1), "1"}, {etm(1, "cpu"), "1"}, {online(1), "1"}},
             0,
             nullptr,
             {{etm(1), "0\n"}, {online(1), "1"}}},
            {"etm apps enable etm_name etmx",
             {{etm(0), "0"}, {etm(0, "cpu"), "0"}, {online(0), "1"}},
             0,
             nullptr,
             {{etm(0), "1\n"}}},
            // No cpu file: every CPU but the last is brought online. An absent
            // ETM is a success.
            {"etm apps enable etm_name etm2",
             {{online(0), "0"}, {online(1), "0"}, {online(2), "0"}, {online(3), "0"}},
             0,
             nullptr,
             {{etm(2), AGENT_NONE}, {online(1), "1\n"}, {online(2), "1\n"}, {online(3), "0"}}},
            // The ETM's CPU cannot be read: the ETM is not touched.
            {"etm apps enable etm_name etm1",
             {{etm(1), "0"}, {etm(1, "cpu"), "1"}},
             6,
             nullptr,
             {}},
            {"etm apps enable etm_name etm4", {}, 15, "Operation not permitted", {}},
            {"etm apps enable etm_name cpu0", {}, 2, nullptr, {}},
            {"etm apps enable etm_name", {}, 2, nullptr, {}},
            {"etm apps enable etm_name etm0 x", {}, 2, nullptr, {}},
            {"etm apps get state etm_name etm1",
             {{etm(1), "0x1"}, {online(1), "0"}},
             0,
             "enable",
             {{online(1), "0"}}},
            {"etm apps get state etm_name etm4", {}, 15, nullptr, {}},
            {"etm apps get state etm_name " + long_name, {}, 15, nullptr, {}},
            {"etm enable", {}, 2, nullptr, {}},
        },
        msm8974);
    // A board without ETMs.
    agent_run_cases(
        {{"etm apps enable etm_name etm0", {{etm(0), "0"}}, 15, nullptr, {{etm(0), "0"}}}});
}

// Recording "stop" and "start" first on PATH: each call appends
// "<name> <args>" to /services.log; "stop" fails while /stop.fails exists.
TEST(EtmTest, HotPlugServiceIsAlwaysGivenBack) {
    const std::string old_path = getenv("PATH");
    const std::string idle = "ro.board.platform=msm8974\n";
    auto services = [&](const TempRoot &root) {
        for (std::string name : {"stop", "start"}) {
            root.write("/bin/" + name, "#!/bin/sh\necho \"" + name + " $*\" >> " +
                                           root.at("/services.log") + "\n! [ -e " +
                                           root.at("/" + name + ".fails") + " ]\n");
            chmod(root.at("/bin/" + name).c_str(), 0755);
        }
        setenv("PATH", (root.at("/bin") + ":" + old_path).c_str(), 1);
        agent_setup(root, {{kProp, idle + "init.svc.mpdecision=running\n"},
                           {etm(0), "0"},
                           {etm(0, "cpu"), "0"},
                           {online(0), "1"}});
    };
    const std::string line = "etm apps enable etm_name etm0", calls = "/services.log";
    const std::string both = "stop mpdecision\nstart mpdecision\n";
    agent_run_cases({{line, {}, 0, nullptr, {{calls, both}, {etm(0), "1\n"}}},
                     {line, {{etm(0), AGENT_DIR}}, 0, nullptr, {{calls, both}}},
                     {line, {{"/stop.fails", ""}}, 8, nullptr, {{calls, "stop mpdecision\n"}}},
                     {line, {{kProp, idle}}, 0, nullptr, {{calls, AGENT_NONE}, {etm(0), "1\n"}}}},
                    services);
    setenv("PATH", old_path.c_str(), 1);
}

TEST(EtmTest, RemoteEtms) {
    agent_run_cases({
        {"etm modem enable", {{kModem, "0"}}, 0, nullptr, {{kModem, "1\n"}}},
        {"etm modem disable", {{kModem, "1"}}, 0, nullptr, {{kModem, "0\n"}}},
        {"etm wcn enable", {}, 6, "Open device failed", {}},
        {"etm foo enable", {}, 2, "Debug Agent input param error", {}},
        {"etm modem enable now", {{kModem, "0"}}, 2, nullptr, {{kModem, "0"}}},
    });
}

TEST(SwtTest, Ftrace) {
    const std::string long_event(100, 'e');
    agent_run_cases({
        {"swt apps enable ftrace", {{kOn, "0"}}, 0, nullptr, {{kOn, "1\n"}}},
        {"SWT APPS DISABLE FTRACE", {{kOn, "1"}}, 0, nullptr, {{kOn, "0\n"}}},
        {"swt apps enable ftrace event sched", {{kSched, "0"}}, 0, nullptr, {{kSched, "1\n"}}},
        {"swt apps disable ftrace group sched/sched_switch",
         {{kSwitch, "1"}},
         0,
         nullptr,
         {{kSwitch, "0\n"}}},
        {"swt apps enable ftrace event nosuch", {}, 0, nullptr, {}},  // absent: success
        {"swt apps enable ftrace event " + long_event, {}, 0, nullptr, {}},
        {"swt apps get state", {{kOn, "1\n"}}, 0, "enable", {}},
        {"swt apps get ftrace", {{kOn, "1\n"}}, 0, "enable", {}},
        {"swt apps get ftrace", {{kOn, "7"}}, 14, nullptr, {}},
        {"swt apps get ftrace group sched", {{kSched, "0"}}, 0, "disable", {}},
        {"swt apps get ftrace event sched/sched_switch", {{kSwitch, "1"}}, 0, "enable", {}},
        {"swt apps get ftrace event " + long_event, {}, 6, nullptr, {}},
        {"swt apps enable ftrace foo sched", {{kSched, "0"}}, 9, nullptr, {{kSched, "0"}}},
        {"swt apps enable", {}, 2, "Debug Agent input param error", {}},
        {"swt apps enable ftrace event", {}, 2, nullptr, {}},
        {"swt apps enable ftrace event sched x", {}, 2, nullptr, {}},
        {"swt modem disable tds", {}, 2, nullptr, {}},
    });
}

TEST(SwtTest, RemoteEntitiesGoOverQmi) {
    TempRoot root;
    LogCapture log;
    dagt_result r;
    // No service: the record keeps its earlier code.
    EXPECT_EQ(agent_run("swt modem enable tds", &r), 0u);
    EXPECT_EQ(r.text_len, 0);
    EXPECT_TRUE(log.has_containing("qmi_client_init failed"));

    FakeQmiService modem(root.path(), 2), wcn(root.path(), 3), venus(root.path(), 6);
    const struct {
        const char *line;
        FakeQmiService *service;
        uint8_t entity;
    } cases[] = {
        {"swt modem enable tds", &modem, 1},   {"swt modem enable diag", &modem, 13},
        {"swt MODEM enable ULOG", &modem, 11}, {"swt wcn enable tds", &wcn, 1},
        {"swt venus enable tds", &venus, 1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.line);
        EXPECT_EQ(agent_run(c.line, &r), 0u);
        EXPECT_STREQ(r.text, "Debug Agent run cmd success");
        std::vector<uint8_t> req = c.service->requests().back();
        // Entity and state of a set-entity-state request.
        EXPECT_EQ(req, (std::vector<uint8_t>{0, req[1], 0, 0x23, 0, 0x0e, 0, 1, 4, 0, c.entity,
                                             0, 0,      0, 2,    4, 0,    1, 0, 0, 0}));
    }
    EXPECT_EQ(modem.connections(), 1);
    EXPECT_EQ(agent_run("swt venus enable diag", &r), 2u);
    EXPECT_EQ(agent_run("swt wcn disable tds", &r), 2u);

    // A refusal is logged; the record keeps its earlier code.
    modem.set_reply(FakeQmiService::Reply::kFailure, 4);
    EXPECT_EQ(agent_run("swt modem enable tds", &r), 0u);
    EXPECT_TRUE(log.has("qmi_set_entity_state: Failed: rc = 0, entity_resp error = 4.\n"));
    qmi_qdss_client_release();
}

}  // namespace
