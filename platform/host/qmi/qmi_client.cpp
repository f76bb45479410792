// QMI clients over Unix sockets, and the messages of the sensor client service; see qmi_client.h
// and, for what travels, packet.h.

#include "platform/host/qmi/qmi_client.h"

#include <errno.h>
#include <pthread.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <memory>
#include <mutex>
#include <new>
#include <utility>

#include "platform/host/qmi/packet.h"
#include "platform/host/qmi/qmi_idl_lib.h"
#include "platform/host/qmi/sns_client_api_v01.h"

static_assert(sizeof(sns_client_req_msg_v01) == 1008);
static_assert(sizeof(sns_client_resp_msg_v01) == 32);
static_assert(sizeof(sns_client_report_ind_msg_v01) == 1016);

struct qmi_idl_service_object {
  const char* path;
};

qmi_idl_service_object_type SNS_CLIENT_SVC_get_service_object_internal_v01(int32_t idl_major,
                                                                           int32_t idl_minor,
                                                                           int32_t idl_tool) {
  static qmi_idl_service_object service = {"/dev/socket/qmi_sns_client"};
  return idl_major == 1 && idl_minor == 3 && idl_tool == 6 ? &service : nullptr;
}

// ---- bodies

static constexpr size_t kLargestPacket = 65536;

static void put(uint8_t* bytes, size_t value) {
  bytes[0] = static_cast<uint8_t>(value);
  bytes[1] = static_cast<uint8_t>(value >> 8);
}

static uint64_t get(const uint8_t* bytes, size_t size) {
  uint64_t value = 0;
  for (size_t i = 0; i < size; ++i) {
    value |= static_cast<uint64_t>(bytes[i]) << (8 * i);
  }
  return value;
}

struct Field {
  const uint8_t* value = nullptr;
  size_t size = 0;
};

// The fields of a body by type; one that is missing has no value.
using Fields = Field[UINT8_MAX + 1];

// False when the body is cut off.
static bool split(const uint8_t* body, size_t size, Fields& fields) {
  while (size > 0) {
    if (size < qmi::kFieldHeadSize) {
      return false;
    }
    const size_t length = get(body + 1, 2);
    if (length > size - qmi::kFieldHeadSize) {
      return false;
    }
    fields[body[0]] = {body + qmi::kFieldHeadSize, length};
    body += qmi::kFieldHeadSize + length;
    size -= qmi::kFieldHeadSize + length;
  }
  return true;
}

// Copies a little-endian number of exactly this size.
template <typename Number>
static bool take(const Fields& fields, uint8_t type, Number* number) {
  if (fields[type].size != sizeof(Number)) {
    return false;
  }
  *number = static_cast<Number>(get(fields[type].value, sizeof(Number)));
  return true;
}

static bool decode_response(const Fields& fields, sns_client_resp_msg_v01* resp) {
  const Field& outcome = fields[0x02];
  if (outcome.size != 4) {
    return false;
  }
  resp->qmi_result = static_cast<uint32_t>(get(outcome.value, 2));
  resp->qmi_error = static_cast<uint32_t>(get(outcome.value + 2, 2));
  resp->client_id_valid = take(fields, 0x10, &resp->client_id) ? 1 : 0;
  resp->result_valid = take(fields, 0x11, &resp->result) ? 1 : 0;
  return true;
}

static bool decode_report(const Fields& fields, sns_client_report_ind_msg_v01* report) {
  // The payload stands behind two bytes of its own length.
  const Field& payload = fields[0x02];
  if (!take(fields, 0x01, &report->client_id) || payload.size < 2) {
    return false;
  }
  const size_t length = get(payload.value, 2);
  if (length > sizeof(report->payload) || length != payload.size - 2) {
    return false;
  }
  report->payload_len = static_cast<uint32_t>(length);
  memcpy(report->payload, payload.value + 2, length);
  return true;
}

int32_t qmi_idl_message_decode(qmi_idl_service_object_type service, qmi_idl_type_of_message type,
                               uint16_t msg_id, const void* src, uint32_t src_len, void* dst,
                               uint32_t dst_len) {
  Fields fields;
  if (service == nullptr || !split(static_cast<const uint8_t*>(src), src_len, fields)) {
    return QMI_MALFORMED_MSG;
  }
  bool decoded = false;
  if (type == QMI_IDL_RESPONSE && msg_id == SNS_CLIENT_RESP_V01 &&
      dst_len == sizeof(sns_client_resp_msg_v01)) {
    decoded = decode_response(fields, static_cast<sns_client_resp_msg_v01*>(dst));
  } else if (type == QMI_IDL_INDICATION && msg_id == SNS_CLIENT_REPORT_IND_V01 &&
             dst_len == sizeof(sns_client_report_ind_msg_v01)) {
    decoded = decode_report(fields, static_cast<sns_client_report_ind_msg_v01*>(dst));
  }
  return decoded ? QMI_NO_ERR : QMI_MALFORMED_MSG;
}

// ---- clients

