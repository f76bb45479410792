// A phone on which no message comes.

#include <qmi_idl_lib.h>

int32_t qmi_idl_message_decode(qmi_idl_service_object_type p_service,
                               qmi_idl_type_of_message_type req_resp_ind, uint16_t message_id,
                               const void* p_src, uint32_t src_len, void* p_dst, uint32_t dst_len) {
  return QMI_SERVICE_ERR;
}
