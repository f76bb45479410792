// The sensor hub client between a QMI library that the tests play and messages that protoc's code
// writes.

#include <gtest/gtest.h>
#include <qmi_client.h>
#include <qmi_idl_lib.h>
#include <sensor_hub.pb.h>
#include <sns_client_api_v01.h>
#include <string.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <random>
#include <thread>

#include "sensors/sensor_client.h"
#include "tests/unit/log_capture.h"

// ---- the QMI library

struct Sent {
  unsigned msg_id;
  std::string request;  // the whole structure
  unsigned resp_len;
};

struct FakeQmi {
  int notifier_error = 0;
  int timed_out = 0;
  int init_error = 0;
  int register_error = 0;
  int send_error = 0;
  unsigned waited_ms = 0;
  std::vector<int> released = {};  // handles: 1 notifier, 2 connection
  std::atomic<qmi_client_ind_cb> ind_cb = nullptr;
  std::mutex mutex = {};
  std::vector<Sent> sent = {};
};
static FakeQmi* qmi;

static qmi_client_type handle(intptr_t number) {
  return reinterpret_cast<qmi_client_type>(number);
}

qmi_idl_service_object_type SNS_CLIENT_SVC_get_service_object_internal_v01(int32_t major,
                                                                           int32_t minor,
                                                                           int32_t tool) {
  return major == 1 && minor == 3 && tool == 6 ? static_cast<qmi_idl_service_object_type>(handle(3))
                                               : nullptr;
}

qmi_client_error_type qmi_client_notifier_init(qmi_idl_service_object_type service,
                                               qmi_client_os_params*, qmi_client_type* notifier) {
  EXPECT_EQ(service, handle(3));
  *notifier = handle(1);
  return qmi->notifier_error;
}

void qmi_cci_os_signal_wait(qmi_client_os_params* os_params, unsigned timeout_ms) {
  qmi->waited_ms = timeout_ms;
  os_params->timed_out = qmi->timed_out;
}

qmi_client_error_type qmi_client_init_instance(qmi_idl_service_object_type, unsigned instance,
                                               qmi_client_ind_cb ind_cb, void*,
                                               qmi_client_os_params*, unsigned timeout_ms,
                                               qmi_client_type* client) {
  EXPECT_EQ(instance, 0U);
  EXPECT_EQ(timeout_ms, 200U);
  qmi->ind_cb = ind_cb;
  *client = qmi->init_error == 0 ? handle(2) : nullptr;
  return qmi->init_error;
}

qmi_client_error_type qmi_client_register_error_cb(qmi_client_type, qmi_client_error_cb cb, void*) {
  cb(handle(2), -77, nullptr);  // only logs
  return qmi->register_error;
}

qmi_client_error_type qmi_client_send_msg_async(qmi_client_type client, unsigned msg_id, void* req,
                                                unsigned req_len, void* resp, unsigned resp_len,
                                                qmi_client_recv_msg_async_cb resp_cb, void* data,
                                                void**) {
  {
    const std::lock_guard lock(qmi->mutex);
    qmi->sent.push_back({msg_id, {static_cast<char*>(req), req_len}, resp_len});
  }
  if (client == nullptr || qmi->send_error != 0) {
    return client == nullptr ? QMI_INVALID_HANDLE : qmi->send_error;
  }
  resp_cb(client, msg_id, resp, resp_len, data, 0);
  return 0;
}

// An indication's bytes are the length that it claims, four bytes, and the payload.
int32_t qmi_idl_message_decode(qmi_idl_service_object_type, qmi_idl_type_of_message, uint16_t,
                               const void* src, uint32_t src_len, void* dst, uint32_t dst_len) {
  EXPECT_EQ(dst_len, 1016U);
  if (src_len < 4) {
    return -9;
  }
  auto* report = static_cast<sns_client_report_ind_msg_v01*>(dst);
  memcpy(&report->payload_len, src, 4);
  memcpy(report->payload, static_cast<const char*>(src) + 4,
         std::min<size_t>(src_len - 4, sizeof(report->payload)));
  return 0;
}

qmi_client_error_type qmi_client_release(qmi_client_type client) {
  qmi->released.push_back(static_cast<int>(reinterpret_cast<intptr_t>(client)));
  return 0;
}

