// The info, stm and hwe families against a temporary root.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "agent/dagt_state.h"
#include "qmi/qmi_client.h"
#include "sim/fake_qmi_service.h"
#include "tests/agent/agent_fixture.h"

namespace {

const std::string kStm = DAGT_STM_ENABLE;
const std::string kStmHwe = DAGT_STM_HWEVENT_ENABLE;
const std::string kHwe = DAGT_HWEVENT_ENABLE;
const std::string kSetreg = DAGT_HWEVENT_SETREG;

TEST(InfoTest, Answers) {
    const char *const prop = "/system/build.prop";
    agent_run_cases({
        {"info get version", {}, 0, "1.0.0", {}},
        {"INFO GET HLOS", {}, 0, "Linux", {}},
        {"info get sinks", {}, 0, "etb,ddr,tpiu,sd,usb", {}},
        {"info get chipid", {}, 0, "", {}},  // property unset
        {"info get chipid", {{prop, "ro.product.board=msm8974\n"}}, 0, "msm8974", {}},
        {"info get chipid",
         {{prop, "ro.product.board=abcdefghijklmnopq\n"}},
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

}  // namespace
