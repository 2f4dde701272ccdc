// The sink and cti families.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "agent/dagt_cmds.h"
#include "tests/agent/agent_fixture.h"

namespace {

#define CS "/sys/bus/coresight/devices/"
const char *const kEtf = CS "coresight-tmc-etf/curr_sink";
const char *const kEtr = CS "coresight-tmc-etr/curr_sink";
const char *const kEtrMode = CS "coresight-tmc-etr/out_mode";
const char *const kBytes = CS "coresight-tmc-etr/byte_cntr_value";
const char *const kTpiu = CS "coresight-tpiu/curr_sink";
const char *const kTpiuMode = CS "coresight-tpiu/out_mode";
const char *const kTpiuSet = CS "coresight-tpiu/set";
const char *const kStm = CS "coresight-stm/enable";
const char *const kProp = "/system/build.prop";

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

}  // namespace