// ---- the hub's words

static constexpr uint64_t kLookup = 0xABABABABABABABAB;
using Events = std::vector<std::pair<uint32_t, std::string>>;

static std::string message(uint64_t low, uint64_t high, const Events& events) {
  sns_client_event_msg message;
  message.mutable_suid()->set_low(low);
  message.mutable_suid()->set_high(high);
  for (const auto& [msg_id, payload] : events) {
    auto* event = message.add_events();
    event->set_msg_id(msg_id);
    event->set_timestamp(1);
    event->set_payload(payload);
  }
  return message.SerializeAsString();
}

static std::string found(const std::string& data_type, int sensors = 1) {
  sns_suid_event event;
  event.set_data_type(data_type);
  for (int i = 0; i < sensors; ++i) {
    auto* suid = event.add_suids();
    suid->set_low(7 + static_cast<uint64_t>(i));
    suid->set_high(9);
  }
  return message(kLookup, kLookup, {{1, event.SerializeAsString()}});
}

static sns_std_attr_value_data* add_attribute(sns_std_attr_event* event, int id) {
  auto* attribute = event->add_attributes();
  attribute->set_attr_id(id);
  return attribute->mutable_value()->add_values();
}

static std::string attribute_19(int64_t value) {
  sns_std_attr_event event;
  add_attribute(&event, 2)->set_text("a text");
  add_attribute(&event, 8)->mutable_nested()->add_values()->set_real(2.5F);
  add_attribute(&event, 19)->set_integer(value);
  return event.SerializeAsString();
}

static std::string floats(const std::vector<float>& values) {
  sns_std_sensor_event event;
  for (const float value : values) {
    event.add_data(value);
  }
  event.set_status(3);
  return event.SerializeAsString();
}

template <typename Event>
static std::string numbers(uint32_t one, uint32_t two, uint32_t three) {
  Event event;
  const auto* type = Event::descriptor();
  const uint32_t values[] = {one, two, three};
  for (int i = 0; i < type->field_count(); ++i) {
    event.GetReflection()->SetUInt32(&event, type->field(i), values[i]);
  }
  return event.SerializeAsString();
}

class SensorClient : public testing::Test {
 protected:
  SensorClient() {
    qmi = &qmi_;
  }
  ~SensorClient() override {
    close_sensor(-1);
    fetch();
  }

  void deliver(const std::string& payload, uint32_t claimed) {
    std::string indication(reinterpret_cast<const char*>(&claimed), 4);
    indication += payload;
    qmi_.ind_cb.load()(handle(2), 0x21, indication.data(), static_cast<unsigned>(indication.size()),
                       nullptr);
  }
  void deliver(const std::string& payload) {
    deliver(payload, static_cast<uint32_t>(payload.size()));
  }
  std::vector<float> fetch() {
    std::vector<float> values(3);
    fetch_sensor_data(values.data());
    return values;
  }
  bool logged(const std::string& text) {
    const auto lines = log_.take();
    return std::any_of(lines.begin(), lines.end(), [&](const LogCapture::Line& line) {
      return line.priority == ANDROID_LOG_INFO && line.text == text;
    });
  }
  // The payload of the latest request, its structure checked.
  std::string request() {
    if (qmi_.sent.empty()) {
      return "nothing was sent";
    }
    const Sent& sent = qmi_.sent.back();
    EXPECT_EQ(sent.msg_id, 0x20U);
    EXPECT_EQ(sent.request.size(), 1008U);
    EXPECT_EQ(sent.resp_len, 32U);
    uint32_t length = 0;
    memcpy(&length, sent.request.data(), sizeof(length));
    EXPECT_EQ(sent.request.find_first_not_of('\0', 4 + length), std::string::npos);
    return sent.request.substr(4, length);
  }

  LogCapture log_;
  FakeQmi qmi_;
};

static const std::vector<float> kNothing = {-999.0F, -999.0F, -999.0F};

static std::string expected_request(uint64_t low, uint64_t high, uint32_t msg_id,
                                    const std::string& payload) {
  sns_client_request_msg message;
  message.mutable_suid()->set_low(low);
  message.mutable_suid()->set_high(high);
  message.set_msg_id(msg_id);
  message.mutable_suspend()->set_processor(1);
  message.mutable_suspend()->set_wakeup(0);
  message.mutable_request()->set_payload(payload);
  return message.SerializeAsString();
}

