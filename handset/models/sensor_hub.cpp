// The simulated sensor hub; see sensor_hub.h.

#include "handset/models/sensor_hub.h"

#include <errno.h>
#include <poll.h>
#include <sensor_hub.pb.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace handset {

using std::chrono::nanoseconds;
using std::chrono::steady_clock;

static constexpr uint64_t kLookupSuid = 0xABABABABABABABAB;  // both halves
static constexpr uint64_t kSuidHigh = 0x5E45084855B00000;
static constexpr uint64_t kSuidLow = 0x1100;  // of the first sensor

static constexpr uint16_t kRequestMessage = 0x20;
static constexpr uint16_t kReportMessage = 0x21;
enum PacketKind : uint8_t { kRequest = 0, kResponse = 2, kIndication = 4, kHandled = 0xff };

// ---- packets and messages

static std::string number(uint64_t value, size_t size) {
  std::string bytes;
  for (size_t i = 0; i < size; ++i) {
    bytes.push_back(static_cast<char>(value >> (8 * i)));
  }
  return bytes;
}

static std::string field(uint8_t type, const std::string& value) {
  return number(type, 1) + number(value.size(), 2) + value;
}

static std::string packet(uint8_t kind, uint16_t txn, uint16_t msg_id, const std::string& body) {
  return number(kind, 1) + number(txn, 2) + number(msg_id, 2) + number(body.size(), 2) + body;
}

static std::string event_message(uint64_t low, uint64_t high,
                                 const std::vector<std::pair<uint32_t, std::string>>& events) {
  sns_client_event_msg message;
  message.mutable_suid()->set_low(low);
  message.mutable_suid()->set_high(high);
  for (const auto& [msg_id, payload] : events) {
    auto* event = message.add_events();
    event->set_msg_id(msg_id);
    event->set_timestamp(static_cast<uint64_t>(steady_clock::now().time_since_epoch().count()));
    event->set_payload(payload);
  }
  return message.SerializeAsString();
}

// What a sensor tells of itself: values of every kind, and ranges as lists in a list.
static std::string attributes(const SensorHub::Sensor& sensor) {
  sns_std_attr_event event;
  const auto add = [&event](int id) {
    auto* attribute = event.add_attributes();
    attribute->set_attr_id(id);
    return attribute->mutable_value();
  };
  add(0)->add_values()->set_text(sensor.name);
  add(1)->add_values()->set_text("handset");
  add(2)->add_values()->set_text(sensor.data_type);
  add(3)->add_values()->set_boolean(true);
  auto* rates = add(6);
  for (const float rate : {1.0F, 10.0F, 100.0F}) {
    rates->add_values()->set_real(rate);
  }
  auto* ranges = add(8);
  for (const float range : {19.6F, 78.4F}) {
    auto* limits = ranges->add_values()->mutable_nested();
    limits->add_values()->set_real(-range);
    limits->add_values()->set_real(range);
  }
  add(13)->add_values()->set_integer(static_cast<int64_t>(sensor.values.size()));
  add(17)->add_values();  // a value of no kind
  if (sensor.hardware_id.has_value()) {
    add(19)->add_values()->set_integer(*sensor.hardware_id);
  }
  return event.SerializeAsString();
}

static std::string sample(const SensorHub::Sensor& sensor) {
  const auto value = [&sensor](size_t i) {
    return i < sensor.values.size() ? static_cast<uint32_t>(sensor.values[i]) : 0U;
  };
  if (sensor.event == 769) {
    sns_proximity_event event;
    event.set_state(1);
    event.set_raw_adc(value(0));
    event.set_status(value(1));
    return event.SerializeAsString();
  }
  if (sensor.event == 770) {
    sns_hall_event event;
    event.set_state(value(0));
    event.set_accuracy(value(1));
    return event.SerializeAsString();
  }
  sns_std_sensor_event event;
  for (const float one : sensor.values) {
    event.add_data(one);
  }
  event.set_status(3);
  return event.SerializeAsString();
}

// ---- set-up

