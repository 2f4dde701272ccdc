// The request handler on bytes a client may send but the end-to-end tests
// cannot easily see inside: full-length texts without terminators.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "core/cmd_list.h"
#include "core/config.h"
#include "core/daemon/control_request.h"
#include "core/daemon/startup.h"
#include "core/gbl_config.h"
#include "tests/core/daemon_state.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_root.h"

namespace {

class ControlRequestTest : public ::testing::Test {
  protected:
    void SetUp() override {
        reset_daemon_state();
        cmd_list_init();
        root.mkdir("/data");
        root.write(VORN_SYSTEM_CONF,
                   make_conf("1", "log_path=\"/sdcard/logs/\"", pipe_node("Alpha", "mask=\"a0\"")));
        int n = vorn_config_choose();
        ASSERT_GT(n, 0);
        ASSERT_EQ(vornd_load_nodes(n, false), 0);
    }
    void TearDown() override {
        while (vorn_pending_cmd *c = cmd_list_take_locked())
            free(c);
        reset_daemon_state();
    }

    TempRoot root;
    LogCapture log;
};

TEST_F(ControlRequestTest, TextsFillingTheirFieldsAreCutAtTheFieldOrMessageEnd) {
    vorn_ctrl_msg m;
    // Type 1 with no terminator anywhere: the name is its 16 bytes.
    memset(&m, 'N', sizeof m);
    m.msg_type = VORN_MSG_QUERY_NODE;
    EXPECT_EQ(vornd_handle_request(&m, 256), VORN_REPLY_NONE);
    EXPECT_TRUE(log.has("Can't find valid index for logname (NNNNNNNNNNNNNNNN)"));

    // Type 2 the same: the field dump shows the 16 and 100 bytes, and the
    // whole message is queued.
    memset(&m, 'M', sizeof m);
    m.msg_type = VORN_MSG_SET_NODE;
    EXPECT_EQ(vornd_handle_request(&m, 256), VORN_REPLY_ACK);
    EXPECT_TRUE(log.has("logname is " + std::string(16, 'M') + "\n"));
    EXPECT_TRUE(log.has("mask is " + std::string(100, 'M') + "\n"));
    EXPECT_EQ(m.msg_type, VORN_MSG_REPLY);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(&m) + 1, 255), std::string(255, '\0'));
    ASSERT_NE(cmd_list_head, nullptr);
    EXPECT_EQ(cmd_list_head->msg.reserved[127], 'M');

    // Type 7: bytes 1-255 all text reach the agent whole and terminated.
    memset(&m, 'a', sizeof m);
    m.msg_type = VORN_MSG_AGENT;
    EXPECT_EQ(vornd_handle_request(&m, 256), VORN_REPLY_NONE);
    EXPECT_TRUE(log.has("Execute command (" + std::string(255, 'a') + ") failed: 104"))
        << log.dump();

    // Type 4: a path running to the end of the message is written whole and
    // kept as its first 116 characters.
    memset(&m, 'p', sizeof m);
    m.msg_type = VORN_MSG_SET_LOG_PATH;
    EXPECT_EQ(vornd_handle_request(&m, 256), VORN_REPLY_NONE);
    std::string path(245, 'p');
    EXPECT_TRUE(log.has("GLOBAL logpath change to " + path + "\n"));
    EXPECT_EQ(std::string(gbl_config.log_path), path.substr(0, 116));
    EXPECT_NE(root.read(VORN_WORK_CONF).find("log_path=\"" + path + "\""), std::string::npos);
}

}  // namespace
