// The QMI wire format shared by both transports: message checks and the
// common type table.
#include <bit>
#include <cstddef>
#include <cstring>

#include "platform/qmi_transport.h"

// The standard response is 16-bit on the wire and 32-bit in memory; libqrtr
// copies elem_size bytes, so each field lands in the low half of its 32-bit
// slot (the record is zeroed before decoding).
static_assert(std::endian::native == std::endian::little,
              "the standard response layout needs a little-endian target");

qmi_elem_info qmi_std_resp_v01_ei[] = {
    {QMI_UNSIGNED_2_BYTE, 1, sizeof(uint16_t), NO_ARRAY, 0, offsetof(qmi_std_resp_v01, result),
     nullptr},
    {QMI_UNSIGNED_2_BYTE, 1, sizeof(uint16_t), NO_ARRAY, 0, offsetof(qmi_std_resp_v01, error),
     nullptr},
    {QMI_EOTI, 0, 0, NO_ARRAY, 0, 0, nullptr},
};

static qmi_elem_info *const common_qmi_type_table_v01[] = {qmi_std_resp_v01_ei};

const qmi_idl_type_table_object common_qmi_idl_type_table_object_v01 = {
    1, 0, 0, common_qmi_type_table_v01, nullptr, nullptr,
};

static uint16_t get_le16(const uint8_t *p) {
    return static_cast<uint16_t>(p[0] | (p[1] << 8));
}

int qmi_check_message(const void *buf, size_t len, qmi_msg_header *hdr) {
    const uint8_t *p = static_cast<const uint8_t *>(buf);
    if (p == nullptr || len < QMI_HEADER_LEN)
        return -1;
    qmi_msg_header h;
    h.type = p[0];
    h.txn = get_le16(p + 1);
    h.msg_id = get_le16(p + 3);
    h.len = get_le16(p + 5);
    if (h.len != len - QMI_HEADER_LEN)
        return -1;
    size_t off = QMI_HEADER_LEN;
    while (off < len) {
        if (len - off < QMI_TLV_HEADER_LEN)
            return -1;
        size_t tlv_len = get_le16(p + off + 1);
        off += QMI_TLV_HEADER_LEN;
        if (tlv_len > len - off)
            return -1;
        off += tlv_len;
    }
    if (hdr != nullptr)
        *hdr = h;
    return 0;
}

int qmi_find_tlv(const void *buf, size_t len, uint8_t type) {
    const uint8_t *p = static_cast<const uint8_t *>(buf);
    if (qmi_check_message(buf, len, nullptr) != 0)
        return -1;
    size_t off = QMI_HEADER_LEN;
    while (off < len) {
        uint8_t t = p[off];
        size_t tlv_len = get_le16(p + off + 1);
        if (t == type)
            return static_cast<int>(tlv_len);
        off += QMI_TLV_HEADER_LEN + tlv_len;
    }
    return -1;
}

namespace {

// Wire size of one element of a layout, or -1 for shapes whose size depends
// on the message (variable arrays, strings).
long wire_size(const qmi_elem_info *e) {
    long one;
    switch (e->data_type) {
        case QMI_UNSIGNED_1_BYTE:
        case QMI_UNSIGNED_2_BYTE:
        case QMI_UNSIGNED_4_BYTE:
        case QMI_UNSIGNED_8_BYTE:
        case QMI_SIGNED_1_BYTE_ENUM:
        case QMI_SIGNED_2_BYTE_ENUM:
        case QMI_SIGNED_4_BYTE_ENUM:
            one = e->elem_size;
            break;
        case QMI_STRUCT: {
            if (e->ei_array == nullptr)
                return -1;
            one = 0;
            for (const qmi_elem_info *n = e->ei_array; n->data_type != QMI_EOTI; n++) {
                long s = wire_size(n);
                if (s < 0)
                    return -1;
                one += s;
            }
            break;
        }
        default:
            return -1;
    }
    if (e->array_type == NO_ARRAY)
        return one;
    if (e->array_type == STATIC_ARRAY)
        return one * e->elem_len;
    return -1;
}

}  // namespace

int qmi_check_layout(const void *buf, size_t len, const qmi_elem_info *ei) {
    const uint8_t *p = static_cast<const uint8_t *>(buf);
    if (ei == nullptr || qmi_check_message(buf, len, nullptr) != 0)
        return -1;
    size_t off = QMI_HEADER_LEN;
    while (off < len) {
        uint8_t type = p[off];
        size_t tlv_len = get_le16(p + off + 1);
        for (const qmi_elem_info *e = ei; e->data_type != QMI_EOTI; e++) {
            if (e->tlv_type != type || e->data_type == QMI_OPT_FLAG)
                continue;
            if (wire_size(e) != static_cast<long>(tlv_len))
                return -1;
            break;
        }
        off += QMI_TLV_HEADER_LEN + tlv_len;
    }
    return 0;
}