TEST_F(SensorClient, SendsTheBytesThatTheOtherImplementationSends) {
  const char* const kTypes[] = {"accel",      "mag",        "gyro",           "ambient_light",
                                "proximity",  "wise_light", "proximity_fake", "pressure",
                                "sar",        "accel",      "gyro",           "hall",
                                "angle_hall", "pad_als",    "vice_pad_als",   "sars"};
  for (int type = 0; type < 16; ++type) {
    SCOPED_TRACE(type);
    ASSERT_EQ(open_sensor(type), 0);
    EXPECT_EQ(qmi_.waited_ms, 200U);
    sns_suid_req lookup;
    lookup.set_data_type(kTypes[type]);
    lookup.set_register_updates(true);
    lookup.set_default_only(type != 9 && type != 10);
    EXPECT_EQ(request(), expected_request(kLookup, kLookup, 512, lookup.SerializeAsString()));
    deliver(found(kTypes[type]));
    EXPECT_EQ(request(), expected_request(7, 9, 1, ""));
    deliver(message(7, 9, {{128, attribute_19(1)}}));
    sns_sample_rate_config config;
    config.set_sample_rate(10);
    EXPECT_EQ(request(), expected_request(7, 9, 513, config.SerializeAsString()));
    EXPECT_EQ(qmi_.sent.size(), 3U);
    qmi_.sent.clear();
    close_sensor(type);
  }
  // Both implementations share a table of field numbers; these bytes share it with neither.
  open_sensor(kSensorSecondGyro);
  const std::string suid =
      "\x0a\x12\x09" + std::string(8, '\xab') + "\x11" + std::string(8, '\xab');
  EXPECT_EQ(request(), suid + std::string("\x15\x00\x02\x00\x00\x1a\x04\x08\x01\x10\x00", 11) +
                           std::string("\x22\x0c\x12\x0a\x0a\x04gyro\x10\x01\x18\x00", 14));
}

TEST_F(SensorClient, FailsToOpenAndOpensTheNextTime) {
  struct Case {
    int FakeQmi::*failure;
    std::string logged;
    std::vector<int> released;
  };
  const Case cases[] = {
      {&FakeQmi::notifier_error, "wait_for_service: qmi_client_notifier_init error -5", {1}},
      {&FakeQmi::timed_out, "wait_for_service: Service is not available after 200 timeout", {1}},
      {&FakeQmi::init_error, "create_client_conn: qmi_client_init_instance error -5", {1}},
      {&FakeQmi::register_error, "create_client_conn: qmi_client_register_error_cb -5", {1, 2}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.logged);
    qmi_.*c.failure = -5;
    qmi_.released.clear();
    EXPECT_EQ(open_sensor(kSensorAccel), -1);
    EXPECT_EQ(qmi_.released, c.released);
    EXPECT_TRUE(logged(c.logged));
    EXPECT_TRUE(qmi_.sent.empty());
    qmi_.*c.failure = 0;
  }
  qmi_.send_error = -6;  // is not the caller's business
  EXPECT_EQ(open_sensor(kSensorAccel), 0);
  EXPECT_TRUE(logged("send_qmi_req: error -6"));
  qmi_.send_error = 0;
  EXPECT_EQ(open_sensor(kSensorGyro), -1);
  EXPECT_TRUE(logged("open_sensor: sensor already testing"));
  EXPECT_EQ(qmi_.sent.size(), 1U);
  EXPECT_EQ(qmi_.released.back(), 1);
  close_sensor(kSensorAccel);
  EXPECT_EQ(qmi_.released.back(), 2);
  // No sensor of the table: connected, and that is all.
  for (const int type : {16, 1000, -1}) {
    qmi_.sent.clear();
    EXPECT_EQ(open_sensor(type), 0);
    EXPECT_TRUE(qmi_.sent.empty());
    EXPECT_EQ(fetch(), kNothing);
    close_sensor(type);
  }
}

