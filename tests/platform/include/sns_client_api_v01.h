// The sensor client service, as a phone's header declares it.

#pragma once

#include <qmi_client.h>

#ifdef __cplusplus
extern "C" {
#endif

#define SNS_CLIENT_REQ_V01 0x0020
#define SNS_CLIENT_RESP_V01 0x0020
#define SNS_CLIENT_REPORT_IND_V01 0x0021
#define SNS_CLIENT_PAYLOAD_MAX_V01 1000

typedef struct {
  uint32_t payload_len;
  uint8_t payload[SNS_CLIENT_PAYLOAD_MAX_V01];
  uint8_t flag_valid;
  uint8_t flag;
} sns_client_req_msg_v01;

typedef struct {
  uint32_t qmi_result;
  uint32_t qmi_error;
  uint8_t client_id_valid;
  int64_t client_id;
  uint8_t result_valid;
  uint32_t result;
} sns_client_resp_msg_v01;

typedef struct {
  uint64_t client_id;
  uint32_t payload_len;
  uint8_t payload[SNS_CLIENT_PAYLOAD_MAX_V01];
} sns_client_report_ind_msg_v01;

qmi_idl_service_object_type SNS_CLIENT_SVC_get_service_object_internal_v01(int32_t idl_maj_version,
                                                                           int32_t idl_min_version,
                                                                           int32_t library_version);

#ifdef __cplusplus
}
#endif
