// The daemon's client of the remote processors' QDSS service: one connection
// per service instance (remote processor), opened on first use and kept until
// qmi_qdss_client_release. Outcomes land in the caller's Debug Agent result.
#pragma once

#include <cstdint>

#include "agent/dagt.h"

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

// Connects to the instance unless already connected; 0 or -1.
int qmi_qdss_client_init(uint32_t instance, dagt_result *result);

// Message 0x0023 to a connected instance.
void qmi_set_entity_state(dagt_result *result, uint32_t instance, uint32_t entity_id,
                          uint32_t state);

// Message 0x002A to a connected instance.
void qmi_set_hw_reg(dagt_result *result, uint32_t instance, uint32_t reg_addr, uint32_t value);

// Drops every connection.
void qmi_qdss_client_release();