struct Transaction {
  uint16_t number = 0;  // 0: none
  unsigned int msg_id = 0;
  void* resp = nullptr;
  unsigned int resp_len = 0;
  qmi_client_recv_msg_async_cb cb = nullptr;
  void* data = nullptr;
};

struct Client {
  qmi_idl_service_object_type service;
  int socket = -1;  // none: a notifier
  pthread_t thread = {};
  qmi_client_ind_cb ind_cb = nullptr;
  void* ind_cb_data = nullptr;

  std::mutex mutex = {};  // guards what follows
  bool releasing = false;
  qmi_client_error_cb error_cb = nullptr;
  void* error_cb_data = nullptr;
  uint16_t last_txn = 0;
  Transaction transactions[16] = {};  // those that wait for their response

  uint8_t packet[kLargestPacket] = {};  // the client's thread's alone
};

static Transaction* find(Client* client, uint16_t number) {
  for (Transaction& transaction : client->transactions) {
    if (transaction.number == number) {
      return &transaction;
    }
  }
  return nullptr;
}

// A packet's body stands behind its head already.
static bool send_packet(int socket, qmi::PacketKind kind, uint16_t txn, uint16_t msg_id,
                        uint8_t* packet, size_t body_size) {
  qmi::write_head({kind, txn, msg_id, static_cast<uint16_t>(body_size)}, packet);
  const size_t size = qmi::kHeadSize + body_size;
  return send(socket, packet, size, MSG_NOSIGNAL) == static_cast<ssize_t>(size);
}

static void end_transaction(Client* client, uint16_t txn, const uint8_t* body, uint32_t size,
                            qmi_client_error_type error) {
  Transaction transaction;
  {
    const std::lock_guard lock(client->mutex);
    Transaction* found = txn == 0 ? nullptr : find(client, txn);
    if (found == nullptr) {
      return;
    }
    transaction = std::exchange(*found, {});
  }
  if (error == QMI_NO_ERR) {
    memset(transaction.resp, 0, transaction.resp_len);
    error = qmi_idl_message_decode(client->service, QMI_IDL_RESPONSE,
                                   static_cast<uint16_t>(transaction.msg_id), body, size,
                                   transaction.resp, transaction.resp_len);
  }
  transaction.cb(client, transaction.msg_id, transaction.resp, transaction.resp_len,
                 transaction.data, error);
}

static void handle_packet(Client* client, uint8_t* packet, size_t size) {
  if (size < qmi::kHeadSize) {
    return;
  }
  const qmi::PacketHead head = qmi::read_head(packet);
  if (head.length != size - qmi::kHeadSize) {
    return;
  }
  uint8_t* body = packet + qmi::kHeadSize;
  if (head.kind == qmi::kResponse) {
    end_transaction(client, head.txn, body, head.length, QMI_NO_ERR);
  } else if (head.kind == qmi::kIndication) {
    client->ind_cb(client, head.msg_id, body, head.length, client->ind_cb_data);
  }
}

static bool is_releasing(Client* client) {
  const std::lock_guard lock(client->mutex);
  return client->releasing;
}

static void* client_thread(void* argument) {
  auto* client = static_cast<Client*>(argument);
  for (;;) {
    const ssize_t size = recv(client->socket, client->packet, sizeof(client->packet), 0);
    const bool nothing_yet = size < 0 && (errno == EAGAIN || errno == EINTR);
    // A socket that could not be shut down goes on bringing reports.
    if (is_releasing(client) || (size < 1 && !nothing_yet)) {
      break;
    }
    if (nothing_yet) {
      continue;
    }
    handle_packet(client, client->packet, static_cast<size_t>(size));
    uint8_t handled[qmi::kHeadSize];
    send_packet(client->socket, qmi::kHandled, 0, 0, handled, 0);
  }
  qmi_client_error_cb error_cb = nullptr;
  {
    const std::lock_guard lock(client->mutex);
    error_cb = client->releasing ? nullptr : client->error_cb;
  }
  if (error_cb != nullptr) {
    error_cb(client, QMI_SERVICE_ERR, client->error_cb_data);
  }
  return nullptr;
}

qmi_client_error_type qmi_client_notifier_init(qmi_idl_service_object_type service,
                                               qmi_client_os_params* os_params,
                                               qmi_client_type* notifier) {
  if (service == nullptr) {
    return QMI_SERVICE_ERR;
  }
  auto* made = new (std::nothrow) Client;
  if (made == nullptr) {
    return QMI_INTERNAL_ERR;
  }
  made->service = service;
  *os_params = {.service_path = service->path, .timed_out = 0};
  *notifier = made;
  return QMI_NO_ERR;
}

static bool service_is_there(const qmi_client_os_params* os_params) {
  struct stat status;
  return stat(os_params->service_path, &status) == 0 && S_ISSOCK(status.st_mode);
}

void qmi_cci_os_signal_wait(qmi_client_os_params* os_params, unsigned int timeout_ms) {
  bool there = service_is_there(os_params);
  if (!there) {
    usleep(timeout_ms * 1000);
    there = service_is_there(os_params);
  }
  os_params->timed_out = there ? 0 : 1;
}

