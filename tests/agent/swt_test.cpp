// The swt family: ftrace, events and groups, and remote trace entities.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "qdss/qmi_client.h"
#include "tests/agent/agent_fixture.h"
#include "tests/support/fake_qmi_service.h"

namespace {

const char *const kOn = "/sys/kernel/debug/tracing/tracing_on";
const char *const kSched = "/sys/kernel/debug/tracing/events/sched/enable";
const char *const kSwitch = "/sys/kernel/debug/tracing/events/sched/sched_switch/enable";

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
        {"swt apps get ftrace event nosuch", {}, 6, nullptr, {}},
        {"swt apps get ftrace event " + long_event, {}, 6, nullptr, {}},
        {"swt apps enable ftrace foo sched", {{kSched, "0"}}, 9, nullptr, {{kSched, "0"}}},
        {"swt apps get ftrace foo sched", {}, 9, nullptr, {}},
        {"swt apps enable", {}, 2, "Debug Agent input param error", {}},
        {"swt apps enable ftrace event", {}, 2, nullptr, {}},
        {"swt apps enable ftrace event sched x", {}, 2, nullptr, {}},
        {"swt apps enable trace", {}, 2, nullptr, {}},
        {"swt apps get", {}, 2, nullptr, {}},
        {"swt modem disable tds", {}, 2, nullptr, {}},
        {"swt apps", {}, 2, nullptr, {}},
        {"swt apps stop ftrace", {}, 9, nullptr, {}},
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

    FakeQmiService modem(root, 2), wcn(root, 3), venus(root, 6);
    const struct {
        const char *line;
        FakeQmiService *service;
        uint8_t entity;
    } cases[] = {
        {"swt modem enable tds", &modem, 1},   {"swt modem enable diag", &modem, 13},
        {"swt MODEM enable ULOG", &modem, 11}, {"swt wcn enable tds", &wcn, 1},
        {"swt wcn enable diag", &wcn, 13},     {"swt wcn enable ulog", &wcn, 11},
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
