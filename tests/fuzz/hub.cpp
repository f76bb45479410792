// The hub's indications. A case is a sensor and some events: those that are put together here by
// the other implementation of the messages have a known effect on values and requests; raw bytes
// have none that is known, but must not harm.

#include <qmi_client.h>
#include <qmi_idl_lib.h>
#include <sensor_hub.pb.h>
#include <sns_client_api_v01.h>
#include <string.h>

#include <array>
#include <bit>
#include <vector>

#include "sensors/sensor_client.h"
#include "tests/fuzz/fuzz.h"

// ---- the QMI library: the callback of the connection, and the requests' number

static qmi_client_ind_cb indicate = nullptr;
static int requests = 0;
static int handle = 0;

qmi_idl_service_object_type SNS_CLIENT_SVC_get_service_object_internal_v01(int32_t, int32_t,
                                                                           int32_t) {
  return reinterpret_cast<qmi_idl_service_object_type>(&handle);
}

qmi_client_error_type qmi_client_notifier_init(qmi_idl_service_object_type, qmi_client_os_params*,
                                               qmi_client_type* notifier) {
  *notifier = reinterpret_cast<qmi_client_type>(&handle);
  return 0;
}

void qmi_cci_os_signal_wait(qmi_client_os_params* os_params, unsigned) {
  os_params->timed_out = 0;
}

qmi_client_error_type qmi_client_init_instance(qmi_idl_service_object_type, unsigned,
                                               qmi_client_ind_cb ind_cb, void*,
                                               qmi_client_os_params*, unsigned,
                                               qmi_client_type* client) {
  indicate = ind_cb;
  *client = reinterpret_cast<qmi_client_type>(&handle);
  return 0;
}

qmi_client_error_type qmi_client_register_error_cb(qmi_client_type, qmi_client_error_cb, void*) {
  return 0;
}

qmi_client_error_type qmi_client_send_msg_async(qmi_client_type client, unsigned msg_id, void*,
                                                unsigned, void* resp, unsigned resp_len,
                                                qmi_client_recv_msg_async_cb resp_cb, void* data,
                                                void**) {
  ++requests;
  resp_cb(client, msg_id, resp, resp_len, data, 0);
  return 0;
}

// An indication is its payload.
int32_t qmi_idl_message_decode(qmi_idl_service_object_type, qmi_idl_type_of_message, uint16_t,
                               const void* src, uint32_t src_len, void* dst, uint32_t) {
  auto* report = static_cast<sns_client_report_ind_msg_v01*>(dst);
  if (src_len > sizeof(report->payload)) {
    return -9;
  }
  report->payload_len = src_len;
  memcpy(report->payload, src, src_len);
  return 0;
}

qmi_client_error_type qmi_client_release(qmi_client_type) {
  return 0;
}

// ---- what the client must make of it

namespace {

constexpr uint64_t kLookup = 0xABABABABABABABAB;
constexpr int kMostEvents = 16;  // what one does depends on few before it

struct Run {
  int type = 0;
  std::array<float, kSensorValues> values = {kNoSensorData, kNoSensorData, kNoSensorData};
  int requests = 1;  // the lookup
  bool is_known = true;
  Case* bytes = nullptr;

  uint32_t number() {
    uint32_t value = 0;
    for (int i = 0; i < 4; ++i) {
      value = value << 8 | bytes->byte();
    }
    return value;
  }
};

std::string event(uint64_t suid, uint32_t id, const google::protobuf::MessageLite& message) {
  sns_client_event_msg report;
  report.mutable_suid()->set_low(suid);
  report.mutable_suid()->set_high(suid);
  auto* one = report.add_events();
  one->set_msg_id(id);
  one->set_timestamp(7);
  one->set_payload(message.SerializeAsString());
  return report.SerializeAsString();
}

std::string sample(Run* run) {
  sns_std_sensor_event message;
  message.set_status(0);
  const int count = run->bytes->byte() % 24;
  run->values = {0, 0, 0};
  for (int i = 0; i < count; ++i) {
    const auto value = std::bit_cast<float>(run->number());
    message.add_data(value);
    if (i < kSensorValues) {
      run->values[static_cast<size_t>(i)] = value;
    }
  }
  return event(1, run->bytes->byte() % 2 != 0 ? 1025 : 767, message);
}

std::string proximity(Run* run) {
  sns_proximity_event message;
  message.set_raw_adc(run->number());
  message.set_status(run->number());
  message.set_state(run->number());
  run->values[0] = static_cast<float>(message.raw_adc());
  run->values[1] = static_cast<float>(message.status());
  return event(1, 769, message);
}

std::string hall(Run* run) {
  sns_hall_event message;
  message.set_state(run->number());
  message.set_accuracy(run->number());
  run->values[0] = static_cast<float>(message.state());
  run->values[1] = static_cast<float>(message.accuracy());
  return event(1, 770, message);
}

std::string attributes(Run* run) {
  sns_std_attr_event message;
  const int count = run->bytes->byte() % 4;
  for (int i = 0; i < count; ++i) {
    auto* attribute = message.add_attributes();
    const uint8_t id = run->bytes->byte() % 32;
    const int64_t value = run->bytes->byte() % 3;
    attribute->set_attr_id(id);
    attribute->mutable_value()->add_values()->set_integer(value);
    const bool second = run->type == kSensorSecondAccel || run->type == kSensorSecondGyro;
    run->requests += id == 19 && (!second || value == 1) ? 1 : 0;
  }
  return event(1, 128, message);
}

std::string found(Run* run) {
  sns_suid_event message;
  message.set_data_type(run->bytes->byte() % 2 != 0 ? "sar" : "sars");
  const int count = run->bytes->byte() % 4;
  for (int i = 0; i < count; ++i) {
    auto* suid = message.add_suids();
    suid->set_low(run->number());
    suid->set_high(1);
  }
  run->requests += count;
  const std::string& own = run->type == kSensorSar ? "sar" : run->type == kSensorSars ? "sars" : "";
  if (message.data_type() == own) {
    run->values[0] = 1;
  }
  return event(kLookup, 768, message);
}

std::string raw(Run* run) {
  run->is_known = false;
  return std::string(run->bytes->take(run->number() % 1024));
}

using Make = std::string (*)(Run*);
constexpr Make kEvents[] = {sample, proximity, hall, attributes, found, raw};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Case bytes(data, size);
  Run run;
  run.bytes = &bytes;
  run.type = bytes.byte() % 16;
  requests = 0;
  expect(open_sensor(run.type) == 0, "the run does not start");
  for (int i = 0; i < kMostEvents && !bytes.empty(); ++i) {
    const std::string payload = kEvents[bytes.byte() % std::size(kEvents)](&run);
    const std::string copy = payload;
    indicate(reinterpret_cast<qmi_client_type>(&handle), 2, const_cast<char*>(copy.data()),
             static_cast<unsigned>(copy.size()), nullptr);
    if (payload.size() > sizeof(sns_client_report_ind_msg_v01::payload)) {
      run.is_known = false;  // it was not taken, though counted
    }
  }
  std::array<float, kSensorValues> values;
  fetch_sensor_data(values.data());
  close_sensor(run.type);
  if (run.is_known) {
    expect(memcmp(values.data(), run.values.data(), sizeof(values)) == 0, "other values");
    expect(requests == run.requests, "other requests", std::to_string(requests));
  }
  return 0;
}
