// The sensor hub client; see sensor_client.h. From top to bottom: the state of the run, requests,
// events (from an indication down to one attribute value), and the three calls.

#include "sensors/sensor_client.h"

#include <pb_decode.h>
#include <pb_encode.h>
#include <qmi_client.h>
#include <qmi_idl_lib.h>
#include <sensor_hub.pb.h>
#include <sns_client_api_v01.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <iterator>
#include <memory>
#include <mutex>
#include <string_view>
#include <utility>

#include "core/log.h"
#include "core/unique.h"

#define SENSOR_LOG(...) __android_log_print(ANDROID_LOG_INFO, "[AT_SENSOR]", __VA_ARGS__)

struct SensorTypeRow {
  int type_id;
  const char* data_type;
};

static const SensorTypeRow sensor_type_table[] = {
    {kSensorAccel, "accel"},
    {kSensorMag, "mag"},
    {kSensorGyro, "gyro"},
    {kSensorAmbientLight, "ambient_light"},
    {kSensorProximity, "proximity"},
    {kSensorWiseLight, "wise_light"},
    {kSensorProximityFake, "proximity_fake"},
    {kSensorPressure, "pressure"},
    {kSensorSar, "sar"},
    {kSensorSecondAccel, "accel"},
    {kSensorSecondGyro, "gyro"},
    {kSensorHall, "hall"},
    {kSensorAngleHall, "angle_hall"},
    {kSensorPadAls, "pad_als"},
    {kSensorVicePadAls, "vice_pad_als"},
    {kSensorSars, "sars"},
};

enum MessageId : uint32_t {
  kRequestSuid = 512,
  kRequestAttributes = 1,
  kRequestEnable = 513,
  kEventAttributes = 128,
  kEventError = 130,
  kEventConfigEcho = 513,
  kEventSample = 1025,
  kEventSecondSample = 767,  // the same message under a second id
  kEventPhysicalConfig = 768,
  kEventProximity = 769,
  kEventHall = 770,
};

static constexpr unsigned kServiceWaitMs = 200;
static constexpr int32_t kImpossibleLength = -1000;  // none of the library's error numbers
static constexpr float kSampleRateHz = 10.0F;
static constexpr int32_t kHardwareIdAttribute = 19;
static constexpr int64_t kSecondSensor = 1;  // the hardware id of the second of two sensors
static constexpr int kDeepestList = 8;       // of the lists nested in an attribute's own
// A request to this SUID looks sensors up, and an event from it tells what was found.
static constexpr sns_suid_value kLookupSuid = {0xABABABABABABABAB, 0xABABABABABABABAB};

// ---- the run

struct SensorTestState {
  bool testing = false;
  int32_t type_id = -1;
  int32_t attribute_id = -1;  // of the attribute that is being decoded
  int64_t hardware_id = -1;   // last integer value of attribute 19
  sns_suid_value suid = {0, 0};
  float values[kSensorValues] = {kNoSensorData, kNoSensorData, kNoSensorData};
  qmi_client_type client = nullptr;
};

static SensorTestState sensor_test_state;
// The test command's thread and the QMI library's both use the state. Never held in a QMI call:
// release waits for callbacks.
static std::mutex state_mutex;

template <typename Value>
static Value get(Value SensorTestState::*field) {
  const std::lock_guard lock(state_mutex);
  return sensor_test_state.*field;
}

template <typename Value>
static void set(Value SensorTestState::*field, const Value& value) {
  const std::lock_guard lock(state_mutex);
  sensor_test_state.*field = value;
}

static void set_values(const float* first, int count) {
  const std::lock_guard lock(state_mutex);
  std::copy_n(first, count, sensor_test_state.values);
}

static bool same(const sns_suid_value& one, const sns_suid_value& other) {
  return one.low == other.low && one.high == other.high;
}

static bool is_second_sensor(int32_t type_id) {
  return type_id == kSensorSecondAccel || type_id == kSensorSecondGyro;
}

// ---- requests

template <typename Type>
using Allocated = std::unique_ptr<Type, FreeMemory>;

// Bytes of somebody else's: to be encoded, or captured while they are decoded.
struct Span {
  const pb_byte_t* bytes = nullptr;
  size_t size = 0;
};

static bool encode_span(pb_ostream_t* stream, const pb_field_t* field, void* const* argument) {
  const auto* span = static_cast<const Span*>(*argument);
  return pb_encode_tag_for_field(stream, field) &&
         pb_encode_string(stream, span->bytes, span->size);
}

