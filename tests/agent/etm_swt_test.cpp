// The trace families: etm (CPU counts, apps ETMs with hot-plug handling,
// remote ETMs) and swt (ftrace, events and groups, remote trace entities).
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "agent/dagt_cmds.h"
#include "qmi/qmi_client.h"
#include "sim/fake_qmi_service.h"
#include "tests/agent/agent_fixture.h"

namespace {

std::string etm(int n, const char *file = "enable") {
    return "/sys/bus/coresight/devices/coresight-etm" + std::to_string(n) + "/" + file;
}
std::string online(int n) {
    return "/sys/devices/system/cpu/cpu" + std::to_string(n) + "/online";
}
const char *const kProp = "/system/build.prop";
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
