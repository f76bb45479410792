// The QMI common client interface for a desk. A service is a process that listens on a socket in
// /dev/socket; what a modem or DSP would be sent as one QMI message is one packet on it.

#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef void* qmi_client_type;
typedef int qmi_client_error_type;  // 0 is success
typedef struct qmi_idl_service_object* qmi_idl_service_object_type;

enum {
  QMI_NO_ERR = 0,
  QMI_INTERNAL_ERR = -1,
  QMI_SERVICE_ERR = -2,  // no such service, or it went away
  QMI_TIMEOUT_ERR = -3,
  QMI_INVALID_HANDLE = -4,
  QMI_MALFORMED_MSG = -5,
};

// What a notifier signals: that the service is there.
typedef struct qmi_client_os_params {
  const char* service_path;
  int timed_out;  // set by qmi_cci_os_signal_wait
} qmi_client_os_params;

// All three callbacks run on the client's own thread, one at a time; those of requests that are
// still unanswered when the client is released run on the releasing thread.
typedef void (*qmi_client_ind_cb)(qmi_client_type client, unsigned int msg_id, void* buf,
                                  unsigned int len, void* data);
typedef void (*qmi_client_recv_msg_async_cb)(qmi_client_type client, unsigned int msg_id,
                                             void* resp, unsigned int resp_len, void* data,
                                             qmi_client_error_type transport_error);
typedef void (*qmi_client_error_cb)(qmi_client_type client, qmi_client_error_type error,
                                    void* data);

// Starts to look for a service. The handle is released with qmi_client_release.
qmi_client_error_type qmi_client_notifier_init(qmi_idl_service_object_type service,
                                               qmi_client_os_params* os_params,
                                               qmi_client_type* notifier);

// Looks whether the notifier's service is there, and once more after timeout_ms when it is not.
void qmi_cci_os_signal_wait(qmi_client_os_params* os_params, unsigned int timeout_ms);

// Connects to a service. Indications may come before this returns.
qmi_client_error_type qmi_client_init_instance(qmi_idl_service_object_type service,
                                               unsigned int instance, qmi_client_ind_cb ind_cb,
                                               void* ind_cb_data, qmi_client_os_params* os_params,
                                               unsigned int timeout_ms, qmi_client_type* client);

// Has cb called when the service goes away.
qmi_client_error_type qmi_client_register_error_cb(qmi_client_type client, qmi_client_error_cb cb,
                                                   void* data);

// Sends the structure req of a message. When this succeeds, resp_cb is called exactly once: with
// the response in resp, or with a transport error. Callable from a callback.
qmi_client_error_type qmi_client_send_msg_async(qmi_client_type client, unsigned int msg_id,
                                                void* req, unsigned int req_len, void* resp,
                                                unsigned int resp_len,
                                                qmi_client_recv_msg_async_cb resp_cb, void* data,
                                                void** txn);

// Ends a client or notifier. No callback runs any more when this returns; not from a callback.
qmi_client_error_type qmi_client_release(qmi_client_type client);

#ifdef __cplusplus
}
#endif
