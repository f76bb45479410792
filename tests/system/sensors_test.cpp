// The sensor commands against the simulated hub.

#include <errno.h>

#include "tests/system/station.h"

using Request = SensorHub::Request;
using State = SensorHub::State;
using Service = HubService::State;

static std::vector<std::string> answer(const std::string& text) {
  return {text, "OK\r\n"};
}

static std::vector<std::string> axes(const std::string& x, const std::string& y,
                                     const std::string& z) {
  return answer("x : " + x + "  \ny : " + y + "  \nz : " + z + "  \n");
}

static const std::string kNone = "-999.000000";

// Every command with the answer of a healthy phone and of one whose hub is silent.
struct SensorCommand {
  std::string command;
  std::vector<std::string> healthy;
  std::vector<std::string> silent;
  std::vector<int> waits;
  std::string enabled;  // the sensor that streams
};

static const std::vector<SensorCommand> kCommands = {
    {"AT+GSENSOR",
     axes("0.120000", "-0.250000", "9.810000"),
     axes(kNone, kNone, kNone),
     {800},
     "accel"},
    {"AT+GYRO",
     axes("0.010000", "-0.020000", "0.005000"),
     axes(kNone, kNone, kNone),
     {800},
     "gyro"},
    {"AT+MSENSOR",
     axes("21.500000", "-4.250000", "-38.750000"),
     axes(kNone, kNone, kNone),
     {800},
     "mag"},
    {"AT+PROX", answer("x : 1034  \n"), answer("x : -999  \n"), {800}, "proximity"},
    {"AT+LIGHT", answer("lux : 312.500000\n"), answer("lux : -999.000000\n"), {800}, "light"},
    {"AT+PRESS",
     answer("pressure(hPa) : 1013.252\n"),
     answer("pressure(hPa) : -999.000\n"),
     {800},
     "pressure"},
    {"AT+SAR", answer("status : 1.000000  \n"), answer("status : -999.000000  \n"), {800}, "sar"},
    {"AT+DUAL_GSENSOR",
     axes("0.310000", "0.050000", "9.790000"),
     axes(kNone, kNone, kNone),
     {1000},
     "accel_2"},
    {"AT+DUAL_GYRO",
     axes("0.030000", "0.040000", "-0.010000"),
     axes(kNone, kNone, kNone),
     {800},
     "gyro_2"},
    {"AT+HALL", answer("status : 1.000000\n"), answer("status : -999.000000\n"), {800}, "hall"},
    {"AT+ANGLE_HALL",
     axes("90.500000", "12.250000", "3.000000"),
     axes(kNone, kNone, kNone),
     {800},
     "angle_hall"},
    {"AT+PAD_ALS", answer("lux : 150.000000\n"), answer("lux : -999.000000\n"), {800}, "pad_als"},
    {"AT+VICE_PAD_ALS",
     answer("lux : 148.500000\n"),
     answer("lux : -999.000000\n"),
     {800},
     "vice_pad_als"},
    {"AT+VICE_SAR",
     answer("status : 1.000000  \n"),
     answer("status : -999.000000  \n"),
     {800},
     "sars"},
};

TEST(Sensors, AnswerWithWhatTheHubSends) {
  Handset phone;
  phone.start();
  const size_t descriptors = phone.open_descriptors();
  for (const SensorCommand& c : kCommands) {
    expect_exchange(phone, {c.command, c.healthy, {}, c.waits});
    const std::vector<Request> requests = phone.sensors.take_requests();
    ASSERT_GE(requests.size(), 3U) << c.command;
    for (const Request& request : requests) {
      EXPECT_TRUE(request.same_encoded) << c.command << " " << request.msg_id;
      // Only the sensor of the command is enabled, and at the one rate.
      EXPECT_EQ(request.msg_id == 513, request.sample_rate == 10.0F);
      EXPECT_TRUE(request.msg_id != 513 || request.sensor == c.enabled) << request.sensor;
    }
    EXPECT_EQ(requests[0].default_only, c.command.find("DUAL") == std::string::npos);
    EXPECT_EQ(requests.back().msg_id, 513U);
  }
  phone.sensors.set_state(State::kSilent);
  for (const SensorCommand& c : kCommands) {
    expect_exchange(phone, {c.command, c.silent, {}, c.waits});
  }
  EXPECT_EQ(phone.open_descriptors(), descriptors);
}

