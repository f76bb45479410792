// A phone without a sensor hub.

#include <qmi_client.h>

qmi_client_error_type qmi_client_notifier_init(qmi_idl_service_object_type service_obj,
                                               qmi_cci_os_signal_type* os_params,
                                               qmi_client_type* user_handle) {
  return QMI_SERVICE_ERR;
}

void qmi_cci_os_signal_wait(qmi_cci_os_signal_type* os_params, unsigned int timeout_ms) {
  os_params->timed_out = 1;
}

qmi_client_error_type qmi_client_init_instance(qmi_idl_service_object_type service_obj,
                                               qmi_service_instance instance_id,
                                               qmi_client_ind_cb ind_cb, void* ind_cb_data,
                                               qmi_cci_os_signal_type* os_params, uint32_t timeout,
                                               qmi_client_type* user_handle) {
  return QMI_SERVICE_ERR;
}

qmi_client_error_type qmi_client_register_error_cb(qmi_client_type user_handle,
                                                   qmi_client_error_cb err_cb, void* err_cb_data) {
  return QMI_SERVICE_ERR;
}

qmi_client_error_type qmi_client_send_msg_async(qmi_client_type user_handle, unsigned int msg_id,
                                                void* req_c_struct, unsigned int req_c_struct_len,
                                                void* resp_c_struct, unsigned int resp_c_struct_len,
                                                qmi_client_recv_msg_async_cb resp_cb,
                                                void* resp_cb_data, void** txn_handle) {
  return QMI_SERVICE_ERR;
}

qmi_client_error_type qmi_client_release(qmi_client_type user_handle) {
  return QMI_NO_ERR;
}
