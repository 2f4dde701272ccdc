// The daemon's client of the remote processors' QDSS service: one connection
// per service instance (remote processor), opened on first use and kept until
// qmi_qdss_client_release. Every call answers a qmi_qdss_status.
#pragma once

#include <cstdint>

#define QDSS_QMI_MAX_INSTANCE 10
#define QDSS_QMI_TIMEOUT_MS 5000

// Instances (remote processors).
#define QDSS_QMI_INSTANCE_MODEM 2
#define QDSS_QMI_INSTANCE_WCN 3
#define QDSS_QMI_INSTANCE_VENUS 6

// Software trace entities.
#define QDSS_QMI_ENTITY_TDS 1
#define QDSS_QMI_ENTITY_ULOG 11
#define QDSS_QMI_ENTITY_DIAG 13

enum qmi_qdss_status : int {
    QMI_QDSS_OK = 0,         // connected now, or the request was answered with success
    QMI_QDSS_CONNECTED = 1,  // init: the connection was already open
    QMI_QDSS_INIT_ERR = 2,
    QMI_QDSS_INVALID_ID = 3,
    QMI_QDSS_SEND_ERR = 4,
};

// Connects to the instance unless already connected.
qmi_qdss_status qmi_qdss_client_init(uint32_t instance);

// Message 0x0023 to a connected instance.
qmi_qdss_status qmi_set_entity_state(uint32_t instance, uint32_t entity_id, uint32_t state);

// Message 0x002A to a connected instance.
qmi_qdss_status qmi_set_hw_reg(uint32_t instance, uint32_t reg_addr, uint32_t value);

// Drops every connection.
void qmi_qdss_client_release();
