#include "qmi/qdss_qmi_service.h"

#include <cstddef>

namespace {

qmi_elem_info entity_state_req_ei[] = {
    {QMI_UNSIGNED_4_BYTE, 1, sizeof(uint32_t), NO_ARRAY, 0x01,
     offsetof(qdss_set_entity_state_req_msg_v01, entity_id), nullptr},
    {QMI_UNSIGNED_4_BYTE, 1, sizeof(uint32_t), NO_ARRAY, 0x02,
     offsetof(qdss_set_entity_state_req_msg_v01, state), nullptr},
    {QMI_EOTI, 0, 0, NO_ARRAY, 0, 0, nullptr},
};

qmi_elem_info entity_state_resp_ei[] = {
    {QMI_STRUCT, 1, sizeof(qmi_std_resp_v01), NO_ARRAY, QMI_RESPONSE_TLV_TYPE,
     offsetof(qdss_set_entity_state_resp_msg_v01, resp), qmi_std_resp_v01_ei},
    {QMI_EOTI, 0, 0, NO_ARRAY, 0, 0, nullptr},
};

qmi_elem_info hw_reg_req_ei[] = {
    {QMI_UNSIGNED_4_BYTE, 1, sizeof(uint32_t), NO_ARRAY, 0x01,
     offsetof(qdss_set_hw_reg_req_msg_v01, reg_addr), nullptr},
    {QMI_UNSIGNED_4_BYTE, 1, sizeof(uint32_t), NO_ARRAY, 0x02,
     offsetof(qdss_set_hw_reg_req_msg_v01, value), nullptr},
    {QMI_EOTI, 0, 0, NO_ARRAY, 0, 0, nullptr},
};

qmi_elem_info hw_reg_resp_ei[] = {
    {QMI_STRUCT, 1, sizeof(qmi_std_resp_v01), NO_ARRAY, QMI_RESPONSE_TLV_TYPE,
     offsetof(qdss_set_hw_reg_resp_msg_v01, resp), qmi_std_resp_v01_ei},
    {QMI_EOTI, 0, 0, NO_ARRAY, 0, 0, nullptr},
};

// Request and response of message 0x0020 + n sit at 2n and 2n + 1. Only the
// two messages this daemon sends carry a layout.
const qmi_idl_message_desc qdss_message_table_v01[28] = {
    {},
    {},
    {},
    {},
    {},
    {},
    {sizeof(qdss_set_entity_state_req_msg_v01), entity_state_req_ei},
    {sizeof(qdss_set_entity_state_resp_msg_v01), entity_state_resp_ei},
    {},
    {},
    {},
    {},
    {},
    {},
    {},
    {},
    {},
    {},
    {},
    {},
    {sizeof(qdss_set_hw_reg_req_msg_v01), hw_reg_req_ei},
    {sizeof(qdss_set_hw_reg_resp_msg_v01), hw_reg_resp_ei},
    {},
    {},
    {},
    {},
    {},
    {},
};

// The standard response comes from the common table.
const qmi_idl_type_table_object *const qdss_qmi_idl_type_table_object_referenced_tables_v01[] = {
    &common_qmi_idl_type_table_object_v01,
};

const qmi_idl_type_table_object qdss_qmi_idl_type_table_object_v01 = {
    0, 28, 1, nullptr, qdss_message_table_v01, qdss_qmi_idl_type_table_object_referenced_tables_v01,
};

// {message id, layout index, longest encoding}.
const qmi_idl_service_message_table_entry qdss_service_command_messages_v01[14] = {
    {0x0020, 0, 0},   {0x0021, 2, 7},  {0x0022, 4, 7},  {0x0023, 6, 14},  {0x0024, 8, 0},
    {0x0025, 10, 7},  {0x0026, 12, 0}, {0x0027, 14, 7}, {0x0028, 16, 14}, {0x0029, 18, 22},
    {0x002A, 20, 14}, {0x002B, 22, 0}, {0x002C, 24, 7}, {0x002D, 26, 7},
};

const qmi_idl_service_message_table_entry qdss_service_response_messages_v01[14] = {
    {0x0020, 1, 14}, {0x0021, 3, 7},   {0x0022, 5, 14},  {0x0023, 7, 7},  {0x0024, 9, 42},
    {0x0025, 11, 7}, {0x0026, 13, 22}, {0x0027, 15, 14}, {0x0028, 17, 7}, {0x0029, 19, 7},
    {0x002A, 21, 7}, {0x002B, 23, 14}, {0x002C, 25, 7},  {0x002D, 27, 7},
};

const qmi_idl_service_object qdss_qmi_idl_service_object_v01 = {
    QDSS_QMI_IDL_TOOL,
    QDSS_QMI_IDL_MAJOR,
    QDSS_QMI_SERVICE_ID,
    42,
    {14, 14, 0},
    {qdss_service_command_messages_v01, qdss_service_response_messages_v01, nullptr},
    &qdss_qmi_idl_type_table_object_v01,
};

}  // namespace

qmi_idl_service_object_type qdss_get_service_object_internal_v01(int32_t idl_maj_version,
                                                                 int32_t idl_min_version,
                                                                 int32_t library_version) {
    if (idl_maj_version != QDSS_QMI_IDL_MAJOR || idl_min_version != QDSS_QMI_IDL_MINOR ||
        library_version != QDSS_QMI_IDL_TOOL)
        return nullptr;
    return &qdss_qmi_idl_service_object_v01;
}
