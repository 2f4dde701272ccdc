// The QDSS control service that remote processors offer over QMI: its
// service description and the two messages this daemon sends.
#pragma once

#include <cstdint>

#include "platform/qmi_transport.h"

#define QDSS_QMI_SERVICE_ID 0x33
#define QDSS_QMI_IDL_MAJOR 1
#define QDSS_QMI_IDL_MINOR 0
#define QDSS_QMI_IDL_TOOL 6

#define QMI_QDSS_SET_ENTITY_STATE_REQ_V01 0x0023
#define QMI_QDSS_SET_ENTITY_STATE_RESP_V01 0x0023
#define QMI_QDSS_SET_HW_REG_REQ_V01 0x002A
#define QMI_QDSS_SET_HW_REG_RESP_V01 0x002A

struct qdss_set_entity_state_req_msg_v01 {
    uint32_t entity_id;  // TLV 0x01
    uint32_t state;      // TLV 0x02, 1 = enable
};

struct qdss_set_entity_state_resp_msg_v01 {
    qmi_std_resp_v01 resp;  // TLV 0x02
};

struct qdss_set_hw_reg_req_msg_v01 {
    uint32_t reg_addr;  // TLV 0x01
    uint32_t value;     // TLV 0x02
};

struct qdss_set_hw_reg_resp_msg_v01 {
    qmi_std_resp_v01 resp;  // TLV 0x02
};

// The service description, handed out only for exactly the versions it was
// generated with; null otherwise.
qmi_idl_service_object_type qdss_get_service_object_internal_v01(int32_t idl_maj_version,
                                                                 int32_t idl_min_version,
                                                                 int32_t library_version);

#define qdss_get_service_object_v01() \
    qdss_get_service_object_internal_v01(QDSS_QMI_IDL_MAJOR, QDSS_QMI_IDL_MINOR, QDSS_QMI_IDL_TOOL)