static pb_callback_t encoded_as(Span* span) {
  return {.funcs = {.encode = encode_span}, .arg = span};
}

struct EncodedMessage {
  Allocated<pb_byte_t> bytes;
  size_t size = 0;
};

// Encodes a request's own message. name and failure are what the log lines say. What describes the
// fields is another type in nanopb 0.3 than in 0.4: any is taken.
static bool encode_message(const char* name, const char* failure, const auto* fields,
                           const void* message, EncodedMessage* encoded) {
  if (!pb_get_encoded_size(&encoded->size, fields, message)) {
    SENSOR_LOG("%s: ERROR GET SIZE", name);
    return false;
  }
  encoded->bytes.reset(static_cast<pb_byte_t*>(malloc(std::max<size_t>(encoded->size, 1))));
  pb_ostream_t stream = pb_ostream_from_buffer(encoded->bytes.get(), encoded->size);
  if (encoded->bytes == nullptr || !pb_encode(&stream, fields, message)) {
    SENSOR_LOG("%s: %s %s", name, failure, PB_GET_ERROR(&stream));
    return false;
  }
  return true;
}

static bool get_encoded_suid_req(const char* data_type, bool default_only,
                                 EncodedMessage* encoded) {
  Span name = {reinterpret_cast<const pb_byte_t*>(data_type), strlen(data_type)};
  sns_suid_req request = sns_suid_req_init_default;
  request.data_type = encoded_as(&name);
  request.has_register_updates = true;
  request.register_updates = true;
  request.has_default_only = true;
  request.default_only = default_only;
  return encode_message(__func__, "ERROR ENCODE", sns_suid_req_fields, &request, encoded);
}

static bool get_encoded_attr_req(EncodedMessage* encoded) {
  const sns_attr_req request = sns_attr_req_init_default;
  return encode_message(__func__, "ERROR", sns_attr_req_fields, &request, encoded);
}

static bool get_encoded_enable_req(EncodedMessage* encoded) {
  const sns_sample_rate_config request = {.sample_rate = kSampleRateHz};
  return encode_message(__func__, "ERROR ENCODE", sns_sample_rate_config_fields, &request, encoded);
}

static void resp_msg_cb(qmi_client_type, unsigned msg_id, void* buffer, unsigned size, void* data,
                        qmi_client_error_type transport_error) {
  const Allocated<sns_client_resp_msg_v01> response(static_cast<sns_client_resp_msg_v01*>(data));
  SENSOR_LOG("%s: Received response; error %i, msg_id %i, size %i", __func__, transport_error,
             static_cast<int>(msg_id), static_cast<int>(size));
  if (transport_error == 0 && buffer != nullptr && size >= sizeof(sns_client_resp_msg_v01)) {
    const auto* received = static_cast<const sns_client_resp_msg_v01*>(buffer);
    SENSOR_LOG("%s: Received client ID %ld result %i", __func__,
               static_cast<long>(received->client_id), static_cast<int>(received->result));
  }
}

// True when the request could be encoded, whatever the library then made of it.
static bool send_qmi_req(const sns_suid_value& suid, MessageId msg_id,
                         const EncodedMessage& payload) {
  Span span = {payload.bytes.get(), payload.size};
  sns_client_request_msg message = sns_client_request_msg_init_default;
  message.suid = suid;
  message.msg_id = msg_id;
  message.suspend.processor = 1;
  message.suspend.wakeup = 0;
  message.request.payload = encoded_as(&span);

  sns_client_req_msg_v01 request = {};
  pb_ostream_t stream = pb_ostream_from_buffer(request.payload, sizeof(request.payload));
  if (!pb_encode(&stream, sns_client_request_msg_fields, &message)) {
    SENSOR_LOG("%s: ERROR ENCODE REQ: %s", __func__, PB_GET_ERROR(&stream));
    return false;
  }
  request.payload_len = static_cast<uint32_t>(stream.bytes_written);

  auto* response =
      static_cast<sns_client_resp_msg_v01*>(calloc(1, sizeof(sns_client_resp_msg_v01)));
  if (response == nullptr) {
    SENSOR_LOG("%s: Unable to allocate sns_client_resp_msg_v01", __func__);
    return true;
  }
  void* transaction = nullptr;
  const qmi_client_error_type error = qmi_client_send_msg_async(
      get(&SensorTestState::client), SNS_CLIENT_REQ_V01, &request, sizeof(request), response,
      sizeof(*response), resp_msg_cb, response, &transaction);
  if (error != 0) {
    SENSOR_LOG("%s: error %d", __func__, error);
    free(response);
  }
  return true;
}

