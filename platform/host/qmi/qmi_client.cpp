// QMI clients over Unix sockets, and the messages of the sensor client service; see qmi_client.h
// and, for what travels, packet.h.

#include "platform/host/qmi/qmi_client.h"

#include <pthread.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

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

static void put(std::vector<uint8_t>* bytes, uint64_t value, size_t size) {
  for (size_t i = 0; i < size; ++i) {
    bytes->push_back(static_cast<uint8_t>(value >> (8 * i)));
  }
}

static uint64_t get(const uint8_t* bytes, size_t size) {
  uint64_t value = 0;
  for (size_t i = 0; i < size; ++i) {
    value |= static_cast<uint64_t>(bytes[i]) << (8 * i);
  }
  return value;
}

struct Field {
  const uint8_t* value;
  size_t size;
};

// The fields of a body by type. False when it is cut off.
static bool split(const uint8_t* body, size_t size, std::map<uint8_t, Field>* fields) {
  while (size > 0) {
    if (size < qmi::kFieldHeadSize) {
      return false;
    }
    const size_t length = get(body + 1, 2);
    if (length > size - qmi::kFieldHeadSize) {
      return false;
    }
    (*fields)[body[0]] = {body + qmi::kFieldHeadSize, length};
    body += qmi::kFieldHeadSize + length;
    size -= qmi::kFieldHeadSize + length;
  }
  return true;
}

// Copies a little-endian number of exactly this size.
template <typename Number>
static bool take(const std::map<uint8_t, Field>& fields, uint8_t type, Number* number) {
  const auto found = fields.find(type);
  if (found == fields.end() || found->second.size != sizeof(Number)) {
    return false;
  }
  *number = static_cast<Number>(get(found->second.value, sizeof(Number)));
  return true;
}

static bool decode_response(const std::map<uint8_t, Field>& fields, sns_client_resp_msg_v01* resp) {
  const auto outcome = fields.find(0x02);
  if (outcome == fields.end() || outcome->second.size != 4) {
    return false;
  }
  resp->qmi_result = static_cast<uint32_t>(get(outcome->second.value, 2));
  resp->qmi_error = static_cast<uint32_t>(get(outcome->second.value + 2, 2));
  resp->client_id_valid = take(fields, 0x10, &resp->client_id) ? 1 : 0;
  resp->result_valid = take(fields, 0x11, &resp->result) ? 1 : 0;
  return true;
}

static bool decode_report(const std::map<uint8_t, Field>& fields,
                          sns_client_report_ind_msg_v01* report) {
  // The payload stands behind two bytes of its own length.
  const auto payload = fields.find(0x02);
  if (!take(fields, 0x01, &report->client_id) || payload == fields.end() ||
      payload->second.size < 2) {
    return false;
  }
  const size_t length = get(payload->second.value, 2);
  if (length > sizeof(report->payload) || length != payload->second.size - 2) {
    return false;
  }
  report->payload_len = static_cast<uint32_t>(length);
  memcpy(report->payload, payload->second.value + 2, length);
  return true;
}

int32_t qmi_idl_message_decode(qmi_idl_service_object_type service, qmi_idl_type_of_message type,
                               uint16_t msg_id, const void* src, uint32_t src_len, void* dst,
                               uint32_t dst_len) {
  std::map<uint8_t, Field> fields;
  if (service == nullptr || !split(static_cast<const uint8_t*>(src), src_len, &fields)) {
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
  unsigned int msg_id;
  void* resp;
  unsigned int resp_len;
  qmi_client_recv_msg_async_cb cb;
  void* data;
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
  std::map<uint16_t, Transaction> transactions = {};
};

static bool send_packet(int socket, qmi::PacketKind kind, uint16_t txn, uint16_t msg_id,
                        const std::vector<uint8_t>& body) {
  std::vector<uint8_t> packet(qmi::kHeadSize);
  qmi::write_head({kind, txn, msg_id, static_cast<uint16_t>(body.size())}, packet.data());
  packet.insert(packet.end(), body.begin(), body.end());
  return send(socket, packet.data(), packet.size(), MSG_NOSIGNAL) ==
         static_cast<ssize_t>(packet.size());
}

static void end_transaction(Client* client, uint16_t txn, const uint8_t* body, uint32_t size,
                            qmi_client_error_type error) {
  Transaction transaction;
  {
    const std::lock_guard lock(client->mutex);
    const auto found = client->transactions.find(txn);
    if (found == client->transactions.end()) {
      return;
    }
    transaction = found->second;
    client->transactions.erase(found);
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

static void* client_thread(void* argument) {
  auto* client = static_cast<Client*>(argument);
  std::vector<uint8_t> packet(kLargestPacket);
  for (;;) {
    const ssize_t size = recv(client->socket, packet.data(), packet.size(), 0);
    if (size < 1) {
      break;
    }
    handle_packet(client, packet.data(), static_cast<size_t>(size));
    send_packet(client->socket, qmi::kHandled, 0, 0, {});
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
  *os_params = {.service_path = service->path, .timed_out = 0};
  *notifier = new Client{.service = service};
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
  if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
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
  auto made = std::unique_ptr<Client>(
      new Client{.service = service, .socket = fd, .ind_cb = ind_cb, .ind_cb_data = ind_cb_data});
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
  std::vector<uint8_t> body = {0x01};
  put(&body, request->payload_len + 2, 2);
  put(&body, request->payload_len, 2);
  body.insert(body.end(), request->payload, request->payload + request->payload_len);

  uint16_t number = 0;
  {
    const std::lock_guard lock(client->mutex);
    number = ++client->last_txn;
    client->transactions[number] = {msg_id, resp, resp_len, resp_cb, data};
  }
  if (!send_packet(client->socket, qmi::kRequest, number, static_cast<uint16_t>(msg_id), body)) {
    const std::lock_guard lock(client->mutex);
    client->transactions.erase(number);
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
    while (!client->transactions.empty()) {
      end_transaction(client.get(), client->transactions.begin()->first, nullptr, 0,
                      QMI_SERVICE_ERR);
    }
  }
  return QMI_NO_ERR;
}