static std::vector<SensorHub::Sensor> read_sensors(const std::filesystem::path& file) {
  std::vector<SensorHub::Sensor> sensors;
  std::ifstream stream(file);
  for (std::string line; std::getline(stream, line);) {
    std::istringstream words(line);
    SensorHub::Sensor sensor;
    std::string hardware_id;
    std::string event;
    if (line.empty() || line[0] == '#' ||
        !(words >> sensor.name >> sensor.data_type >> hardware_id >> event)) {
      continue;
    }
    sensor.hardware_id.reset();
    if (hardware_id != "-") {
      sensor.hardware_id = std::stoll(hardware_id);
    }
    sensor.event = event == "-" ? 0 : static_cast<uint32_t>(std::stoul(event));
    for (float value; words >> value;) {
      sensor.values.push_back(value);
    }
    sensors.push_back(sensor);
  }
  return sensors;
}

void SensorHub::start(const std::filesystem::path& sensors, const std::filesystem::path& socket) {
  sensors_ = read_sensors(sensors);
  socket_path_ = socket;
  wake_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wake_ < 0) {
    throw std::runtime_error(std::string("cannot make an event: ") + strerror(errno));
  }
  open_socket();
  thread_ = std::thread([this] { loop(); });
}

SensorHub::~SensorHub() {
  if (thread_.joinable()) {
    {
      const std::lock_guard lock(mutex_);
      ending_ = true;
    }
    wake();
    thread_.join();
  }
  for (const auto& [id, client] : clients_) {
    close(client.fd);
  }
  if (listener_ >= 0) {
    close(listener_);
  }
  if (wake_ >= 0) {
    close(wake_);
  }
}

void SensorHub::open_socket() {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  const std::string path = socket_path_.string();
  if (path.size() >= sizeof(address.sun_path)) {
    throw std::runtime_error("too long for a socket's path: " + path);
  }
  path.copy(address.sun_path, path.size());
  close_socket();
  listener_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (listener_ < 0 ||
      bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
      listen(listener_, 8) != 0) {
    throw std::runtime_error("cannot listen on " + path + ": " + strerror(errno));
  }
}

void SensorHub::close_socket() {
  if (listener_ >= 0) {
    close(listener_);
    listener_ = -1;
  }
  std::error_code ignored;
  std::filesystem::remove(socket_path_, ignored);
}

std::vector<SensorHub::Sensor> SensorHub::sensors() const {
  const std::lock_guard lock(mutex_);
  return sensors_;
}

SensorHub::Sensor* SensorHub::find(const std::string& name) {
  const auto found = std::find_if(sensors_.begin(), sensors_.end(),
                                  [&](const Sensor& sensor) { return sensor.name == name; });
  return found == sensors_.end() ? nullptr : &*found;
}

void SensorHub::set_sensor(const Sensor& sensor) {
  const std::lock_guard lock(mutex_);
  if (Sensor* known = find(sensor.name); known != nullptr) {
    *known = sensor;
  } else {
    sensors_.push_back(sensor);
  }
}

bool SensorHub::set_values(const std::string& name, const std::vector<float>& values) {
  const std::lock_guard lock(mutex_);
  Sensor* sensor = find(name);
  if (sensor != nullptr) {
    sensor->values = values;
  }
  return sensor != nullptr;
}

void SensorHub::remove_sensor(const std::string& name) {
  const std::lock_guard lock(mutex_);
  std::erase_if(sensors_, [&](const Sensor& sensor) { return sensor.name == name; });
}

void SensorHub::set_state(State state) {
  {
    const std::lock_guard lock(mutex_);
    state_ = state;
    if (state == State::kAbsent) {
      close_socket();
    } else {
      open_socket();
    }
    if (state == State::kRefusing) {
      close(listener_);  // its name stays
      listener_ = -1;
    }
  }
  wake();
}

void SensorHub::set_delay(std::chrono::milliseconds answer) {
  const std::lock_guard lock(mutex_);
  delay_ = answer;
}