TEST_F(SensorClient, EnablesBySensorAndHardwareId) {
  sns_std_attr_event other_kind;
  auto* values = other_kind.add_attributes();
  values->set_attr_id(19);
  values->mutable_value()->add_values()->set_integer(1);
  values->mutable_value()->add_values()->set_boolean(true);  // counts as 0, and is the last
  sns_std_attr_event last_counts = other_kind;
  last_counts.mutable_attributes(0)->mutable_value()->add_values()->set_integer(1);
  sns_std_attr_event elsewhere;
  add_attribute(&elsewhere, 18)->set_integer(1);
  struct Case {
    int type;
    std::string attributes;
    bool enabled;
  };
  const Case cases[] = {
      {kSensorAccel, attribute_19(0), true},
      {kSensorAccel, attribute_19(-5), true},
      {kSensorAccel, other_kind.SerializeAsString(), true},
      {kSensorAccel, elsewhere.SerializeAsString(), false},
      {kSensorSecondAccel, attribute_19(1), true},
      {kSensorSecondAccel, attribute_19(0), false},
      {kSensorSecondAccel, attribute_19(0x100000001), false},
      {kSensorSecondGyro, other_kind.SerializeAsString(), false},
      {kSensorSecondGyro, last_counts.SerializeAsString(), true},
      {kSensorSecondGyro, elsewhere.SerializeAsString(), false},
  };
  for (const Case& c : cases) {
    open_sensor(c.type);
    qmi_.sent.clear();
    deliver(message(21, 22, {{128, c.attributes}}));
    EXPECT_EQ(qmi_.sent.size(), c.enabled ? 1U : 0U)
        << c.type << " " << testing::PrintToString(c.attributes);
    close_sensor(c.type);
  }
}

TEST_F(SensorClient, TakesValuesFromEvents) {
  struct Case {
    int type;
    std::string indication;
    std::vector<float> values;
    std::string logged;
  };
  const std::string handled = "handle_event: /***** END *****/";
  std::vector<float> seventeen(17, 5.0F);
  seventeen[2] = 6.0F;
  sns_physical_config_event config;
  config.set_sample_rate(10);
  config.set_operation_mode("LOW");
  const auto sensor = [](uint32_t id, const std::string& payload) {
    return message(1, 2, {{id, payload}});
  };
  // Written out field by field; unpacked, too, is a valid form.
  const std::string unpacked("\x0d\x00\x00\x80\x3f\x0d\x00\x00\x00\x40\x10\x03", 12);
  const Case cases[] = {
      {0,
       sensor(1025, floats({1, 2, 3})),
       {1, 2, 3},
       "STD EVENT, data[3](1.000000, 2.000000, 3.000000)"},
      {0, sensor(767, floats({1, 2, 3, 4})), {1, 2, 3}, handled},
      {0, sensor(1025, unpacked), {1, 2, -999}, handled},
      {0, sensor(1025, floats(seventeen)), {5, 5, 6}, handled},
      {7, sensor(1025, floats({1013})), {1013, -999, -999}, handled},
      {0, sensor(1025, floats({})), kNothing, handled},
      {4,
       sensor(769, numbers<sns_proximity_event>(1, 4294967295U, 2)),
       {4294967296.0F, 2, -999},
       "PROX EVENT, status 2, raw_adc -1"},
      {11,
       sensor(770, numbers<sns_hall_event>(1, 3, 0)),
       {1, 3, -999},
       "PROX EVENT, status 1, accurancy 3"},
      {0, sensor(768, config.SerializeAsString()), kNothing,
       "config event, Sample rate: 10.000000"},
      {0, sensor(513, "anything"), kNothing, handled},
      {0, sensor(130, ""), kNothing, "decode_sensor_event: ERROR EVENT"},
      {0, sensor(99, ""), kNothing, "decode_sensor_event: UNKNOWN EVENT 99"},
      {0, sensor(130, "") + sensor(1025, floats({1})).substr(20), kNothing,
       "decode_sensor_event: ERROR EVENT"},
      // The two halves of the lookup's SUID must both match.
      {0, message(kLookup, 2, {{1025, floats({4, 5, 6})}}), {4, 5, 6}, handled},
      {8,
       found("sar", 2),
       {1, -999, -999},
       "decode_suid_event: Received SUID Event with data type [sar]"},
      {8, found("sar", 0), {1, -999, -999}, handled},
      {15, found("sars", 0), {1, -999, -999}, handled},
      {15, found("sar", 1), kNothing, handled},
      {8, found("sars", 1), kNothing, handled},
      {0, found("accel", 1), kNothing, handled},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.indication));
    ASSERT_EQ(open_sensor(c.type), 0);
    deliver(c.indication);
    EXPECT_TRUE(logged(c.logged)) << c.logged;
    EXPECT_EQ(fetch(), c.values);
    EXPECT_EQ(fetch(), kNothing);
    close_sensor(c.type);
  }
}