static void send_enable_req() {
  SENSOR_LOG("SEND ENABLE REQ, type id %d", get(&SensorTestState::type_id));
  EncodedMessage request;
  if (get_encoded_enable_req(&request)) {
    send_qmi_req(get(&SensorTestState::suid), kRequestEnable, request);
  }
}

// ---- events

using DecodeCallback = bool (*)(pb_istream_t*, const pb_field_t*, void**);

static pb_callback_t decoded_by(DecodeCallback callback, void* argument = nullptr) {
  return {.funcs = {.decode = callback}, .arg = argument};
}

// Captures a text where it lies: not terminated, valid as long as the indication's payload.
static bool capture_span(pb_istream_t* stream, const pb_field_t*, void** argument) {
  auto* span = static_cast<Span*>(*argument);
  *span = {static_cast<const pb_byte_t*>(stream->state), stream->bytes_left};
  return pb_read(stream, nullptr, stream->bytes_left);
}

// The text up to a zero byte, if it has one.
static std::string_view text_of(const Span& span) {
  const auto* text = reinterpret_cast<const char*>(span.bytes);
  return {text, text == nullptr ? 0 : strnlen(text, span.size)};
}

// Decodes an event's own message and logs a failure under the step's name.
static bool decode_event(const char* name, pb_istream_t* stream, const auto* fields, void* event) {
  if (!pb_decode(stream, fields, event)) {
    SENSOR_LOG("%s: ERROR %s", name, PB_GET_ERROR(stream));
    return false;
  }
  return true;
}

// One entry of an attribute's list; the argument is the number of lists around that. A nested list
// comes back here. The lists below the deepest are skipped: an event has room for some two hundred,
// and each takes about 1 kB of the library's thread's stack.
static bool decode_attr_value(pb_istream_t* stream, const pb_field_t*, void** argument) {
  int depth = *static_cast<const int*>(*argument) + 1;
  Span text;
  sns_std_attr_value_data data = sns_std_attr_value_data_init_default;
  if (depth <= kDeepestList) {
    data.nested.values = decoded_by(decode_attr_value, &depth);
  }
  data.text = decoded_by(capture_span, &text);
  if (!pb_decode(stream, sns_std_attr_value_data_fields, &data)) {
    return false;
  }
  if (data.has_real) {
    SENSOR_LOG("attr val %f", static_cast<double>(data.real));
  } else if (data.has_integer) {
    SENSOR_LOG("attr val %li", static_cast<long>(data.integer));
  } else if (data.has_boolean) {
    SENSOR_LOG("attr val %d", data.boolean ? 1 : 0);
  } else if (text.bytes != nullptr) {
    const std::string_view shown = text_of(text);
    SENSOR_LOG("attr val %.*s", static_cast<int>(shown.size()), shown.data());
  } else if (data.has_nested) {
    SENSOR_LOG("attr nested");
  } else {
    SENSOR_LOG("unknown attr type");
  }
  if (get(&SensorTestState::attribute_id) == kHardwareIdAttribute) {
    // A value of another kind counts as 0; of several values the last one counts.
    set(&SensorTestState::hardware_id, data.has_integer ? data.integer : int64_t{0});
  }
  return true;
}

static bool decode_attr(pb_istream_t* stream, const pb_field_t*, void**) {
  // The values need the attribute's id, so it is read ahead of them.
  pb_istream_t ahead = *stream;
  sns_std_attr attribute = sns_std_attr_init_default;
  if (!pb_decode(&ahead, sns_std_attr_fields, &attribute)) {
    __android_log_print(ANDROID_LOG_ERROR, "SNS_CLIENT_EXAMPLE", "event: %s", PB_GET_ERROR(&ahead));
    attribute.attr_id = 0;
  }
  const int32_t attr_id = attribute.attr_id;
  set(&SensorTestState::attribute_id, attr_id);
  SENSOR_LOG("%s: attr id %d", __func__, attr_id);

  attribute = sns_std_attr_init_default;
  int depth = 0;
  attribute.value.values = decoded_by(decode_attr_value, &depth);
  if (!pb_decode(stream, sns_std_attr_fields, &attribute)) {
    return false;
  }
  // A sensor without a hardware id is never enabled.
  if (attr_id == kHardwareIdAttribute && (!is_second_sensor(get(&SensorTestState::type_id)) ||
                                          get(&SensorTestState::hardware_id) == kSecondSensor)) {
    send_enable_req();
  }
  return true;
}

