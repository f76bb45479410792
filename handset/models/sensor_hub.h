// The sensor hub behind the phone's QMI sensor client service: takes requests from a socket in
// /dev/socket, looks sensors up, tells their attributes and streams their samples. It speaks the
// hub's messages through a protobuf implementation that the daemon does not use. Callable from any
// thread; the hub has one of its own.

#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace handset {

class SensorHub {
 public:
  struct Sensor {
    std::string name;
    std::string data_type;
    std::optional<int64_t> hardware_id = 0;  // attribute 19, which it may lack
    uint32_t event = 1025;                   // what carries its samples; 0: it gives none
    std::vector<float> values = {};
  };

  // A request as the hub understood it.
  struct Request {
    std::string sensor = {};  // its name; empty for the lookup
    uint32_t msg_id = 0;
    std::string data_type = {};  // of a lookup
    bool default_only = true;
    float sample_rate = 0;      // of an enabling
    bool same_encoded = false;  // this side's encoding of the same message has the same bytes
    bool operator==(const Request&) const = default;
  };

  enum class State {
    kHealthy,
    kSilent,    // takes requests and answers none
    kGarbage,   // sends answers with bytes cut off, changed or added
    kRefusing,  // the service is announced and takes no clients
    kAbsent,
  };

  ~SensorHub();

  // Reads the sensors from a profile's file and opens the service's socket. Throws
  // std::runtime_error when it cannot.
  void start(const std::filesystem::path& sensors, const std::filesystem::path& socket);

  std::vector<Sensor> sensors() const;
  // Adds a sensor, or replaces the one of that name.
  void set_sensor(const Sensor& sensor);
  // False when there is no such sensor.
  bool set_values(const std::string& name, const std::vector<float>& values);
  void remove_sensor(const std::string& name);

  void set_state(State state);
  // How long the hub takes over each answer, and between samples instead of what is asked for (0:
  // as asked for).
  void set_delay(std::chrono::milliseconds answer);
  void set_sample_period(std::chrono::microseconds period);
  // A sensor that is enabled also sends an event of each of these ids, without a payload.
  void set_extra_events(const std::vector<uint32_t>& ids);
  // Each client that connects is first sent this as an indication's payload.
  void set_greeting(const std::string& payload);

  std::vector<Request> take_requests();

  // What a packet that a client sends asks for: "lookup accel default", "enable accel 10 Hz". Empty
  // for one that asks for nothing.
  std::string describe(const std::string& packet) const;

  // The hub's time goes ahead by this much: what falls due meanwhile is sent and handled by the
  // clients before the returned function (to be asked again and again) says true.
  std::function<bool()> skip(std::chrono::nanoseconds time);

 private:
  using Time = std::chrono::steady_clock::time_point;

  struct Client {
    int fd = -1;
    bool busy = false;  // has been sent a packet that it has not handled yet
  };
  struct Packet {
    int client = 0;
    std::string bytes = {};  // empty: the next sample of the sensor
    std::string sensor = {};
    std::chrono::nanoseconds period = {};
  };

  void loop();
  void open_socket();
  void close_socket();
  void wake() const;
  Time now() const;
  int next_timeout() const;
  bool settled() const;
  bool skip_towards(Time target, Time give_up);

  void accept_client();
  void receive(int id);
  void drop(int id);
  void send_due();
  void answer(int id, uint16_t txn, uint16_t msg_id, const std::string& body);
  void answer_lookup(int id, const std::string& payload, Request* request);
  void enable(int id, const Sensor& sensor, float rate);
  void queue_indication(int id, const std::string& payload);
  std::string spoilt(std::string payload);
  Sensor* find(const std::string& name);
  uint64_t suid_low(const Sensor& sensor) const;

  mutable std::mutex mutex_;
  std::filesystem::path socket_path_;
  std::vector<Sensor> sensors_;
  State state_ = State::kHealthy;
  std::chrono::milliseconds delay_{0};
  std::chrono::microseconds sample_period_{0};
  std::vector<uint32_t> extra_events_;
  std::string greeting_;
  std::vector<Request> requests_;
  std::mt19937 random_;
  std::chrono::nanoseconds skipped_{0};
  std::multimap<Time, Packet> queue_;
  std::map<int, Client> clients_;
  int last_client_ = 0;
  int listener_ = -1;
  int wake_ = -1;
  bool ending_ = false;
  std::thread thread_;
};

}  // namespace handset
