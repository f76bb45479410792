// Decoding of QMI messages, as a phone's header declares it.

#pragma once

#include <qmi_client.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
  QMI_IDL_REQUEST = 0,
  QMI_IDL_RESPONSE,
  QMI_IDL_INDICATION
} qmi_idl_type_of_message_type;

int32_t qmi_idl_message_decode(qmi_idl_service_object_type p_service,
                               qmi_idl_type_of_message_type req_resp_ind, uint16_t message_id,
                               const void* p_src, uint32_t src_len, void* p_dst, uint32_t dst_len);

#ifdef __cplusplus
}
#endif