static bool decode_attr_event(pb_istream_t* stream) {
  SENSOR_LOG("%s: event length %zu", __func__, stream->bytes_left);
  sns_std_attr_event event = sns_std_attr_event_init_default;
  event.attributes = decoded_by(decode_attr);
  return decode_event(__func__, stream, sns_std_attr_event_fields, &event);
}

struct Samples {
  float data[16] = {};
  uint8_t count = 0;
};

static bool decode_sample(pb_istream_t* stream, const pb_field_t*, void** argument) {
  auto* samples = static_cast<Samples*>(*argument);
  float value = 0;
  if (!pb_decode_fixed32(stream, &value)) {
    return false;
  }
  if (samples->count < std::size(samples->data)) {
    samples->data[samples->count++] = value;
  }
  return true;
}

static bool decode_std_sensor_event(pb_istream_t* stream) {
  Samples samples;
  sns_std_sensor_event event = sns_std_sensor_event_init_default;
  event.data = decoded_by(decode_sample, &samples);
  if (!decode_event(__func__, stream, sns_std_sensor_event_fields, &event)) {
    return false;
  }
  // What a sample of fewer values does not have is 0: kNoSensorData says that no sample came.
  set_values(samples.data, kSensorValues);
  SENSOR_LOG("STD EVENT, data[3](%f, %f, %f)", static_cast<double>(samples.data[0]),
             static_cast<double>(samples.data[1]), static_cast<double>(samples.data[2]));
  return true;
}

static bool decode_physical_config_event(pb_istream_t* stream) {
  sns_physical_config_event event = sns_physical_config_event_init_default;
  if (!decode_event(__func__, stream, sns_physical_config_event_fields, &event)) {
    return false;
  }
  SENSOR_LOG("config event, Sample rate: %f", static_cast<double>(event.sample_rate));
  return true;
}

static bool decode_proximity_event(pb_istream_t* stream) {
  sns_proximity_event event = sns_proximity_event_init_default;
  if (!decode_event(__func__, stream, sns_proximity_event_fields, &event)) {
    return false;
  }
  const float values[] = {static_cast<float>(event.raw_adc), static_cast<float>(event.status)};
  set_values(values, 2);
  SENSOR_LOG("PROX EVENT, status %d, raw_adc %d", static_cast<int>(event.status),
             static_cast<int>(event.raw_adc));
  return true;
}

static bool decode_hall_event(pb_istream_t* stream) {
  sns_hall_event event = sns_hall_event_init_default;
  if (!decode_event(__func__, stream, sns_hall_event_fields, &event)) {
    return false;
  }
  const float values[] = {static_cast<float>(event.state), static_cast<float>(event.accuracy)};
  set_values(values, 2);
  // The proximity event's words and the misspelling are kept as they stand.
  SENSOR_LOG("PROX EVENT, status %d, accurancy %d", static_cast<int>(event.state),
             static_cast<int>(event.accuracy));
  return true;
}

// The payload of an event from a sensor; the argument is the event's message id.
static bool decode_sensor_event(pb_istream_t* stream, const pb_field_t*, void** argument) {
  const uint32_t msg_id = *static_cast<const uint32_t*>(*argument);
  switch (msg_id) {
    case kEventAttributes:
      return decode_attr_event(stream);
    case kEventError:
      SENSOR_LOG("%s: ERROR EVENT", __func__);
      return false;
    case kEventConfigEcho:
      return pb_read(stream, nullptr, stream->bytes_left);
    case kEventSample:
    case kEventSecondSample:
      return decode_std_sensor_event(stream);
    case kEventPhysicalConfig:
      return decode_physical_config_event(stream);
    case kEventProximity:
      return decode_proximity_event(stream);
    case kEventHall:
      return decode_hall_event(stream);
    default:
      SENSOR_LOG("%s: UNKNOWN EVENT %d", __func__, static_cast<int>(msg_id));
      return false;
  }
}

static bool decode_suid(pb_istream_t* stream, const pb_field_t*, void**) {
  sns_suid_value suid = sns_suid_value_init_default;
  if (!pb_decode(stream, sns_suid_value_fields, &suid)) {
    return false;
  }
  SENSOR_LOG("%s: RECEIVE SUID %lx %lx", __func__, static_cast<unsigned long>(suid.low),
             static_cast<unsigned long>(suid.high));
  EncodedMessage request;
  if (get_encoded_attr_req(&request)) {
    send_qmi_req(suid, kRequestAttributes, request);
  }
  return true;
}

