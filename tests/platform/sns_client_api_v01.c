// A phone without the service.

#include <sns_client_api_v01.h>
#include <stddef.h>

qmi_idl_service_object_type SNS_CLIENT_SVC_get_service_object_internal_v01(
    int32_t idl_maj_version, int32_t idl_min_version, int32_t library_version) {
  return NULL;
}