void SensorHub::set_sample_period(std::chrono::microseconds period) {
  const std::lock_guard lock(mutex_);
  sample_period_ = period;
}

void SensorHub::set_extra_events(const std::vector<uint32_t>& ids) {
  const std::lock_guard lock(mutex_);
  extra_events_ = ids;
}

void SensorHub::set_greeting(const std::string& payload) {
  const std::lock_guard lock(mutex_);
  greeting_ = payload;
}

std::vector<SensorHub::Request> SensorHub::take_requests() {
  const std::lock_guard lock(mutex_);
  return std::exchange(requests_, {});
}

// ---- the hub's time

SensorHub::Time SensorHub::now() const {
  return steady_clock::now() + skipped_;
}

void SensorHub::wake() const {
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = write(wake_, &one, sizeof(one));
}

// True when neither the hub nor a client has anything left to do by now.
bool SensorHub::settled() const {
  std::vector<pollfd> unread = {{listener_, POLLIN, 0}};
  for (const auto& [id, client] : clients_) {
    if (client.busy) {
      return false;
    }
    unread.push_back({client.fd, POLLIN, 0});
  }
  return (queue_.empty() || queue_.begin()->first > now()) &&
         poll(unread.data(), unread.size(), 0) == 0;
}

std::function<bool()> SensorHub::skip(nanoseconds time) {
  constexpr auto kPatience =
      std::chrono::seconds(10);  // a daemon that hangs is waited for no longer
  const std::lock_guard lock(mutex_);
  return [this, target = now() + time, give_up = steady_clock::now() + kPatience] {
    return skip_towards(target, give_up);
  };
}

bool SensorHub::skip_towards(Time target, Time give_up) {
  const std::lock_guard lock(mutex_);
  if (!settled()) {
    return steady_clock::now() > give_up;
  }
  if (!queue_.empty() && queue_.begin()->first <= target) {
    skipped_ += std::max(nanoseconds(0), queue_.begin()->first - now());
    wake();
    return false;
  }
  skipped_ += std::max(nanoseconds(0), target - now());
  return true;
}

// ---- the hub's thread

int SensorHub::next_timeout() const {
  for (const auto& [due, packet] : queue_) {
    const auto client = clients_.find(packet.client);
    if (client != clients_.end() && !client->second.busy) {
      const std::chrono::duration<double, std::milli> left = due - now();
      return std::max(0, static_cast<int>(std::ceil(left.count())));
    }
  }
  return -1;
}

void SensorHub::loop() {
  std::unique_lock lock(mutex_);
  while (!ending_) {
    std::vector<pollfd> polled = {{wake_, POLLIN, 0}, {listener_, POLLIN, 0}};
    std::vector<int> ids;
    for (const auto& [id, client] : clients_) {
      ids.push_back(id);
      polled.push_back({client.fd, POLLIN, 0});
    }
    const int timeout = next_timeout();
    lock.unlock();
    poll(polled.data(), polled.size(), timeout);
    lock.lock();
    uint64_t count = 0;
    [[maybe_unused]] const ssize_t wakes = read(wake_, &count, sizeof(count));
    if (listener_ >= 0) {
      accept_client();
    }
    for (size_t i = 0; i < ids.size(); ++i) {
      if (polled[i + 2].revents != 0) {
        receive(ids[i]);
      }
    }
    send_due();
  }
}

void SensorHub::accept_client() {
  const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (fd >= 0) {
    clients_[++last_client_] = {.fd = fd};
    if (!greeting_.empty()) {
      queue_indication(last_client_, greeting_);
    }
  }
}

void SensorHub::drop(int id) {
  close(clients_[id].fd);
  clients_.erase(id);
  std::erase_if(queue_, [id](const auto& queued) { return queued.second.client == id; });
}

