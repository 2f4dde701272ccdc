// Write-back of the working configuration: an interrupted save never leaves
// a broken file, and nothing saved makes it unreadable.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <random>
#include <string>

#include "core/config.h"
#include "tests/core/daemon_state.h"
#include "tests/support/temp_root.h"

namespace {

class WriteBackTest : public ::testing::Test {
  protected:
    void SetUp() override {
        reset_daemon_state();
        root.mkdir("/data");
        // Large enough that a save takes a while to write.
        std::string nodes;
        for (int i = 0; i < kNodes; i++)
            nodes += pipe_node("N" + std::to_string(i), "mask=\"" + std::string(90, 'x') + "\"");
        root.write(VORN_SYSTEM_CONF, make_conf("1", "", nodes));
        ASSERT_EQ(vorn_config_choose(), kNodes + 1);
    }
    void TearDown() override { reset_daemon_state(); }

    // Child elements of the working file, or -1 when it does not parse.
    int saved_children() {
        xmlDocPtr doc;
        xmlNodePtr r;
        if (read_xml_file(VORN_WORK_CONF, &doc, &r) != 0)
            return -1;
        int n = static_cast<int>(xmlChildElementCount(r));
        xmlFreeDoc(doc);
        return n;
    }

    static constexpr int kNodes = 3000;
    TempRoot root;
};

TEST_F(WriteBackTest, AKilledSaveLeavesTheOldOrTheNewFile) {
    std::mt19937 rng(7);
    xmlNodePtr el = vorn_config_find_element("N1");
    for (int round = 0; round < 20; round++) {
        pid_t pid = fork();
        if (pid == 0) {
            for (int i = 0;; i++)
                vorn_config_set_attr(el, "mask", std::to_string(i).c_str());
        }
        usleep(1000 + rng() % 30000);
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        ASSERT_EQ(saved_children(), kNodes + 1) << "round " << round;
    }
}

TEST_F(WriteBackTest, BytesXmlCannotHoldAreSavedAsQuestionMarks) {
    xmlNodePtr el = vorn_config_find_element("N2");
    // Control bytes, a lone continuation byte, a truncated sequence, an
    // overlong encoding; valid UTF-8 and markup characters pass.
    vorn_config_set_attr(el, "mask", "a\x01\x1f\x80z\xe2\x82\xc0\x80<&\"\xc3\xa9\t");
    reset_daemon_state();
    ASSERT_EQ(vorn_config_choose(), kNodes + 1);
    xmlChar *v = xmlGetProp(vorn_config_find_element("N2"), BAD_CAST "mask");
    EXPECT_EQ(std::string(reinterpret_cast<char *>(v)),
              "a" + std::string(3, '?') + "z" + std::string(4, '?') + "<&\"\xc3\xa9\t");
    xmlFree(v);
}

}  // namespace
