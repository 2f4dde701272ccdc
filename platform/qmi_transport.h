// The QMI client framework: service descriptions, message layouts and the
// synchronous client calls. On a device the messages travel over QRTR
// (AF_QIPCRTR, service lookup through libqrtr); on a host, when
// <root>/dev/qrtr/<service>.<instance> exists, over a SOCK_SEQPACKET Unix
// socket at that path carrying the same bytes. Either way a message is
// encoded and decoded with libqrtr's qmi_encode_message / qmi_decode_message
// from a plain struct and its element table.
#pragma once

#include <libqrtr.h>

#include <cstddef>
#include <cstdint>

// Status of the client calls; 0 is success.
typedef int qmi_client_error_type;
#define QMI_NO_ERR 0
#define QMI_INTERNAL_ERR (-1)
#define QMI_SERVICE_ERR (-2)     // no such service, or it went away
#define QMI_TIMEOUT_ERR (-3)     // no service or no answer within the timeout
#define QMI_XPORT_ERR (-4)       // the socket failed
#define QMI_ENCODE_ERR (-5)      // the request does not fit its layout
#define QMI_DECODE_ERR (-6)      // the answer is malformed
#define QMI_INVALID_HANDLE (-7)  // null or released handle
#define QMI_INVALID_MSG_ID (-8)  // the service has no such message
#define QMI_INVALID_LENGTH (-9)  // struct size differs from the layout's

// Every QMI message starts with this header (little-endian on the wire):
// u8 type, u16 transaction, u16 message id, u16 length of the TLVs.
#define QMI_HEADER_LEN 7
// TLV header: u8 type, u16 length.
#define QMI_TLV_HEADER_LEN 3
// The standard response TLV every answer carries.
#define QMI_RESPONSE_TLV_TYPE 0x02

#define QMI_IDL_REQUEST 0
#define QMI_IDL_RESPONSE 1
#define QMI_IDL_INDICATION 2

// The standard response in memory: two 32-bit fields (16-bit each on the wire).
struct qmi_std_resp_v01 {
    uint32_t result;  // 0 success, 1 failure
    uint32_t error;   // the service's error code when result is 1
};

// One message layout: the in-memory struct size and its element table (null
// for messages whose layout the client never needs).
struct qmi_idl_message_desc {
    uint32_t c_struct_len;
    qmi_elem_info *ei;
};

// A type table: message layouts and shared type layouts, plus the tables it
// refers to for types defined elsewhere.
struct qmi_idl_type_table_object {
    uint16_t n_types;
    uint16_t n_messages;
    uint8_t n_referenced_tables;
    qmi_elem_info *const *type_table;
    const qmi_idl_message_desc *message_table;
    const qmi_idl_type_table_object *const *referenced_tables;
};

// A message of the service: its id, its layout in the type table and the
// longest encoding of its TLVs.
struct qmi_idl_service_message_table_entry {
    uint16_t qmi_message_id;
    uint16_t message_table_message_id;
    uint16_t max_msg_len;
};

struct qmi_idl_service_object {
    uint32_t library_version;
    uint32_t idl_version;
    uint32_t service_id;
    uint32_t max_msg_len;
    uint16_t n_msgs[3];  // requests, responses, indications
    const qmi_idl_service_message_table_entry *msgid_to_msg[3];
    const qmi_idl_type_table_object *p_type_table;
};
typedef const qmi_idl_service_object *qmi_idl_service_object_type;

// The common type table: type 0 is the standard response.
extern const qmi_idl_type_table_object common_qmi_idl_type_table_object_v01;
extern qmi_elem_info qmi_std_resp_v01_ei[];

// Platform parameters of a client; nothing is needed on these transports.
struct qmi_client_os_params {
    int reserved;
};

typedef struct qmi_client_struct *qmi_client_type;
typedef void (*qmi_client_ind_cb)(qmi_client_type handle, unsigned int msg_id, void *ind_buf,
                                  unsigned int ind_buf_len, void *ind_cb_data);

// Connects to instance instance_id of the service, waiting up to timeout ms
// for it to appear. The handle is one connection, used by every request until
// qmi_client_release. Indications are not supported (ind_cb must be null).
qmi_client_error_type qmi_client_init_instance(qmi_idl_service_object_type service_obj,
                                               uint32_t instance_id, qmi_client_ind_cb ind_cb,
                                               void *ind_cb_data, qmi_client_os_params *os_params,
                                               uint32_t timeout, qmi_client_type *user_handle);

// Sends request msg_id and waits up to timeout_msecs for its answer. Answers
// to earlier transactions (late after a timeout) are skipped; a malformed
// answer fails at once.
qmi_client_error_type qmi_client_send_msg_sync(qmi_client_type user_handle, unsigned int msg_id,
                                               void *req_c_struct, unsigned int req_c_struct_len,
                                               void *resp_c_struct, unsigned int resp_c_struct_len,
                                               unsigned int timeout_msecs);

// Closes the connection and frees the handle.
qmi_client_error_type qmi_client_release(qmi_client_type user_handle);

// Header of an encoded message.
struct qmi_msg_header {
    uint8_t type;
    uint16_t txn;
    uint16_t msg_id;
    uint16_t len;
};

// Checks that buf holds exactly one well-formed message: a header whose
// length matches the rest, and TLVs that end exactly at the end. Fills hdr;
// returns 0, or -1 when malformed.
int qmi_check_message(const void *buf, size_t len, qmi_msg_header *hdr);

// Finds TLV type in a checked message; returns its value length, or -1.
int qmi_find_tlv(const void *buf, size_t len, uint8_t type);

// Checks a well-formed message against the layout it is decoded with: every
// TLV that the layout describes must have exactly the layout's length
// (libqrtr trusts the layout, not the TLV length). 0, or -1.
int qmi_check_layout(const void *buf, size_t len, const qmi_elem_info *ei);