void SensorHub::receive(int id) {
  char bytes[4096];
  const ssize_t size = recv(clients_[id].fd, bytes, sizeof(bytes), 0);
  if (size < 1) {
    if (size == 0 || errno != EAGAIN) {
      drop(id);
    }
    return;
  }
  const auto at = [&bytes](size_t i) { return static_cast<uint8_t>(bytes[i]); };
  constexpr size_t kHead = 7;
  if (at(0) == kHandled) {
    clients_[id].busy = false;
  } else if (at(0) == kRequest && static_cast<size_t>(size) > kHead) {
    answer(id, static_cast<uint16_t>(at(1) | at(2) << 8), static_cast<uint16_t>(at(3) | at(4) << 8),
           std::string(bytes + kHead, static_cast<size_t>(size) - kHead));
  }
}

// Sends each client the first packet that is due. The next goes out when that has been handled, so
// that no queue fills up on either side.
void SensorHub::send_due() {
  for (auto next = queue_.begin(); next != queue_.end() && next->first <= now();) {
    Client& client = clients_[next->second.client];
    if (client.busy) {
      ++next;
      continue;
    }
    Packet due = next->second;
    const Time time = next->first;
    next = queue_.erase(next);
    std::string bytes = due.bytes;
    if (bytes.empty()) {
      const Sensor* sensor = find(due.sensor);
      if (sensor == nullptr) {
        continue;
      }
      const std::string payload =
          spoilt(event_message(suid_low(*sensor), kSuidHigh, {{sensor->event, sample(*sensor)}}));
      bytes = packet(kIndication, 0, kReportMessage,
                     field(0x01, number(1, 8)) + field(0x02, number(payload.size(), 2) + payload));
      queue_.insert({time + due.period, due});
    }
    client.busy = send(client.fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) > 0;
  }
}

uint64_t SensorHub::suid_low(const Sensor& sensor) const {
  return kSuidLow + static_cast<uint64_t>(&sensor - sensors_.data());
}

// As a hub in its right mind would send it, or not.
std::string SensorHub::spoilt(std::string payload) {
  if (state_ != State::kGarbage || payload.empty()) {
    return payload;
  }
  const size_t place = random_() % payload.size();
  switch (random_() % 4) {
    case 0:
      return payload.substr(0, place);
    case 1:
      payload[place] = static_cast<char>(random_());
      return payload;
    case 2:
      return payload + std::string(1200 - std::min<size_t>(payload.size(), 1200), '\xff');
    default:
      std::generate(payload.begin(), payload.end(),
                    [this] { return static_cast<char>(random_()); });
      return payload;
  }
}

void SensorHub::queue_indication(int id, const std::string& payload) {
  const std::string sent = spoilt(payload);
  queue_.insert(
      {now() + delay_,
       {.client = id,
        .bytes = packet(kIndication, 0, kReportMessage,
                        field(0x01, number(1, 8)) + field(0x02, number(sent.size(), 2) + sent))}});
}

// ---- answers

void SensorHub::answer(int id, uint16_t txn, uint16_t msg_id, const std::string& body) {
  constexpr size_t kPayload = 5;  // behind the field's head and the payload's length
  sns_client_request_msg message;
  if (msg_id != kRequestMessage || body.size() < kPayload ||
      !message.ParseFromString(body.substr(kPayload))) {
    return;
  }
  Request request = {.msg_id = message.msg_id(),
                     .same_encoded = message.SerializeAsString() == body.substr(kPayload)};
  const Sensor* sensor = nullptr;
  for (const Sensor& one : sensors_) {
    if (message.suid().high() == kSuidHigh && message.suid().low() == suid_low(one)) {
      sensor = &one;
      request.sensor = one.name;
    }
  }
  if (state_ != State::kSilent) {
    queue_.insert({now() + delay_,
                   {.client = id,
                    .bytes = packet(kResponse, txn, msg_id,
                                    field(0x02, number(0, 4)) + field(0x10, number(1, 8)) +
                                        field(0x11, number(0, 4)))}});
  }
  const std::string& payload = message.request().payload();
  if (message.suid().low() == kLookupSuid && message.suid().high() == kLookupSuid) {
    answer_lookup(id, payload, &request);
  } else if (sensor != nullptr && message.msg_id() == 1) {
    sns_attr_req attributes_request;
    request.same_encoded &= attributes_request.ParseFromString(payload) &&
                            attributes_request.SerializeAsString() == payload;
    if (state_ != State::kSilent) {
      queue_indication(id,
                       event_message(suid_low(*sensor), kSuidHigh, {{128, attributes(*sensor)}}));
    }
  } else if (sensor != nullptr && message.msg_id() == 513) {
    sns_sample_rate_config config;
    request.same_encoded &=
        config.ParseFromString(payload) && config.SerializeAsString() == payload;
    request.sample_rate = config.sample_rate();
    if (state_ != State::kSilent && config.sample_rate() > 0) {
      enable(id, *sensor, config.sample_rate());
    }
  }
  requests_.push_back(request);
}