// The payload of an event from the lookup SUID.
static bool decode_suid_event(pb_istream_t* stream, const pb_field_t*, void**) {
  Span name;
  sns_suid_event event = sns_suid_event_init_default;
  event.data_type = decoded_by(capture_span, &name);
  event.suids = decoded_by(decode_suid);
  if (!decode_event(__func__, stream, sns_suid_event_fields, &event)) {
    return false;
  }
  const std::string_view data_type = text_of(name);
  SENSOR_LOG("%s: Received SUID Event with data type [%.*s]", __func__,
             static_cast<int>(data_type.size()), data_type.data());
  const int32_t type_id = get(&SensorTestState::type_id);
  if ((type_id == kSensorSar || type_id == kSensorSars) &&
      data_type == sensor_type_table[type_id].data_type) {
    // Whether or not a sensor was found: for these the hub's answer is the pass.
    const float answered = 1.0F;
    set_values(&answered, 1);
  }
  return true;
}

// One event; the argument is the callback for its payload.
static bool handle_event(pb_istream_t* stream, const pb_field_t*, void** argument) {
  SENSOR_LOG("%s: /***** START *****/", __func__);
  // The payload needs the event's message id, so it is read ahead of it.
  pb_istream_t ahead = *stream;
  sns_client_event_msg_event event = sns_client_event_msg_event_init_default;
  uint32_t msg_id = 0;
  if (pb_decode(&ahead, sns_client_event_msg_event_fields, &event)) {
    msg_id = event.msg_id;
    SENSOR_LOG("%s: message id %d, timestamp %lu", __func__, static_cast<int>(msg_id),
               static_cast<unsigned long>(event.timestamp));
  }
  event = sns_client_event_msg_event_init_default;
  event.payload = decoded_by(*static_cast<const DecodeCallback*>(*argument), &msg_id);
  const bool decoded = pb_decode(stream, sns_client_event_msg_event_fields, &event);
  SENSOR_LOG("%s: /***** END *****/", __func__);
  return decoded;
}

static void handle_event_msg(const sns_client_report_ind_msg_v01& report,
                             const sns_suid_value& suid) {
  SENSOR_LOG("%s: START", __func__);
  DecodeCallback decode_payload = decode_suid_event;
  if (!same(suid, kLookupSuid)) {
    set(&SensorTestState::suid, suid);
    decode_payload = decode_sensor_event;
  }
  sns_client_event_msg message = sns_client_event_msg_init_default;
  message.events = decoded_by(handle_event, &decode_payload);
  pb_istream_t stream = pb_istream_from_buffer(report.payload, report.payload_len);
  if (!pb_decode(&stream, sns_client_event_msg_fields, &message)) {
    SENSOR_LOG("%s: ERROR %s", __func__, PB_GET_ERROR(&stream));
  }
}

static qmi_idl_service_object_type sensor_service() {
  return SNS_CLIENT_SVC_get_service_object_internal_v01(1, 3, 6);
}

static void ind_msg_cb(qmi_client_type, unsigned msg_id, void* buffer, unsigned size, void*) {
  const Allocated<sns_client_report_ind_msg_v01> report(static_cast<sns_client_report_ind_msg_v01*>(
      calloc(1, sizeof(sns_client_report_ind_msg_v01))));
  if (report == nullptr) {
    return;
  }
  int32_t error =
      qmi_idl_message_decode(sensor_service(), QMI_IDL_INDICATION, static_cast<uint16_t>(msg_id),
                             buffer, size, report.get(), sizeof(*report));
  if (error == 0 && report->payload_len > sizeof(report->payload)) {
    error = kImpossibleLength;  // the length is the hub's word
  }
  if (error != 0) {
    SENSOR_LOG("%s: QMI decode error %d", __func__, error);
    return;
  }
  sns_client_event_msg message = sns_client_event_msg_init_default;
  pb_istream_t stream = pb_istream_from_buffer(report->payload, report->payload_len);
  if (!pb_decode(&stream, sns_client_event_msg_fields, &message)) {
    SENSOR_LOG("%s: ERROR %s", __func__, PB_GET_ERROR(&stream));
    return;
  }
  handle_event_msg(*report, message.suid);
}

