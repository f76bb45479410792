// The calls of the QMI common client that the daemon uses, as a phone's header declares them.

#pragma once

#include <pthread.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef void* qmi_client_type;
typedef int qmi_client_error_type;
typedef struct qmi_idl_service_object* qmi_idl_service_object_type;
typedef unsigned int qmi_service_instance;

#define QMI_NO_ERR 0
#define QMI_SERVICE_ERR (-2)

typedef struct {
  uint32_t sig_set;
  uint32_t timed_out;
  pthread_cond_t cond;
  pthread_mutex_t mutex;
} qmi_cci_os_signal_type;
typedef qmi_cci_os_signal_type qmi_client_os_params;

typedef void (*qmi_client_ind_cb)(qmi_client_type user_handle, unsigned int msg_id, void* ind_buf,
                                  unsigned int ind_buf_len, void* ind_cb_data);
typedef void (*qmi_client_recv_msg_async_cb)(qmi_client_type user_handle, unsigned int msg_id,
                                             void* resp_c_struct, unsigned int resp_c_struct_len,
                                             void* resp_cb_data, qmi_client_error_type transp_err);
typedef void (*qmi_client_error_cb)(qmi_client_type user_handle, qmi_client_error_type error,
                                    void* err_cb_data);

qmi_client_error_type qmi_client_notifier_init(qmi_idl_service_object_type service_obj,
                                               qmi_cci_os_signal_type* os_params,
                                               qmi_client_type* user_handle);
void qmi_cci_os_signal_wait(qmi_cci_os_signal_type* os_params, unsigned int timeout_ms);
qmi_client_error_type qmi_client_init_instance(qmi_idl_service_object_type service_obj,
                                               qmi_service_instance instance_id,
                                               qmi_client_ind_cb ind_cb, void* ind_cb_data,
                                               qmi_cci_os_signal_type* os_params, uint32_t timeout,
                                               qmi_client_type* user_handle);
qmi_client_error_type qmi_client_register_error_cb(qmi_client_type user_handle,
                                                   qmi_client_error_cb err_cb, void* err_cb_data);
qmi_client_error_type qmi_client_send_msg_async(qmi_client_type user_handle, unsigned int msg_id,
                                                void* req_c_struct, unsigned int req_c_struct_len,
                                                void* resp_c_struct, unsigned int resp_c_struct_len,
                                                qmi_client_recv_msg_async_cb resp_cb,
                                                void* resp_cb_data, void** txn_handle);
qmi_client_error_type qmi_client_release(qmi_client_type user_handle);

#ifdef __cplusplus
}
#endif