TEST_F(SensorClient, OutlivesWhatNoHubShouldSend) {
  ASSERT_EQ(open_sensor(kSensorAccel), 0);
  // Lists within lists, as many as a payload holds.
  std::string deepest;
  sns_std_attr_event nested;
  auto* value = add_attribute(&nested, 19);
  for (int depth = 1; nested.ByteSizeLong() < 950; ++depth) {
    value = value->mutable_nested()->add_values();
  }
  deepest = message(1, 2, {{128, nested.SerializeAsString()}});
  ASSERT_GT(deepest.size(), 900U);
  deliver(deepest);
  EXPECT_TRUE(logged("attr nested"));

  const std::string sample = message(1, 2, {{1025, floats({1, 2, 3})}});
  std::string endless = found("accel");
  endless[endless.find("accel") - 1] = '\x7f';  // the text's length
  for (const std::string& whole :
       {sample, endless, deepest, found("accel", 3), message(1, 2, {{128, attribute_19(1)}}),
        message(1, 2, {{769, numbers<sns_proximity_event>(1, 2, 3)}}),
        message(1, 2, {{1025, std::string("\x0a\xff\xff\xff\xff\x0f", 6)}})}) {
    for (size_t size = 0; size < whole.size(); ++size) {
      deliver(whole.substr(0, size));
      EXPECT_EQ(fetch(), kNothing) << size;
      std::string spoilt = whole;
      spoilt[size] = static_cast<char>(spoilt[size] ^ 0xff);
      deliver(spoilt);
      fetch();
    }
  }
  std::mt19937 random(1);
  for (int i = 0; i < 2000; ++i) {
    std::string noise(random() % 1000, '\0');
    std::generate(noise.begin(), noise.end(), [&] { return static_cast<char>(random()); });
    deliver(noise);
  }
  fetch();
  for (const uint32_t claimed : {1001U, 0x7fffffffU, 0xffffffffU}) {
    log_.take();
    deliver(sample, claimed);
    EXPECT_TRUE(logged("ind_msg_cb: QMI decode error -5"));
  }
  deliver(message(1, 2, {{1025, floats(std::vector<float>(10000, 1.0F))}}));
  EXPECT_EQ(fetch(), kNothing);
  qmi_.ind_cb.load()(handle(2), 0x21, nullptr, 0, nullptr);
  EXPECT_TRUE(logged("ind_msg_cb: QMI decode error -9"));
  deliver(sample);
  EXPECT_EQ(fetch(), (std::vector<float>{1, 2, 3}));

  // After the end: handled, and nothing of it reaches the next run.
  close_sensor(kSensorAccel);
  qmi_.sent.clear();
  deliver(sample);
  deliver(message(1, 2, {{128, attribute_19(1)}}));
  EXPECT_TRUE(logged("send_qmi_req: error -4"));
  ASSERT_EQ(open_sensor(kSensorGyro), 0);
  EXPECT_EQ(fetch(), kNothing);
}

TEST_F(SensorClient, SharesItsStateWithTheLibrarysThread) {
  open_sensor(kSensorSecondAccel);
  std::atomic<bool> stop = false;
  std::thread library([&] {
    const std::string sample = message(1, 2, {{1025, floats({7, 7, 7})}});
    while (!stop) {
      deliver(found("accel", 2));
      deliver(message(1, 2, {{128, attribute_19(1)}}));
      deliver(sample);
    }
  });
  for (int i = 0; i < 200; ++i) {
    const std::vector<float> values = fetch();
    EXPECT_TRUE(values == kNothing || values == std::vector<float>(3, 7.0F));
    close_sensor(kSensorSecondAccel);
    EXPECT_EQ(open_sensor(kSensorSecondAccel), 0);
  }
  stop = true;
  library.join();
}