static void error_msg_cb(qmi_client_type, qmi_client_error_type error, void*) {
  SENSOR_LOG("%s: %d", __func__, error);
}

// ---- the three calls

static bool wait_for_service() {
  const qmi_idl_service_object_type service = sensor_service();
  SENSOR_LOG("%s", __func__);
  qmi_client_os_params os_params = {};
  qmi_client_type notifier = nullptr;
  bool found = false;
  const qmi_client_error_type error = qmi_client_notifier_init(service, &os_params, &notifier);
  if (error != 0) {
    SENSOR_LOG("%s: qmi_client_notifier_init error %d", __func__, error);
  } else {
    qmi_cci_os_signal_wait(&os_params, kServiceWaitMs);
    found = os_params.timed_out == 0;
    if (!found) {
      SENSOR_LOG("%s: Service is not available after %d timeout", __func__,
                 static_cast<int>(kServiceWaitMs));
    }
  }
  if (notifier != nullptr) {
    qmi_client_release(notifier);
  }
  SENSOR_LOG("%s: success", __func__);  // after a failure, too
  return found;
}

static bool create_client_conn() {
  SENSOR_LOG("%s", __func__);
  static qmi_client_os_params os_params;  // the library may keep it as long as the connection
  qmi_client_type client = nullptr;
  qmi_client_error_type error = qmi_client_init_instance(sensor_service(), 0, ind_msg_cb, nullptr,
                                                         &os_params, kServiceWaitMs, &client);
  if (error != 0) {
    SENSOR_LOG("%s: qmi_client_init_instance error %d", __func__, error);
  } else {
    set(&SensorTestState::client, client);
    error = qmi_client_register_error_cb(client, error_msg_cb, nullptr);
    if (error == 0) {
      return true;
    }
    SENSOR_LOG("%s: qmi_client_register_error_cb %d", __func__, error);
    set(&SensorTestState::client, qmi_client_type{nullptr});
  }
  if (client != nullptr) {
    qmi_client_release(client);
  }
  SENSOR_LOG("%s: success", __func__);  // as above
  return false;
}

static bool request_suid(int type_id) {
  set(&SensorTestState::type_id, type_id);
  const char* data_type = sensor_type_table[type_id].data_type;
  const bool default_only = !is_second_sensor(type_id);
  SENSOR_LOG("REQUEST [%s] SUID, default_only %d", data_type, default_only ? 1 : 0);
  EncodedMessage request;
  return get_encoded_suid_req(data_type, default_only, &request) &&
         send_qmi_req(kLookupSuid, kRequestSuid, request);
}

int open_sensor(int type_id) {
  SENSOR_LOG("%s: type %d", __func__, type_id);
  if (get(&SensorTestState::testing)) {
    SENSOR_LOG("%s: sensor already testing", __func__);
    return -1;
  }
  // A sample that came between the last run's fetch and its end is none of this run's.
  static constexpr float kNone[kSensorValues] = {kNoSensorData, kNoSensorData, kNoSensorData};
  set_values(kNone, kSensorValues);
  if (!wait_for_service() || !create_client_conn()) {
    return -1;
  }
  // Before the request: a quick hub has answered when it returns.
  set(&SensorTestState::hardware_id, int64_t{-1});
  // A connection whose request cannot be encoded stays open: kept as it stands.
  if (type_id >= 0 && static_cast<size_t>(type_id) < std::size(sensor_type_table) &&
      !request_suid(type_id)) {
    return -1;
  }
  set(&SensorTestState::testing, true);
  return 0;
}

int fetch_sensor_data(float* values) {
  int32_t type_id = -1;
  {
    const std::lock_guard lock(state_mutex);
    type_id = sensor_test_state.type_id;
    std::copy_n(sensor_test_state.values, kSensorValues, values);
    std::fill_n(sensor_test_state.values, kSensorValues, kNoSensorData);
  }
  SENSOR_LOG("%s: type id[%d](%f, %f, %f)", __func__, type_id, static_cast<double>(values[0]),
             static_cast<double>(values[1]), static_cast<double>(values[2]));
  return 0;
}

int close_sensor(int type_id) {
  qmi_client_type client = nullptr;
  {
    const std::lock_guard lock(state_mutex);
    std::swap(client, sensor_test_state.client);
  }
  qmi_client_release(client);
  set(&SensorTestState::testing, false);
  set(&SensorTestState::type_id, -1);
  SENSOR_LOG("%s: type %d", __func__, type_id);
  return 0;
}