TEST(Sensors, FailWithoutAHubAndWorkWhenItIsBack) {
  Handset phone;
  phone.start();
  for (int round = 0; round < 2; ++round) {
    phone.hub_service.set_state(Service::kAbsent);
    expect_exchange(phone, {"AT+GSENSOR",
                            {"ERROR\n"},
                            {},
                            {200},
                            {"wait_for_service: Service is not available after 200 timeout",
                             "[AT_SENSOR]open_sensor fail\n"}});
    phone.hub_service.set_state(Service::kRefusing);
    expect_exchange(phone, {"AT+DUAL_GYRO",
                            {"ERROR\n"},
                            {},
                            {},
                            {"create_client_conn: qmi_client_init_instance error -3"}});
    phone.hub_service.set_state(Service::kOpen);
    expect_exchange(phone, {"AT+GSENSOR", kCommands[0].healthy, {}, {800}});
  }
}

TEST(Sensors, LightIsChosenByTheCalibrationNode) {
  const std::string node = "/proc/sensor/als_cali/als_type";
  const auto ambient = answer("lux : 312.500000\n");
  const auto wise = answer("lux : 287.250000\n");
  const std::vector<std::pair<std::string, std::vector<std::string>>> cases = {
      {"2\n", wise},       {"3", wise},      {" +3x", wise},  {"000000000312", wise},
      {"1\n", ambient},    {"0\n", ambient}, {"-2", ambient}, {"4", ambient},
      {"text\n", ambient}, {"", ambient},    {"23", ambient}, {"99999999999999", ambient},
  };
  Handset phone;
  phone.start();
  for (const auto& [text, replies] : cases) {
    SCOPED_TRACE(text);
    phone.nodes.set(node, text);
    expect_exchange(phone, {"AT+LIGHT", replies, {}, {800}});
  }
  phone.nodes.fail(node, Nodes::Operation::kRead, EIO);
  expect_exchange(
      phone, {"AT+LIGHT", ambient, {}, {800}, {"als_type_buffer =\n", "[AT_SENSOR]als_type =0\n"}});
  phone.nodes.remove(node);
  expect_exchange(phone,
                  {"AT+LIGHT", {"ERROR\n"}, {}, {}, {"[AT_SENSOR]open ALS_TYPE_PATH fail\n"}});
}

