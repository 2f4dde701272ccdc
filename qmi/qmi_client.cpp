#include "qmi/qmi_client.h"

#include <cstdio>

#include "platform/log.h"
#include "qmi/qdss_qmi_service.h"

namespace {

// Used only by the thread that runs Debug Agent commands, hence no lock.
qmi_client_type qdss_qmi_clients[QDSS_QMI_MAX_INSTANCE + 1];
qmi_client_os_params qdss_qmi_os_params;

qmi_client_type client_of(uint32_t instance) {
    return instance <= QDSS_QMI_MAX_INSTANCE ? qdss_qmi_clients[instance] : nullptr;
}

}  // namespace

qmi_qdss_status qmi_qdss_client_init(uint32_t instance) {
    if (instance > QDSS_QMI_MAX_INSTANCE) {
        return QMI_QDSS_INVALID_ID;
    }
    if (qdss_qmi_clients[instance] != nullptr)
        return QMI_QDSS_CONNECTED;
    qmi_idl_service_object_type service = qdss_get_service_object_v01();
    if (service == nullptr) {
        VLOGE("qmi_qdss_client_init: qdss_get_serivce_object failed.\n");
        return QMI_QDSS_INIT_ERR;
    }
    qmi_client_error_type rc =
        qmi_client_init_instance(service, instance, nullptr, nullptr, &qdss_qmi_os_params,
                                 QDSS_QMI_TIMEOUT_MS, &qdss_qmi_clients[instance]);
    if (rc != QMI_NO_ERR) {
        VLOGE("qmi_adc_client_init: qmi_client_init failed. rc = %d\n", rc);
        qdss_qmi_clients[instance] = nullptr;
        return QMI_QDSS_INIT_ERR;
    }
    return QMI_QDSS_OK;
}

qmi_qdss_status qmi_set_entity_state(uint32_t instance, uint32_t entity_id, uint32_t state) {
    qdss_set_entity_state_req_msg_v01 req = {entity_id, state};
    qdss_set_entity_state_resp_msg_v01 resp = {};
    qmi_client_error_type rc =
        qmi_client_send_msg_sync(client_of(instance), QMI_QDSS_SET_ENTITY_STATE_REQ_V01, &req,
                                 sizeof req, &resp, sizeof resp, QDSS_QMI_TIMEOUT_MS);
    if (rc == QMI_NO_ERR && resp.resp.result == QMI_RESULT_SUCCESS_V01)
        return QMI_QDSS_OK;
    VLOGE("%s: Failed: rc = %d, entity_resp error = %d.\n", "qmi_set_entity_state", rc,
          static_cast<int>(resp.resp.error));
    return QMI_QDSS_SEND_ERR;
}

qmi_qdss_status qmi_set_hw_reg(uint32_t instance, uint32_t reg_addr, uint32_t value) {
    qdss_set_hw_reg_req_msg_v01 req = {reg_addr, value};
    qdss_set_hw_reg_resp_msg_v01 resp = {};
    qmi_client_error_type rc =
        qmi_client_send_msg_sync(client_of(instance), QMI_QDSS_SET_HW_REG_REQ_V01, &req, sizeof req,
                                 &resp, sizeof resp, QDSS_QMI_TIMEOUT_MS);
    if (rc == QMI_NO_ERR && resp.resp.result == QMI_RESULT_SUCCESS_V01)
        return QMI_QDSS_OK;
    VLOGE("%s: Failed: rc = %d, entity_resp error = %d.\n", "qmi_set_hw_reg", rc,
          static_cast<int>(resp.resp.error));
    return QMI_QDSS_SEND_ERR;
}

void qmi_qdss_client_release() {
    for (auto &client : qdss_qmi_clients) {
        if (client == nullptr)
            continue;
        qmi_client_error_type rc = qmi_client_release(client);
        if (rc != QMI_NO_ERR)
            printf("%s returned failure rc = %d", "qmi_qdss_client_release", rc);
        client = nullptr;
    }
}
