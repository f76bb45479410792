// The sensor hub client between a QMI library that the tests play and a hub's bytes.

#include <gtest/gtest.h>
#include <qmi_client.h>
#include <qmi_idl_lib.h>
#include <sns_client_api_v01.h>
#include <string.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <mutex>
#include <optional>
#include <random>
#include <thread>

#include "sensors/sensor_client.h"
#include "tests/unit/hub_bytes.h"
#include "tests/unit/log_capture.h"

using namespace std::string_literals;

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
  unsigned response_size = 32;  // 0: none comes
  unsigned waited_ms = 0;
  std::vector<int> released = {};  // handles: 1 notifier, 2 connection
  std::string connecting = {};     // the calls that make a connection, in their order
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
  qmi->connecting += "notifier ";
  return qmi->notifier_error;
}

void qmi_cci_os_signal_wait(qmi_client_os_params* os_params, unsigned timeout_ms) {
  qmi->waited_ms = timeout_ms;
  qmi->connecting += "wait ";
  os_params->timed_out = qmi->timed_out;
}

qmi_client_error_type qmi_client_init_instance(qmi_idl_service_object_type, unsigned instance,
                                               qmi_client_ind_cb ind_cb, void*,
                                               qmi_client_os_params*, unsigned timeout_ms,
                                               qmi_client_type* client) {
  EXPECT_EQ(instance, 0U);
  EXPECT_EQ(timeout_ms, 200U);
  qmi->ind_cb = ind_cb;
  qmi->connecting += "instance ";
  *client = qmi->init_error == 0 ? handle(2) : nullptr;
  return qmi->init_error;
}

qmi_client_error_type qmi_client_register_error_cb(qmi_client_type, qmi_client_error_cb cb, void*) {
  cb(handle(2), -77, nullptr);  // only logs
  qmi->connecting += "error_cb ";
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
  resp_cb(client, msg_id, qmi->response_size > 0 ? resp : nullptr, qmi->response_size, data, 0);
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
  qmi->connecting += "release ";
  return 0;
}

// ---- the hub's words

using Events = std::vector<std::pair<uint32_t, std::string>>;

static constexpr uint64_t kLookup = 0xABABABABABABABAB;

static std::string message(uint64_t low, uint64_t high, const Events& events) {
  std::string bytes = sized('\x0a', suid_bytes(low, high));
  for (const auto& [msg_id, payload] : events) {
    bytes += event_bytes(msg_id, 77, payload);
  }
  return bytes;
}

static std::string found(const std::string& data_type, int sensors = 1) {
  std::string event = sized('\x0a', data_type);
  for (int i = 0; i < sensors; ++i) {
    event += sized('\x12', suid_bytes(7 + static_cast<uint64_t>(i), 9));
  }
  return message(kLookup, kLookup, {{1, event}});
}

static std::string attribute(char id, const std::vector<std::string>& values) {
  std::string list;
  for (const std::string& value : values) {
    list += sized('\x0a', value);
  }
  return sized('\x0a', std::string("\x08") + id + sized('\x12', list));
}

static std::string integer(uint64_t value) {
  return "\x21" + little_endian(value, 8);
}

static const std::string kReal = "\x1d\x00\x00\x20\x40"s;  // 2.5
static const std::string kTrue = "\x28\x01";
static const std::string kText = "\x12\x03yes";
static const std::string kNested = sized('\x0a', sized('\x0a', kReal));
// Its data type, a list in a list, and the hardware id.
static const std::string kSecond =
    attribute(2, {kText}) + attribute(8, {kNested}) + attribute(19, {integer(1)});

