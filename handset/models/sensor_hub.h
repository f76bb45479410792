// The sensor hub: looks sensors up, tells their attributes and gives their samples. Messages go in
// and out as the bytes that travel in a QMI payload; they are read and written by a protobuf
// implementation that the daemon does not use. Callable from any thread.

#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace handset {

class SensorHub {
 public:
  struct Sensor {
    std::string name;
    std::string data_type;
    std::optional<int64_t> hardware_id = 0;  // attribute 19, which it may lack
    uint32_t event = 1025;                   // message id of its samples; 0: it gives none
    std::vector<float> values = {};
    // A lookup does not find it at once, but this much later; who asks for updates is then told.
    std::chrono::milliseconds late{0};
  };

  // What the hub sends on its own after a request: samples of a sensor.
  struct Stream {
    std::string sensor;
    std::chrono::nanoseconds period;
  };
  // An event that comes by itself, that much behind the others.
  struct Later {
    std::string event;
    std::chrono::milliseconds delay;
  };
  struct Reply {
    std::vector<std::string> events = {};
    std::optional<Stream> stream = {};  // begins behind the events
    std::optional<Later> later = {};
  };

  enum class State {
    kHealthy,
    kSilent,   // takes requests and answers none
    kGarbage,  // sends events with bytes cut off, changed or added
  };

  // Takes the sensors of a profile's file instead of those it has. Throws std::runtime_error with
  // the line that describes none, or when the file cannot be read.
  void read_sensors(const std::filesystem::path& file);

  std::vector<Sensor> sensors() const;
  // Adds a sensor, or replaces the one of that name.
  void set_sensor(const Sensor& sensor);
  // False when there is no such sensor.
  bool set_values(const std::string& name, const std::vector<float>& values);
  bool set_late(const std::string& name, std::chrono::milliseconds late);
  void remove_sensor(const std::string& name);

  void set_state(State state);
  State state() const;
  // The time between samples, 0 for what is asked for.
  void set_sample_period(std::chrono::microseconds period);
  // A sensor that is enabled also sends an event of each of these ids, without a payload.
  void set_extra_events(const std::vector<uint32_t>& ids);

  // What a client's request message asks for: "lookup accel default", "attributes accel", "message
  // 513 accel 10 Hz".
  std::string describe(const std::string& message) const;

  // Answers a client's request message. Nothing when its bytes are no such message, or the hub is
  // silent.
  std::optional<Reply> answer(const std::string& message);
  // The event message with what the sensor measures now, or nothing when there is no such sensor.
  std::optional<std::string> sample(const std::string& sensor);

 private:
  Reply lookup(const std::string& payload);
  std::string found(const std::string& data_type, bool default_only,
                    std::chrono::milliseconds after) const;
  Reply tell_attributes(const Sensor& sensor);
  Reply enable(const Sensor& sensor, const std::string& payload);

  std::string spoilt(std::string message);
  Sensor* find(const std::string& name);
  const Sensor* find(uint64_t suid_low, uint64_t suid_high) const;
  uint64_t suid_low(const Sensor& sensor) const;

  mutable std::mutex mutex_;
  std::vector<Sensor> sensors_;
  State state_ = State::kHealthy;
  std::chrono::microseconds sample_period_{0};
  std::vector<uint32_t> extra_events_;
  std::mt19937 random_;
};

}  // namespace handset
