// Fuzzes the checks and decoding of QMI answers: each input is one message as
// a service would send it, decoded as the answer to set entity state.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "platform/qmi_transport.h"
#include "qmi/qdss_qmi_service.h"
#include "tests/fuzz/fuzz_util.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz_quiet();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    qmi_msg_header hdr;
    if (qmi_check_message(data, size, &hdr) != 0)
        return 0;
    if (hdr.len != size - QMI_HEADER_LEN)
        abort();
    qmi_idl_service_object_type svc = qdss_get_service_object_v01();
    const qmi_idl_message_desc &desc = svc->p_type_table->message_table[7];
    // The same checks as the client's before it decodes.
    if (qmi_find_tlv(data, size, QMI_RESPONSE_TLV_TYPE) != 4 ||
        qmi_check_layout(data, size, desc.ei) != 0)
        return 0;
    qdss_set_entity_state_resp_msg_v01 resp = {};
    qrtr_packet pkt = {};
    pkt.type = QRTR_TYPE_DATA;
    pkt.data = const_cast<uint8_t *>(data);
    pkt.data_len = size;
    unsigned int txn = 0;
    if (qmi_decode_message(&resp, &txn, &pkt, QMI_RESPONSE, hdr.msg_id, desc.ei) >= 0 &&
        (resp.resp.result > 0xffff || resp.resp.error > 0xffff))
        abort();
    return 0;
}