static int connect_to(const char* path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (strlen(path) >= sizeof(address.sun_path)) {
    return -1;
  }
  memcpy(address.sun_path, path, strlen(path));
  const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  // A receive ends now and then, to look whether the client is released: a socket that cannot be
  // shut down would keep its thread for good.
  const timeval look = {.tv_sec = 0, .tv_usec = 100 * 1000};
  if (fd >= 0 && (setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &look, sizeof(look)) != 0 ||
                  connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0)) {
    close(fd);
    return -1;
  }
  return fd;
}

qmi_client_error_type qmi_client_init_instance(qmi_idl_service_object_type service, unsigned int,
                                               qmi_client_ind_cb ind_cb, void* ind_cb_data,
                                               qmi_client_os_params*, unsigned int,
                                               qmi_client_type* client) {
  if (service == nullptr) {
    return QMI_SERVICE_ERR;
  }
  const int fd = connect_to(service->path);
  if (fd < 0) {
    return QMI_TIMEOUT_ERR;
  }
  std::unique_ptr<Client> made(new (std::nothrow) Client);
  if (made == nullptr) {
    close(fd);
    return QMI_INTERNAL_ERR;
  }
  made->service = service;
  made->socket = fd;
  made->ind_cb = ind_cb;
  made->ind_cb_data = ind_cb_data;
  if (pthread_create(&made->thread, nullptr, client_thread, made.get()) != 0) {
    close(fd);
    return QMI_INTERNAL_ERR;
  }
  *client = made.release();
  return QMI_NO_ERR;
}

qmi_client_error_type qmi_client_register_error_cb(qmi_client_type handle, qmi_client_error_cb cb,
                                                   void* data) {
  auto* client = static_cast<Client*>(handle);
  if (client == nullptr) {
    return QMI_INVALID_HANDLE;
  }
  const std::lock_guard lock(client->mutex);
  client->error_cb = cb;
  client->error_cb_data = data;
  return QMI_NO_ERR;
}

qmi_client_error_type qmi_client_send_msg_async(qmi_client_type handle, unsigned int msg_id,
                                                void* req, unsigned int req_len, void* resp,
                                                unsigned int resp_len,
                                                qmi_client_recv_msg_async_cb resp_cb, void* data,
                                                void** txn) {
  auto* client = static_cast<Client*>(handle);
  const auto* request = static_cast<const sns_client_req_msg_v01*>(req);
  if (client == nullptr || client->socket < 0) {
    return QMI_INVALID_HANDLE;
  }
  if (msg_id != SNS_CLIENT_REQ_V01 || req_len != sizeof(*request) ||
      request->payload_len > sizeof(request->payload)) {
    return QMI_MALFORMED_MSG;
  }
  // One field: the payload behind two bytes of its own length.
  uint8_t packet[qmi::kHeadSize + qmi::kFieldHeadSize + 2 + sizeof(request->payload)];
  uint8_t* body = packet + qmi::kHeadSize;
  body[0] = 0x01;
  put(body + 1, request->payload_len + 2);
  put(body + qmi::kFieldHeadSize, request->payload_len);
  memcpy(body + qmi::kFieldHeadSize + 2, request->payload, request->payload_len);
  const size_t body_size = qmi::kFieldHeadSize + 2 + request->payload_len;

  uint16_t number = 0;
  {
    const std::lock_guard lock(client->mutex);
    Transaction* free = find(client, 0);
    if (free == nullptr) {
      return QMI_INTERNAL_ERR;
    }
    client->last_txn =
        static_cast<uint16_t>(client->last_txn == UINT16_MAX ? 1 : client->last_txn + 1);
    number = client->last_txn;
    *free = {number, msg_id, resp, resp_len, resp_cb, data};
  }
  if (!send_packet(client->socket, qmi::kRequest, number, static_cast<uint16_t>(msg_id), packet,
                   body_size)) {
    const std::lock_guard lock(client->mutex);
    if (Transaction* unsent = find(client, number); unsent != nullptr) {
      *unsent = {};
    }
    return QMI_SERVICE_ERR;
  }
  *txn = nullptr;  // nothing here takes a transaction back
  return QMI_NO_ERR;
}

qmi_client_error_type qmi_client_release(qmi_client_type handle) {
  const std::unique_ptr<Client> client(static_cast<Client*>(handle));
  if (client == nullptr) {
    return QMI_INVALID_HANDLE;
  }
  if (client->socket >= 0) {
    {
      const std::lock_guard lock(client->mutex);
      client->releasing = true;
    }
    shutdown(client->socket, SHUT_RDWR);
    pthread_join(client->thread, nullptr);
    close(client->socket);
    for (const Transaction& left : client->transactions) {
      end_transaction(client.get(), left.number, nullptr, 0, QMI_SERVICE_ERR);
    }
  }
  return QMI_NO_ERR;
}