TEST(Sensors, ShowWhatTheUnitHas) {
  Handset phone;
  phone.start();
  const auto set = [&phone](const std::string& name, const std::string& type,
                            std::optional<int64_t> id, uint32_t event, std::vector<float> values) {
    phone.sensors.set_sensor({name, type, id, event, std::move(values)});
  };
  // The hub's answer alone passes a SAR test; a sample of the sensor's comes through.
  phone.sensors.remove_sensor("sar");
  set("sars", "sars", 0, 1025, {4.5F});
  expect_exchange(phone, {"AT+SAR", answer("status : 1.000000  \n"), {}, {800}});
  expect_exchange(phone, {"AT+VICE_SAR", answer("status : 4.500000  \n"), {}, {800}});
  // No sensor of its kind; one without a hardware id; no second one of two.
  phone.sensors.remove_sensor("mag");
  set("pressure", "pressure", std::nullopt, 1025, {1});
  set("accel_2", "accel", 0, 1025, {1, 2, 3});
  set("gyro", "gyro", 1, 1025, {7, 8, 9});
  phone.sensors.remove_sensor("gyro_2");
  expect_exchange(phone, {"AT+MSENSOR", kCommands[2].silent, {}, {800}});
  expect_exchange(phone, {"AT+PRESS", kCommands[5].silent, {}, {800}});
  expect_exchange(phone, {"AT+DUAL_GSENSOR", kCommands[7].silent, {}, {1000}});
  expect_exchange(phone, {"AT+DUAL_GYRO", axes("7.000000", "8.000000", "9.000000"), {}, {800}});
  // Numbers at their edges: the longest line that fits, one that does not, counts beyond an int.
  set("hall", "hall", 0, 1025, {-3.4e38F});
  set("angle_hall", "angle_hall", 0, 1025, {3e38F, 3e38F, 3e38F});
  set("proximity", "proximity", 0, 1025, {-3e9F});
  const std::string lowest = "-339999995214436424907732413799364296704.000000";
  expect_exchange(phone, {"AT+HALL", answer("status : " + lowest + "\n"), {}, {800}});
  expect_exchange(phone, {"AT+ANGLE_HALL", {"ERROR\n"}, {}, {800}});
  expect_exchange(phone, {"AT+PROX", answer("x : -2147483648  \n"), {}, {800}});
  set("proximity", "proximity", 0, 769, {4e9F, 0});
  expect_exchange(phone, {"AT+PROX", answer("x : 2147483647  \n"), {}, {800}});
  set("proximity", "proximity", 0, 1025, {std::stof("nan")});
  expect_exchange(phone, {"AT+PROX", answer("x : 0  \n"), {}, {800}});
}

TEST(Sensors, WaitNoLongerForASlowHub) {
  Handset phone;
  phone.start();
  struct Case {
    int answer_ms;
    bool accel;
    bool second_accel;
  };
  // Lookup, attributes, enabling and a sample's 100 ms: all within the wait, or nothing.
  for (const Case& c : {Case{200, true, true}, Case{250, false, true}, Case{320, false, false}}) {
    SCOPED_TRACE(c.answer_ms);
    phone.hub_service.set_delay(std::chrono::milliseconds(c.answer_ms));
    expect_exchange(
        phone, {"AT+GSENSOR", c.accel ? kCommands[0].healthy : kCommands[0].silent, {}, {800}});
    expect_exchange(phone, {"AT+DUAL_GSENSOR",
                            c.second_accel ? kCommands[7].healthy : kCommands[7].silent,
                            {},
                            {1000}});
  }
}

TEST(Sensors, OutliveAHubThatIsOutOfItsMind) {
  Handset phone;
  phone.start();
  const size_t descriptors = phone.open_descriptors();
  phone.sensors.set_extra_events({130, 4711, 128, 768, 769});
  expect_exchange(phone,
                  {"AT+GSENSOR",
                   kCommands[0].healthy,
                   {},
                   {800},
                   {"decode_sensor_event: ERROR EVENT", "decode_sensor_event: UNKNOWN EVENT 4711",
                    "decode_proximity_event: ERROR "}});
  phone.hub_service.set_greeting("not a message");
  expect_exchange(phone, {"AT+GYRO", kCommands[1].healthy, {}, {800}, {"ind_msg_cb: ERROR "}});
  phone.hub_service.set_greeting("");
  phone.sensors.set_state(State::kGarbage);
  phone.sensors.set_sample_period(std::chrono::milliseconds(5));
  for (int round = 0; round < 5; ++round) {
    for (const SensorCommand& c : kCommands) {
      const std::vector<std::string> replies = phone.command(c.command + "\r\n");
      EXPECT_TRUE(replies.size() == 2 || replies == std::vector<std::string>{"ERROR\n"});
    }
  }
  // Samples come in at all times, also while a run ends.
  phone.sensors.set_state(State::kHealthy);
  phone.sensors.set_sample_period(std::chrono::milliseconds(1));
  for (int round = 0; round < 3; ++round) {
    expect_exchange(phone, {"AT+GSENSOR", kCommands[0].healthy, {}, {800}});
    expect_exchange(phone, {"AT+SAR", kCommands[6].healthy, {}, {800}});
  }
  EXPECT_EQ(phone.open_descriptors(), descriptors);
}
