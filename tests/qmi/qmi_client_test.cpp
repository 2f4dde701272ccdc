// The QDSS QMI client against a fake service on the host transport.
#include "qmi/qmi_client.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <vector>

#include "qmi/qdss_qmi_service.h"
#include "sim/fake_qmi_service.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_root.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Reply = FakeQmiService::Reply;

class QmiClientTest : public ::testing::Test {
  protected:
    void TearDown() override { qmi_qdss_client_release(); }
    TempRoot root;
    LogCapture log;
};

// Both requests byte for byte; one connection per instance until the release.
TEST_F(QmiClientTest, RequestsShareOneConnectionUntilRelease) {
    FakeQmiService modem(root.path(), 2), wcn(root.path(), 3);
    ASSERT_EQ(qmi_qdss_client_init(2), QMI_QDSS_OK);
    EXPECT_EQ(qmi_set_entity_state(2, QDSS_QMI_ENTITY_DIAG, 1), QMI_QDSS_OK);
    ASSERT_EQ(qmi_qdss_client_init(2), QMI_QDSS_CONNECTED);
    EXPECT_EQ(qmi_set_hw_reg(2, 0x12345678, 0x9abcdef0), QMI_QDSS_OK);
    ASSERT_EQ(qmi_qdss_client_init(3), QMI_QDSS_OK);
    EXPECT_EQ(qmi_set_entity_state(3, QDSS_QMI_ENTITY_ULOG, 1), QMI_QDSS_OK);

    std::vector<Bytes> req = modem.requests();
    ASSERT_EQ(req.size(), 2u);
    EXPECT_EQ(req[0], (Bytes{0x00, 0x01, 0x00, 0x23, 0x00, 0x0e, 0x00,     // header, txn 1
                             0x01, 0x04, 0x00, 0x0d, 0x00, 0x00, 0x00,     // entity 13
                             0x02, 0x04, 0x00, 0x01, 0x00, 0x00, 0x00}));  // state 1
    EXPECT_EQ(req[1], (Bytes{0x00, 0x02, 0x00, 0x2a, 0x00, 0x0e, 0x00,     // header, txn 2
                             0x01, 0x04, 0x00, 0x78, 0x56, 0x34, 0x12,     // address
                             0x02, 0x04, 0x00, 0xf0, 0xde, 0xbc, 0x9a}));  // value
    EXPECT_EQ(modem.connections(), 1);
    EXPECT_EQ(wcn.connections(), 1);

    qmi_qdss_client_release();
    // Released: a send without a new init goes nowhere.
    EXPECT_EQ(qmi_set_entity_state(2, QDSS_QMI_ENTITY_TDS, 1), QMI_QDSS_SEND_ERR);
    ASSERT_EQ(qmi_qdss_client_init(2), QMI_QDSS_OK);
    EXPECT_EQ(qmi_set_entity_state(2, QDSS_QMI_ENTITY_TDS, 1), QMI_QDSS_OK);
    EXPECT_EQ(modem.connections(), 2);
    ASSERT_EQ(modem.requests().size(), 3u);
    EXPECT_EQ(modem.requests()[2][1], 1);  // a new connection counts from 1 again
}

TEST_F(QmiClientTest, InitFailures) {
    EXPECT_EQ(qmi_qdss_client_init(11), QMI_QDSS_INVALID_ID);
    EXPECT_EQ(qmi_qdss_client_init(0xffffffffu), QMI_QDSS_INVALID_ID);
    EXPECT_FALSE(log.has_containing("qmi_client_init failed"));

    // No service at the instance (and no QRTR on a plain host).
    int probe = socket(AF_QIPCRTR, SOCK_DGRAM, 0);
    if (probe >= 0) {
        close(probe);
        GTEST_SKIP() << "this kernel has QRTR: a missing service would be waited for";
    }
    EXPECT_EQ(qmi_qdss_client_init(4), QMI_QDSS_INIT_ERR);
    EXPECT_TRUE(log.has_containing("qmi_adc_client_init: qmi_client_init failed. rc = "));
}

// Every bad answer fails at once, a service that never answers after 5
// seconds. A late answer of another transaction
// is skipped.
TEST_F(QmiClientTest, BadAnswers) {
    const struct {
        const char *name;
        Reply reply;
        uint16_t error;
        const char *log_line;  // null: the request succeeds
    } cases[] = {
        {"refused", Reply::kFailure, 42,
         "qmi_set_entity_state: Failed: rc = 0, entity_resp error = 42.\n"},
        {"garbage", Reply::kGarbage, 0, "qmi_set_entity_state: Failed: rc = -6"},
        {"short", Reply::kShort, 0, "qmi_set_entity_state: Failed: rc = -6"},
        {"hang-up", Reply::kHangUp, 0, "qmi_set_entity_state: Failed: rc = -2"},
        {"stale first", Reply::kStaleThenAnswer, 0, nullptr},
        {"silent", Reply::kStaleOnly, 0,
         "qmi_set_entity_state: Failed: rc = -3, entity_resp error = 0."},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        FakeQmiService modem(root.path(), 2);
        modem.set_reply(c.reply, c.error);
        ASSERT_EQ(qmi_qdss_client_init(2), QMI_QDSS_OK);
        log.clear();
        auto start = std::chrono::steady_clock::now();
        qmi_qdss_status st = qmi_set_entity_state(2, QDSS_QMI_ENTITY_TDS, 1);
        auto waited = std::chrono::steady_clock::now() - start;
        bool silent = c.reply == Reply::kStaleOnly;
        EXPECT_GE(waited, std::chrono::milliseconds(silent ? 4900 : 0));
        EXPECT_LT(waited, std::chrono::seconds(silent ? 8 : 2));
        if (c.log_line == nullptr) {
            EXPECT_EQ(st, QMI_QDSS_OK);
        } else {
            EXPECT_TRUE(log.has_containing(c.log_line)) << log.dump();
            EXPECT_EQ(st, QMI_QDSS_SEND_ERR);
        }
        qmi_qdss_client_release();
    }
}

// The answer's TLVs must have the layout's lengths before libqrtr decodes
// them: it copies by the layout.
TEST(QmiWireTest, LayoutChecks) {
    const qmi_elem_info *ei =
        qdss_get_service_object_v01()->p_type_table->message_table[7].ei;  // 0x23 answer
    const struct {
        Bytes msg;
        int rc;
    } cases[] = {
        {qmi_answer_bytes(1, 0x23, 1, 2), 0},
        {{2, 1, 0, 0x23, 0, 13, 0, 2, 4, 0, 1, 0, 2, 0, 2, 3, 0, 1, 2, 3}, -1},  // short repeat
        {{2, 1, 0, 0x23, 0, 8, 0, 2, 5, 0, 1, 0, 2, 0, 9}, -1},                  // long
        {{2, 1, 0, 0x23, 0, 14, 0, 2, 4, 0, 1, 0, 2, 0, 0x10, 4, 0, 1, 2, 3, 4}, 0},  // optional
    };
    for (const auto &c : cases)
        EXPECT_EQ(qmi_check_layout(c.msg.data(), c.msg.size(), ei), c.rc) << c.msg.size();
}

}  // namespace
