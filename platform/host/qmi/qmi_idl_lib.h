// Decoding of QMI messages into their structures, for a desk; see qmi_client.h.

#pragma once

#include <stdint.h>

#include "platform/host/qmi/qmi_client.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef enum { QMI_IDL_REQUEST = 0, QMI_IDL_RESPONSE, QMI_IDL_INDICATION } qmi_idl_type_of_message;

// Decodes a message's body into dst, a zeroed structure of dst_len bytes. Returns 0 or a
// qmi_client_error_type.
int32_t qmi_idl_message_decode(qmi_idl_service_object_type service, qmi_idl_type_of_message type,
                               uint16_t msg_id, const void* src, uint32_t src_len, void* dst,
                               uint32_t dst_len);

#ifdef __cplusplus
}
#endif