static std::string samples(const std::vector<float>& values) {
  std::string packed;
  for (const float value : values) {
    packed += little_endian(std::bit_cast<uint32_t>(value), 4);
  }
  return sized('\x0a', packed) + "\x10\x03";
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

  void deliver(const std::string& payload, std::optional<uint32_t> claimed_size = {}) {
    std::string indication =
        little_endian(claimed_size.value_or(static_cast<uint32_t>(payload.size())), 4) + payload;
    qmi_.ind_cb.load()(handle(2), 0x21, indication.data(), static_cast<unsigned>(indication.size()),
                       nullptr);
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

TEST_F(SensorClient, SendsTheseBytes) {
  const std::string kSuspend = "\x1a\x04\x08\x01\x10\x00"s;
  const std::string kHalf = "\xab\xab\xab\xab\xab\xab\xab\xab";
  const std::string kToLookup =
      "\x0a\x12\x09" + kHalf + "\x11" + kHalf + "\x15\x00\x02\x00\x00"s + kSuspend;
  const std::string kToSensor =
      "\x0a\x12\x09\x07\x00\x00\x00\x00\x00\x00\x00\x11\x09\x00\x00\x00\x00\x00\x00\x00"s;
  const char* const kTypes[] = {"accel",      "mag",        "gyro",           "ambient_light",
                                "proximity",  "wise_light", "proximity_fake", "pressure",
                                "sar",        "accel",      "gyro",           "hall",
                                "angle_hall", "pad_als",    "vice_pad_als",   "sars"};
  for (int type = 0; type < 16; ++type) {
    SCOPED_TRACE(type);
    const std::string flags = type == 9 || type == 10 ? "\x10\x01\x18\x00"s : "\x10\x01\x18\x01"s;
    qmi_.connecting.clear();
    ASSERT_EQ(open_sensor(type), 0);
    EXPECT_EQ(qmi_.connecting, "notifier wait release instance error_cb ");
    EXPECT_EQ(qmi_.waited_ms, 200U);
    EXPECT_TRUE(logged("error_msg_cb: -77"));
    EXPECT_EQ(request(),
              kToLookup + sized('\x22', sized('\x12', sized('\x0a', kTypes[type]) + flags)));
    deliver(found(kTypes[type]));
    EXPECT_EQ(request(), kToSensor + "\x15\x01\x00\x00\x00"s + kSuspend + "\x22\x02\x12\x00"s);
    deliver(message(7, 9, {{128, kSecond}}));
    EXPECT_EQ(request(), kToSensor + "\x15\x01\x02\x00\x00"s + kSuspend +
                             "\x22\x07\x12\x05\x0d\x00\x00\x20\x41"s);
    EXPECT_EQ(qmi_.sent.size(), 3U);
    qmi_.sent.clear();
    close_sensor(type);
  }
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
    const auto lines = log_.take();
    ASSERT_GE(lines.size(), 2U);
    const std::string success = c.logged.substr(0, c.logged.find(':')) + ": success";
    EXPECT_EQ(lines[lines.size() - 2],
              (LogCapture::Line{ANDROID_LOG_INFO, "[AT_SENSOR]", c.logged}));
    EXPECT_EQ(lines.back(), (LogCapture::Line{ANDROID_LOG_INFO, "[AT_SENSOR]", success}));
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
  close_sensor(kSensorAccel);
  EXPECT_EQ(qmi_.released.back(), 2);
  // A response that is not all there is not looked into.
  for (const unsigned size : {0U, 31U, 32U}) {
    qmi_.response_size = size;
    open_sensor(kSensorAccel);
    EXPECT_EQ(logged("resp_msg_cb: Received client ID 0 result 0"), size == 32);
    close_sensor(kSensorAccel);
  }
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
  struct Case {
    int type;
    std::string attributes;
    bool enabled;
  };
  const std::string other_kind = attribute(19, {integer(1), kTrue});  // counts as 0, and is last
  const Case cases[] = {
      {kSensorAccel, attribute(19, {integer(UINT64_MAX)}), true},
      {kSensorAccel, other_kind, true},
      {kSensorAccel, attribute(18, {integer(1)}), false},
      {kSensorAccel, attribute(19, {integer(1), "\x21\x01"}), false},  // the second one is cut
      {kSensorSecondAccel, kSecond, true},
      {kSensorSecondAccel, attribute(19, {integer(0x100000001)}), false},
      {kSensorSecondGyro, other_kind, false},
      {kSensorSecondGyro, attribute(19, {kTrue, integer(1)}), true},
      // Without a value: what the run begins with, and what the other sensor said.
      {kSensorSecondGyro, attribute(19, {}), false},
      {kSensorSecondGyro, attribute(19, {integer(1)}) + attribute(19, {integer(2)}), true},
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

TEST_F(SensorClient, LogsTheFirstKindOfAnAttributesValue) {
  const std::pair<std::string, std::string> cases[] = {
      {kNested + kText + kTrue + integer(5) + kReal, "attr val 2.500000"},
      {kNested + kText + kTrue + integer(UINT64_MAX), "attr val -1"},
      {kNested + kText + kTrue, "attr val 1"},
      {kNested + kText, "attr val yes"},
      {kNested, "attr nested"},
      {"", "unknown attr type"},
  };
  open_sensor(kSensorAccel);
  for (const auto& [value, line] : cases) {
    deliver(message(1, 2, {{128, attribute(3, {value})}}));
    EXPECT_TRUE(logged(line)) << line;
  }
  // Lists within lists, more than a thread's stack is asked for: nine of them are looked at.
  std::string deepest = kReal;
  for (int depth = 0; depth < 100; ++depth) {
    deepest = sized('\x0a', sized('\x0a', deepest));
  }
  deliver(message(1, 2, {{128, attribute(3, {deepest})}}));
  const auto lines = log_.take();
  EXPECT_EQ(std::count(lines.begin(), lines.end(),
                       LogCapture::Line{ANDROID_LOG_INFO, "[AT_SENSOR]", "attr nested"}),
            9);
}

TEST_F(SensorClient, TakesValuesFromEvents) {
  struct Case {
    int type;
    std::string indication;
    std::vector<float> values;
    std::string logged;
  };
  const auto sensor = [](uint32_t id, const std::string& payload) {
    return message(1, 2, {{id, payload}});
  };
  const std::string handled = "handle_event: /***** END *****/";
  const std::string sample = samples({1, 2, 3});
  // What stands behind an event that fails is lost.
  const auto failing = [&](uint32_t id, const std::string& payload) {
    return message(1, 2, {{id, payload}, {1025, sample}});
  };
  const std::string range = "\x1d\x00\x00\x80\x3f"s;
  const std::string config =
      "\x0d\x00\x00\x20\x41\x10\x01"s + range + range +
      "\x25\x00\x00\x80\x3f\x2a\x03LOW\x30\x05\x38\x01\x40\x01\x48\x02\x50\x07"s;
  const Case cases[] = {
      {0,
       sensor(767, samples({1, 2, 3, 4})),
       {1, 2, 3},
       "handle_event: message id 767, timestamp 77"},
      // Unpacked, too, is a valid form.
      {0, sensor(1025, "\x0d\x00\x00\x80\x3f\x0d\x00\x00\x00\x40\x10\x03"s), {1, 2, 0}, handled},
      {4,
       sensor(769, "\x08\x01\x10\xff\xff\xff\xff\x0f\x18\x02"),
       {4294967296.0F, 2, -999},
       "PROX EVENT, status 2, raw_adc -1"},
      {11, sensor(770, "\x08\x01\x10\x03"), {1, 3, -999}, "PROX EVENT, status 1, accurancy 3"},
      {0, sensor(768, config), kNothing, "config event, Sample rate: 10.000000"},
      {0, failing(768, range + range + range), kNothing,
       "decode_physical_config_event: ERROR array overflow"},
      {0, failing(130, ""), kNothing, "decode_sensor_event: ERROR EVENT"},
      {0, message(1, 2, {{513, "anything"}, {1025, sample}}), {1, 2, 3}, handled},
      // Each step names itself.
      {0, sensor(128, "\x0a\x01\x08"), kNothing, "decode_attr_event: ERROR end-of-stream"},
      {0, failing(128, "\x12"), kNothing, "decode_attr_event: ERROR end-of-stream"},
      {0, failing(769, "\x08"), kNothing, "decode_proximity_event: ERROR end-of-stream"},
      {0, failing(770, "\x08"), kNothing, "decode_hall_event: ERROR end-of-stream"},
      {0, failing(1025, "\x0d\x01"), kNothing, "decode_std_sensor_event: ERROR end-of-stream"},
      {8, message(kLookup, kLookup, {{1, sized('\x0a', "sar") + "\x12\x01\x09"}}), kNothing,
       "decode_suid_event: ERROR end-of-stream"},
      // The two halves of the lookup's SUID must both match.
      {0, message(kLookup, 2, {{1025, sample}}), {1, 2, 3}, handled},
      {0, message(1, kLookup, {{1025, sample}}), {1, 2, 3}, handled},
      {15, found("sars", 0), {1, -999, -999}, handled},
      {15, found("sar"), kNothing, handled},
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
  // What answers a run's lookup after its end is nobody's.
  ASSERT_EQ(open_sensor(kSensorSar), 0);
  close_sensor(kSensorSar);
  deliver(found("sar"));
  log_.take();
  EXPECT_EQ(fetch(), kNothing);
  EXPECT_TRUE(logged("fetch_sensor_data: type id[-1](-999.000000, -999.000000, -999.000000)"));
  // A configuration's field of another wire type than its own, by its key.
  open_sensor(kSensorAccel);
  for (const char key : "\x08\x15\x18\x20\x35\x3d\x45\x4d\x55"s) {
    deliver(sensor(768, key + "\x01\x01\x01\x01"s));
    EXPECT_TRUE(logged("decode_physical_config_event: ERROR wrong wire type")) << key;
  }
}

TEST_F(SensorClient, OutlivesWhatNoHubShouldSend) {
  ASSERT_EQ(open_sensor(kSensorAccel), 0);
  const std::string sample = message(1, 2, {{1025, samples({1, 2, 3})}});
  const std::string endless = message(1, 2, {{1025, "\x0a\xff\xff\xff\xff\x0f"}});
  const std::string proximity = message(1, 2, {{769, "\x08\x01\x10\x02\x18\x03"}});
  const std::string second = message(1, 2, {{128, kSecond}});
  for (const std::string& whole : {sample, endless, proximity, second, found("accel", 3)}) {
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
  for (const uint32_t claimed : {1001U, 0x7fffffffU, 0xffffffffU}) {
    log_.take();
    deliver(sample, claimed);
    EXPECT_TRUE(logged("ind_msg_cb: QMI decode error -1000"));
  }
  qmi_.ind_cb.load()(handle(2), 0x21, nullptr, 0, nullptr);
  EXPECT_TRUE(logged("ind_msg_cb: QMI decode error -9"));
  deliver(sample);
  EXPECT_EQ(fetch(), (std::vector<float>{1, 2, 3}));

  // After the end: handled, and nothing of it reaches the next run.
  close_sensor(kSensorAccel);
  deliver(sample);
  deliver(second);
  EXPECT_TRUE(logged("send_qmi_req: error -4"));
  ASSERT_EQ(open_sensor(kSensorGyro), 0);
  EXPECT_EQ(fetch(), kNothing);
}

TEST_F(SensorClient, SharesItsStateWithTheLibrarysThread) {
  open_sensor(kSensorSecondAccel);
  std::atomic<bool> stop = false;
  std::thread library([&] {
    const std::string sample = message(1, 2, {{1025, samples({7, 7, 7})}});
    while (!stop) {
      deliver(found("accel", 2));
      deliver(message(1, 2, {{128, kSecond}}));
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
