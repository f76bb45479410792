// The sensor commands against a hub that is out of its mind or in a great hurry.

#include "tests/system/station.h"

TEST(Sensors, OutliveGarbageAndSamplesAtAllTimes) {
  Handset phone;
  phone.start();
  const size_t descriptors = phone.open_descriptors();
  phone.sensors.set_state(SensorHub::State::kGarbage);
  phone.sensors.set_sample_period(std::chrono::milliseconds(5));
  for (int round = 0; round < 20; ++round) {
    for (const std::string command : {"AT+GSENSOR", "AT+DUAL_GYRO", "AT+PROX", "AT+HALL"}) {
      const std::vector<std::string> replies = phone.command(command + "\r\n");
      EXPECT_TRUE(replies.size() == 2 || replies == std::vector<std::string>{"ERROR\n"});
    }
  }
  // Samples come also while a run ends.
  phone.sensors.set_state(SensorHub::State::kHealthy);
  phone.sensors.set_sample_period(std::chrono::milliseconds(1));
  for (int round = 0; round < 3; ++round) {
    expect_exchange(phone, "AT+PRESS", {"pressure(hPa) : 1013.252\n", "OK\r\n"});
  }
  EXPECT_EQ(phone.open_descriptors(), descriptors);
}