std::string SensorHub::describe(const std::string& packet) const {
  constexpr size_t kBody = 7 + 5;  // behind the packet's head, the field's head and its length
  sns_client_request_msg message;
  if (packet.empty() || packet[0] != kRequest) {
    return "";
  }
  if (packet.size() < kBody || !message.ParseFromString(packet.substr(kBody))) {
    return "nonsense";
  }
  const std::string& payload = message.request().payload();
  if (message.suid().low() == kLookupSuid && message.suid().high() == kLookupSuid) {
    sns_suid_req lookup;
    lookup.ParseFromString(payload);
    return "lookup " + lookup.data_type() + (lookup.default_only() ? " default" : " all");
  }
  const std::lock_guard lock(mutex_);
  std::string name = "unknown";
  for (const Sensor& sensor : sensors_) {
    if (message.suid().high() == kSuidHigh && message.suid().low() == suid_low(sensor)) {
      name = sensor.name;
    }
  }
  if (message.msg_id() == 1) {
    return "attributes " + name;
  }
  std::ostringstream text;
  sns_sample_rate_config config;
  config.ParseFromString(payload);
  text << "message " << message.msg_id() << " " << name << " " << config.sample_rate() << " Hz";
  return text.str();
}

void SensorHub::answer_lookup(int id, const std::string& payload, Request* request) {
  sns_suid_req lookup;
  request->same_encoded &= lookup.ParseFromString(payload) && lookup.SerializeAsString() == payload;
  request->data_type = lookup.data_type();
  request->default_only = lookup.default_only();
  sns_suid_event event;
  event.set_data_type(lookup.data_type());
  for (const Sensor& sensor : sensors_) {
    if (sensor.data_type == lookup.data_type() &&
        !(lookup.default_only() && event.suids_size() > 0)) {
      auto* suid = event.add_suids();
      suid->set_low(suid_low(sensor));
      suid->set_high(kSuidHigh);
    }
  }
  if (state_ != State::kSilent) {
    queue_indication(id,
                     event_message(kLookupSuid, kLookupSuid, {{768, event.SerializeAsString()}}));
  }
}

// Echoes the configuration, tells what became of it, and begins to stream.
void SensorHub::enable(int id, const Sensor& sensor, float rate) {
  sns_sample_rate_config echo;
  echo.set_sample_rate(rate);
  sns_physical_config_event config;
  config.set_sample_rate(rate);
  config.set_water_mark(1);
  config.add_range(-78.4F);
  config.add_range(78.4F);
  config.set_operation_mode("NORMAL");
  config.set_stream_is_synchronous(false);
  queue_indication(
      id, event_message(suid_low(sensor), kSuidHigh,
                        {{513, echo.SerializeAsString()}, {768, config.SerializeAsString()}}));
  for (const uint32_t extra : extra_events_) {
    queue_indication(id, event_message(suid_low(sensor), kSuidHigh, {{extra, ""}}));
  }
  if (sensor.event != 0) {
    const nanoseconds period =
        sample_period_.count() > 0
            ? nanoseconds(sample_period_)
            : std::chrono::duration_cast<nanoseconds>(std::chrono::duration<float>(1 / rate));
    queue_.insert(
        {now() + delay_ + period, {.client = id, .sensor = sensor.name, .period = period}});
  }
}

}  // namespace handset
